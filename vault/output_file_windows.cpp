#include <windows.h>

#include "vault/output_file.h"

namespace vault {

bool FlushToDisk(const std::filesystem::path& path) {
  const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  const bool done = ::FlushFileBuffers(file);
  ::CloseHandle(file);
  return done;
}

}  // namespace vault
