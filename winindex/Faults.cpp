#include "winindex/Faults.h"

#include <string>

#include "winindex/Text.h"

namespace winindex {

std::optional<HRESULT> PlannedResult(std::string_view method) {
  constexpr wchar_t kVariable[] = L"HOARDEX_INDEX_FAULTS";
  const DWORD size = GetEnvironmentVariableW(kVariable, nullptr, 0);
  if (size <= 1) return std::nullopt;
  std::wstring plan(size, L'\0');
  plan.resize(GetEnvironmentVariableW(kVariable, plan.data(), size));
  const std::wstring wanted = FromUtf8(method) + L"=";
  for (size_t at = 0; at < plan.size();) {
    const size_t end = std::min(plan.find(L';', at), plan.size());
    if (plan.compare(at, wanted.size(), wanted) == 0) {
      const std::wstring code = plan.substr(at + wanted.size(), end - at - wanted.size());
      wchar_t* rest = nullptr;
      const unsigned long value = wcstoul(code.c_str(), &rest, 0);
      if (rest != code.c_str() && !*rest) return static_cast<HRESULT>(value);
    }
    at = end + 1;
  }
  return std::nullopt;
}

}  // namespace winindex
