#include "module/core/AppDataFolder.h"

#include <windows.h>

#include <shlobj.h>

#include "module/core/HoardexURL.h"

std::wstring AppDataFolder() {
  wchar_t folder[MAX_PATH] = {};
  if (!SHGetSpecialFolderPathW(nullptr, folder, CSIDL_APPDATA, TRUE)) return {};
  return std::wstring(folder).append(L"\\").append(url::kScheme);
}
