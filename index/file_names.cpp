#include "index/file_names.h"

#include <algorithm>

#include "index/text.h"

namespace hoardex {
namespace {

constexpr size_t kLongestExtension = 20;
constexpr std::string_view kForbidden = "<>:\"/\\|?*";
constexpr char32_t kJoiner = 0x200D;
constexpr std::string_view kDevices[] = {"con", "prn", "aux", "nul", "conin$", "conout$"};
// Windows takes superscript digits for digits here.
constexpr std::string_view kDeviceNumbers[] = {"0", "1", "2", "3",      "4",      "5",     "6",
                                               "7", "8", "9", "\u00B9", "\u00B2", "\u00B3"};

std::string Cleaned(std::string_view text) {
  std::string clean = OneLine(text);
  for (char& c : clean)
    if (kForbidden.find(c) != std::string_view::npos) c = '_';
  return clean;
}

// Windows drops these from the end of a name.
void TrimEnd(std::string& name) {
  name.erase(name.find_last_not_of(". ") + 1);
}

// Windows looks at what stands before the first dot.
bool IsDevice(std::string_view name) {
  std::string base = AsciiLower(name.substr(0, name.find('.')));
  base.erase(base.find_last_not_of(' ') + 1);
  if (std::find(std::begin(kDevices), std::end(kDevices), base) != std::end(kDevices)) return true;
  if (!base.starts_with("com") && !base.starts_with("lpt")) return false;
  return std::find(std::begin(kDeviceNumbers), std::end(kDeviceNumbers), base.substr(3)) != std::end(kDeviceNumbers);
}

// Whether the character is one with what stands before it: accents, variants, shades of skin.
bool BelongsToPrevious(std::string_view text, size_t at) {
  if (at >= text.size()) return false;
  const size_t first = at;
  const char32_t c = DecodeUtf8(text, &at);
  return c == kJoiner || (c >= 0x1F3FB && c <= 0x1F3FF) || DisplayWidth(text.substr(first, at - first)) == 0;
}

void Cut(std::string& text, size_t most) {
  if (text.size() <= most) return;
  size_t end = 0;
  for (size_t at = 0; at < text.size();) {
    DecodeUtf8(text, &at);
    if (at > most) break;
    if (!BelongsToPrevious(text, at)) end = at;
  }
  text.resize(end);
}

}  // namespace

size_t ExtensionOf(std::string_view name) {
  const size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return name.size();
  return name.size() - dot > kLongestExtension || name.find(' ', dot) != std::string_view::npos ? name.size() : dot;
}

std::string SafeFileName(std::string_view stem, std::string_view extension, int number) {
  std::string end = Cleaned(extension);
  TrimEnd(end);
  if (end.size() > kLongestExtension) end.clear();
  if (number > 1) end.insert(0, " (" + std::to_string(number) + ")");
  std::string name = Cleaned(stem);
  TrimEnd(name);
  if (name.empty() || name[0] == '.' || name[0] == '-' || IsDevice(name)) name.insert(0, "_");
  Cut(name, kLongestFileName - end.size());
  TrimEnd(name);
  return name + end;
}

}  // namespace hoardex
