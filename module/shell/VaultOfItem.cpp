#include "module/shell/VaultOfItem.h"

#include <iterator>
#include <vector>

#include "module/core/HoardexURL.h"
#include "module/core/RegistryKey.h"

namespace {

constexpr wchar_t kClientKey[] = L"SOFTWARE\\Trelmo\\Zarnak\\Client";
constexpr size_t kVaultToken = 3;

// The folders of vaults, each ending in a backslash.
std::vector<std::wstring> VaultFolders() {
  std::vector<std::wstring> folders;
  RegistryKey client;
  if (client.Open(HKEY_CURRENT_USER, kClientKey) != ERROR_SUCCESS) return folders;
  wchar_t name[1024];
  for (DWORD index = 0, length = std::size(name);
       RegEnumKeyExW(client.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++index, length = std::size(name)) {
    RegistryKey subkey;
    wchar_t root[1024];
    if (subkey.Open(client.get(), name) != ERROR_SUCCESS ||
        subkey.ReadString(L"HXRootDirectory", root) != ERROR_SUCCESS)
      continue;
    std::wstring folder = root;
    if (folder.empty() || folder.back() != L'\\') folder += L'\\';
    folders.push_back(folder + name + L"\\");
  }
  return folders;
}

}  // namespace

bool IsRegisteredVault(const std::wstring& url) {
  std::vector<std::wstring> tokens;
  if (ExtractURLTokens(url, tokens) <= static_cast<int>(kVaultToken)) return false;
  const std::wstring& path = tokens[kVaultToken];
  const size_t name = path.rfind(L'\\') + 1;
  // A colon names a stream of a file.
  if (path.find(L':', name) != std::wstring::npos) return false;
  for (const std::wstring& folder : VaultFolders())
    if (url::EqualIgnoringCase(folder, std::wstring_view(path).substr(0, name))) return true;
  return false;
}
