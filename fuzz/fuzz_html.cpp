// HTML to text. The first byte chooses the code page that the message claims, the rest is the document, or from 0xF0 on
// the pattern of a long one.
#include <iterator>

#include "fuzz/reading.h"
#include "vault/text/html.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static constexpr unsigned kPages[] = {0,     65001, 1252,  1200,  1201,  20127, 28591, 932,   936,
                                        949,   950,   1361,  50220, 50221, 50222, 50225, 51932, 51936,
                                        51949, 52936, 54936, 65000, 10000, 1251,  28592, 99999};
  if (size == 0) return 0;
  const fuzz::AllCodePages pages;
  std::span<const std::uint8_t> rest(data + 1, size - 1);
  std::vector<std::uint8_t> repeated;
  if (data[0] >= 0xF0) rest = repeated = fuzz::Repeated(rest);
  const std::u16string html = vault::text::DecodeHtml(rest, kPages[data[0] % std::size(kPages)], pages);
  FUZZ_CHECK(html.size() <= rest.size() * 2);
  const std::u16string text = vault::text::HtmlToText(html);
  // A character may bring the CR LF before it.
  FUZZ_CHECK(text.size() <= html.size() * 3);
  const std::u16string part = vault::text::HtmlToText(html, 10);
  FUZZ_CHECK(part.size() <= 10 && text.starts_with(part));
  return 0;
}
