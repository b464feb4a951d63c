// Text and bytes as mail carries them: encoded words (RFC 2047), parameters (RFC 2231), addresses and dates (RFC 5322),
// base64 and quoted-printable (RFC 2045). Pure functions; what they return has no control character but CR LF and the
// blanks of folded lines.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace provider::mime {

std::string Utf8(std::u16string_view text);  // halves of pairs become U+FFFD

// "Name: value" with its line end. `value` must be ASCII and may be folded already; lines that are too long are folded
// at blanks.
std::string Header(std::string_view name, std::string_view value);

// Unstructured text: as it is where it is short plain ASCII, else as encoded words.
std::string EncodeText(std::u16string_view text);
// A display name before an address: an atom, a quoted string or encoded words.
std::string EncodePhrase(std::u16string_view text);
// "; name=value", in parts where the value is long or not ASCII.
std::string Parameter(std::string_view name, std::u16string_view value);
// One mailbox, or a group without members where there is no address that mail could go to.
std::string Mailbox(std::u16string_view name, std::u16string_view address);

// `time` in 100 ns since 1601, UTC.
std::string Date(std::uint64_t time);

// Base64 in lines of 76 characters, for bytes that come in pieces.
class Base64Lines {
 public:
  // Appends whole lines to `out`; keeps what does not fill one.
  void Add(std::span<const std::uint8_t> bytes, std::string& out);
  void Finish(std::string& out);

 private:
  std::string pending_;
};
// Text with CR LF between its lines.
std::string QuotedPrintable(std::string_view text);

}  // namespace provider::mime
