// Windows' code pages, and the two kinds of strings that MAPI callers hand over and take.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "provider/mapi.h"
#include "vault/text/code_pages.h"
#include "vault/value.h"

namespace provider {

class Arena;

// MultiByteToWideChar as the platform of vault/text.
const vault::text::CodePages& PlatformCodePages();

// Text of 8-bit characters; code page 0 is the system's ANSI page.
std::u16string Widen(unsigned code_page, vault::text::Bytes bytes);
// To the system's ANSI page; what does not map becomes the page's default character.
std::string Narrow(std::u16string_view text);

// A caller's string: wide when `flags` has MAPI_UNICODE, else in the ANSI page. Null is empty.
std::u16string FromCaller(const void* text, ULONG flags);
// The other direction, NUL-terminated, in `arena`.
LPTSTR CopyForCaller(std::u16string_view text, ULONG flags, Arena& arena);
wchar_t* CopyWide(std::u16string_view text, Arena& arena);
char* CopyNarrow(std::string_view text, Arena& arena);

// wchar_t and char16_t are the same units on Windows.
inline std::u16string_view AsUtf16(std::wstring_view text) {
  return {reinterpret_cast<const char16_t*>(text.data()), text.size()};
}
inline std::wstring AsWide(std::u16string_view text) {
  return {reinterpret_cast<const wchar_t*>(text.data()), text.size()};
}
inline vault::text::Bytes BytesOf(std::u16string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * sizeof(char16_t)};
}
std::u16string Utf16FromLittleEndian(vault::text::Bytes bytes);

}  // namespace provider
