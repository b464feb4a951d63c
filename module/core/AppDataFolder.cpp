#include "module/core/AppDataFolder.h"

#include <windows.h>

#include <shlobj.h>

#include <cwchar>
#include <vector>

#include "module/core/HoardexURL.h"

namespace {

// Where the path ends up when links are followed, without a closing backslash; empty when that cannot be found out.
std::wstring Resolve(const std::wstring& path) {
  using Resolver = DWORD(WINAPI*)(HANDLE, LPWSTR, DWORD, DWORD);
  // Newer than the oldest systems that this runs on.
  static const auto resolve = reinterpret_cast<Resolver>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetFinalPathNameByHandleW")));
  std::wstring target = path;
  if (resolve) {
    const HANDLE file = CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) return {};
    target.resize(32768);
    const DWORD length = resolve(file, target.data(), static_cast<DWORD>(target.size()), 0);
    CloseHandle(file);
    target.resize(length < target.size() ? length : 0);
  }
  if (target.ends_with(L'\\')) target.pop_back();
  return target;
}

struct Entry {
  std::wstring name;
  DWORD attributes;
};

std::vector<Entry> List(const std::wstring& pattern) {
  std::vector<Entry> entries;
  WIN32_FIND_DATAW data;
  const HANDLE search = FindFirstFileW(pattern.c_str(), &data);
  if (search == INVALID_HANDLE_VALUE) return entries;
  do {
    if (wcscmp(data.cFileName, L".") && wcscmp(data.cFileName, L".."))
      entries.push_back({data.cFileName, data.dwFileAttributes});
  } while (FindNextFileW(search, &data));
  FindClose(search);
  return entries;
}

// The entries of a folder that itself is no link. Sees to it that none is, as far as it can.
class Sweep {
 public:
  // `expected` is where the folder is, and empty when neither it nor a folder above it could be resolved.
  void Enter(const std::wstring& folder, const std::wstring& expected, const std::vector<Entry>& entries, int depth) {
    for (const Entry& entry : entries) {
      const std::wstring path = folder + L"\\" + entry.name;
      const bool is_folder = (entry.attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
      if (entry.attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
        // Both take the link alone.
        if (!(is_folder ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str()))) clean_ = false;
        continue;
      }
      // Some systems show a link as what it leads to, and would delete that. Where nothing above could be resolved,
      // there is only the attribute to go by, and what lies deeper is held against this folder.
      const std::wstring place = Resolve(path), wanted = expected.empty() ? place : expected + L"\\" + entry.name;
      if (depth > kDeepest || !url::EqualIgnoringCase(place, wanted)) {
        clean_ = false;
      } else if (is_folder) {
        Enter(path, place, List(path + L"\\*"), depth + 1);
      } else {
        files_.push_back(path);
      }
    }
  }
  bool clean() const { return clean_; }
  const std::vector<std::wstring>& files() const { return files_; }

 private:
  static constexpr int kDeepest = 64;
  bool clean_ = true;
  std::vector<std::wstring> files_;
};

}  // namespace

bool DetachLinks(const std::wstring& folder) {
  const size_t slash = folder.rfind(L'\\');
  Sweep sweep;
  // A drive's or a share's root has a name of its own only with its backslash.
  sweep.Enter(folder.substr(0, slash), Resolve(folder.substr(0, slash + 1)), List(folder), 0);
  if (sweep.clean()) return true;
  for (const std::wstring& file : sweep.files()) DeleteFileW(file.c_str());
  return false;
}

std::wstring AppDataFolder() {
  wchar_t roaming[MAX_PATH] = {};
  if (!SHGetSpecialFolderPathW(nullptr, roaming, CSIDL_APPDATA, TRUE) || !*roaming) return {};
  std::wstring folder = roaming;
  if (folder.back() != L'\\') folder += L'\\';
  return folder.append(url::kScheme);
}
