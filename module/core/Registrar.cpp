#include "module/core/Registrar.h"

#include <objbase.h>
#include <shlwapi.h>

#include <cwctype>
#include <optional>
#include <vector>

#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/core/RegistryKey.h"

namespace registrar {
namespace {

constexpr HRESULT kBadScript = DISP_E_EXCEPTION;
constexpr size_t kMaxDepth = 32;

enum class Removal { kIfEmpty, kWhole, kNever };

struct Value {
  std::wstring name;  // empty: the key's default value
  DWORD type = REG_SZ;
  std::wstring text;
};

// One key of the script: its full path and what stands in it. Keys are listed parents first.
struct Key {
  HKEY hive;
  std::wstring path;
  Removal removal = Removal::kIfEmpty;
  std::vector<Value> values;
};

// Splits a script into words, quoted texts, and the marks { } =.
class Lexer {
 public:
  Lexer(std::wstring_view script) : rest_(script) {}

  std::optional<std::wstring> Next() {
    while (!rest_.empty() && iswspace(rest_.front())) rest_.remove_prefix(1);
    if (rest_.empty()) return std::nullopt;
    const wchar_t first = rest_.front();
    if (first == L'\'') {
      const size_t end = rest_.find(L'\'', 1);
      if (end == std::wstring_view::npos) return std::nullopt;
      return Take(end + 1, 1, 1);
    }
    if (first == L'=' || ((first == L'{' || first == L'}') && (rest_.size() == 1 || iswspace(rest_[1]))))
      return Take(1, 0, 0);
    size_t end = 0;
    while (end < rest_.size() && !iswspace(rest_[end]) && rest_[end] != L'=') ++end;
    return Take(end, 0, 0);
  }
  std::optional<std::wstring> Peek() {
    const std::wstring_view kept = rest_;
    auto token = Next();
    rest_ = kept;
    return token;
  }

