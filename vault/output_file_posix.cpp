#include <fcntl.h>
#include <unistd.h>

#include "vault/output_file.h"

namespace vault {

bool FlushToDisk(const std::filesystem::path& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  const bool done = ::fsync(file) == 0;
  ::close(file);
  return done;
}

}  // namespace vault
