#include "vault/text/code_pages.h"

#include <algorithm>
#include <array>
#include <vector>

namespace vault::text {
namespace {

constexpr char16_t kReplacement = 0xFFFD;

constexpr std::array<char16_t, 32> kWesternC1 = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,
};

// One step of the UTF-8 automaton: the code point at `bytes[at]` and its length; length 0 with a malformed sequence.
struct Scalar {
  std::uint32_t value = 0;
  std::size_t length = 0;
};
Scalar NextUtf8(Bytes bytes, std::size_t at) {
  const std::uint8_t lead = bytes[at];
  if (lead < 0x80) return {lead, 1};
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || bytes.size() - at < length) return {};
  std::uint32_t value = lead & (0x7Fu >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((bytes[at + i] & 0xC0) != 0x80) return {};
    value = value << 6 | (bytes[at + i] & 0x3F);
  }
  const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
  if (overlong || value > 0x10FFFF || (value >= 0xD800 && value < 0xE000)) return {};
  return {value, length};
}

void DecodeUtf8(Bytes bytes, std::u16string& text) {
  text.reserve(text.size() + bytes.size());
  for (std::size_t i = 0; i < bytes.size();) {
    const Scalar c = NextUtf8(bytes, i);
    if (c.length) {
      AppendCodePoint(c.value, text);
    } else {
      text += kReplacement;
    }
    i += std::max<std::size_t>(c.length, 1);
  }
}

void DecodeUtf16(Bytes bytes, bool big_endian, std::u16string& text) {
  text.reserve(text.size() + bytes.size() / 2);
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const unsigned low = bytes[i + (big_endian ? 1 : 0)], high = bytes[i + (big_endian ? 0 : 1)];
    text += static_cast<char16_t>(high << 8 | low);
  }
}

// JIS X 0208 row and cell (each 0x21..0x7E) as the two bytes of Shift-JIS.
void AppendJis(std::uint8_t row, std::uint8_t cell, std::vector<std::uint8_t>& out) {
  if (row < 0x21 || row > 0x7E || cell < 0x21 || cell > 0x7E) {
    out.push_back('?');
    return;
  }
  const int lead = (row - 0x21) / 2 + 0x81;
  out.push_back(static_cast<std::uint8_t>(lead > 0x9F ? lead + 0x40 : lead));
  out.push_back(static_cast<std::uint8_t>(row % 2 ? cell + (cell < 0x60 ? 0x1F : 0x20) : cell + 0x7E));
}

// ISO-2022-JP and its half-width katakana variants (RFC 1468).
std::vector<std::uint8_t> ShiftJisFromIso2022(Bytes in) {
  enum class Set { kRoman, kKatakana, kKanji, kSupplementary } set = Set::kRoman;
  std::vector<std::uint8_t> out;
  out.reserve(in.size());
  bool shifted_out = false;
  for (std::size_t i = 0; i < in.size(); ++i) {
    const std::uint8_t b = in[i];
    if (b == 0x1B && in.size() - i >= 3) {
      const std::uint8_t kind = in[i + 1], final = in[i + 2];
      if (kind == '$' && final == '(' && in.size() - i >= 4) {
        set = in[i + 3] == 'D' ? Set::kSupplementary : Set::kKanji;
        i += 3;
        continue;
      }
      if (kind == '$') set = Set::kKanji;
      if (kind == '(') set = final == 'I' ? Set::kKatakana : Set::kRoman;
      if (kind == '$' || kind == '(') {
        i += 2;
        continue;
      }
    }
    if (b == 0x0E || b == 0x0F) {
      shifted_out = b == 0x0E;
    } else if (b < 0x21 || b >= 0x7F) {
      if (b == '\n') set = Set::kRoman;  // each line begins in ASCII, so a lost escape spoils one line only
      out.push_back(b);
    } else if (set == Set::kKanji || set == Set::kSupplementary) {
      const std::uint8_t cell = i + 1 < in.size() ? in[++i] : 0;
      if (set == Set::kKanji) {
        AppendJis(b, cell, out);
      } else {
        out.push_back('?');  // JIS X 0212 has no place in Shift-JIS
      }
    } else {
      out.push_back(set == Set::kKatakana || shifted_out ? static_cast<std::uint8_t>(b | 0x80) : b);
    }
  }
  return out;
}

std::vector<std::uint8_t> ShiftJisFromEuc(Bytes in) {
  std::vector<std::uint8_t> out;
  out.reserve(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) {
    const std::uint8_t b = in[i];
    const std::size_t left = in.size() - i - 1;
    if (b == 0x8E && left >= 1) {
      out.push_back(in[++i]);
    } else if (b == 0x8F && left >= 2) {
      out.push_back('?');
      i += 2;
    } else if (b >= 0xA1 && left >= 1) {
      AppendJis(b & 0x7F, in[i + 1] & 0x7F, out);
      ++i;
    } else {
      out.push_back(b < 0x80 ? b : '?');
    }
  }
  return out;
}

