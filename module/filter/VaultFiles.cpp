// The user's vault files, as the archiving client's registry settings name them.
#include <io.h>

#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/filter/HoardexFilter.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr wchar_t kClientKey[] = L"SOFTWARE\\Trelmo\\Zarnak\\Client";
constexpr wchar_t kRootValue[] = L"HXRootDirectory";
constexpr DWORD kNameBuffer = 1024;

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

void CHoardexFilter::EnumAllHXFiles(std::vector<std::wstring>& files) {
  ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Start");
  files.clear();
  RegistryKey client;
  LONG error = client.Open(HKEY_CURRENT_USER, kClientKey);
  ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Opening the ZK Client regkey returned [%d]", error);
  if (error != ERROR_SUCCESS) return;
  for (DWORD index = 0;; ++index) {
    wchar_t name[kNameBuffer] = {};
    DWORD length = kNameBuffer;
    error = RegEnumKeyExW(client.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
    ZK_LOG(
        L"CHoardexFilter::EnumAllHXFiles() - Found a subkey [%s] under the ZK client key. Return code from EnumKey "
        L"[%d]",
        name, error);
    if (error != ERROR_SUCCESS) return;
    RegistryKey subkey;
    error = subkey.Open(HKEY_CURRENT_USER, (std::wstring(kClientKey) + L"\\" + name).c_str());
    ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Opening subkey [%s] under the ZK client key returned [%d]", name,
           error);
    if (error != ERROR_SUCCESS) continue;
    wchar_t root[kNameBuffer];
    error = subkey.ReadString(kRootValue, root);
    ZK_LOG(L"CHoardexFilter::EnumAllHXFiles() - Querying for value [%s] in the key [%s] returned [%d]", kRootValue,
           name, error);
    if (error != ERROR_SUCCESS) continue;
    std::wstring folder = root;
    if (folder.empty() || folder.back() != L'\\') folder += L'\\';
    EnumerateFolder(folder + name + L"\\", files);
  }
}
