#include "module/core/UrlGrammar.h"

#include <algorithm>
#include <cwctype>

namespace {

constexpr wchar_t Fold(wchar_t c) {
  return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 32) : c;
}

bool EndsWith(std::wstring_view text, std::wstring_view end) {
  return text.size() >= end.size() && url::EqualIgnoringCase(text.substr(text.size() - end.size()), end);
}

}  // namespace

namespace url {

std::wstring_view Trim(std::wstring_view text) {
  while (!text.empty() && iswspace(text.front())) text.remove_prefix(1);
  while (!text.empty() && iswspace(text.back())) text.remove_suffix(1);
  return text;
}

bool EqualIgnoringCase(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (Fold(a[i]) != Fold(b[i])) return false;
  return true;
}

size_t FindIgnoringCase(std::wstring_view text, std::wstring_view part, size_t from) {
  for (size_t i = from; i + part.size() <= text.size(); ++i)
    if (EqualIgnoringCase(text.substr(i, part.size()), part)) return i;
  return std::wstring_view::npos;
}

std::wstring Root(std::wstring_view sid) {
  return std::wstring(kScheme).append(L"://{").append(sid).append(L"}/").append(kRootMarker);
}

std::wstring Child(std::wstring_view parent, std::wstring_view name) {
  while (!parent.empty() && parent.back() == L'/') parent.remove_suffix(1);
  return std::wstring(parent).append(1, L'/').append(name);
}

std::wstring Normalise(std::wstring_view url) {
  std::wstring result(url);
  const size_t marker = FindIgnoringCase(result, kRootMarker);
  if (marker == std::wstring::npos) return result;
  const size_t begin = marker + std::size(kRootMarker) - 1;
  const size_t end = FindIgnoringCase(result, kVaultSuffix, begin);
  if (end == std::wstring::npos) return result;
  for (size_t i = begin; i < end; ++i)
    if (result[i] == L'/') result[i] = L'\\';
  return result;
}

size_t BehindVault(std::wstring_view url) {
  const size_t colon = url.find(L"://");
  size_t at = colon == std::wstring_view::npos ? 0 : colon + 3;
  for (size_t token = 1; token <= kVaultToken; ++token)
    at = std::min(url.find(L'/', std::min(url.find_first_not_of(L'/', at), url.size())), url.size());
  return at;
}

std::wstring_view SizeGroup(std::wstring_view url) {
  const size_t begin = url.find(L"[[", BehindVault(url));
  if (begin == std::wstring_view::npos) return {};
  const size_t end = url.find(L"]]", begin);
  return end == std::wstring_view::npos ? std::wstring_view() : url.substr(begin, end + 2 - begin);
}

std::wstring WithoutSize(std::wstring_view url) {
  const std::wstring_view group = SizeGroup(url);
  std::wstring result(url);
  if (!group.empty()) result.erase(static_cast<size_t>(group.data() - url.data()), group.size());
  return result;
}

std::wstring MessageOfAttachment(std::wstring_view url) {
  const size_t suffix = FindIgnoringCase(url, kMessageSuffix, BehindVault(url));
  if (suffix == std::wstring_view::npos) return std::wstring(url);
  return std::wstring(url.substr(0, suffix + std::size(kMessageSuffix) - 1));
}

}  // namespace url

int ExtractURLTokens(std::wstring_view url, std::vector<std::wstring>& tokens) {
  tokens.clear();
  const size_t colon = url.find(L"://");
  if (colon == std::wstring_view::npos) {
    tokens.emplace_back();
  } else {
    tokens.emplace_back(url.substr(0, colon));
    url.remove_prefix(colon + 3);
  }
  while (!url.empty()) {
    const size_t slash = url.find(L'/');
    if (slash != 0) tokens.emplace_back(url.substr(0, slash));
    if (slash == std::wstring_view::npos) break;
    url.remove_prefix(slash + 1);
  }
  return static_cast<int>(tokens.size());
}

namespace url {

Kind Classify(std::wstring_view url) {
  std::vector<std::wstring> tokens;
  const int count = ExtractURLTokens(url, tokens);
  if (count < 3 || !EqualIgnoringCase(tokens[0], kScheme) || !EqualIgnoringCase(tokens[2], L"default")) return kUnknown;
  if (count == 3) return kRoot;
  if (!EndsWith(tokens[3], kVaultSuffix)) return kUnknown;
  if (count == 4) return kVaultFile;
  // The last token alone decides: an attachment's name without a dot reads as a folder, one in ".zkm" as a message.
  const std::wstring& last = tokens.back();
  if (EndsWith(last, kMessageSuffix)) return kMessage;
  return last.find(L'.') == std::wstring::npos ? kFolder : kAttachment;
}

}  // namespace url
