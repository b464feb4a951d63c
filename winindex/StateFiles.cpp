#include "winindex/StateFiles.h"

#include <shlobj.h>

#include <algorithm>

#include "winindex/ComObject.h"

namespace winindex {
namespace {

constexpr wchar_t kMutex[] = L"Global\\HoardexSystemIndex";
constexpr DWORD kPatience = 30'000;  // milliseconds
// No state is as large; a larger file is not ours.
constexpr LONGLONG kLargest = 256LL << 20;

[[noreturn]] void FailWith(DWORD error) {
  throw Failure{error ? HRESULT_FROM_WIN32(error) : E_FAIL};
}

class File {
 public:
  File(const std::wstring& path, DWORD access, DWORD disposition, DWORD flags = 0)
      : handle_(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, disposition,
                            FILE_ATTRIBUTE_NORMAL | flags, nullptr)),
        error_(handle_ == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS) {}
  ~File() { Close(); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool Missing() const { return error_ == ERROR_FILE_NOT_FOUND || error_ == ERROR_PATH_NOT_FOUND; }
  void RequireOpen() const {
    if (error_) FailWith(error_);
  }
  LONGLONG Size() const {
    LARGE_INTEGER size;
    if (!GetFileSizeEx(handle_, &size)) FailWith(GetLastError());
    return size.QuadPart;
  }
  void Seek(LONGLONG to) {
    LARGE_INTEGER place;
    place.QuadPart = to;
    if (!SetFilePointerEx(handle_, place, nullptr, FILE_BEGIN)) FailWith(GetLastError());
  }
  std::string ReadFrom(LONGLONG from) {
    const LONGLONG size = Size();
    if (size - from > kLargest) FailWith(ERROR_FILE_TOO_LARGE);
    Seek(from);
    std::string text(static_cast<size_t>(std::max<LONGLONG>(size - from, 0)), '\0');
    size_t have = 0;
    for (DWORD got = 0; have < text.size(); have += got) {
      const auto part = static_cast<DWORD>(std::min<size_t>(text.size() - have, 1 << 20));
      if (!ReadFile(handle_, text.data() + have, part, &got, nullptr)) FailWith(GetLastError());
      if (!got) break;
    }
    text.resize(have);
    return text;
  }
  void Write(std::string_view text) {
    for (DWORD put = 0; !text.empty(); text.remove_prefix(put)) {
      const auto part = static_cast<DWORD>(std::min<size_t>(text.size(), 1 << 20));
      if (!WriteFile(handle_, text.data(), part, &put, nullptr)) FailWith(GetLastError());
      if (!put) FailWith(ERROR_DISK_FULL);
    }
  }
  void EndHere() {
    if (!SetEndOfFile(handle_)) FailWith(GetLastError());
  }
  void Flush() {
    if (!FlushFileBuffers(handle_)) FailWith(GetLastError());
  }
  void Close() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
    handle_ = INVALID_HANDLE_VALUE;
  }

 private:
  HANDLE handle_;
  DWORD error_;
};

std::wstring CommonData() {
  wchar_t folder[MAX_PATH] = {};
  const DWORD length = GetEnvironmentVariableW(L"ProgramData", folder, MAX_PATH);
  if (length > 0 && length < MAX_PATH) return folder;
  Check(SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder));
  return folder;
}

}  // namespace

StateLock::StateLock() : mutex_(CreateMutexW(nullptr, FALSE, kMutex)) {
  if (!mutex_) FailWith(GetLastError());
  const DWORD result = WaitForSingleObject(mutex_, kPatience);
  if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) return;
  const DWORD error = result == WAIT_TIMEOUT ? ERROR_TIMEOUT : GetLastError();
  CloseHandle(mutex_);
  FailWith(error);
}

StateLock::~StateLock() {
  ReleaseMutex(mutex_);
  CloseHandle(mutex_);
}

StateFile::StateFile(const wchar_t* name)
    : parent_(CommonData() + L"\\Hoardex"), folder_(parent_ + L"\\SystemIndex"), path_(folder_ + L"\\" + name) {}

std::string StateFile::Read() const {
  File file(path_, GENERIC_READ, OPEN_EXISTING);
  if (file.Missing()) return {};
  file.RequireOpen();
  return file.ReadFrom(0);
}

std::string StateFile::ReadEnd(size_t bytes) const {
  File file(path_, GENERIC_READ, OPEN_EXISTING);
  if (file.Missing()) return {};
  file.RequireOpen();
  return file.ReadFrom(std::max<LONGLONG>(file.Size() - static_cast<LONGLONG>(bytes), 0));
}

void StateFile::MakeFolders() const {
  for (const std::wstring& folder : {parent_, folder_}) {
    if (CreateDirectoryW(folder.c_str(), nullptr)) continue;
    const DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS) FailWith(error);
  }
}

void StateFile::Replace(std::string_view text) const {
  const std::wstring fresh = path_ + L".new";
  if (text.empty()) {
    if (!DeleteFileW(path_.c_str())) {
      const DWORD error = GetLastError();
      if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) FailWith(error);
    }
    DeleteFileW(fresh.c_str());  // of a process that ended before it could take the place of the old one
    // Refused as long as something is in them.
    RemoveDirectoryW(folder_.c_str());
    RemoveDirectoryW(parent_.c_str());
    return;
  }
  MakeFolders();
  try {
    File file(fresh, GENERIC_WRITE, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
    file.RequireOpen();
    file.Write(text);
    file.Flush();
    file.Close();
    if (!MoveFileExW(fresh.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
      FailWith(GetLastError());
  } catch (const Failure&) {
    DeleteFileW(fresh.c_str());
    throw;
  }
}

void StateFile::Append(std::string_view lines) const {
  MakeFolders();
  File file(path_, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH);
  file.RequireOpen();
  LONGLONG end = file.Size();
  // Back to the last line end, step by step: a hostile file may have none.
  constexpr LONGLONG kStep = 64 << 10;
  for (LONGLONG to = end; to > 0;) {
    const LONGLONG from = std::max<LONGLONG>(to - kStep, 0);
    const std::string part = file.ReadFrom(from).substr(0, static_cast<size_t>(to - from));
    const size_t found = part.rfind('\n');
    to = found == std::string::npos ? from : 0;
    end = found == std::string::npos ? from : from + static_cast<LONGLONG>(found) + 1;
  }
  file.Seek(end);
  try {
    file.Write(lines);
    file.EndHere();
    file.Flush();
  } catch (const Failure&) {
    // What could not be written whole must not be there in part.
    file.Seek(end);
    file.EndHere();
    throw;
  }
}

}  // namespace winindex
