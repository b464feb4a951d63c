// Owner of a registry key handle, with the few calls that the module makes.
#pragma once

#include <windows.h>

#include <algorithm>
#include <string>

class RegistryKey {
 public:
  RegistryKey() = default;
  ~RegistryKey() { Close(); }
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;

  // Each returns the registry's error code, ERROR_SUCCESS when done.
  LONG Open(HKEY parent, const wchar_t* path, REGSAM access = KEY_READ) {
    Close();
    return RegOpenKeyExW(parent, path, 0, access, &key_);
  }
  LONG Create(HKEY parent, const wchar_t* path, REGSAM access = KEY_ALL_ACCESS, bool* made = nullptr) {
    Close();
    DWORD disposition = 0;
    const LONG error = RegCreateKeyExW(parent, path, 0, nullptr, 0, access, nullptr, &key_, &disposition);
    if (made) *made = error == ERROR_SUCCESS && disposition == REG_CREATED_NEW_KEY;
    return error;
  }
  LONG ReadDword(const wchar_t* name, DWORD& value) const {
    DWORD type = 0, data = 0, size = sizeof(data);
    const LONG error = RegQueryValueExW(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &size);
    if (error != ERROR_SUCCESS) return error;
    if (type != REG_DWORD || size != sizeof(data)) return ERROR_INVALID_DATATYPE;
    value = data;
    return ERROR_SUCCESS;
  }
  // A string value of at most Size - 1 characters, with a terminator in the registry or without one, into a zeroed
  // buffer; a longer one is ERROR_MORE_DATA.
  template <size_t Size>
  LONG ReadString(const wchar_t* name, wchar_t (&buffer)[Size]) const {
    std::fill_n(buffer, Size, L'\0');
    DWORD type = 0, size = sizeof(buffer);
    LONG error = RegQueryValueExW(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size);
    if (error == ERROR_SUCCESS && type != REG_SZ && type != REG_EXPAND_SZ) error = ERROR_INVALID_DATATYPE;
    if (error == ERROR_SUCCESS && buffer[Size - 1]) error = ERROR_MORE_DATA;
    if (error != ERROR_SUCCESS) buffer[0] = 0;
    return error;
  }
  LONG WriteDword(const wchar_t* name, DWORD value) const {
    return RegSetValueExW(key_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value));
  }
  LONG WriteString(const wchar_t* name, const std::wstring& value) const {
    return RegSetValueExW(key_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  }
  // Writes the value unless it stands so already.
  LONG EnsureString(const wchar_t* name, const std::wstring& value) const {
    std::wstring there(value.size() + 1, L'\0');
    const DWORD whole = static_cast<DWORD>(there.size() * sizeof(wchar_t));
    DWORD type = 0, size = whole;
    const LONG error = RegQueryValueExW(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(there.data()), &size);
    const bool stands = error == ERROR_SUCCESS && type == REG_SZ && size == whole && there.back() == L'\0' &&
                        there.compare(0, value.size(), value) == 0;
    return stands ? ERROR_SUCCESS : WriteString(name, value);
  }
  // Neither values nor subkeys; false when that cannot be told.
  bool IsEmpty() const {
    DWORD subkeys = 0, values = 0;
    return RegQueryInfoKeyW(key_, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr, nullptr,
                            nullptr, nullptr) == ERROR_SUCCESS &&
           !subkeys && !values;
  }
  HKEY get() const { return key_; }

 private:
  void Close() {
    if (key_) RegCloseKey(key_);
    key_ = nullptr;
  }

  HKEY key_ = nullptr;
};
