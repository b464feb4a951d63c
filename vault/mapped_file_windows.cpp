#include <windows.h>

#include <string>
#include <system_error>

#include "vault/error.h"
#include "vault/mapped_file.h"

namespace vault {
namespace {

[[noreturn]] void Fail(const std::filesystem::path& path) {
  const auto reason = std::system_category().message(static_cast<int>(::GetLastError()));
  const auto name = path.u8string();
  throw Error(ErrorCode::kCannotOpen, "cannot open " + std::string(name.begin(), name.end()) + ": " + reason);
}

struct OwnedHandle {
  HANDLE handle;
  ~OwnedHandle() {
    if (handle && handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle);
  }
};

}  // namespace

MappedFile::MappedFile(const std::filesystem::path& path) {
  const OwnedHandle file{::CreateFileW(path.c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr)};
  LARGE_INTEGER size;
  if (file.handle == INVALID_HANDLE_VALUE || !::GetFileSizeEx(file.handle, &size)) Fail(path);
  if (size.QuadPart == 0) return;
  const OwnedHandle mapping{::CreateFileMappingW(file.handle, nullptr, PAGE_READONLY, 0, 0, nullptr)};
  if (!mapping.handle) Fail(path);
  const void* const at = ::MapViewOfFile(mapping.handle, FILE_MAP_READ, 0, 0, 0);
  if (!at) Fail(path);
  bytes_ = {static_cast<const std::uint8_t*>(at), static_cast<std::size_t>(size.QuadPart)};
}

MappedFile::~MappedFile() {
  if (!bytes_.empty()) ::UnmapViewOfFile(bytes_.data());
}

}  // namespace vault
