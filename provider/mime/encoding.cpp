#include "provider/mime/encoding.h"

#include <algorithm>
#include <cstdio>

namespace provider::mime {
namespace {

constexpr std::size_t kLine = 76, kEncodedWord = 45, kParameterPart = 60;  // bytes; 45 make 60 characters of base64
// The first line also has the name of its header, of up to 23 characters.
constexpr std::size_t kFirstEncodedWord = 30;
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kHex[] = "0123456789ABCDEF";

void AppendUtf8(char32_t c, std::string& out) {
  if (c < 0x80) {
    out += static_cast<char>(c);
    return;
  }
  const int more = c < 0x800 ? 1 : c < 0x10000 ? 2 : 3;
  constexpr unsigned kFirst[] = {0, 0xC0, 0xE0, 0xF0};
  out += static_cast<char>(kFirst[more] | c >> (6 * more));
  for (int i = more - 1; i >= 0; --i) out += static_cast<char>(0x80 | (c >> (6 * i) & 0x3F));
}

void AppendBase64(std::string_view bytes, std::string& out) {
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t left = std::min<std::size_t>(3, bytes.size() - i);
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) group = group << 8 | (k < left ? static_cast<unsigned char>(bytes[i + k]) : 0u);
    for (std::size_t k = 0; k < 4; ++k) out += k <= left ? kBase64[group >> (18 - 6 * k) & 0x3F] : '=';
  }
}

bool IsControl(char32_t c) {
  return c < 0x20 || c == 0x7F;
}

// UTF-8 with blanks in the place of controls: nothing may end a header early.
std::string OneLine(std::u16string_view text) {
  std::string line = Utf8(text);
  for (char& c : line)
    if (IsControl(static_cast<unsigned char>(c))) c = ' ';
  return line;
}

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Encoded words of whole characters, one a line.
std::string EncodedWords(std::string_view utf8) {
  std::string out;
  for (std::size_t i = 0; i < utf8.size();) {
    std::size_t end = std::min(i + (i ? kEncodedWord : kFirstEncodedWord), utf8.size());
    while (end < utf8.size() && end > i && (static_cast<unsigned char>(utf8[end]) & 0xC0) == 0x80) --end;
    if (!out.empty()) out += "\r\n ";
    out += "=?utf-8?B?";
    AppendBase64(utf8.substr(i, end - i), out);
    out += "?=";
    i = end;
  }
  return out;
}

bool IsAtomText(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         std::string_view("!#$%&'*+-/=?^_`{|}~ ").find(c) != std::string_view::npos;
}

// A local part in quotes, its own quotes and backslashes escaped.
bool IsQuotedLocal(std::string_view text) {
  if (text.size() < 3 || text.front() != '"' || text.back() != '"') return false;
  text = text.substr(1, text.size() - 2);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"' || static_cast<unsigned char>(text[i]) >= 0x80) return false;
    if (text[i] == '\\' && ++i == text.size()) return false;
  }
  return true;
}

// An address that goes into angle brackets as it is.
bool IsAddress(std::string_view address) {
  const std::size_t at = address.rfind('@');
  if (at == std::string_view::npos || at == 0 || at + 1 == address.size() || address.size() > 320) return false;
  const auto local = [](char c) { return c != ' ' && c != '@' && (IsAtomText(c) || c == '.'); };
  const auto domain = [](char c) {
    return c != ' ' && c != '@' && (IsAtomText(c) || c == '.' || c == '[' || c == ']' || c == ':');
  };
  const std::string_view name = address.substr(0, at), host = address.substr(at + 1);
  if (!std::all_of(host.begin(), host.end(), domain)) return false;
  const auto dots = [](std::string_view text) {
    return text.front() == '.' || text.back() == '.' || text.find("..") != std::string_view::npos;
  };
  const bool atoms = std::all_of(name.begin(), name.end(), local) && !dots(name);
  return (atoms || IsQuotedLocal(name)) && !dots(host);
}

std::string Quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

// One line without blanks at its ends, also those that stand for controls.
std::string Trimmed(std::u16string_view text) {
  const std::string line = OneLine(text);
  const std::size_t begin = line.find_first_not_of(' ');
  return begin == std::string::npos ? std::string() : line.substr(begin, line.find_last_not_of(' ') + 1 - begin);
}

std::string Phrase(const std::string& line) {
  if (!IsAscii(line) || line.find("=?") != std::string::npos || line.size() > kLine) return EncodedWords(line);
  return std::all_of(line.begin(), line.end(), IsAtomText) && line.find("  ") == std::string::npos ? line
                                                                                                   : Quoted(line);
}

}  // namespace

std::string Utf8(std::u16string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t c = text[i];
    const bool high = c >= 0xD800 && c < 0xDC00, low = c >= 0xDC00 && c < 0xE000;
    if (high && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00u);
    } else if (high || low) {
      c = 0xFFFD;
    }
    AppendUtf8(c, out);
  }
  return out;
}

std::string Header(std::string_view name, std::string_view value) {
  std::string out(name);
  out += ": ";
  std::size_t column = out.size();
  for (std::size_t i = 0; i < value.size();) {
    if (value.substr(i, 2) == "\r\n") {
      out += "\r\n";
      column = 0;
      i += 2;
      continue;
    }
    // A word with the blanks before it moves to the next line as one.
    std::size_t end = value.find_first_not_of(" \t", i);
    end = end == std::string_view::npos ? value.size() : value.find_first_of(" \t\r", end);
    end = std::min(end, value.size());
    const bool blank = value[i] == ' ' || value[i] == '\t';
    if (blank && column && column + (end - i) > kLine && i) {
      out += "\r\n";
      column = 0;
    }
    out += value.substr(i, end - i);
    column += end - i;
    i = end;
  }
  return out + "\r\n";
}

