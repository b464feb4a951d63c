// Conversions between the ANSI code page and UTF-16, and the names that must be unique.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace text {

// Widens with the ANSI code page; bytes it cannot decode become replacement characters. Null is empty.
std::wstring Widen(const char* narrow);

// Narrows to the ANSI code page; characters it cannot hold become its default character.
std::string Narrow(std::wstring_view wide);

// Whether two texts are the same but for case, of every script and in no language's order: how Windows compares names.
bool EqualOrdinal(std::wstring_view a, std::wstring_view b);

// Lower-cases with the C library's wide lower-casing.
std::wstring Lower(std::wstring text);

// The format of UniqueName: thread id, system time high and low, tick count, performance counter.
#define ZK_UNIQUE_NAME_FORMAT "ZK_HX_%lx_%lx_%lx_%lx_%llx"

// A name that no other call on this machine gives, in the format above. Names temporary profiles and files.
std::string UniqueName();

// A string resource of this module.
std::wstring Resource(UINT id);

}  // namespace text
