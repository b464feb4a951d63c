// Registry keys with an owner.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "provider/mapi.h"
#include "provider/strings.h"

namespace provider {

class RegistryKey {
 public:
  // Empty when the key does not exist or may not be opened.
  static RegistryKey Open(HKEY parent, const std::u16string& path, REGSAM access = KEY_READ) {
    RegistryKey key;
    if (RegOpenKeyExW(parent, AsWide(path).c_str(), 0, access, &key.key_) != ERROR_SUCCESS) key.key_ = nullptr;
    return key;
  }
  // `existed` tells whether it was there before.
  static RegistryKey Create(HKEY parent, const std::u16string& path, bool* existed = nullptr) {
    RegistryKey key;
    DWORD disposition = 0;
    if (RegCreateKeyExW(parent, AsWide(path).c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &key.key_,
                        &disposition) != ERROR_SUCCESS) {
      key.key_ = nullptr;
    }
    if (existed) *existed = disposition == REG_OPENED_EXISTING_KEY;
    return key;
  }
  RegistryKey() = default;
  RegistryKey(RegistryKey&& other) noexcept : key_(std::exchange(other.key_, nullptr)) {}
  RegistryKey& operator=(RegistryKey&& other) noexcept {
    std::swap(key_, other.key_);
    return *this;
  }
  ~RegistryKey() {
    if (key_) RegCloseKey(key_);
  }

  explicit operator bool() const { return key_ != nullptr; }
  HKEY get() const { return key_; }

  std::u16string Text(const wchar_t* name) const {
    DWORD size = 0, type = 0;
    if (RegQueryValueExW(key_, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS || type != REG_SZ) return {};
    std::u16string text(size / 2 + 1, u'\0');
    size = static_cast<DWORD>(text.size() * 2);
    if (RegQueryValueExW(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size) != ERROR_SUCCESS) {
      return {};
    }
    return text.c_str();
  }
  void SetText(const wchar_t* name, const std::u16string& text) const {
    RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                   static_cast<DWORD>((text.size() + 1) * 2));
  }
  std::vector<std::u16string> Children() const {
    std::vector<std::u16string> names;
    constexpr DWORD kLongestKey = 256;
    for (DWORD i = 0;; ++i) {
      wchar_t name[kLongestKey];
      DWORD length = kLongestKey;
      if (RegEnumKeyExW(key_, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) return names;
      names.emplace_back(AsUtf16({name, length}));
    }
  }

 private:
  HKEY key_ = nullptr;
};

}  // namespace provider
