#include "vault/text/html.h"

#include <gtest/gtest.h>

#include <chrono>

#include "tests/support/iconv_code_pages.h"

namespace vault::text {
namespace {

std::u16string Decoded(std::string_view html, unsigned code_page) {
  const test::IconvCodePages pages;
  return DecodeHtml({reinterpret_cast<const std::uint8_t*>(html.data()), html.size()}, code_page, pages);
}

TEST(Html, LinesAndCells) {
  EXPECT_EQ(
      HtmlToText(u"<html><head><title>T</title><style>p{}</style></head><body>\n <p>one\n two</p> <div>three<br>four"
                 u"</div><ul><li>a</li><li>b</li></ul></body></html>"),
      u"one two\r\nthree\r\nfour\r\na\r\nb");
  EXPECT_EQ(HtmlToText(u"<table><tr><td>a</td><td><p>b</p></td></tr>\n<tr><th>c<th>d</table>e"), u"a\tb\r\nc\td\r\ne");
  EXPECT_EQ(HtmlToText(u"x<pre>\n  a\r\n  b</pre>y  z"), u"x\r\n  a\r\n  b\r\ny z");
  EXPECT_EQ(HtmlToText(u"<p></p><div></div>a<br><br>b<p></p>"), u"a\r\n\r\nb");
  EXPECT_EQ(HtmlToText(u"wo<b>r</b>d<span> </span>next"), u"word next");
}

TEST(Html, WhatIsNotText) {
  EXPECT_EQ(HtmlToText(u"a<!-- <p>no</p> -->b<!-->c<script>if (a<b) x='</p>'</script>d<STYLE>x</STYLE >e"), u"abcde");
  EXPECT_EQ(HtmlToText(u"a<!--[if gte mso 9]><xml>no</xml><![endif]-->b<![if !mso]>c<![endif]>d"), u"abcd");
  EXPECT_EQ(HtmlToText(u"a<?xml:namespace prefix = o />b<![CDATA[c <d>]]>e"), u"abc <d>e");
  EXPECT_EQ(HtmlToText(u"<a title='x > y' href=\"q>r\">link</a>"), u"link");
  EXPECT_EQ(HtmlToText(u"<img alt=it's><a href=don't>k</a>"), u"k");
}

TEST(Html, WhatOnlyLooksLikeMarkup) {
  EXPECT_EQ(HtmlToText(u"1 < 2 <3 a<b & c"), u"1 < 2 <3 a<b & c");
  EXPECT_EQ(HtmlToText(u"to <ann@example.com> now"), u"to <ann@example.com> now");
  EXPECT_EQ(HtmlToText(u"<title>never closed<p>body"), u"never closed\r\nbody");
  EXPECT_EQ(HtmlToText(u"a<!-- never closed>b"), u"ab");
  EXPECT_EQ(HtmlToText(u"a<p title=\"never closed>b"), u"a\r\nb");
}

TEST(Html, CharacterReferences) {
  EXPECT_EQ(HtmlToText(u"&lt;&amp;&gt;&quot;&apos;&eacute;&euro;&mdash;&thetasym;"), u"<&>\"'é€—ϑ");
  EXPECT_EQ(HtmlToText(u"&#233;&#xE9;&#XE9;&#128;&#x1F600;&#0;&#xD800;&#99999999999;"), u"ééé€\U0001F600\uFFFD\uFFFD");
  EXPECT_EQ(HtmlToText(u"&copy2024 &eacutex &notit; &bogus; &; &#; &#x; AT&T"),
            u"©2024 éx ¬it; &bogus; &; &#; &#x; AT&T");
  EXPECT_EQ(HtmlToText(u"a&nbsp;b soft&shy;ly"), u"a\u00A0b softly");
}

TEST(Html, CharsetComesFromMarkCallerOrDocument) {
  EXPECT_EQ(Decoded("\xEF\xBB\xBF\xC3\xA9", 1251), u"é");
  EXPECT_EQ(Decoded(std::string_view("\xFF\xFE\xE9\0", 4), 0), u"é");
  EXPECT_EQ(Decoded("<meta charset=utf-8>\xFF", 1251).back(), u'я');
  EXPECT_EQ(Decoded("<META http-equiv=Content-Type content=\"text/html; charset=windows-1251\">\xFF", 0).back(), u'я');
  EXPECT_EQ(Decoded("<meta charset='iso-2022-jp'>\x1B$BF|\x1B(B", 20127).back(), u'日');
  EXPECT_EQ(Decoded("<meta charset=utf-16>\xC3\xA9", 0).back(), u'é');
  EXPECT_EQ(Decoded("\xC3\xA9", 0), u"é");
  EXPECT_EQ(Decoded("caf\xE9", 0), u"café");
  EXPECT_EQ(Decoded("plain", 1200), u"plain");
}

TEST(Html, TimeIsLinearWhateverComes) {
  constexpr std::size_t kRepeats = 300'000;
  const std::u16string_view patterns[] = {u"<title>",   u"<!--", u"<![CDATA[", u"<a b=\"",    u"<a b='\">",
                                          u"<a b=\"'>", u"<",    u"</",        u"&#",         u"&amp",
                                          u"<pre>",     u"<td>", u"<x a=\"",   u"<script></", u"<a"};
  const auto start = std::chrono::steady_clock::now();
  for (const auto pattern : patterns) {
    std::u16string html;
    for (std::size_t i = 0; i < kRepeats; ++i) html += pattern;
    for (const auto end : {u"", u">", u"\">"}) EXPECT_LE(HtmlToText(html + end).size(), html.size() * 2 + 4);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
  EXPECT_EQ(HtmlToText(std::u16string(100000, u'x'), 10).size(), 10u);
}

}  // namespace
}  // namespace vault::text
