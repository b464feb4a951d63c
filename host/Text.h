// Text and times on their way to and from JSON.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace host {

// UTF-8 of UTF-16; what is no character becomes U+FFFD.
std::string ToUtf8(std::wstring_view wide);
// UTF-16 of UTF-8; bytes that are none become U+FFFD.
std::wstring FromUtf8(std::string_view narrow);

// ISO 8601 in UTC with seven digits of a second ("2024-02-29T10:30:00.0000000Z"), all that a FILETIME holds. Empty for
// a time beyond the calendar.
std::string ToIso8601(const FILETIME& time);

// Name of a result code ("E_FAIL"), empty when it has none here; and its hexadecimal form ("0x80004005").
std::string CodeName(HRESULT code);
std::string CodeText(HRESULT code);

}  // namespace host
