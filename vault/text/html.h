// HTML to text. Pure functions; any thread; linear time; no recursion; any input is accepted.
#pragma once

#include <string>
#include <string_view>

#include "vault/text/code_pages.h"
#include "vault/text/rtf.h"

namespace vault::text {

// HTML bytes to UTF-16. A byte order mark decides; else `code_page` when it is not 0 and says more than US-ASCII; else
// the document's own <meta> charset; else UTF-8 if the bytes are that, and 1252.
std::u16string DecodeHtml(Bytes html, unsigned code_page, const CodePages& pages);

// The visible text: block elements and <br> begin new lines (CR LF), table cells are parted by tabs, white space
// collapses except in <pre>; the title, scripts, styles and comments are left out.
std::u16string HtmlToText(std::u16string_view html, std::size_t limit = kTextLimit);

}  // namespace vault::text
