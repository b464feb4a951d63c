// The user's vault files, as the archiving client's registry settings name them.
#include <io.h>

#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/filter/HoardexFilter.h"
#include "module/filter/VaultFolders.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr wchar_t kClientKey[] = L"SOFTWARE\\Trelmo\\Zarnak\\Client";
constexpr wchar_t kRootValue[] = L"HXRootDirectory";
constexpr DWORD kLongest = 1024;  // characters of a subkey's name and of a root

// Appends every vault file of `folder`, which ends in a backslash.
void EnumerateFolder(const std::wstring& folder, std::vector<std::wstring>& files) {
  const std::wstring pattern = folder + L"*" + url::kVaultSuffix;
  ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Trying to enumerate for [%s] in the folder [%s]", pattern.c_str(),
         folder.c_str());
  _wfinddata64i32_t found = {};
  const intptr_t search = _wfindfirst64i32(pattern.c_str(), &found);
  int result = static_cast<int>(search);
  ZK_LOG(
      L"CHoardexFilter::EnumAllHXFiles() - Finding first [%s] file in folder [%s] returned a file named [%s]. Return "
      L"code [%d]",
      url::kVaultSuffix, folder.c_str(), found.name, result);
  if (search == 0 || search == -1) return;
  do {
    files.push_back(folder + found.name);
    result = _wfindnext64i32(search, &found);
    ZK_LOG(
        L"CHoardexFilter::EnumAllHXFiles() - Finding next [%s] file in folder [%s] returned a file named [%s]. Return "
        L"code [%d]",
        url::kVaultSuffix, folder.c_str(), found.name, result);
  } while (result != -1);
  _findclose(search);
}

}  // namespace

void ForEachVaultFolder(int level, const std::function<void(const std::wstring&)>& visit) {
  RegistryKey client;
  LONG error = client.Open(HKEY_CURRENT_USER, kClientKey);
  ZK_LOG_AT(level, L"CHoardexFilter::EnumAllHXFiles() - Opening the ZK Client regkey returned [%d]", error);
  if (error != ERROR_SUCCESS) return;
  for (DWORD index = 0;; ++index) {
    wchar_t name[kLongest] = {};
    DWORD length = kLongest;
    error = RegEnumKeyExW(client.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
    ZK_LOG_AT(
        level,
        L"CHoardexFilter::EnumAllHXFiles() - Found a subkey [%s] under the ZK client key. Return code from EnumKey "
        L"[%d]",
        name, error);
    if (error != ERROR_SUCCESS) return;
    RegistryKey subkey;
    error = subkey.Open(HKEY_CURRENT_USER, (std::wstring(kClientKey) + L"\\" + name).c_str());
    ZK_LOG_AT(level, L"CHoardexFilter::EnumAllHXFiles() - Opening subkey [%s] under the ZK client key returned [%d]",
              name, error);
    if (error != ERROR_SUCCESS) continue;
    wchar_t root[kLongest + 1];
    error = subkey.ReadString(kRootValue, root);
    ZK_LOG_AT(level, L"CHoardexFilter::EnumAllHXFiles() - Querying for value [%s] in the key [%s] returned [%d]",
              kRootValue, name, error);
    if (error != ERROR_SUCCESS) continue;
    std::wstring folder = root;
    if (folder.empty() || folder.back() != L'\\') folder += L'\\';
    visit(folder + name + L"\\");
  }
}

void CHoardexFilter::EnumAllHXFiles(std::vector<std::wstring>& files) {
  ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Start");
  files.clear();
  ForEachVaultFolder(SCLog::kOrdinary, [&](const std::wstring& folder) { EnumerateFolder(folder, files); });
}
