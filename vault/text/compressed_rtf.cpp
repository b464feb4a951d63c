#include "vault/text/compressed_rtf.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace vault::text {
namespace {

constexpr std::size_t kHeaderSize = 16;
constexpr std::uint32_t kCompressed = 0x75465A4C;    // "LZFu"
constexpr std::uint32_t kUncompressed = 0x414C454D;  // "MELA"

// [MS-OXRTFCP] 2.1.2.1: both sides begin with these words in the dictionary.
constexpr std::string_view kPrefill =
    "{\\rtf1\\ansi\\mac\\deff0\\deftab720{\\fonttbl;}{\\f0\\fnil \\froman \\fswiss \\fmodern \\fscript "
    "\\fdecor MS Sans SerifSymbolArialTimes New RomanCourier{\\colortbl\\red0\\green0\\blue0\r\n\\par "
    "\\pard\\plain\\f0\\fs20\\b\\i\\u\\tab\\tx";
static_assert(kPrefill.size() == 207);

std::uint32_t Word(std::span<const std::uint8_t> bytes, std::size_t at) {
  return bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | static_cast<std::uint32_t>(bytes[at + 3]) << 24;
}

class Unpacker {
 public:
  Unpacker(std::span<const std::uint8_t> in, std::size_t limit) : in_(in), limit_(limit) {
    std::memcpy(dictionary_.data(), kPrefill.data(), kPrefill.size());
  }

  std::string Run() {
    out_.reserve(std::min(limit_, in_.size() * 4));
    while (at_ < in_.size()) {
      unsigned control = in_[at_++];
      for (int bit = 0; bit < 8; ++bit, control >>= 1) {
        if (out_.size() >= limit_ || !(control & 1 ? Reference() : Literal())) return std::move(out_);
      }
    }
    return std::move(out_);
  }

 private:
  static constexpr std::size_t kMask = 4095;

  void Put(char c) {
    out_ += c;
    dictionary_[write_] = c;
    write_ = (write_ + 1) & kMask;
  }

  bool Literal() {
    if (at_ >= in_.size()) return false;
    Put(static_cast<char>(in_[at_++]));
    return true;
  }

  bool Reference() {
    if (in_.size() - at_ < 2) return false;
    const unsigned token = in_[at_] << 8 | in_[at_ + 1];
    at_ += 2;
    std::size_t from = token >> 4;
    if (from == write_) return false;  // the end mark
    for (std::size_t left = (token & 15) + 2; left && out_.size() < limit_; --left) {
      Put(dictionary_[from]);
      from = (from + 1) & kMask;
    }
    return true;
  }

  std::span<const std::uint8_t> in_;
  std::size_t limit_;
  std::size_t at_ = 0;
  std::size_t write_ = kPrefill.size();
  std::array<char, kMask + 1> dictionary_{};
  std::string out_;
};

}  // namespace

std::optional<std::string> UnpackRtf(std::span<const std::uint8_t> packed, std::size_t limit) {
  if (packed.size() < kHeaderSize) return {};
  const std::size_t packed_size = Word(packed, 0), raw_size = Word(packed, 4);
  const std::uint32_t kind = Word(packed, 8);
  auto content = packed.subspan(kHeaderSize);
  // The first word counts everything after itself; a smaller value than is there leaves padding behind.
  if (packed_size > kHeaderSize - 4) content = content.first(std::min(content.size(), packed_size - (kHeaderSize - 4)));
  limit = std::min(limit, raw_size);
  if (kind == kUncompressed) {
    const auto bytes = content.first(std::min(content.size(), limit));
    return std::string(bytes.begin(), bytes.end());
  }
  if (kind != kCompressed) return {};
  return Unpacker(content, limit).Run();
}

}  // namespace vault::text
