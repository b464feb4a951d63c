// Text from mail on its way to the index or to a terminal. All strings are UTF-8; all functions are pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace hoardex {

// Decodes the code point at `*position` and moves `*position` behind it. A malformed byte gives U+FFFD and moves by
// one. Precondition: *position < text.size().
char32_t DecodeUtf8(std::string_view text, size_t* position);
void AppendUtf8(char32_t code_point, std::string* out);

// True for scripts that write words without blanks between them (Han, kana, Thai, Lao);
// every such character is a word of its own in the index.
bool IsUnspacedScript(char32_t code_point);

// Makes text harmless on a terminal: control characters (C0, DEL, C1), bidirectional overrides and malformed bytes go.
// OneLine also turns line ends and runs of blanks into one blank and trims; PrintableText keeps line ends and tabs.
std::string OneLine(std::string_view text);
std::string PrintableText(std::string_view text);

// Columns that the text takes on a terminal (wide characters take two, combining ones none).
size_t DisplayWidth(std::string_view text);
// Cuts to at most `columns`, with "…" at the end when something was cut.
std::string Shorten(std::string_view text, size_t columns);

// ASCII letters only: names of fields, kinds and vaults are compared without case.
std::string AsciiLower(std::string_view text);

// 1234567 -> "1,234,567".
std::string Grouped(long long number);

}  // namespace hoardex
