// A file that gets its name when it is complete.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>

namespace vault {

// A file of another name in the same folder until Publish; removed by the destructor when it never came to that.
// Throws Error(kCannotOpen). After a failed write every further call throws, too.
class OutputFile {
 public:
  explicit OutputFile(const std::filesystem::path& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // The name it has meanwhile: no other file's.
  const std::filesystem::path& temporary_name() const { return temporary_; }
  bool failed() const { return failed_; }
  void Append(std::span<const std::uint8_t> bytes);
  void WriteAt(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  // Brings the file to the disk and gives it its name, in place of a file that has it.
  void Publish();

 private:
  [[noreturn]] void Fail();

  std::filesystem::path path_, temporary_;
  std::ofstream file_;
  bool failed_ = false, published_ = false;
};

// Waits until the bytes of a closed file are on the disk; false when that cannot be done. One per platform.
bool FlushToDisk(const std::filesystem::path& path);

}  // namespace vault
