// Subjects and text conversion.
#include <algorithm>
#include <array>

#include "vault/value.h"

namespace vault {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr std::uint32_t kUtf8Codepage = 65001;
constexpr std::size_t kLongestPrefix = 3;

// Windows-1252 from 0x80 to 0x9F; the other bytes are Unicode's first 256 characters.
constexpr std::array<char16_t, 32> kWindows1252 = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                                   0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                                   0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                                   0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// Takes one code point off the front of `text`.
char32_t TakeUtf8(std::string_view& text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80                   ? 1
                             : lead >= 0xC2 && lead < 0xE0 ? 2
                             : (lead & 0xF0) == 0xE0       ? 3
                             : lead >= 0xF0 && lead < 0xF5 ? 4
                                                           : 0;
  constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  char32_t c = length == 1 ? lead : lead & (0x7F >> length);
  bool good = length > 0 && length <= text.size();
  for (std::size_t i = 1; good && i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    good = (next & 0xC0) == 0x80;
    c = c << 6 | (next & 0x3F);
  }
  if (good) good = c >= kLeast[length] && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
  text.remove_prefix(good ? length : 1);
  return good ? c : kReplacement;
}

bool IsHigh(char16_t c) {
  return c >= 0xD800 && c < 0xDC00;
}
bool IsLow(char16_t c) {
  return c >= 0xDC00 && c < 0xE000;
}

}  // namespace

Subject ParseSubject(std::u16string_view stored) {
  if (stored.size() >= 2 && stored[0] == 1) {
    Subject subject{stored.substr(2), stored[1] ? stored[1] - std::size_t{1} : 0};
    if (subject.prefix_length > subject.text.size()) subject.prefix_length = 0;
    return subject;
  }
  Subject subject{stored};
  const std::size_t colon = stored.find(u':');
  if (colon == 0 || colon > kLongestPrefix || colon + 1 >= stored.size() || stored[colon + 1] != u' ') return subject;
  const auto prefix = stored.substr(0, colon);
  const bool plain =
      std::none_of(prefix.begin(), prefix.end(), [](char16_t c) { return c == u' ' || (c >= u'0' && c <= u'9'); });
  if (plain) subject.prefix_length = colon + 2;
  return subject;
}

std::u16string Utf16FromUtf8(std::string_view text) {
  std::u16string result;
  result.reserve(text.size());
  while (!text.empty()) {
    const char32_t c = TakeUtf8(text);
    if (c < 0x10000) {
      result += static_cast<char16_t>(c);
    } else {
      result += static_cast<char16_t>(0xD7C0 + (c >> 10));
      result += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    }
  }
  return result;
}

std::string Utf8FromUtf16(std::u16string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    if (IsHigh(text[i]) && i + 1 < text.size() && IsLow(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
    } else if (IsHigh(text[i]) || IsLow(text[i])) {
      c = kReplacement;
    }
    if (c < 0x80) {
      result += static_cast<char>(c);
      continue;
    }
    const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
    result += static_cast<char>((0xFF00 >> (more + 1) & 0xFF) | c >> (6 * more));
    for (int n = more - 1; n >= 0; --n) result += static_cast<char>(0x80 | (c >> (6 * n) & 0x3F));
  }
  return result;
}

std::u16string Utf16FromBytes(std::span<const std::uint8_t> text, std::uint32_t codepage) {
  if (codepage == kUtf8Codepage) return Utf16FromUtf8({reinterpret_cast<const char*>(text.data()), text.size()});
  std::u16string result(text.size(), u'\0');
  std::transform(text.begin(), text.end(), result.begin(),
                 [](std::uint8_t c) { return c >= 0x80 && c < 0xA0 ? kWindows1252[c - 0x80] : char16_t{c}; });
  return result;
}

}  // namespace vault