std::string EncodeText(std::u16string_view text) {
  const std::string line = OneLine(text);
  // Plain text that a reader would take for encoded words, that cannot be folded, or whose blanks at the ends would be
  // lost, is encoded too.
  std::size_t longest = 0, word = 0;
  for (const char c : line) longest = std::max(longest, c == ' ' ? (word = 0) : ++word);
  const bool plain = IsAscii(line) && line.find("=?") == std::string::npos && longest <= kLine &&
                     line.find("  ") == std::string::npos &&
                     (line.empty() || (line.front() != ' ' && line.back() != ' '));
  return plain ? line : EncodedWords(line);
}

std::string EncodePhrase(std::u16string_view text) {
  return Phrase(Trimmed(text));
}

std::string Parameter(std::string_view name, std::u16string_view value) {
  const std::string line = OneLine(value);
  std::string out = ";\r\n ";
  if (IsAscii(line) && line.size() <= kParameterPart) return out.append(name).append("=").append(Quoted(line));
  std::string encoded;
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    const bool plain =
        (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' || c == '-' || c == '_';
    if (plain) {
      encoded += c;
    } else {
      encoded += '%';
      encoded += kHex[byte >> 4];
      encoded += kHex[byte & 15];
    }
  }
  if (encoded.size() <= kParameterPart) return out.append(name).append("*=utf-8''").append(encoded);
  out.clear();
  for (std::size_t i = 0, part = 0; i < encoded.size(); ++part) {
    std::size_t end = std::min(i + kParameterPart, encoded.size());
    // Not within one byte's three characters.
    for (std::size_t back = 1; back <= 2 && end < encoded.size(); ++back)
      if (end - back > i && encoded[end - back] == '%') end -= back;
    out.append(";\r\n ").append(name).append("*").append(std::to_string(part)).append(part ? "*=" : "*=utf-8''");
    out += std::string_view(encoded).substr(i, end - i);
    i = end;
  }
  return out;
}

std::string Mailbox(std::u16string_view name, std::u16string_view address) {
  const std::string plain = Trimmed(address);
  std::string shown = Trimmed(name);
  if (IsAddress(plain)) return shown.empty() || shown == plain ? "<" + plain + ">" : Phrase(shown) + " <" + plain + ">";
  // An address beyond ASCII cannot stand in the header itself; it stays readable.
  if (shown.empty()) {
    shown = plain.empty() ? "?" : plain;
  } else if (!IsAscii(plain) && shown != plain) {
    shown += " (" + plain + ")";
  }
  return Phrase(shown) + ":;";
}

std::string Date(std::uint64_t time) {
  constexpr std::uint64_t kSecond = 10'000'000, kDay = 86'400;
  constexpr const char* kDays[] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};  // 1601 began on a Monday
  constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const std::uint64_t seconds = time / kSecond, days = seconds / kDay, rest = seconds % kDay;
  // Days since 1600-03-01, which begins a cycle of 400 years with the leap day at its end.
  const std::uint64_t shifted = days + 306, era = shifted / 146'097, day_of_era = shifted % 146'097;
  const std::uint64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36'524 - day_of_era / 146'096) / 365;
  const std::uint64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const std::uint64_t month = (5 * day_of_year + 2) / 153, day = day_of_year - (153 * month + 2) / 5 + 1;
  const std::uint64_t year = 1600 + era * 400 + year_of_era + (month >= 10 ? 1 : 0);
  char text[64];
  std::snprintf(text, sizeof(text), "%s, %02u %s %04u %02u:%02u:%02u +0000", kDays[days % 7],
                static_cast<unsigned>(day), kMonths[(month + 2) % 12], static_cast<unsigned>(year),
                static_cast<unsigned>(rest / 3600), static_cast<unsigned>(rest / 60 % 60),
                static_cast<unsigned>(rest % 60));
  return text;
}

void Base64Lines::Add(std::span<const std::uint8_t> bytes, std::string& out) {
  constexpr std::size_t kLineBytes = kLine / 4 * 3;
  pending_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::size_t done = 0;
  for (; pending_.size() - done >= kLineBytes; done += kLineBytes) {
    AppendBase64(std::string_view(pending_).substr(done, kLineBytes), out);
    out += "\r\n";
  }
  pending_.erase(0, done);
}

void Base64Lines::Finish(std::string& out) {
  if (pending_.empty()) return;
  AppendBase64(pending_, out);
  out += "\r\n";
  pending_.clear();
}

std::string QuotedPrintable(std::string_view text) {
  std::string out;
  std::size_t column = 0;
  const auto put = [&](std::string_view piece) {
    if (column + piece.size() > kLine - 1) {
      out += "=\r\n";
      column = 0;
    }
    out += piece;
    column += piece.size();
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (text.substr(i, 2) == "\r\n") {
      out += "\r\n";
      column = 0;
      ++i;
      continue;
    }
    const bool last = i + 1 == text.size() || text.substr(i + 1, 2) == "\r\n";
    const bool plain = (byte > 0x20 && byte < 0x7F && byte != '=') || (byte == ' ' && !last);
    const char escaped[] = {'=', kHex[byte >> 4], kHex[byte & 15]};
    put(plain ? text.substr(i, 1) : std::string_view(escaped, sizeof(escaped)));
  }
  return out;
}

}  // namespace provider::mime
