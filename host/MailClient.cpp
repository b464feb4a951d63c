#include "host/MailClient.h"

#include <windows.h>

#include <shlobj.h>
#include <tlhelp32.h>

#include <cstdio>
#include <vector>

#include "host/Registration.h"
#include "host/Text.h"
#include "platform/mapi_extra.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr wchar_t kClientKey[] = L"Software\\Clients\\Mail\\Microsoft Outlook";
constexpr wchar_t kPathValue[] = L"DLLPathEx";

// What the module needs of a MAPI library: one without any of these is not used.
constexpr const char* kExports[] = {
    "MAPIAllocateBuffer", "MAPIAllocateMore", "MAPIFreeBuffer",   "HrGetOneProp",     "HrQueryAllRows",
    "FreeProws",          "OpenIMsgOnIStg",   "OpenIMsgSession",  "CloseIMsgSession", "MAPIGetDefaultMalloc",
    "HexFromBin",         "MAPIInitialize",   "MAPIUninitialize", "MAPILogonEx",      "MAPIAdminProfiles"};

template <typename Function>
Function* Export(HMODULE library, const char* name) {
  const FARPROC address = GetProcAddress(library, name);
  Function* function = nullptr;
  memcpy(&function, &address, sizeof(function));
  return function;
}

struct CloseSnapshot {
  HANDLE handle;
  ~CloseSnapshot() {
    if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
  }
};

bool HasModule(DWORD process) {
  const CloseSnapshot modules{CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, process)};
  MODULEENTRY32W module = {};
  module.dwSize = sizeof(module);
  for (BOOL more = Module32FirstW(modules.handle, &module); more; more = Module32NextW(modules.handle, &module))
    if (_wcsicmp(module.szModule, L"HoardexPH.dll") == 0) return true;
  return false;
}

// Whether another process has the module loaded. What was listed before this is asked and belongs to nobody then is
// left over, whoever starts meanwhile.
bool ModuleIsInUse() {
  const CloseSnapshot processes{CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)};
  PROCESSENTRY32W process = {};
  process.dwSize = sizeof(process);
  for (BOOL more = Process32FirstW(processes.handle, &process); more; more = Process32NextW(processes.handle, &process))
    if (process.th32ProcessID && process.th32ProcessID != GetCurrentProcessId() && HasModule(process.th32ProcessID))
      return true;
  return false;
}

// Names of the module's temporary profiles: ZK_HX_ and five hexadecimal numbers.
bool IsTemporaryProfile(const char* name) {
  unsigned long part[4];
  unsigned long long counter;
  return sscanf(name, "ZK_HX_%lx_%lx_%lx_%lx_%llx", &part[0], &part[1], &part[2], &part[3], &counter) == 5;
}

HRESULT FindProfiles(HMODULE library, IProfAdmin* admin, std::vector<std::string>& names) {
  const auto free_buffer = Export<ULONG STDAPICALLTYPE(void*)>(library, "MAPIFreeBuffer");
  ComPtr<IMAPITable> table;
  HRESULT hr = admin->GetProfileTable(0, &table);
  if (FAILED(hr)) return hr;
  SizedSPropTagArray(1, columns) = {1, {PR_DISPLAY_NAME_A}};
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  for (bool more = SUCCEEDED(hr); more;) {
    LPSRowSet rows = nullptr;
    hr = table->QueryRows(64, 0, &rows);
    more = SUCCEEDED(hr) && rows && rows->cRows > 0;
    for (ULONG i = 0; more && i < rows->cRows; ++i) {
      const SRow& row = rows->aRow[i];
      if (row.cValues && row.lpProps[0].ulPropTag == PR_DISPLAY_NAME_A &&
          IsTemporaryProfile(row.lpProps[0].Value.lpszA))
        names.push_back(row.lpProps[0].Value.lpszA);
      free_buffer(row.lpProps);
    }
    if (rows) free_buffer(rows);
  }
  return hr;
}

