#include "vault/text/body.h"

#include <utility>

#include "vault/text/compressed_rtf.h"
#include "vault/text/html.h"
#include "vault/text/rtf.h"

namespace vault::text {

std::u16string TextOfHtml(Bytes html, unsigned code_page, const CodePages& pages) {
  return HtmlToText(DecodeHtml(html, code_page, pages));
}

std::optional<std::u16string> TextOfCompressedRtf(Bytes packed, const CodePages& pages) {
  const auto rtf = UnpackRtf(packed);
  if (!rtf) return {};
  RtfDocument document = ReadRtf(*rtf, pages);
  return document.content == RtfContent::kHtml ? HtmlToText(document.text) : std::move(document.text);
}

std::optional<std::u16string> HtmlOfCompressedRtf(Bytes packed, const CodePages& pages) {
  const auto rtf = UnpackRtf(packed);
  if (!rtf) return {};
  RtfDocument document = ReadRtf(*rtf, pages);
  if (document.content != RtfContent::kHtml) return {};
  return std::move(document.text);
}

}  // namespace vault::text
