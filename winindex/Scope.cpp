#include "winindex/Scope.h"

#include <algorithm>

#include "winindex/StateFiles.h"
#include "winindex/Text.h"

namespace winindex {
namespace {

constexpr wchar_t kFile[] = L"scope.txt";

// The deepest root that is this URL or has it below it, or null. A rule for a root may lack the slash at its end.
const Root* RootOf(const std::vector<Root>& roots, std::wstring_view url) {
  const Root* deepest = nullptr;
  const std::wstring closed = std::wstring(url) + L"/";
  for (const Root& root : roots) {
    if (BeginsWith(closed, root.url) && (!deepest || root.url.size() > deepest->url.size())) deepest = &root;
  }
  return deepest;
}

}  // namespace

// root <tab> notifies|silent <tab> URL
// rule <tab> default|user <tab> include|exclude <tab> follow flags <tab> pattern
Scope Scope::Load() {
  Scope scope;
  const std::string text = StateFile(kFile).Read();
  for (const std::string_view line : CompleteLines(text)) {
    const std::vector<std::wstring> fields = SplitFields(line);
    if (fields.size() == 3 && fields[0] == L"root" && !fields[2].empty())
      scope.AddRoot({fields[2], fields[1] == L"notifies"});
    if (fields.size() == 5 && fields[0] == L"rule" && !fields[4].empty())
      scope.SetRule({fields[4], fields[2] == L"include", fields[1] == L"default",
                     static_cast<DWORD>(wcstoul(fields[3].c_str(), nullptr, 10))});
  }
  return scope;
}

void Scope::Save() const {
  std::string text;
  for (const Root& root : roots_)
    text += JoinFields({L"root", root.provides_notifications ? L"notifies" : L"silent", root.url});
  for (const Rule& rule : rules_)
    text += JoinFields({L"rule", rule.is_default ? L"default" : L"user", rule.included ? L"include" : L"exclude",
                        std::to_wstring(rule.follow_flags), rule.pattern});
  StateFile(kFile).Replace(text);
}

void Scope::AddRoot(const Root& root) {
  const auto same =
      std::find_if(roots_.begin(), roots_.end(), [&](const Root& r) { return SameText(r.url, root.url); });
  if (same == roots_.end()) {
    roots_.push_back(root);
  } else {
    same->provides_notifications = root.provides_notifications;
  }
}

bool Scope::RemoveRoot(std::wstring_view url, bool with_rules) {
  const auto root = std::find_if(roots_.begin(), roots_.end(), [&](const Root& r) { return SameText(r.url, url); });
  if (root == roots_.end()) return false;
  if (with_rules) std::erase_if(rules_, [&](const Rule& rule) { return RootOf(roots_, rule.pattern) == &*root; });
  roots_.erase(root);
  return true;
}

Rule* Scope::Find(const Rule& like) {
  const auto same = std::find_if(rules_.begin(), rules_.end(), [&](const Rule& rule) {
    return rule.is_default == like.is_default && SameText(rule.pattern, like.pattern);
  });
  return same == rules_.end() ? nullptr : &*same;
}

void Scope::SetRule(const Rule& rule) {
  Rule* const earlier = Find(rule);
  if (earlier) {
    *earlier = rule;
  } else {
    rules_.push_back(rule);
  }
}

void Scope::SetHierarchy(const Rule& rule, bool override_children) {
  if (override_children) {
    std::erase_if(rules_, [&](const Rule& other) {
      return other.is_default == rule.is_default && other.pattern.size() > rule.pattern.size() &&
             BeginsWith(other.pattern, rule.pattern);
    });
  }
  Rule fresh = rule;
  if (const Rule* earlier = Find(rule)) fresh.follow_flags = earlier->follow_flags;
  SetRule(fresh);
}

}  // namespace winindex