 private:
  std::wstring Take(size_t count, size_t front, size_t back) {
    std::wstring token(rest_.substr(front, count - front - back));
    rest_.remove_prefix(count);
    return token;
  }
  std::wstring_view rest_;
};

// Reads "= s 'text'" or "= d 'number'" if it comes next.
bool ReadAssignment(Lexer& lexer, Value& value) {
  lexer.Next();
  const auto type = lexer.Next();
  const auto text = lexer.Next();
  if (!type || !text || (*type != L"s" && *type != L"d")) return false;
  value.type = *type == L"s" ? REG_SZ : REG_DWORD;
  value.text = *text;
  return true;
}

bool Parse(std::wstring_view script, std::vector<Key>& keys) {
  Lexer lexer(script);
  std::vector<size_t> open;  // indices of the keys whose braces are open
  HKEY hive = nullptr;
  while (const auto token = lexer.Next()) {
    if (*token == L"}") {
      if (!hive) return false;
      if (open.empty()) {
        hive = nullptr;
      } else {
        open.pop_back();
      }
      continue;
    }
    if (!hive) {
      if (*token == L"HKCR") hive = HKEY_CLASSES_ROOT;
      if (*token == L"HKLM") hive = HKEY_LOCAL_MACHINE;
      if (!hive || lexer.Next() != L"{") return false;
      continue;
    }
    if (*token == L"val") {
      const auto name = lexer.Next();
      Value value;
      if (!name || open.empty() || lexer.Peek() != L"=" || !ReadAssignment(lexer, value)) return false;
      value.name = *name;
      keys[open.back()].values.push_back(std::move(value));
      continue;
    }
    Key key{hive, {}, Removal::kIfEmpty, {}};
    std::optional<std::wstring> name = token;
    if (*token == L"ForceRemove" || *token == L"NoRemove") {
      key.removal = *token == L"NoRemove" ? Removal::kNever : Removal::kWhole;
      name = lexer.Next();
      if (!name) return false;
    }
    key.path = open.empty() ? *name : keys[open.back()].path + L"\\" + *name;
    Value value;
    if (lexer.Peek() == L"=") {
      if (!ReadAssignment(lexer, value)) return false;
      key.values.push_back(std::move(value));
    }
    keys.push_back(std::move(key));
    if (lexer.Peek() == L"{") {
      lexer.Next();
      if (open.size() >= kMaxDepth) return false;
      open.push_back(keys.size() - 1);
    }
  }
  return !hive && open.empty();
}

void Replace(std::wstring& text, std::wstring_view mark, std::wstring_view by) {
  for (size_t at = text.find(mark); at != std::wstring::npos; at = text.find(mark, at + by.size()))
    text.replace(at, mark.size(), by);
}

std::optional<std::wstring> LoadScript(UINT resource) {
  const HRSRC found = FindResourceW(module::Instance(), MAKEINTRESOURCEW(resource), L"REGISTRY");
  const HGLOBAL loaded = found ? LoadResource(module::Instance(), found) : nullptr;
  const auto* bytes = loaded ? static_cast<const char*>(LockResource(loaded)) : nullptr;
  if (!bytes) return std::nullopt;
  return std::wstring(bytes, bytes + SizeofResource(module::Instance(), found));  // the script is ASCII
}

// Puts class and path in, after the script was read: a path may hold the script's own marks.
void Substitute(std::vector<Key>& keys, const std::wstring& module_path) {
  wchar_t clsid[40] = {};
  StringFromGUID2(module::kHoardexSPClass, clsid, 40);
  for (Key& key : keys) {
    Replace(key.path, L"%CLSID%", clsid);
    for (Value& value : key.values) {
      Replace(value.name, L"%CLSID%", clsid);
      Replace(value.text, L"%CLSID%", clsid);
      Replace(value.text, L"%MODULE%", module_path);
    }
  }
}

LONG Write(const Key& key, RegistryUndo& undo) {
  // A shared key in which nothing is written may be one that only administrators of the system may write.
  const bool written = !key.values.empty() || key.removal != Removal::kNever;
  RegistryKey handle;
  LONG error = undo.OpenOrCreate(key.hive, key.path, written ? KEY_READ | KEY_WRITE : KEY_READ, handle);
  for (const Value& value : key.values) {
    if (error != ERROR_SUCCESS) break;
    const wchar_t* name = value.name.empty() ? nullptr : value.name.c_str();
    const DWORD number = wcstoul(value.text.c_str(), nullptr, 0);
    error = value.type == REG_DWORD
                ? undo.SetValue(key.hive, key.path, handle, name, REG_DWORD, &number, sizeof(number))
                : undo.SetValue(key.hive, key.path, handle, name, REG_SZ, value.text.c_str(),
                                static_cast<DWORD>((value.text.size() + 1) * sizeof(wchar_t)));
  }
  return error;
}

LONG Remove(const Key& key) {
  if (key.removal == Removal::kWhole) return SHDeleteKeyW(key.hive, key.path.c_str());
  if (key.removal == Removal::kNever && key.values.empty()) return ERROR_SUCCESS;
  RegistryKey handle;
  LONG error = handle.Open(key.hive, key.path.c_str(), KEY_READ | KEY_WRITE);
  if (error != ERROR_SUCCESS) return error;
  for (const Value& value : key.values) {
    if (key.removal == Removal::kNever && value.name.empty()) continue;  // a shared key keeps its own text
    const LONG deleted = RegDeleteValueW(handle.get(), value.name.empty() ? nullptr : value.name.c_str());
    if (deleted != ERROR_SUCCESS && deleted != ERROR_FILE_NOT_FOUND) error = deleted;
  }
  if (error == ERROR_SUCCESS && key.removal == Removal::kIfEmpty && handle.IsEmpty())
    error = RegDeleteKeyW(key.hive, key.path.c_str());
  return error;
}

HRESULT Load(UINT resource, const std::wstring& module_path, std::vector<Key>& keys) {
  const auto script = LoadScript(resource);
  if (!script || module_path.empty() || !Parse(*script, keys)) return kBadScript;
  Substitute(keys, module_path);
  return S_OK;
}

}  // namespace

HRESULT Register(UINT resource, const std::wstring& module_path, RegistryUndo& undo) {
  std::vector<Key> keys;
  const HRESULT hr = Load(resource, module_path, keys);
  if (FAILED(hr)) return hr;
  for (const Key& key : keys) {
    const LONG error = Write(key, undo);
    if (error != ERROR_SUCCESS) return HRESULT_FROM_WIN32(error);
  }
  return S_OK;
}

HRESULT Unregister(UINT resource, const std::wstring& module_path) {
  std::vector<Key> keys;
  const HRESULT hr = Load(resource, module_path, keys);
  if (FAILED(hr)) return hr;
  LONG first = ERROR_SUCCESS;
  for (auto key = keys.rbegin(); key != keys.rend(); ++key) {
    const LONG error = Remove(*key);
    if (error != ERROR_FILE_NOT_FOUND && first == ERROR_SUCCESS) first = error;
  }
  return HRESULT_FROM_WIN32(first);
}

}  // namespace registrar
