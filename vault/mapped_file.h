// A file mapped read-only into memory. The one place of this library that knows an operating system.
#pragma once

#include <cstdint>
#include <filesystem>
#include <span>
#include <utility>

namespace vault {

class MappedFile {
 public:
  // Throws Error(kCannotOpen) with the system's reason. An empty file maps to no bytes. Others may read and write the
  // file meanwhile; on Windows nobody can truncate it while it is mapped.
  explicit MappedFile(const std::filesystem::path& path);
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept : bytes_(std::exchange(other.bytes_, {})) {}
  MappedFile& operator=(MappedFile&&) = delete;

  std::span<const std::uint8_t> bytes() const { return bytes_; }

 private:
  std::span<const std::uint8_t> bytes_;
};

}  // namespace vault
