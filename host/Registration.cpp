#include "host/Registration.h"

#include <filesystem>
#include <fstream>
#include <vector>

#include "host/Text.h"
#include "include/HoardexPH.h"

namespace host {
namespace {

constexpr wchar_t kProgId[] = L"HoardexPH3x.HoardexSP.1";
constexpr wchar_t kHandler[] = L"Windows Search Hoardex Protocol Handler";
constexpr wchar_t kExtension[] = L"Windows Search Hoardex Namespace Extension Class";

#define CURRENT_VERSION L"Software\\Microsoft\\Windows\\CurrentVersion\\"
#define WINDOWS_SEARCH L"Software\\Microsoft\\Windows Search\\"

// One value, or a key that must be there (without a name). %CLSID% is the class; %MODULE% the file that the class is
// registered with.
struct Entry {
  HKEY hive;
  const wchar_t *key, *name, *expected;
  DWORD type = REG_SZ;
};

const Entry kEntries[] = {
    {HKEY_CLASSES_ROOT, kProgId, L"", kHandler},
    {HKEY_CLASSES_ROOT, L"HoardexPH3x.HoardexSP.1\\CLSID", L"", L"%CLSID%"},
    {HKEY_CLASSES_ROOT, L"HoardexPH3x.HoardexSP", L"", L"Hoardex Protocol Handler"},
    {HKEY_CLASSES_ROOT, L"HoardexPH3x.HoardexSP\\CLSID", L"", L"%CLSID%"},
    {HKEY_CLASSES_ROOT, L"HoardexPH3x.HoardexSP\\CurVer", L"", kProgId},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%", L"", kHandler},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\ProgID", L"", kProgId},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\VersionIndependentProgID", L"", L"HoardexPH3x.HoardexSP"},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\InprocServer32", L"", L"%MODULE%"},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\InprocServer32", L"ThreadingModel", L"Both"},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\ShellFolder", L"Attributes", L"538443776", REG_DWORD},
    {HKEY_CLASSES_ROOT, L"CLSID\\%CLSID%\\ShellFolder", L"WANTSFORPARSING", L""},
    {HKEY_CLASSES_ROOT, L"zkoffline3x", L"", kExtension},
    {HKEY_CLASSES_ROOT, L"zkoffline3x", L"ShellFolder", L"%CLSID%"},
    {HKEY_CLASSES_ROOT, L"zkoffline3x", L"URL Protocol", L""},
    {HKEY_CLASSES_ROOT, L"zkoffline3x\\Shell", nullptr, nullptr},
    {HKEY_CLASSES_ROOT, L"TypeLib\\{6E2F0B69-3C41-4D0E-9A57-2B80C164E71D}\\1.0\\0\\win64", L"", L"%MODULE%"},
    {HKEY_LOCAL_MACHINE, WINDOWS_SEARCH L"Gather\\Windows\\SystemIndex\\Protocols\\zkoffline3x\\0",
     L"ExtExclusionsUsed", L"1", REG_DWORD},
    {HKEY_LOCAL_MACHINE, WINDOWS_SEARCH L"Gather\\Windows\\SystemIndex\\Protocols\\zkoffline3x\\0", L"Included", L"1",
     REG_DWORD},
    {HKEY_LOCAL_MACHINE, WINDOWS_SEARCH L"Gather\\Windows\\SystemIndex\\Protocols\\zkoffline3x\\0", L"PrefixName", L""},
    {HKEY_LOCAL_MACHINE, WINDOWS_SEARCH L"Gather\\Windows\\SystemIndex\\Protocols\\zkoffline3x\\0", L"ProgIdHandler",
     kProgId},
    {HKEY_LOCAL_MACHINE, WINDOWS_SEARCH L"ProtocolHandlers", L"zkoffline3x", kProgId},
    {HKEY_LOCAL_MACHINE, CURRENT_VERSION L"Explorer\\Desktop\\NameSpace\\%CLSID%", L"", kExtension},
    {HKEY_LOCAL_MACHINE, CURRENT_VERSION L"Explorer\\HideDesktopIcons\\NewStartPanel", L"%CLSID%", L"1", REG_DWORD},
    {HKEY_LOCAL_MACHINE, CURRENT_VERSION L"Explorer\\HideDesktopIcons\\ClassicStartMenu", L"%CLSID%", L"1", REG_DWORD},
    {HKEY_LOCAL_MACHINE, CURRENT_VERSION L"Shell Extensions\\Approved", L"%CLSID%", kExtension},
};

constexpr const wchar_t* kItemTypes[] = {L"MAPI/ZK.Message", L"MAPI/ZK.Appointment", L"MAPI/ZK.Task",
                                         L"MAPI/ZK.Contact", L"MAPI/ZK.Note"};

std::wstring ClassText(const CLSID& clsid) {
  wchar_t text[64];
  return StringFromGUID2(clsid, text, 64) ? text : L"";
}

std::wstring ServerKey(const CLSID& clsid) {
  return L"CLSID\\" + ClassText(clsid) + L"\\InprocServer32";
}

std::wstring Filled(std::wstring text, const std::wstring& clsid, const std::wstring& module) {
  for (const auto& [mark, value] :
       {std::pair(std::wstring(L"%CLSID%"), clsid), std::pair(std::wstring(L"%MODULE%"), module)})
    if (const size_t at = text.find(mark); at != std::wstring::npos) text.replace(at, mark.size(), value);
  return text;
}

const wchar_t* TypeName(DWORD type) {
  constexpr const wchar_t* kNames[] = {L"REG_NONE", L"REG_SZ", L"REG_EXPAND_SZ", L"REG_BINARY", L"REG_DWORD"};
  return type < std::size(kNames) ? kNames[type] : L"another type";
}