Json AskForProfiles(HMODULE library, bool clear) {
  MAPIINIT_0 init = {MAPI_INIT_VERSION, 0};
  HRESULT hr = Export<HRESULT STDAPICALLTYPE(void*)>(library, "MAPIInitialize")(&init);
  if (FAILED(hr)) return {{"error", ErrorOf("MAPIInitialize", hr)}};
  Json answer = Json::object();
  {
    ComPtr<IProfAdmin> admin;
    hr = Export<HRESULT STDAPICALLTYPE(ULONG, IProfAdmin**)>(library, "MAPIAdminProfiles")(0, &admin);
    std::vector<std::string> names;
    if (SUCCEEDED(hr)) hr = FindProfiles(library, admin.Get(), names);
    if (FAILED(hr)) answer["error"] = ErrorOf("MAPIAdminProfiles", hr);
    Json left = Json::array();
    if (!names.empty() && ModuleIsInUse()) {
      answer["in_use"] = names.size();
      names.clear();
    }
    for (std::string& name : names)
      if (!clear || FAILED(admin->DeleteProfile(reinterpret_cast<LPTSTR>(name.data()), 0))) left.push_back(name);
    answer["profiles"] = std::move(left);
  }
  Export<void STDAPICALLTYPE()>(library, "MAPIUninitialize")();
  return answer;
}

}  // namespace

Json ExamineMailClient() {
  const auto path = RegistryText(HKEY_LOCAL_MACHINE, kClientKey, kPathValue);
  const auto component = RegistryText(HKEY_LOCAL_MACHINE, kClientKey, L"MSIComponentID");
  Json client = path ? ExamineLibrary(*path) : Json{{"exists", false}};
  HKEY key = nullptr;
  client["key"] = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kClientKey, 0, KEY_READ, &key) == ERROR_SUCCESS;
  if (key) RegCloseKey(key);
  if (component) client["component"] = ToUtf8(*component);
  return client;
}

Json AskMailClient(bool clear) {
  const auto path = RegistryText(HKEY_LOCAL_MACHINE, kClientKey, kPathValue);
  const HMODULE library = path ? LoadLibraryW(path->c_str()) : nullptr;
  const HRESULT hr = library ? S_OK : HRESULT_FROM_WIN32(path ? GetLastError() : ERROR_FILE_NOT_FOUND);
  Json answer = {{"code", CodeText(hr)}, {"name", CodeName(hr)}};
  if (!library) return answer;
  answer["missing"] = Json::array();
  for (const char* name : kExports)
    if (!GetProcAddress(library, name)) answer["missing"].push_back(name);
  if (answer["missing"].empty()) answer.update(AskForProfiles(library, clear));
  // Not unloaded: mail clients do not bear it.
  return answer;
}

// Whether the path leads where it says, and no link is on the way. Wine shows links as what they lead to.
bool IsPlain(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  std::wstring target(32768, L'\0');
  const DWORD length = GetFinalPathNameByHandleW(file, target.data(), static_cast<DWORD>(target.size()), 0);
  BY_HANDLE_FILE_INFORMATION information = {};
  const bool known = GetFileInformationByHandle(file, &information) && length && length < target.size();
  CloseHandle(file);
  target.resize(known ? length : 0);
  return known && !(information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && target.size() >= path.size() &&
         !_wcsicmp(target.c_str() + target.size() - path.size(), path.c_str());
}

Json ExamineTemporaryFiles(bool clear) {
  wchar_t roaming[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_APPDATA, nullptr, 0, roaming))) return {{"files", Json::array()}};
  const std::wstring folder = std::wstring(roaming) + L"\\zkoffline3x";
  std::vector<std::wstring> names;
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  for (bool more = search != INVALID_HANDLE_VALUE; more; more = FindNextFileW(search, &found))
    if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) && IsPlain(folder + L"\\" + found.cFileName))
      names.emplace_back(found.cFileName);
  if (search != INVALID_HANDLE_VALUE) FindClose(search);
  // Between its writing and its reading nobody has a copy open.
  if (!names.empty() && ModuleIsInUse())
    return {{"folder", ToUtf8(folder)}, {"files", Json::array()}, {"in_use", names.size()}};
  Json left = Json::array();
  int in_use = 0;
  for (const std::wstring& name : names) {
    const std::wstring path = folder + L"\\" + name;
    // Opened without sharing: that fails while a reader has it open.
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    const bool free = file != INVALID_HANDLE_VALUE;
    if (free) CloseHandle(file);
    if (!free && GetLastError() == ERROR_SHARING_VIOLATION) {
      ++in_use;
    } else if (!clear || !DeleteFileW(path.c_str())) {
      left.push_back(ToUtf8(name));
    }
  }
  if (clear) RemoveDirectoryW(folder.c_str());
  return {{"folder", ToUtf8(folder)}, {"files", std::move(left)}, {"in_use", in_use}};
}

}  // namespace host
