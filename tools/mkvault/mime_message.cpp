#include "tools/mkvault/mime_message.h"

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "tools/mkvault/mime_parts.h"

namespace mkvault {
namespace {

using vault::MessageBuilder;

constexpr std::int64_t kUnixEpoch = 11'644'473'600;  // seconds from 1601
constexpr int kTo = 1, kCc = 2, kBcc = 3;

std::string_view OrEmpty(const char* text) {
  return text ? std::string_view(text) : std::string_view();
}

std::optional<std::int64_t> FileTimeOf(GDateTime* date) {
  if (!date) return std::nullopt;
  const std::int64_t seconds = g_date_time_to_unix(date) + kUnixEpoch;
  if (seconds <= 0) return std::nullopt;
  return seconds * 10'000'000;
}

// The decoded value of a header, or empty.
std::string_view Header(GMimeMessage* message, const char* name) {
  return OrEmpty(g_mime_object_get_header(GMIME_OBJECT(message), name));
}

// When the last server took it: the time behind the last ";" of the topmost Received header.
std::optional<std::int64_t> ReceivedTime(GMimeMessage* message) {
  const std::string_view received = Header(message, "Received");
  const std::size_t semicolon = received.rfind(';');
  if (semicolon == received.npos) return std::nullopt;
  GDateTime* date = g_mime_utils_header_decode_date(std::string(received.substr(semicolon + 1)).c_str());
  const auto time = FileTimeOf(date);
  if (date) g_date_time_unref(date);
  return time;
}

struct Mailbox {
  std::string name, address;
};

// Every mailbox of a list; those of a group like all others.
template <class Each>
void ForEach(InternetAddressList* list, Each&& each, int depth = 0) {
  if (!list || depth > 8) return;
  for (int i = 0; i < internet_address_list_length(list); ++i) {
    InternetAddress* address = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_GROUP(address)) {
      ForEach(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), each, depth + 1);
      continue;
    }
    const std::string email(OrEmpty(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address))));
    const std::string name(OrEmpty(internet_address_get_name(address)));
    if (!email.empty() || !name.empty()) each(Mailbox{name.empty() ? email : name, email});
  }
}

std::optional<Mailbox> First(GMimeMessage* message, GMimeAddressType type) {
  std::optional<Mailbox> first;
  ForEach(g_mime_message_get_addresses(message, type), [&](const Mailbox& mailbox) {
    if (!first) first = mailbox;
  });
  return first;
}

void AddPeople(GMimeMessage* message, MessageBuilder& out) {
  const auto from = First(message, GMIME_ADDRESS_TYPE_FROM), sender = First(message, GMIME_ADDRESS_TYPE_SENDER);
  if (from || sender) {
    const Mailbox& author = from ? *from : *sender;
    out.From(author.name, author.address);
    // Who sent it on behalf of the author.
    if (sender) out.Text(0x0C1A, sender->name).Text(0x0C1F, sender->address).Text(0x5D01, sender->address);
  }
  std::string reply_to;
  ForEach(g_mime_message_get_addresses(message, GMIME_ADDRESS_TYPE_REPLY_TO),
          [&](const Mailbox& mailbox) { reply_to += (reply_to.empty() ? "" : ";") + mailbox.name; });
  if (!reply_to.empty()) out.Text(0x0050, reply_to);
  const std::pair<GMimeAddressType, int> kinds[] = {
      {GMIME_ADDRESS_TYPE_TO, kTo}, {GMIME_ADDRESS_TYPE_CC, kCc}, {GMIME_ADDRESS_TYPE_BCC, kBcc}};
  for (const auto& [type, kind] : kinds) {
    ForEach(g_mime_message_get_addresses(message, type), [&](const Mailbox& mailbox) {
      if (kind == kTo) out.To(mailbox.name, mailbox.address);
      if (kind == kCc) out.Cc(mailbox.name, mailbox.address);
      if (kind == kBcc) out.Bcc(mailbox.name, mailbox.address);
    });
  }
}

void AddTimes(GMimeMessage* message, std::int64_t modified, MessageBuilder& out) {
  const auto sent = FileTimeOf(g_mime_message_get_date(message)), received = ReceivedTime(message);
  if (received || sent) out.DeliveryTime(received ? *received : *sent);
  const std::int64_t known = received ? *received : sent ? *sent : modified;
  if (known) out.Time(0x3007, known).Time(0x3008, known);
  if (sent) out.SubmitTime(*sent);
}

bool Says(std::string_view value, std::string_view word) {
  return value.size() >= word.size() && g_ascii_strncasecmp(value.data(), word.data(), word.size()) == 0;
}

void AddMarks(GMimeMessage* message, const MailFlags& flags, MessageBuilder& out) {
  const std::string_view priority = Header(message, "X-Priority"), importance = Header(message, "Importance");
  if (Says(importance, "high") || Says(priority, "1") || Says(priority, "2")) out.Int(0x0017, 2);
  if (Says(importance, "low") || Says(priority, "4") || Says(priority, "5")) out.Int(0x0017, 0);
  constexpr std::string_view kSensitivities[] = {"personal", "private", "company-confidential"};
  for (int i = 0; i < 3; ++i)
    if (Says(Header(message, "Sensitivity"), kSensitivities[i])) out.Int(0x0036, i + 1);
  out.Int(0x0E07, (flags.unread ? 0 : 1) | (flags.draft ? 8 : 0));
  if (flags.flagged) out.Int(0x1090, 2);                                             // follow up
  if (flags.replied || flags.forwarded) out.Int(0x1081, flags.replied ? 102 : 104);  // the last verb
}

void AddIdentifiers(GMimeMessage* message, MessageBuilder& out) {
  if (const char* id = g_mime_message_get_message_id(message))
    out.Text(0x1035, std::string("<").append(id).append(">"));
  const std::pair<const char*, std::uint16_t> copied[] = {{"In-Reply-To", 0x1042}, {"References", 0x1039}};
  for (const auto& [name, property] : copied)
    if (const auto value = Header(message, name); !value.empty()) out.Text(property, ToUtf8(value));
  const std::unique_ptr<char, decltype(&g_free)> headers(g_mime_object_get_headers(GMIME_OBJECT(message), nullptr),
                                                         g_free);
  if (headers) out.Text(0x007D, WithLineEnds(ToUtf8(headers.get())));
}

}  // namespace

GMimeParserOptions* ParserOptions() {
  static GMimeParserOptions* options = [] {
    g_mime_init();
    GMimeParserOptions* made = g_mime_parser_options_new();
    const char* charsets[] = {"utf-8", "windows-1252", nullptr};
    g_mime_parser_options_set_fallback_charsets(made, charsets);
    return made;
  }();
  return options;
}

void Describe(GMimeMessage* message, const MailFlags& flags, std::int64_t modified, int depth, MessageBuilder& out) {
  const std::string subject = ToUtf8(OrEmpty(g_mime_message_get_subject(message)));
  if (!subject.empty()) out.Subject(subject);
  AddPeople(message, out);
  AddTimes(message, modified, out);
  AddMarks(message, flags, out);
  AddIdentifiers(message, out);
  AddParts(message, depth, out);
}

MessageBuilder FromMime(GMimeMessage* message, const MailFlags& flags, std::int64_t modified) {
  MessageBuilder out("IPM.Note");
  Describe(message, flags, modified, 0, out);
  return out;
}

}  // namespace mkvault
