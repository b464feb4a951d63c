#include "winindex/Text.h"

#include <windows.h>

#include <utility>

namespace winindex {

std::string ToUtf8(std::wstring_view wide) {
  if (wide.empty()) return {};
  const int count = static_cast<int>(wide.size());
  const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), count, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), count, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

std::wstring FromUtf8(std::string_view narrow) {
  if (narrow.empty()) return {};
  const int count = static_cast<int>(narrow.size());
  const int length = MultiByteToWideChar(CP_UTF8, 0, narrow.data(), count, nullptr, 0);
  std::wstring wide(static_cast<size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, narrow.data(), count, wide.data(), length);
  return wide;
}

std::string JoinFields(const std::vector<std::wstring>& fields) {
  std::string line;
  for (const std::wstring& field : fields) {
    if (!line.empty()) line += '\t';
    for (const char c : ToUtf8(field)) {
      switch (c) {
        case '\\':
          line += "\\\\";
          break;
        case '\t':
          line += "\\t";
          break;
        case '\n':
          line += "\\n";
          break;
        case '\r':
          line += "\\r";
          break;
        default:
          line += c;
      }
    }
  }
  return line + '\n';
}

std::vector<std::wstring> SplitFields(std::string_view line) {
  std::vector<std::wstring> fields;
  std::string field;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\t') {
      fields.push_back(FromUtf8(std::exchange(field, {})));
    } else if (line[i] == '\\' && i + 1 < line.size()) {
      const char c = line[++i];
      field += c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c;
    } else {
      field += line[i];
    }
  }
  fields.push_back(FromUtf8(field));
  return fields;
}

std::vector<std::string_view> CompleteLines(std::string_view text) {
  std::vector<std::string_view> lines;
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string_view::npos; at = end + 1)
    lines.push_back(text.substr(at, end - at));
  return lines;
}

bool SameText(std::wstring_view a, std::wstring_view b) {
  return a.size() == b.size() && CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(),
                                                      static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

bool BeginsWith(std::wstring_view text, std::wstring_view beginning) {
  return text.size() >= beginning.size() && SameText(text.substr(0, beginning.size()), beginning);
}

}  // namespace winindex
