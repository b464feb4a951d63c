#include "vault/source.h"

#include <fstream>

#include "vault/error.h"

namespace vault {
namespace {

std::string Utf8(const std::filesystem::path& path) {
  const auto name = path.u8string();
  return {name.begin(), name.end()};
}

std::size_t ReadFrom(std::istream& stream, std::span<std::uint8_t> to) {
  stream.read(reinterpret_cast<char*>(to.data()), static_cast<std::streamsize>(to.size()));
  if (stream.bad()) throw Error(ErrorCode::kCannotOpen, "a value cannot be read from its source");
  return static_cast<std::size_t>(stream.gcount());
}

}  // namespace

Source Source::File(const std::filesystem::path& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (error) throw Error(ErrorCode::kCannotOpen, "cannot open " + Utf8(path) + ": " + error.message());
  return {size, [path]() -> Reader {
            const auto file = std::make_shared<std::ifstream>(path, std::ios::binary);
            if (!*file) throw Error(ErrorCode::kCannotOpen, "cannot open " + Utf8(path));
            return [file](std::span<std::uint8_t> to) { return ReadFrom(*file, to); };
          }};
}

Source Source::Stream(std::shared_ptr<std::istream> stream) {
  const auto begin = stream->tellg();
  stream->seekg(0, std::ios::end);
  const auto end = stream->tellg();
  stream->seekg(begin);
  if (begin < 0 || end < begin || !*stream) throw Error(ErrorCode::kCannotOpen, "a source cannot tell its size");
  return {static_cast<std::uint64_t>(end - begin), [stream, begin]() -> Reader {
            stream->clear();
            stream->seekg(begin);
            return [stream](std::span<std::uint8_t> to) { return ReadFrom(*stream, to); };
          }};
}

void SourceReader::Fill(std::span<std::uint8_t> to) {
  while (!to.empty()) {
    const std::size_t n = read_(to);
    if (n == 0 || n > to.size()) throw Error(ErrorCode::kUnwritable, "a source ended before the size it has told");
    to = to.subspan(n);
  }
}

void SourceReader::ExpectEnd() {
  std::uint8_t more;
  if (read_({&more, 1}) != 0) throw Error(ErrorCode::kUnwritable, "a source has more than the size it has told");
}

}  // namespace vault
