#include "index/text.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace hoardex {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

struct Range {
  char32_t first, last;
};

template <size_t N>
bool InRanges(const std::array<Range, N>& ranges, char32_t c) {
  const auto it = std::upper_bound(ranges.begin(), ranges.end(), c,
                                   [](char32_t value, const Range& range) { return value < range.first; });
  return it != ranges.begin() && c <= std::prev(it)->last;
}

constexpr std::array kUnspaced{
    Range{0x0E01, 0x0E3A}, Range{0x0E40, 0x0E4E}, Range{0x0E81, 0x0ECD}, Range{0x3005, 0x3007},
    Range{0x3021, 0x3029}, Range{0x3031, 0x3035}, Range{0x3041, 0x3096}, Range{0x309D, 0x309F},
    Range{0x30A1, 0x30FA}, Range{0x30FC, 0x30FF}, Range{0x31F0, 0x31FF}, Range{0x3400, 0x4DBF},
    Range{0x4E00, 0x9FFF}, Range{0xF900, 0xFAFF}, Range{0xFF66, 0xFF9F}, Range{0x20000, 0x323AF},
};

// What could move the cursor, hide or reorder what stands around it: controls, line separators, bidirectional marks.
constexpr std::array kHarmful{
    Range{0x0000, 0x001F}, Range{0x007F, 0x009F}, Range{0x061C, 0x061C}, Range{0x200B, 0x200F},   Range{0x2028, 0x202E},
    Range{0x2060, 0x206F}, Range{0xFEFF, 0xFEFF}, Range{0xFFF9, 0xFFFB}, Range{0xE0000, 0xE007F},
};

constexpr std::array kWide{
    Range{0x1100, 0x115F},   Range{0x2E80, 0x303E},   Range{0x3041, 0xA4CF},   Range{0xAC00, 0xD7A3},
    Range{0xF900, 0xFAFF},   Range{0xFE30, 0xFE6F},   Range{0xFF00, 0xFF60},   Range{0xFFE0, 0xFFE6},
    Range{0x1F300, 0x1F64F}, Range{0x1F900, 0x1F9FF}, Range{0x20000, 0x3FFFD},
};
constexpr std::array kCombining{Range{0x0300, 0x036F}, Range{0x1AB0, 0x1AFF}, Range{0x20D0, 0x20FF},
                                Range{0xFE00, 0xFE0F}, Range{0xFE20, 0xFE2F}};

size_t WidthOf(char32_t c) {
  if (InRanges(kCombining, c)) return 0;
  return InRanges(kWide, c) ? 2 : 1;
}

bool IsBlank(char32_t c) {
  return c == ' ' || (c >= '\t' && c <= '\r') || c == 0x85 || c == 0xA0 || c == 0x2028 || c == 0x2029;
}

}  // namespace

char32_t DecodeUtf8(std::string_view text, size_t* position) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte((*position)++);
  if (lead < 0x80) return lead;
  const int more = lead >= 0xC2 && lead <= 0xDF   ? 1
                   : lead >= 0xE0 && lead <= 0xEF ? 2
                   : lead >= 0xF0 && lead <= 0xF4 ? 3
                                                  : 0;
  if (more == 0 || text.size() - *position < static_cast<size_t>(more)) return kReplacement;
  char32_t c = lead & (0x3F >> more);
  for (int i = 0; i < more; ++i) {
    const unsigned char next = byte(*position + static_cast<size_t>(i));
    if ((next & 0xC0) != 0x80) return kReplacement;
    c = (c << 6) | (next & 0x3F);
  }
  constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  if (c < kSmallest[more] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return kReplacement;
  *position += static_cast<size_t>(more);
  return c;
}

void AppendUtf8(char32_t c, std::string* out) {
  const auto put = [out](char32_t byte) { out->push_back(static_cast<char>(byte)); };
  if (c < 0x80) {
    put(c);
  } else if (c < 0x800) {
    put(0xC0 | (c >> 6));
    put(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    put(0xE0 | (c >> 12));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  } else {
    put(0xF0 | (c >> 18));
    put(0x80 | ((c >> 12) & 0x3F));
    put(0x80 | ((c >> 6) & 0x3F));
    put(0x80 | (c & 0x3F));
  }
}

bool IsUnspacedScript(char32_t c) {
  return c >= kUnspaced.front().first && InRanges(kUnspaced, c);
}

std::string OneLine(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool blank = false;
  for (size_t i = 0; i < text.size();) {
    const char32_t c = DecodeUtf8(text, &i);
    if (IsBlank(c)) {
      blank = true;
      continue;
    }
    if (InRanges(kHarmful, c)) continue;
    if (blank && !out.empty()) out.push_back(' ');
    blank = false;
    AppendUtf8(c, &out);
  }
  return out;
}

std::string PrintableText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const char32_t c = DecodeUtf8(text, &i);
    if (c == '\n' || c == '\t' || !InRanges(kHarmful, c)) {
      AppendUtf8(c, &out);
    } else if (c == '\r' && (i == text.size() || text[i] != '\n')) {
      out.push_back('\n');
    }
  }
  return out;
}

size_t DisplayWidth(std::string_view text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) width += WidthOf(DecodeUtf8(text, &i));
  return width;
}

std::string Shorten(std::string_view text, size_t columns) {
  if (DisplayWidth(text) <= columns) return std::string(text);
  std::string out;
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    const char32_t c = DecodeUtf8(text, &i);
    if (width + WidthOf(c) + 1 > columns) break;
    width += WidthOf(c);
    AppendUtf8(c, &out);
  }
  return columns == 0 ? std::string() : out + "…";
}

std::string AsciiLower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

std::string Grouped(long long number) {
  const std::string digits = std::to_string(number);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    const size_t left = digits.size() - i;
    if (i > 0 && left % 3 == 0 && digits[i - 1] != '-') out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

}  // namespace hoardex