// ISO-2022-KR (RFC 1557): between SO and SI each pair is KS X 1001 without its high bits.
std::vector<std::uint8_t> KoreanFromIso2022(Bytes in) {
  std::vector<std::uint8_t> out;
  out.reserve(in.size());
  bool shifted_out = false;
  for (std::size_t i = 0; i < in.size(); ++i) {
    if (in[i] == 0x1B && in.size() - i >= 4 && in[i + 1] == '$') {
      i += 3;
    } else if (in[i] == 0x0E || in[i] == 0x0F) {
      shifted_out = in[i] == 0x0E;
    } else {
      out.push_back(shifted_out && in[i] > 0x20 ? static_cast<std::uint8_t>(in[i] | 0x80) : in[i]);
    }
  }
  return out;
}

// HZ (RFC 1843): "~{" begins, "~}" ends GB 2312 without its high bits; "~~" is a tilde.
std::vector<std::uint8_t> GbkFromHz(Bytes in) {
  std::vector<std::uint8_t> out;
  out.reserve(in.size());
  bool chinese = false;
  for (std::size_t i = 0; i < in.size(); ++i) {
    const std::uint8_t next = i + 1 < in.size() ? in[i + 1] : 0;
    if (in[i] == '~' && (next == '{' || next == '}' || next == '~' || next == '\n')) {
      if (next == '~') out.push_back('~');
      if (next == '{' || next == '}') chinese = next == '{';
      ++i;
    } else {
      out.push_back(chinese && in[i] > 0x20 ? static_cast<std::uint8_t>(in[i] | 0x80) : in[i]);
    }
  }
  return out;
}

// Forms that platforms often lack, brought to code pages that they all have.
struct Transcoding {
  unsigned code_page;
  unsigned target;
  std::vector<std::uint8_t> (*convert)(Bytes);
};
constexpr Transcoding kTranscodings[] = {
    {50220, kCodePageShiftJis, ShiftJisFromIso2022},
    {50221, kCodePageShiftJis, ShiftJisFromIso2022},
    {50222, kCodePageShiftJis, ShiftJisFromIso2022},
    {20932, kCodePageShiftJis, ShiftJisFromEuc},
    {51932, kCodePageShiftJis, ShiftJisFromEuc},
    {50225, kCodePageKorean, KoreanFromIso2022},
    {51949, kCodePageKorean, nullptr},
    {51936, kCodePageGbk, nullptr},
    {20936, kCodePageGbk, nullptr},
    {52936, kCodePageGbk, GbkFromHz},
    {38598, 28598, nullptr},
};

bool DecodeByPlatform(unsigned code_page, Bytes bytes, const CodePages& pages, std::u16string& text) {
  const auto* found = std::find_if(std::begin(kTranscodings), std::end(kTranscodings),
                                   [code_page](const Transcoding& t) { return t.code_page == code_page; });
  if (found == std::end(kTranscodings)) return pages.Decode(code_page, bytes, text);
  if (!found->convert) return pages.Decode(found->target, bytes, text);
  return pages.Decode(found->target, found->convert(bytes), text);
}

struct Charset {
  std::string_view name;
  unsigned code_page;
};
constexpr Charset kCharsets[] = {
    {"utf-8", kCodePageUtf8},
    {"utf8", kCodePageUtf8},
    {"unicode-1-1-utf-8", kCodePageUtf8},
    {"us-ascii", kCodePageAscii},
    {"ascii", kCodePageAscii},
    {"utf-7", 65000},
    {"utf-16", kCodePageUtf16Le},
    {"utf-16le", kCodePageUtf16Le},
    {"utf-16be", kCodePageUtf16Be},
    {"unicode", kCodePageUtf16Le},
    {"latin1", kCodePageWestern},
    {"macintosh", kCodePageMacRoman},
    {"iso-8859-1", kCodePageWestern},
    {"iso8859-1", kCodePageWestern},
    {"iso-8859-2", 28592},
    {"iso-8859-3", 28593},
    {"iso-8859-4", 28594},
    {"iso-8859-5", 28595},
    {"iso-8859-6", 28596},
    {"iso-8859-7", 28597},
    {"iso-8859-8", 28598},
    {"iso-8859-8-i", 38598},
    {"iso-8859-9", 28599},
    {"iso-8859-13", 28603},
    {"iso-8859-15", 28605},
    {"windows-874", 874},
    {"tis-620", 874},
    {"iso-8859-11", 874},
    {"windows-1250", 1250},
    {"windows-1251", 1251},
    {"windows-1252", 1252},
    {"cp1252", 1252},
    {"windows-1253", 1253},
    {"windows-1254", 1254},
    {"windows-1255", 1255},
    {"windows-1256", 1256},
    {"windows-1257", 1257},
    {"windows-1258", 1258},
    {"cp1250", 1250},
    {"cp1251", 1251},
    {"koi8-r", 20866},
    {"koi8-u", 21866},
    {"ibm437", 437},
    {"ibm850", 850},
    {"ibm852", 852},
    {"cp866", 866},
    {"ibm866", 866},
    {"shift_jis", 932},
    {"shift-jis", 932},
    {"x-sjis", 932},
    {"sjis", 932},
    {"windows-31j", 932},
    {"iso-2022-jp", 50220},
    {"csiso2022jp", 50220},
    {"euc-jp", 51932},
    {"gb2312", 936},
    {"gbk", 936},
    {"x-gbk", 936},
    {"gb18030", 54936},
    {"hz-gb-2312", 52936},
    {"big5", 950},
    {"big5-hkscs", 950},
    {"euc-kr", 949},
    {"ks_c_5601-1987", 949},
    {"ksc5601", 949},
    {"windows-949", 949},
    {"iso-2022-kr", 50225},
};

