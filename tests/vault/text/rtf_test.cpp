#include "vault/text/rtf.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/iconv_code_pages.h"
#include "vault/text/body.h"
#include "vault/text/compressed_rtf.h"

namespace vault::text {
namespace {

RtfDocument Read(std::string_view rtf) {
  static const test::IconvCodePages pages;
  return ReadRtf(rtf, pages);
}
std::u16string TextOf(std::string_view rtf) {
  return Read(rtf).text;
}

std::vector<std::uint8_t> FromHex(std::string_view hex) {
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return bytes;
}

// The two worked examples of [MS-OXRTFCP] 4.1: a plain run, and a reference that overlaps its own output.
const char kSimple[] =
    "2d0000002b0000004c5a4675f1c5c7a703000a007263706731323542320af32068656c090020627705b06c647d0a800fa0";
const char kOverlap[] = "1a0000001c0000004c5a4675e2d44b51410004205758595a0d6e7d010eb0";

TEST(CompressedRtf, UnpacksTheFormatsOwnExamples) {
  EXPECT_EQ(UnpackRtf(FromHex(kSimple)), "{\\rtf1\\ansi\\ansicpg1252\\pard hello world}\r\n");
  EXPECT_EQ(UnpackRtf(FromHex(kOverlap)), "{\\rtf1 WXYZWXYZWXYZWXYZWXYZ}");
}

TEST(CompressedRtf, ReadsStoredAndDamagedStreams) {
  std::vector<std::uint8_t> stored = FromHex("0f000000030000004d454c4100000000");
  for (const char c : std::string_view("abc")) stored.push_back(static_cast<std::uint8_t>(c));
  EXPECT_EQ(UnpackRtf(stored), "abc");

  const auto whole = FromHex(kSimple);
  const std::string expected = *UnpackRtf(whole);
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const auto part = UnpackRtf(std::span(whole).first(size));
    ASSERT_EQ(part.has_value(), size >= 16);
    EXPECT_TRUE(expected.starts_with(part.value_or(""))) << size;
  }
  EXPECT_EQ(UnpackRtf(whole, 6), "{\\rtf1");
  auto foreign = whole;
  foreign[8] = 'X';
  EXPECT_FALSE(UnpackRtf(foreign));
}

TEST(Rtf, VisibleTextOnly) {
  EXPECT_EQ(
      TextOf("{\\rtf1\\ansi{\\fonttbl{\\f0 Arial;}}{\\colortbl;\\red1;}{\\stylesheet{Normal;}}{\\info{\\title T}}"
             "{\\*\\generator X;}{\\pict\\bin4 }}{}}one\\par two\\line three\\tab four\\emdash\\lquote x\\rquote }"),
      u"one\r\ntwo\r\nthree\tfour—‘x’");
  EXPECT_EQ(TextOf("{\\rtf1 a\\{b\\}\\\\c\\~d\\_e\\-f}"), u"a{b}\\c\u00A0d-ef");
  EXPECT_EQ(TextOf("{\\rtf1\\trowd a\\cell b\\cell\\row c\\par}"), u"a\tb\t\r\nc\r\n");
  EXPECT_EQ(TextOf("{\\rtf1{\\field{\\*\\fldinst HYPERLINK \"u\"}{\\fldrslt shown}}}"), u"shown");
  EXPECT_EQ(TextOf("{\\rtf1 first}trailing rubbish"), u"first");
}

TEST(Rtf, UnicodeAndItsFallbacks) {
  EXPECT_EQ(TextOf("{\\rtf1\\u233?x}"), u"éx");
  EXPECT_EQ(TextOf("{\\rtf1\\uc2\\u8364\\'80\\'80x}"), u"€x");
  EXPECT_EQ(TextOf("{\\rtf1\\uc0\\u-10179\\u-8704 x}"), u"\U0001F600x");
  EXPECT_EQ(TextOf("{\\rtf1{\\uc0\\u233}\\u233?x}"), u"ééx");  // \uc ends with its group
  EXPECT_EQ(TextOf("{\\rtf1{\\u233}x}"), u"éx");               // and so does the skipping
  EXPECT_EQ(TextOf("{\\rtf1\\u233\\tab x}"), u"éx");           // a control word is one character
}

TEST(Rtf, BytesFollowTheFont) {
  const std::string fonts =
      "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0\\fcharset0 A;}{\\f1\\fcharset204 C;}{\\f2\\fcharset128 J;}"
      "{\\f3\\cpg1253 G;}{\\f4\\fcharset1 D;}}";
  EXPECT_EQ(TextOf(fonts + "\\f0\\'e9\\f1\\'ff\\f2\\'93\\'fa\\f3\\'e1\\f4\\'e9}"), u"éя日αé");
  EXPECT_EQ(TextOf(fonts + "\\f1\\'ff\\plain\\'e9{\\f1\\'ff}\\'e9}"), u"яéяé");
  EXPECT_EQ(TextOf(fonts + "\\f2\\'83A\\'83\\{x}"),
            u"ア"
            u"ボx");                                            // second halves that look like text
  EXPECT_EQ(TextOf(fonts + "\\f2 \x83\x5C\x83}x}"), u"ソマx");  // and raw ones that look like markup
}

const std::string kHtmlHead =
    "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 \\deff0{\\fonttbl{\\f0\\fswiss Arial;}{\\f5\\fcharset204 C;}}";

TEST(Rtf, RecoversWrappedHtml) {
  const RtfDocument document =
      Read(kHtmlHead +
           "{\\*\\htmltag19 <html>}{\\*\\htmltag84 <b title=\"\\{x\\}\">}\\htmlrtf {\\b \\htmlrtf0 A<B & \\f5\\'ff"
           "{\\*\\htmltag92 </b>}\\htmlrtf }\\htmlrtf0 {\\*\\htmltag84 &nbsp;}\\htmlrtf \\'a0\\htmlrtf0"
           "{\\*\\mhtmltag84 <img src=x>}\\par{\\*\\htmltag27 </html>}}");
  EXPECT_EQ(document.content, RtfContent::kHtml);
  EXPECT_EQ(document.text, u"<html><b title=\"{x}\">A&lt;B &amp; я</b>&nbsp;\r\n</html>");
}

TEST(Rtf, WrappedPlainTextIsText) {
  const RtfDocument document = Read("{\\rtf1\\ansi\\fromtext{\\fonttbl{\\f0 A;}}a <b>\\par c}");
  EXPECT_EQ(document.content, RtfContent::kPlainText);
  EXPECT_EQ(document.text, u"a <b>\r\nc");
}

TEST(Rtf, HostileInputEndsSoonAndSmall) {
  const auto start = std::chrono::steady_clock::now();
  constexpr std::size_t kMany = 4'000'000;
  EXPECT_EQ(TextOf("{\\rtf1 a" + std::string(kMany, '{') + "b"), u"ab");
  EXPECT_EQ(TextOf("{\\rtf1 a" + std::string(kMany, '{') + std::string(kMany, '}') + "b}"), u"ab");
  EXPECT_EQ(TextOf("{\\rtf1 a" + std::string(kMany, '\\')).front(), u'a');
  EXPECT_EQ(TextOf("{\\rtf1\\bin999999999 x}"), u"");
  EXPECT_EQ(TextOf("{\\rtf1\\bin-5 x}"), u"x");
  EXPECT_EQ(TextOf("{\\rtf1\\u99999999999999 ?x}"), u"x");
  const test::IconvCodePages pages;
  EXPECT_EQ(ReadRtf("{\\rtf1 " + std::string(kMany, 'x'), pages, 1000).text.size(), 1000u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

}  // namespace
}  // namespace vault::text