bool KeyExists(HKEY hive, const std::wstring& key) {
  HKEY opened = nullptr;
  if (RegOpenKeyExW(hive, key.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) return false;
  RegCloseKey(opened);
  return true;
}

// How an entry differs: {"key","name","expected","found"}, or null.
Json Differing(const Entry& entry, const std::wstring& clsid, const std::wstring& module) {
  const std::wstring key = Filled(entry.key, clsid, module);
  Json differing = {{"key", (entry.hive == HKEY_CLASSES_ROOT ? "HKCR\\" : "HKLM\\") + ToUtf8(key)},
                    {"name", ""},
                    {"expected", ""},
                    {"found", nullptr}};
  if (!entry.name) return KeyExists(entry.hive, key) ? Json() : differing;
  const std::wstring name = Filled(entry.name, clsid, module), expected = Filled(entry.expected, clsid, module);
  differing["name"] = ToUtf8(name);
  differing["expected"] = ToUtf8(expected);
  DWORD type = REG_NONE;
  if (RegGetValueW(entry.hive, key.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &type, nullptr, nullptr) !=
      ERROR_SUCCESS)
    return differing;
  const std::wstring found = RegistryText(entry.hive, key, name.c_str()).value_or(L"");
  if (type != entry.type) {
    differing["expected"] = ToUtf8(std::wstring(TypeName(entry.type)) + L" " + expected);
    differing["found"] = ToUtf8(std::wstring(TypeName(type)) + L" " + found);
    return differing;
  }
  // A type library is registered by its path without the limit of length.
  if (found == expected || found == LR"(\\?\)" + expected) return {};
  differing["found"] = ToUtf8(found);
  return differing;
}

// The word at this place of a file; 0 past its end.
unsigned WordAt(std::istream& file, std::streamoff at, int bytes) {
  unsigned char raw[4] = {};
  file.seekg(at);
  file.read(reinterpret_cast<char*>(raw), bytes);
  if (!file) return 0;
  return raw[0] | raw[1] << 8 | static_cast<unsigned>(raw[2]) << 16 | static_cast<unsigned>(raw[3]) << 24;
}

// By the machine field of the PE header.
int Bitness(const std::wstring& path) {
  // libstdc++ opens by a narrow name or by a path.
  std::ifstream file(std::filesystem::path(path), std::ios::binary);
  if (!file || WordAt(file, 0, 2) != IMAGE_DOS_SIGNATURE) return 0;
  const unsigned header = WordAt(file, 0x3C, 4);
  if (WordAt(file, header, 4) != IMAGE_NT_SIGNATURE) return 0;
  const unsigned machine = WordAt(file, static_cast<std::streamoff>(header) + 4, 2);
  return machine == IMAGE_FILE_MACHINE_AMD64 ? 64 : machine == IMAGE_FILE_MACHINE_I386 ? 32 : 0;
}

}  // namespace

std::optional<std::wstring> RegistryText(HKEY hive, const std::wstring& key, const wchar_t* name) {
  std::vector<wchar_t> text(32768);
  DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t)), type = 0;
  const LONG error = RegGetValueW(hive, key.c_str(), name, RRF_RT_REG_SZ | RRF_RT_REG_DWORD, &type, text.data(), &size);
  if (error != ERROR_SUCCESS) return std::nullopt;
  if (type != REG_DWORD) return text.data();
  DWORD number;
  memcpy(&number, text.data(), sizeof(number));
  return std::to_wstring(number);
}

Json ExamineRegistration() {
  const std::wstring clsid = ClassText(CLSID_HoardexSP);
  const std::wstring module = RegistryText(HKEY_CLASSES_ROOT, ServerKey(CLSID_HoardexSP), L"").value_or(L"");
  Json differing = Json::array();
  for (const Entry& entry : kEntries)
    if (Json one = Differing(entry, clsid, module); !one.is_null()) differing.push_back(std::move(one));
  return {{"entries", std::size(kEntries)}, {"differing", std::move(differing)}};
}

Json ExamineLibrary(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  const bool exists = attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
  Json library = {{"path", ToUtf8(path)}, {"exists", exists}};
  if (exists) library["bitness"] = Bitness(path);
  return library;
}

Json ExamineServer(const CLSID& clsid) {
  const auto path = RegistryText(HKEY_CLASSES_ROOT, ServerKey(clsid), L"");
  const std::wstring key = L"CLSID\\" + ClassText(clsid);
  Json server = path && !path->empty() ? ExamineLibrary(*path) : Json{{"exists", false}};
  server["title"] = ToUtf8(RegistryText(HKEY_CLASSES_ROOT, key, L"").value_or(L""));
  for (const auto& [place, name] : {std::pair(key + L"\\LocalServer32", L""), std::pair(key, L"AppID")})
    if (const auto program = RegistryText(HKEY_CLASSES_ROOT, place, name)) server["program"] = ToUtf8(*program);
  if (!server.contains("path")) return server;
  server["threading"] = ToUtf8(RegistryText(HKEY_CLASSES_ROOT, ServerKey(clsid), L"ThreadingModel").value_or(L""));
  return server;
}

Json ExamineItemTypes() {
  Json unnamed = Json::array();
  for (const wchar_t* type : kItemTypes)
    if (RegistryText(HKEY_CLASSES_ROOT, type, L"FriendlyTypeName").value_or(L"").empty())
      unnamed.push_back(ToUtf8(type));
  return unnamed;
}

}  // namespace host