struct FontCharset {
  unsigned charset, code_page;
};
constexpr FontCharset kFontCharsets[] = {
    {0, 1252},   {2, 1252},   {77, 10000}, {78, 10001}, {79, 10003}, {80, 10008}, {81, 10002}, {83, 10005},
    {84, 10004}, {85, 10006}, {86, 10081}, {87, 10021}, {88, 10029}, {89, 10007}, {128, 932},  {129, 949},
    {130, 1361}, {134, 936},  {136, 950},  {161, 1253}, {162, 1254}, {163, 1258}, {177, 1255}, {178, 1256},
    {186, 1257}, {204, 1251}, {222, 874},  {238, 1250}, {254, 437},  {255, 850},
};

}  // namespace

char16_t FromWestern(std::uint8_t byte) {
  return byte >= 0x80 && byte < 0xA0 ? kWesternC1[byte - 0x80] : static_cast<char16_t>(byte);
}

void AppendCodePoint(std::uint32_t code_point, std::u16string& text) {
  if (code_point > 0x10FFFF || (code_point >= 0xD800 && code_point < 0xE000)) code_point = kReplacement;
  if (code_point < 0x10000) {
    text += static_cast<char16_t>(code_point);
    return;
  }
  text += static_cast<char16_t>(0xD7C0 + (code_point >> 10));
  text += static_cast<char16_t>(0xDC00 + (code_point & 0x3FF));
}

void Decode(unsigned code_page, Bytes bytes, const CodePages& pages, std::u16string& text) {
  if (bytes.empty()) return;
  switch (code_page) {
    case kCodePageUtf8:
      return DecodeUtf8(bytes, text);
    case kCodePageUtf16Le:
      return DecodeUtf16(bytes, false, text);
    case kCodePageUtf16Be:
      return DecodeUtf16(bytes, true, text);
    case kCodePageLatin1:
      text.append(bytes.begin(), bytes.end());
      return;
    case kCodePageAscii:
    case kCodePageWestern:
    case kCodePageUnknown:
      break;
    default:
      if (DecodeByPlatform(code_page, bytes, pages, text)) return;
  }
  text.reserve(text.size() + bytes.size());
  for (const std::uint8_t b : bytes) text += FromWestern(b);
}

bool IsLeadByte(unsigned code_page, std::uint8_t b) {
  switch (code_page) {
    case kCodePageShiftJis:
      return (b >= 0x81 && b <= 0x9F) || (b >= 0xE0 && b <= 0xFC);
    case kCodePageJohab:
      return (b >= 0x84 && b <= 0xD3) || (b >= 0xD8 && b <= 0xDE) || (b >= 0xE0 && b <= 0xF9);
    case kCodePageGbk:
    case kCodePageKorean:
    case kCodePageBig5:
      return b >= 0x81 && b <= 0xFE;
    default:
      return false;
  }
}

unsigned CodePageOfFontCharset(unsigned charset) {
  for (const FontCharset& row : kFontCharsets)
    if (row.charset == charset) return row.code_page;
  return kCodePageUnknown;
}

unsigned CodePageOfCharsetName(std::string_view name) {
  constexpr std::size_t kLongestName = 32;
  if (name.size() > kLongestName) return kCodePageUnknown;
  std::string lower(name);
  for (char& c : lower)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  for (const Charset& row : kCharsets)
    if (row.name == lower) return row.code_page;
  return kCodePageUnknown;
}

bool LooksLikeUtf8(Bytes bytes) {
  bool multi_byte = false;
  for (std::size_t i = 0; i < bytes.size();) {
    const Scalar c = NextUtf8(bytes, i);
    if (!c.length) return false;
    multi_byte |= c.length > 1;
    i += c.length;
  }
  return multi_byte;
}

}  // namespace vault::text
