#include "module/protocol/TemporaryFile.h"

#include <windows.h>

#include <shlobj.h>

#include <algorithm>

#include "module/core/AppDataFolder.h"
#include "module/core/HoardexURL.h"
#include "module/core/Text.h"

namespace {

constexpr size_t kMaxRecordKey = 64;
constexpr size_t kMaxExtension = 32;
constexpr size_t kMaxPath = MAX_PATH - 1;
constexpr size_t kLeastName = 16;
constexpr size_t kMaxNameBytes = 255 - 4;  // of one name, in UTF-8; with room for an extension

constexpr const wchar_t* kDevices[] = {L"CON",     L"PRN",    L"AUX", L"NUL", L"CONIN$",
                                       L"CONOUT$", L"CLOCK$", L"COM", L"LPT"};

bool IsDevice(std::wstring_view stem) {
  while (!stem.empty() && stem.back() == L' ') stem.remove_suffix(1);
  for (std::wstring_view device : kDevices) {
    if (url::EqualIgnoringCase(stem, device)) return true;
    const bool numbered = device == L"COM" || device == L"LPT";
    if (numbered && stem.size() == 4 && url::EqualIgnoringCase(stem.substr(0, 3), device)) return true;
  }
  return false;
}

// Cuts without leaving half of a surrogate pair.
void Cut(std::wstring& text, size_t limit) {
  if (text.size() <= limit) return;
  if (limit && IS_HIGH_SURROGATE(text[limit - 1])) --limit;
  text.resize(limit);
}

size_t Utf8Bytes(const std::wstring& text) {
  return static_cast<size_t>(
      WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr));
}

wchar_t Safe(wchar_t c) {
  const bool control = c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0x202A && c <= 0x202E) ||
                       (c >= 0x2066 && c <= 0x2069);  // controls of text direction disguise an extension
  return control || std::wstring_view(L"\\/:*?\"<>|").find(c) != std::wstring_view::npos ? L'_' : c;
}

}  // namespace

std::wstring SafeFileName(std::wstring_view display_name, size_t limit) {
  std::wstring name(display_name);
  std::transform(name.begin(), name.end(), name.begin(), Safe);
  for (size_t i = name.size(); i > 0 && (name[i - 1] == L'.' || name[i - 1] == L' '); --i) name[i - 1] = L'_';
  const size_t first_dot = std::min(name.find(L'.'), name.size());
  if (IsDevice(std::wstring_view(name).substr(0, first_dot))) name.insert(0, 1, L'_');
  if (name.size() <= limit) return name;
  const size_t dot = name.rfind(L'.');
  std::wstring extension;
  if (dot != std::wstring::npos && name.size() - dot <= std::min(kMaxExtension, limit)) extension = name.substr(dot);
  Cut(name, limit - extension.size());
  return name + extension;
}

std::wstring TemporaryFilePath(std::wstring_view record_key, std::wstring_view display_name) {
  std::wstring path = AppDataFolder();
  if (path.empty()) return {};
  path.push_back(L'\\');
  SHCreateDirectory(nullptr, path.c_str());
  const std::string unique = text::UniqueName();
  path.append(unique.begin(), unique.end());
  path.append(SafeFileName(record_key.substr(0, kMaxRecordKey), kMaxRecordKey));
  size_t room = path.size() + kLeastName < kMaxPath ? kMaxPath - path.size() : kLeastName;
  std::wstring name = SafeFileName(display_name, room);
  // Some file systems count bytes, and a name of emoji has four for each.
  const size_t before = path.size() - path.rfind(L'\\') - 1;
  while (room > kLeastName && before + Utf8Bytes(name) > kMaxNameBytes) name = SafeFileName(display_name, --room);
  return path.append(name);
}

std::wstring WithExtension(std::wstring path, std::wstring_view extension) {
  if (path.size() >= extension.size() &&
      url::EqualIgnoringCase(std::wstring_view(path).substr(path.size() - extension.size()), extension))
    return path;
  Cut(path, kMaxPath - extension.size());
  return path.append(extension);
}
