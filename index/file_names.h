// Names of files made of what mail says: they must do on every file system and harm nobody who sees them in a list.
#pragma once

#include <string>
#include <string_view>

namespace hoardex {

// The length of a whole name, in bytes of UTF-8.
inline constexpr size_t kLongestFileName = 120;

// A name of `stem` and `extension` (".eml", or empty; kept whole unless it is no sensible one). What Windows forbids in
// names becomes "_"; controls and bidirectional marks go, as do trailing dots and blanks; malformed bytes become
// U+FFFD; the names of Windows's devices and names that a shell would hide or take for an option get "_" in front. Cut
// between characters, never within one. A number above 1 stands before the extension: "Report (2).pdf". Never empty.
std::string SafeFileName(std::string_view stem, std::string_view extension, int number = 1);

// Where the extension of a file's name begins, its size when there is none.
size_t ExtensionOf(std::string_view name);

}  // namespace hoardex
