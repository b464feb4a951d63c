// Text of any Windows code page to UTF-16. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vault::text {

using Bytes = std::span<const std::uint8_t>;

// Numbers as Windows numbers its code pages.
enum CodePage : unsigned {
  kCodePageUnknown = 0,
  kCodePageShiftJis = 932,
  kCodePageGbk = 936,
  kCodePageKorean = 949,
  kCodePageBig5 = 950,
  kCodePageUtf16Le = 1200,
  kCodePageUtf16Be = 1201,
  kCodePageWestern = 1252,
  kCodePageJohab = 1361,
  kCodePageMacRoman = 10000,
  kCodePageAscii = 20127,
  kCodePageLatin1 = 28591,
  kCodePageUtf8 = 65001,
};

// The platform's own code pages: what is not built in here. An implementation may be called from any thread.
class CodePages {
 public:
  virtual ~CodePages() = default;
  // Appends `bytes` to `text`, U+FFFD or the platform's default for what does not map. False, with `text` untouched,
  // when the platform does not know the code page.
  virtual bool Decode(unsigned code_page, Bytes bytes, std::u16string& text) const = 0;
};

// Appends `bytes` to `text`. Built in: UTF-8, UTF-16, Latin-1, 1252, US-ASCII (whose stray high bytes read as 1252) and
// the escape-sequence and EUC forms of the East Asian sets, which are brought to the platform's 932, 936 and 949. Takes
// 1252 for a code page that nobody knows, so that ASCII words stay searchable.
void Decode(unsigned code_page, Bytes bytes, const CodePages& pages, std::u16string& text);

// True when `byte` begins a two-byte character of the double-byte code page.
bool IsLeadByte(unsigned code_page, std::uint8_t byte);

// Code page of an RTF or GDI font character set; 0 for the default set (1) and unknown ones.
unsigned CodePageOfFontCharset(unsigned charset);

// Code page of a MIME character set name in any case; 0 when unknown.
unsigned CodePageOfCharsetName(std::string_view name);

// Whether the bytes are UTF-8 with at least one multi-byte character.
bool LooksLikeUtf8(Bytes bytes);

// Code point of a byte of windows-1252; the five unassigned ones are the C1 controls of the same number.
char16_t FromWestern(std::uint8_t byte);

// Appends a code point; U+FFFD for surrogates and numbers above U+10FFFF.
void AppendCodePoint(std::uint32_t code_point, std::u16string& text);

}  // namespace vault::text
