// The crawl scope of the index: its search roots and rules, and their file.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace winindex {

struct Root {
  std::wstring url;
  bool provides_notifications = false;
};

struct Rule {
  std::wstring pattern;
  bool included = false, is_default = false;
  DWORD follow_flags = 0;
};

// URLs are compared as a whole, upper and lower case being the same.
class Scope {
 public:
  // What the file holds; lines that are none of its own are left out.
  static Scope Load();
  // Takes the place of what the file held. Needs a StateLock.
  void Save() const;

  const std::vector<Root>& roots() const { return roots_; }
  const std::vector<Rule>& rules() const { return rules_; }

  // A root that is there already is not there twice; it takes the new properties.
  void AddRoot(const Root& root);
  // With its rules, if these are to go: all below the root that no deeper root has. False when there was none.
  bool RemoveRoot(std::wstring_view url, bool with_rules);
  // A default rule and a user's rule may stand beside each other for one pattern; of either sort there is one.
  void SetRule(const Rule& rule);
  // As SetRule, but an earlier rule of the sort keeps its follow flags. `override_children` removes the rules of the
  // sort below the URL.
  void SetHierarchy(const Rule& rule, bool override_children);

 private:
  Rule* Find(const Rule& like);
  std::vector<Root> roots_;
  std::vector<Rule> rules_;
};

using ScopeChange = std::function<void(Scope&)>;

}  // namespace winindex
