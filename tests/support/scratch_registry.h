// A registry of a test's own: explicit accesses of this process to HKLM, HKCR and HKCU go to scratch keys until the
// object goes. COM's own look-ups are not redirected.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

class ScratchRegistry {
 public:
  ScratchRegistry() : path_(L"Software\\HoardexTests\\" + std::to_wstring(GetCurrentProcessId())) {
    RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
    for (Hive& hive : hives_)
      if (RegCreateKeyExW(HKEY_CURRENT_USER, (path_ + hive.name).c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          &hive.scratch, nullptr) != ERROR_SUCCESS)
        throw std::runtime_error("no scratch registry");
    for (Hive& hive : hives_) RegOverridePredefKey(hive.real, hive.scratch);
  }
  ~ScratchRegistry() {
    for (Hive& hive : hives_) RegOverridePredefKey(hive.real, nullptr);
    for (Hive& hive : hives_) RegCloseKey(hive.scratch);
    RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
  }
  ScratchRegistry(const ScratchRegistry&) = delete;
  ScratchRegistry& operator=(const ScratchRegistry&) = delete;

  static void SetString(HKEY hive, const wchar_t* key, const wchar_t* name, const std::wstring& text) {
    RegSetKeyValueW(hive, key, name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
  }
  static void SetDword(HKEY hive, const wchar_t* key, const wchar_t* name, DWORD value) {
    RegSetKeyValueW(hive, key, name, REG_DWORD, &value, sizeof(value));
  }
  // The string, or "<none>".
  static std::wstring GetString(HKEY hive, const wchar_t* key, const wchar_t* name) {
    wchar_t text[1024];
    DWORD size = sizeof(text);
    return RegGetValueW(hive, key, name, RRF_RT_REG_SZ, nullptr, text, &size) == ERROR_SUCCESS ? text : L"<none>";
  }
  static bool Exists(HKEY hive, const wchar_t* key) {
    HKEY opened;
    if (RegOpenKeyExW(hive, key, 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
    RegCloseKey(opened);
    return true;
  }

 private:
  struct Hive {
    HKEY real;
    const wchar_t* name;
    HKEY scratch;
  };
  std::wstring path_;
  Hive hives_[3] = {{HKEY_LOCAL_MACHINE, L"\\HKLM", nullptr},
                    {HKEY_CLASSES_ROOT, L"\\HKCR", nullptr},
                    {HKEY_CURRENT_USER, L"\\HKCU", nullptr}};
};
