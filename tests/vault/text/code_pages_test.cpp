#include "vault/text/code_pages.h"

#include <gtest/gtest.h>

#include "tests/support/iconv_code_pages.h"

namespace vault::text {
namespace {

std::u16string Decoded(unsigned code_page, std::string_view bytes) {
  const test::IconvCodePages pages;
  std::u16string text;
  Decode(code_page, {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()}, pages, text);
  return text;
}

struct Sample {
  unsigned code_page;
  std::string_view bytes;
  std::u16string text;
};

TEST(CodePages, DecodesEveryFamily) {
  using namespace std::string_view_literals;
  const Sample samples[] = {
      {65001, "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", u"aé€\U0001F600"},
      {28591, "\xE9\x80", u"é\x80"},
      {1252, "\x80\x93q\x94", u"€“q”"},
      {20127, "caf\xE9", u"café"},
      {1200, "a\0\xAC\x20"sv, u"a€"},
      {1201, "\0a\x20\xAC"sv, u"a€"},
      {932, "\x93\xFA\x96\x7B", u"日本"},
      {50220, "ab \x1B$BF|K\\\x1B(B cd", u"ab 日本 cd"},
      {50221, "\x1B(I1\x1B(B!", u"ｱ!"},
      {51932, "\xC6\xFC\xCB\xDC\x8E\xB1", u"日本ｱ"},
      {51949, "\xC7\xD1", u"한"},
      {50225, "\x1B$)C\x0EGQ\x0F.", u"한."},
      {52936, "~{VP~}~~", u"中~"},
      {28592, "\xB1", u"ą"},
      {99999, "plain \xE9", u"plain é"},
  };
  for (const Sample& sample : samples)
    EXPECT_EQ(Decoded(sample.code_page, sample.bytes), sample.text) << sample.code_page;
}

TEST(CodePages, JisArithmeticAgreesWithThePlatformOverTheWholeGrid) {
  for (int row = 0x21; row <= 0x74; ++row) {
    for (int cell = 0x21; cell <= 0x7E; ++cell) {
      const char euc[] = {static_cast<char>(row | 0x80), static_cast<char>(cell | 0x80)};
      const test::IconvCodePages pages;
      std::u16string direct;
      ASSERT_TRUE(pages.Decode(932, {}, direct));
      iconv_t check = iconv_open("UTF-16LE", "EUC-JP");
      char16_t expected[4] = {};
      char* from = const_cast<char*>(euc);
      char* to = reinterpret_cast<char*>(expected);
      std::size_t left = 2, room = sizeof expected;
      const bool assigned = iconv(check, &from, &left, &to, &room) == 0;
      iconv_close(check);
      if (!assigned || row == 0x21 || row == 0x22) continue;  // unassigned, or symbols on which the two sets differ
      EXPECT_EQ(Decoded(51932, {euc, 2}), std::u16string(expected)) << row << ' ' << cell;
    }
  }
}

TEST(CodePages, BrokenSequencesCostOneCharacterEach) {
  EXPECT_EQ(Decoded(65001, "a\xFFz"), u"a\uFFFDz");
  EXPECT_EQ(Decoded(65001, "\xC0\x80"), u"\uFFFD\uFFFD");      // overlong
  EXPECT_EQ(Decoded(65001, "\xED\xA0\x80").size(), 3u);        // surrogate
  EXPECT_EQ(Decoded(65001, "ok\xE2\x82"), u"ok\uFFFD\uFFFD");  // cut off
  EXPECT_EQ(Decoded(50220, "\x1B$BF"), u"?");                  // half a character
  EXPECT_EQ(Decoded(50220, "\x1B$BF|\nnext"), u"日\nnext");    // the next line is ASCII again
  EXPECT_EQ(Decoded(1200, "a"), u"");
}

TEST(CodePages, NamesAndFontCharsets) {
  EXPECT_EQ(CodePageOfCharsetName("UTF-8"), 65001u);
  EXPECT_EQ(CodePageOfCharsetName("ISO-8859-1"), 1252u);  // as every browser reads it
  EXPECT_EQ(CodePageOfCharsetName("x-unheard-of"), 0u);
  EXPECT_EQ(CodePageOfCharsetName(std::string(100000, 'u')), 0u);
  EXPECT_EQ(CodePageOfFontCharset(128), 932u);
  EXPECT_EQ(CodePageOfFontCharset(1), 0u);
}

}  // namespace
}  // namespace vault::text
