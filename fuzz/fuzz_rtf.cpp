// RTF to text. The first byte tells what the rest is: even, the value of PR_RTF_COMPRESSED; odd, RTF, or from 0xF0 on
// the pattern of a long one.
#include <algorithm>

#include "fuzz/reading.h"
#include "vault/text/body.h"
#include "vault/text/compressed_rtf.h"
#include "vault/text/rtf.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const fuzz::AllCodePages pages;
  std::span<const std::uint8_t> rest(data + 1, size - 1);
  std::vector<std::uint8_t> repeated;
  if (data[0] >= 0xF0 && data[0] & 1) rest = repeated = fuzz::Repeated(rest);
  if (data[0] & 1) {
    const std::string_view rtf(reinterpret_cast<const char*>(rest.data()), rest.size());
    const auto document = vault::text::ReadRtf(rtf, pages);
    // No control word of two bytes stands for more than six characters.
    FUZZ_CHECK(document.text.size() <= rest.size() * 6);
    const auto part = vault::text::ReadRtf(rtf, pages, 10);
    FUZZ_CHECK(part.text.size() <= 10 && (part.content != document.content || document.text.starts_with(part.text)));
    return 0;
  }
  constexpr std::size_t kLimit = 1000;
  const auto whole = vault::text::UnpackRtf(rest), part = vault::text::UnpackRtf(rest, kLimit);
  FUZZ_CHECK(whole.has_value() == part.has_value());
  if (whole) FUZZ_CHECK(*part == whole->substr(0, kLimit) && whole->size() <= rest.size() * 9);
  vault::text::TextOfCompressedRtf(rest, pages);
  return 0;
}
