// What is to be crawled: the search roots and rules that are registered with the system's index.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace hoardex {

// A pattern covers the URL that it matches and all that lies below. "*" stands for anything within one segment; "X\*"
// covers what lies below X, but not X. Upper and lower case are the same for ASCII, and so are "/" and "\".
struct ScopeRule {
  std::string pattern;
  bool included = false, is_default = false;
};

class CrawlScope {
 public:
  CrawlScope() = default;
  CrawlScope(std::vector<std::string> roots, const std::vector<ScopeRule>& rules);

  const std::vector<std::string>& roots() const { return roots_; }

  // The longest rule that covers the URL decides; of rules of the same length a user's beats a default one, and then
  // one that excludes. What no rule covers is not included.
  bool Includes(std::string_view url) const;
  // Whether a container is worth listing: it is included, or something below it may be.
  bool LeadsTo(std::string_view container) const;
  // The deepest root at or above the URL, or null.
  const std::string* RootOf(std::string_view url) const;

  // Differs between scopes that differ.
  std::string Fingerprint() const;

 private:
  using Segments = std::vector<std::string>;
  struct Rule {
    Segments segments;
    size_t length = 0;
    bool included = false, is_default = false;
  };
  static Segments Split(std::string_view url);
  std::vector<std::string> roots_;
  std::vector<Rule> rules_;  // the one that decides comes first
};

// One form for a container's URL: with a slash at its end. Others are as they are.
std::string ContainerUrl(std::string_view url);

}  // namespace hoardex
