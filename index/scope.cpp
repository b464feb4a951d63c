#include "index/scope.h"

#include <algorithm>
#include <tuple>

#include "index/text.h"

namespace hoardex {
namespace {

// "*" stands for any run of characters; the usual walk with one place to come back to.
bool Matches(std::string_view pattern, std::string_view text) {
  size_t p = 0, t = 0, star = std::string_view::npos, resume = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      resume = t;
    } else if (p < pattern.size() && pattern[p] == text[t]) {
      ++p, ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++resume;
    } else {
      return false;
    }
  }
  return pattern.substr(p).find_first_not_of('*') == std::string_view::npos;
}

// How many of the pattern's segments match those of the URL from the start, one by one.
size_t Matching(const std::vector<std::string>& pattern, const std::vector<std::string>& url) {
  size_t count = 0;
  while (count < pattern.size() && count < url.size() && Matches(pattern[count], url[count])) ++count;
  return count;
}

}  // namespace

CrawlScope::Segments CrawlScope::Split(std::string_view url) {
  Segments segments;
  const std::string lower = AsciiLower(url);
  for (size_t at = 0; at <= lower.size();) {
    const size_t end = std::min(lower.find_first_of("/\\", at), lower.size());
    segments.push_back(lower.substr(at, end - at));
    at = end + 1;
  }
  while (!segments.empty() && segments.back().empty()) segments.pop_back();
  return segments;
}

CrawlScope::CrawlScope(std::vector<std::string> roots, const std::vector<ScopeRule>& rules) {
  for (const std::string& root : roots) {
    std::string url = ContainerUrl(root);
    if (std::find(roots_.begin(), roots_.end(), url) == roots_.end()) roots_.push_back(std::move(url));
  }
  for (const ScopeRule& rule : rules) {
    Rule made{Split(rule.pattern), 0, rule.included, rule.is_default};
    for (const std::string& segment : made.segments) made.length += segment.size() + 1;
    if (!made.segments.empty()) rules_.push_back(std::move(made));
  }
  const auto rank = [](const Rule& rule) { return std::tuple(rule.length, !rule.is_default, !rule.included); };
  std::stable_sort(rules_.begin(), rules_.end(), [&](const Rule& a, const Rule& b) { return rank(a) > rank(b); });
}

bool CrawlScope::Includes(std::string_view url) const {
  const Segments segments = Split(url);
  for (const Rule& rule : rules_)
    if (Matching(rule.segments, segments) == rule.segments.size()) return rule.included;
  return false;
}

bool CrawlScope::LeadsTo(std::string_view container) const {
  if (Includes(container)) return true;
  const Segments segments = Split(container);
  return std::any_of(rules_.begin(), rules_.end(), [&](const Rule& rule) {
    return rule.included && rule.segments.size() > segments.size() &&
           Matching(rule.segments, segments) == segments.size();
  });
}

const std::string* CrawlScope::RootOf(std::string_view url) const {
  const std::string lower = AsciiLower(ContainerUrl(url));
  const std::string* deepest = nullptr;
  for (const std::string& root : roots_)
    if (lower.starts_with(AsciiLower(root)) && (!deepest || root.size() > deepest->size())) deepest = &root;
  return deepest;
}

std::string CrawlScope::Fingerprint() const {
  std::string text;
  for (const std::string& root : roots_) text += "root " + root + "\n";
  for (const Rule& rule : rules_) {
    text += rule.included ? "+" : "-";
    text += rule.is_default ? "default" : "user";
    for (const std::string& segment : rule.segments) text += "/" + segment;
    text += "\n";
  }
  return text;
}

std::string ContainerUrl(std::string_view url) {
  std::string made(url);
  if (!made.ends_with('/')) made += '/';
  return made;
}

}  // namespace hoardex
