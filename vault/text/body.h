// The plain text of a message body that is stored in another form. Pure functions; any thread.
#pragma once

#include <optional>
#include <string>

#include "vault/text/code_pages.h"

namespace vault::text {

// From PR_HTML; `code_page` is PR_INTERNET_CPID, or 0 when the message has none.
std::u16string TextOfHtml(Bytes html, unsigned code_page, const CodePages& pages);

// From PR_RTF_COMPRESSED, whatever it wraps. Nothing when the value is not compressed RTF at all.
std::optional<std::u16string> TextOfCompressedRtf(Bytes packed, const CodePages& pages);

// The HTML that PR_RTF_COMPRESSED wraps; nothing when it wraps none.
std::optional<std::u16string> HtmlOfCompressedRtf(Bytes packed, const CodePages& pages);

}  // namespace vault::text
