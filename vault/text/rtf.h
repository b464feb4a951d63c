// Rich Text Format to text, and the HTML or plain text that a mail client wrapped in it ([MS-OXRTFEX]). Pure function;
// any thread; linear time; no recursion.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "vault/text/code_pages.h"

namespace vault::text {

// Greatest text of one body, in UTF-16 units; what lies beyond is cut off.
constexpr std::size_t kTextLimit = std::size_t{64} << 20;

enum class RtfContent { kRichText, kHtml, kPlainText };

struct RtfDocument {
  RtfContent content = RtfContent::kRichText;
  std::u16string text;  // for kHtml the HTML source, otherwise the visible text with CR LF between lines
};

// Anything is accepted: what is not RTF yields its characters as text.
RtfDocument ReadRtf(std::string_view rtf, const CodePages& pages, std::size_t limit = kTextLimit);

}  // namespace vault::text
