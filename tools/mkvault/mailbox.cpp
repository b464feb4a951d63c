#include "tools/mkvault/mailbox.h"

#include <cctype>
#include <fstream>
#include <string>

namespace mkvault {
namespace {

// As much of a line as tells whether it is an envelope.
constexpr std::size_t kLongestEnvelope = 512;

bool Digits(std::string_view text, std::size_t at, std::size_t count) {
  if (at + count > text.size()) return false;
  for (std::size_t i = at; i < at + count; ++i)
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
  return true;
}

}  // namespace

bool IsEnvelope(std::string_view line) {
  if (!line.starts_with("From ")) return false;
  bool time = false, year = false;
  for (std::size_t i = 5; i < line.size(); ++i) {
    const bool begins = !Digits(line, i - 1, 1);
    if (begins && (Digits(line, i, 2) || Digits(line, i, 1))) {
      const std::size_t colon = i + (Digits(line, i, 2) ? 2 : 1);
      time = time || (colon < line.size() && line[colon] == ':' && Digits(line, colon + 1, 2));
      year = year || (Digits(line, i, 4) && !Digits(line, i + 4, 1));
    }
  }
  return time && year;
}

std::vector<MessageSpan> SplitMailbox(const std::filesystem::path& file) {
  std::vector<MessageSpan> spans;
  std::ifstream in(file, std::ios::binary);
  std::vector<char> piece(1 << 20);
  std::string line;  // what is kept of the present line
  std::int64_t at = 0, line_begin = 0;
  bool after_empty = true, blank = true;
  const auto end_of_line = [&] {
    if (after_empty && IsEnvelope(line)) {
      if (!spans.empty()) spans.back().end = line_begin;
      spans.push_back({at, at});
    }
    after_empty = blank;
    line.clear();
    line_begin = at;
    blank = true;
  };
  while (in) {
    in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
    const auto got = static_cast<std::size_t>(in.gcount());
    for (std::size_t i = 0; i < got; ++i) {
      const char c = piece[i];
      ++at;
      if (c == '\n') {
        end_of_line();
        continue;
      }
      if (c != '\r') blank = false;
      if (line.size() < kLongestEnvelope) line += c;
    }
  }
  if (!line.empty()) end_of_line();
  if (!spans.empty()) spans.back().end = at;
  return spans;
}

}  // namespace mkvault
