// Registry writes that can be taken back: a registration that fails half-way leaves the registry as it found it.
#pragma once

#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "module/core/RegistryKey.h"

// Takes back what was done through it, last first, unless Keep was called: values get back the data that they had, and
// keys that it made go unless somebody else has put something below them. Each call returns the registry's error code.
class RegistryUndo {
 public:
  RegistryUndo() = default;
  ~RegistryUndo();
  RegistryUndo(const RegistryUndo&) = delete;
  RegistryUndo& operator=(const RegistryUndo&) = delete;

  // Opens a key, or makes it; its parent must be there.
  LONG OpenOrCreate(HKEY hive, const std::wstring& path, REGSAM access, RegistryKey& key);
  // Sets a value of a key that OpenOrCreate opened for reading and writing; a null name is the key's own text.
  LONG SetValue(HKEY hive, const std::wstring& path, const RegistryKey& key, const wchar_t* name, DWORD type,
                const void* data, DWORD size);
  // Remembers a key with all below it, which other code is about to write. To be called before that.
  LONG Remember(HKEY hive, const std::wstring& path);

  void Keep() { actions_.clear(); }

 private:
  std::vector<std::function<void()>> actions_;
};
