#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "vault/error.h"
#include "vault/mapped_file.h"

namespace vault {
namespace {

[[noreturn]] void Fail(const std::filesystem::path& path) {
  const std::string reason = std::strerror(errno);
  throw Error(ErrorCode::kCannotOpen, "cannot open " + path.string() + ": " + reason);
}

struct Descriptor {
  int fd;
  ~Descriptor() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

MappedFile::MappedFile(const std::filesystem::path& path) {
  const Descriptor file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  struct stat info;
  if (file.fd < 0 || ::fstat(file.fd, &info) != 0) Fail(path);
  if (!S_ISREG(info.st_mode)) {
    errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
    Fail(path);
  }
  if (info.st_size == 0) return;
  const auto size = static_cast<std::size_t>(info.st_size);
  void* const at = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file.fd, 0);
  if (at == MAP_FAILED) Fail(path);
  bytes_ = {static_cast<const std::uint8_t*>(at), size};
}

MappedFile::~MappedFile() {
  if (!bytes_.empty()) ::munmap(const_cast<std::uint8_t*>(bytes_.data()), bytes_.size());
}

}  // namespace vault
