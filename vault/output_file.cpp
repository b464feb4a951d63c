#include "vault/output_file.h"

#include <cerrno>
#include <random>
#include <string>
#include <system_error>

#include "vault/error.h"

namespace vault {

OutputFile::OutputFile(const std::filesystem::path& path) : path_(path) {
  // The name may be a link to a store elsewhere: that one is replaced, not the link.
  std::error_code error;
  if (std::filesystem::is_symlink(path, error)) {
    if (auto target = std::filesystem::weakly_canonical(path, error); !error) path_ = std::move(target);
  }
  std::random_device random;
  do {
    temporary_ = path_;
    temporary_ += "." + std::to_string(random()) + ".part";
  } while (std::filesystem::exists(temporary_, error));
  file_.rdbuf()->pubsetbuf(nullptr, 0);  // writes are large
  errno = 0;
  file_.open(temporary_, std::ios::binary | std::ios::trunc);
  if (!file_) {
    published_ = true;  // nothing to remove
    Fail();
  }
}

OutputFile::~OutputFile() {
  if (published_) return;
  file_.close();
  std::error_code error;
  std::filesystem::remove(temporary_, error);
}

void OutputFile::Fail() {
  failed_ = true;
  const std::string reason = errno ? ": " + std::generic_category().message(errno) : std::string();
  const auto name = path_.u8string();
  throw Error(ErrorCode::kCannotOpen, "cannot write " + std::string(name.begin(), name.end()) + reason);
}

void OutputFile::Append(std::span<const std::uint8_t> bytes) {
  if (failed_) Fail();
  file_.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!file_) Fail();
}

void OutputFile::WriteAt(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  if (failed_ || !file_.seekp(static_cast<std::streamoff>(offset))) Fail();
  Append(bytes);
}

void OutputFile::Publish() {
  if (failed_) Fail();
  file_.close();
  if (!file_ || !FlushToDisk(temporary_)) Fail();
  std::error_code error;
  std::filesystem::rename(temporary_, path_, error);
  if (error) {
    errno = error.value();
    Fail();
  }
  published_ = true;
}

}  // namespace vault
