// What a registry key holds, as text that compares and prints.
#pragma once

#include <windows.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

// Every key and value below `key`, by path; a value's text is its type and data, a key's is empty.
using RegistryTree = std::map<std::string, std::string>;

inline void ReadRegistryTree(HKEY key, const std::wstring& path, RegistryTree& tree) {
  const auto narrow = [](const std::wstring& text) { return std::string(text.begin(), text.end()); };
  std::vector<wchar_t> name(16384);
  std::vector<BYTE> data(65536);
  for (DWORD index = 0;; ++index) {
    DWORD length = static_cast<DWORD>(name.size()), size = static_cast<DWORD>(data.size()), type = 0;
    if (RegEnumValueW(key, index, name.data(), &length, nullptr, &type, data.data(), &size) != ERROR_SUCCESS) break;
    std::string text = std::to_string(type) + ":";
    for (DWORD i = 0; i < size; ++i) {
      char digits[3];
      snprintf(digits, sizeof(digits), "%02x", data[i]);
      text += digits;
    }
    tree[narrow(path + L" @" + name.data())] = text;
  }
  for (DWORD index = 0;; ++index) {
    DWORD length = static_cast<DWORD>(name.size());
    if (RegEnumKeyExW(key, index, name.data(), &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    const std::wstring below = path + L"\\" + name.data();
    tree[narrow(below)];
    HKEY opened;
    if (RegOpenKeyExW(key, name.data(), 0, KEY_READ, &opened) != ERROR_SUCCESS) continue;
    ReadRegistryTree(opened, below, tree);
    RegCloseKey(opened);
  }
}

// Both hives that the module writes.
inline RegistryTree ModuleHives() {
  RegistryTree tree;
  ReadRegistryTree(HKEY_CLASSES_ROOT, L"HKCR", tree);
  ReadRegistryTree(HKEY_LOCAL_MACHINE, L"HKLM", tree);
  return tree;
}
