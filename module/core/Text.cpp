#include "module/core/Text.h"

#include <cstdio>
#include <cwctype>

#include "module/core/HoardexPH.h"

namespace text {

std::wstring Widen(const char* narrow) {
  if (!narrow || !*narrow) return {};
  const int length = MultiByteToWideChar(CP_ACP, 0, narrow, -1, nullptr, 0);
  if (length <= 1) return {};
  std::wstring wide(static_cast<size_t>(length), L'\0');
  MultiByteToWideChar(CP_ACP, 0, narrow, -1, wide.data(), length);
  wide.pop_back();
  return wide;
}

std::string Narrow(std::wstring_view wide) {
  if (wide.empty()) return {};
  const int count = static_cast<int>(wide.size());
  const int length = WideCharToMultiByte(CP_ACP, 0, wide.data(), count, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<size_t>(length), '\0');
  WideCharToMultiByte(CP_ACP, 0, wide.data(), count, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

bool EqualOrdinal(std::wstring_view a, std::wstring_view b) {
  if (a.size() != b.size()) return false;
  if (a == b) return true;
  // CompareStringOrdinal is newer than the oldest systems. This mapping changes no length.
  const int length = static_cast<int>(a.size());
  std::wstring upper_a(a.size(), L'\0'), upper_b(b.size(), L'\0');
  return LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, a.data(), length, upper_a.data(), length) == length &&
         LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, b.data(), length, upper_b.data(), length) == length &&
         upper_a == upper_b;
}

std::wstring Lower(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(towlower(c));
  return text;
}

std::string UniqueName() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  LARGE_INTEGER counter;
  QueryPerformanceCounter(&counter);
  char name[80];
  snprintf(name, sizeof(name), ZK_UNIQUE_NAME_FORMAT, GetCurrentThreadId(), now.dwHighDateTime, now.dwLowDateTime,
           GetTickCount(), static_cast<unsigned long long>(counter.QuadPart));
  return name;
}

std::wstring Resource(UINT id) {
  wchar_t buffer[512];
  const int length = LoadStringW(module::Instance(), id, buffer, static_cast<int>(std::size(buffer)));
  return std::wstring(buffer, static_cast<size_t>(length));
}

}  // namespace text
