// Text of the state files: UTF-8 lines of fields between tabs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace winindex {

// Characters that are none become U+FFFD, both ways.
std::string ToUtf8(std::wstring_view wide);
std::wstring FromUtf8(std::string_view narrow);

// One line with its end; tabs, line ends and backslashes within a field are escaped.
std::string JoinFields(const std::vector<std::wstring>& fields);
// The fields of one line (without its end).
std::vector<std::wstring> SplitFields(std::string_view line);

// The complete lines, as parts of the text; what follows the last line end is left out.
std::vector<std::string_view> CompleteLines(std::string_view text);
std::vector<std::string_view> CompleteLines(std::string&& text) = delete;

// By code units, upper and lower case being the same as in file names.
bool SameText(std::wstring_view a, std::wstring_view b);
bool BeginsWith(std::wstring_view text, std::wstring_view beginning);

}  // namespace winindex
