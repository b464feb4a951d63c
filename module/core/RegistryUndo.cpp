#include "module/core/RegistryUndo.h"

#include <shlwapi.h>

#include <optional>
#include <utility>

namespace {

struct Value {
  std::wstring name;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;
};
struct Tree {
  std::wstring name;
  std::vector<Value> values;
  std::vector<Tree> keys;
};

LONG ReadValue(const RegistryKey& key, const wchar_t* name, Value& value) {
  DWORD size = 0;
  LONG error = RegQueryValueExW(key.get(), name, nullptr, &value.type, nullptr, &size);
  if (error != ERROR_SUCCESS) return error;
  value.data.resize(size);
  return RegQueryValueExW(key.get(), name, nullptr, &value.type, value.data.data(), &size);
}

LONG ReadTree(HKEY parent, const wchar_t* path, Tree& tree) {
  RegistryKey key;
  LONG error = key.Open(parent, path);
  if (error != ERROR_SUCCESS) return error;
  std::vector<wchar_t> name(16384);  // the longest name of a value
  for (DWORD index = 0;; ++index) {
    DWORD length = static_cast<DWORD>(name.size());
    error = RegEnumValueW(key.get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (error == ERROR_NO_MORE_ITEMS) break;
    Value value{name.data(), REG_NONE, {}};
    if (error == ERROR_SUCCESS) error = ReadValue(key, name.data(), value);
    if (error != ERROR_SUCCESS) return error;
    tree.values.push_back(std::move(value));
  }
  for (DWORD index = 0;; ++index) {
    DWORD length = static_cast<DWORD>(name.size());
    error = RegEnumKeyExW(key.get(), index, name.data(), &length, nullptr, nullptr, nullptr, nullptr);
    if (error == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    Tree below;
    below.name = name.data();
    if (error == ERROR_SUCCESS) error = ReadTree(key.get(), name.data(), below);
    if (error != ERROR_SUCCESS) return error;
    tree.keys.push_back(std::move(below));
  }
}

void WriteTree(HKEY parent, const wchar_t* path, const Tree& tree) {
  RegistryKey key;
  if (key.Create(parent, path) != ERROR_SUCCESS) return;
  for (const Value& value : tree.values)
    RegSetValueExW(key.get(), value.name.c_str(), 0, value.type, value.data.data(),
                   static_cast<DWORD>(value.data.size()));
  for (const Tree& below : tree.keys) WriteTree(key.get(), below.name.c_str(), below);
}

}  // namespace

RegistryUndo::~RegistryUndo() {
  for (auto action = actions_.rbegin(); action != actions_.rend(); ++action) (*action)();
}

LONG RegistryUndo::OpenOrCreate(HKEY hive, const std::wstring& path, REGSAM access, RegistryKey& key) {
  const LONG opened = key.Open(hive, path.c_str(), access);
  if (opened != ERROR_FILE_NOT_FOUND) return opened;
  bool made = false;
  const LONG error = key.Create(hive, path.c_str(), KEY_READ | KEY_WRITE, &made);
  if (made) actions_.emplace_back([hive, path] { RegDeleteKeyW(hive, path.c_str()); });
  return error;
}

LONG RegistryUndo::SetValue(HKEY hive, const std::wstring& path, const RegistryKey& key, const wchar_t* name,
                            DWORD type, const void* data, DWORD size) {
  Value old{name ? name : L"", REG_NONE, {}};
  const LONG read = ReadValue(key, name, old);
  if (read != ERROR_SUCCESS && read != ERROR_FILE_NOT_FOUND) return read;
  actions_.emplace_back([hive, path, had = read == ERROR_SUCCESS, old = std::move(old)] {
    RegistryKey again;
    if (again.Open(hive, path.c_str(), KEY_WRITE) != ERROR_SUCCESS) return;
    if (had) {
      RegSetValueExW(again.get(), old.name.c_str(), 0, old.type, old.data.data(), static_cast<DWORD>(old.data.size()));
    } else {
      RegDeleteValueW(again.get(), old.name.c_str());
    }
  });
  return RegSetValueExW(key.get(), name, 0, type, static_cast<const BYTE*>(data), size);
}

LONG RegistryUndo::Remember(HKEY hive, const std::wstring& path) {
  std::optional<Tree> tree(std::in_place);
  const LONG error = ReadTree(hive, path.c_str(), *tree);
  if (error == ERROR_FILE_NOT_FOUND) tree.reset();
  if (error != ERROR_SUCCESS && tree) return error;
  actions_.emplace_back([hive, path, tree = std::move(tree)] {
    SHDeleteKeyW(hive, path.c_str());
    if (tree) WriteTree(hive, path.c_str(), *tree);
  });
  return ERROR_SUCCESS;
}
