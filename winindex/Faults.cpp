#include "winindex/Faults.h"

#include <algorithm>
#include <string>
#include <vector>

#include "winindex/Text.h"

namespace winindex {
namespace {

// What the plan has for this method, in order.
std::vector<std::wstring> EntriesOf(std::string_view method) {
  constexpr wchar_t kVariable[] = L"HOARDEX_INDEX_FAULTS";
  const DWORD size = GetEnvironmentVariableW(kVariable, nullptr, 0);
  if (size <= 1) return {};
  std::wstring plan(size, L'\0');
  plan.resize(GetEnvironmentVariableW(kVariable, plan.data(), size));
  const std::wstring wanted = FromUtf8(method) + L"=";
  std::vector<std::wstring> entries;
  for (size_t at = 0; at < plan.size();) {
    const size_t end = std::min(plan.find(L';', at), plan.size());
    if (plan.compare(at, wanted.size(), wanted) == 0)
      entries.push_back(plan.substr(at + wanted.size(), end - at - wanted.size()));
    at = end + 1;
  }
  return entries;
}

}  // namespace

std::optional<HRESULT> PlannedResult(std::string_view method) {
  for (const std::wstring& code : EntriesOf(method)) {
    wchar_t* rest = nullptr;
    const unsigned long value = wcstoul(code.c_str(), &rest, 0);
    if (rest != code.c_str() && !*rest) return static_cast<HRESULT>(value);
  }
  return std::nullopt;
}

bool Planned(std::string_view method, std::string_view word) {
  const std::vector<std::wstring> entries = EntriesOf(method);
  return std::find(entries.begin(), entries.end(), FromUtf8(word)) != entries.end();
}

}  // namespace winindex
