// Application-data folders of a test's own, so that the log and the temporary files of programs that run beside it
// cannot be taken for its own. Needs a ScratchRegistry that lives longer.
#pragma once

#include <windows.h>

#include <string>

#include "tests/support/scratch_registry.h"

class ScratchFolders {
 public:
  ScratchFolders() {
    wchar_t temporary[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temporary);
    folder_ = std::wstring(temporary) + L"HoardexTest" + std::to_wstring(GetCurrentProcessId());
    constexpr wchar_t kShellFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
    for (const wchar_t* path : {L"", L"\\Local", L"\\Roaming"}) CreateDirectoryW((folder_ + path).c_str(), nullptr);
    ScratchRegistry::SetString(HKEY_CURRENT_USER, kShellFolders, L"Local AppData", folder_ + L"\\Local");
    ScratchRegistry::SetString(HKEY_CURRENT_USER, kShellFolders, L"AppData", folder_ + L"\\Roaming");
  }
  // Takes away what is known to be there, and leaves in place what is not.
  ~ScratchFolders() {
    DeleteFileW(Log().c_str());
    for (const wchar_t* path : {L"\\Roaming\\zkoffline3x", L"\\Roaming", L"\\Local", L""})
      RemoveDirectoryW((folder_ + path).c_str());
  }
  ScratchFolders(const ScratchFolders&) = delete;
  ScratchFolders& operator=(const ScratchFolders&) = delete;

  std::wstring Log() const { return folder_ + L"\\Local\\HoardexPH.log"; }

 private:
  std::wstring folder_;
};
