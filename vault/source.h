// Values that are too large to lie in memory: read in pieces when the store is written.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <span>

namespace vault {

// Where the bytes of a value come from. A small handle, free to copy; nothing is opened or read before the value is
// written, and writing it twice opens it twice. Used by the thread that writes.
class Source {
 public:
  // Puts bytes into `to` from its beginning and returns how many; 0 is the end. May throw.
  using Reader = std::function<std::size_t(std::span<std::uint8_t> to)>;

  // `size` bytes from a reader that `open` makes for each writing.
  Source(std::uint64_t size, std::function<Reader()> open) : size_(size), open_(std::move(open)) {}
  // A file; its size is taken now. Throws Error(kCannotOpen), here and when it is written.
  static Source File(const std::filesystem::path& path);
  // What stands in a stream that can seek, from its present place to its end. Throws Error(kCannotOpen) when it
  // cannot seek.
  static Source Stream(std::shared_ptr<std::istream> stream);

  // Bytes. A source that gives fewer or more is refused while it is written: Error(kUnwritable).
  std::uint64_t size() const { return size_; }
  Reader Open() const { return open_(); }

 private:
  std::uint64_t size_;
  std::function<Reader()> open_;
};

// Reads a source to its end and no further.
class SourceReader {
 public:
  explicit SourceReader(const Source& source) : read_(source.Open()) {}
  // Fills `to`. Throws Error(kUnwritable) when the source ends before.
  void Fill(std::span<std::uint8_t> to);
  // Throws Error(kUnwritable) when the source has more.
  void ExpectEnd();

 private:
  Source::Reader read_;
};

}  // namespace vault
