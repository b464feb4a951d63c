#include "vault/writer.h"

#include <chrono>
#include <cstring>

#include "vault/append.h"
#include "vault/encoding.h"
#include "vault/store_stream.h"
#include "vault/value.h"

namespace vault {
namespace {

std::vector<std::uint8_t> TextBytes(std::string_view utf8) {
  const std::u16string text = Utf16FromUtf8(utf8);
  std::vector<std::uint8_t> bytes(text.size() * 2);
  if (!text.empty()) std::memcpy(bytes.data(), text.data(), bytes.size());
  return bytes;
}

// The compressed form ([MS-OXRTFCP] 2.1.3) with literals only: not shorter, but read by everybody, which cannot be said
// of the uncompressed form. Groups of a byte of flags and eight literals; a reference to the place where the next byte
// would go ends the text.
std::vector<std::uint8_t> RtfContainer(std::string_view rtf) {
  constexpr std::size_t kPrefilled = 207, kDictionary = 4096;
  std::vector<std::uint8_t> data;
  for (std::size_t i = 0; i < rtf.size(); ++i) {
    if (i % 8 == 0) data.push_back(0);
    data.push_back(static_cast<std::uint8_t>(rtf[i]));
  }
  const std::size_t flags_at = rtf.size() / 8 * 9;
  if (flags_at == data.size()) data.push_back(0);
  data[flags_at] |= static_cast<std::uint8_t>(1 << rtf.size() % 8);
  const std::size_t end = (kPrefilled + rtf.size()) % kDictionary << 4;
  data.push_back(static_cast<std::uint8_t>(end >> 8));
  data.push_back(static_cast<std::uint8_t>(end));
  std::vector<std::uint8_t> container;
  AppendValue(container, static_cast<std::uint32_t>(data.size() + 12));
  AppendValue(container, static_cast<std::uint32_t>(rtf.size()));
  AppendValue(container, std::uint32_t{0x75465A4C});  // "LZFu"
  AppendValue(container, Crc(data));
  container.insert(container.end(), data.begin(), data.end());
  return container;
}

}  // namespace

std::int64_t FileTime(int year, unsigned month, unsigned day, unsigned hour, unsigned minute, unsigned second) {
  namespace chr = std::chrono;
  const chr::sys_days date = chr::year(year) / chr::month(month) / chr::day(day);
  const chr::sys_days origin = chr::year(1601) / 1 / 1;
  return ((date - origin).count() * std::int64_t{86400} + hour * 3600 + minute * 60 + second) * 10'000'000;
}

PropertyKey::PropertyKey(const Guid& set, std::string_view name) : name_{set, 0, Utf16FromUtf8(name)} {}

template <typename Self>
Self& WithProperties<Self>::Text(const PropertyKey& key, std::string_view utf8) {
  return Set(key, PropType::kUnicode, TextBytes(utf8));
}

template <typename Self>
Self& WithProperties<Self>::Elements(const PropertyKey& key, PropType type,
                                     const std::vector<std::vector<std::uint8_t>>& values) {
  std::vector<std::uint8_t> bytes, data;
  AppendValue(bytes, static_cast<std::uint32_t>(values.size()));
  for (const auto& value : values) {
    AppendValue(bytes, static_cast<std::uint32_t>(4 + 4 * values.size() + data.size()));
    data.insert(data.end(), value.begin(), value.end());
  }
  bytes.insert(bytes.end(), data.begin(), data.end());
  return Set(key, MultiOf(type), bytes);
}

template <typename Self>
Self& WithProperties<Self>::Texts(const PropertyKey& key, const std::vector<std::string>& utf8) {
  std::vector<std::vector<std::uint8_t>> values;
  for (const std::string& text : utf8) values.push_back(TextBytes(text));
  return Elements(key, PropType::kUnicode, values);
}

template <typename Self>
Self& WithProperties<Self>::Texts8(const PropertyKey& key, const std::vector<std::string>& bytes) {
  std::vector<std::vector<std::uint8_t>> values;
  for (const std::string& text : bytes) values.emplace_back(text.begin(), text.end());
  return Elements(key, PropType::kString8, values);
}

template class WithProperties<RecipientBuilder>;
template class WithProperties<AttachmentBuilder>;
template class WithProperties<MessageBuilder>;
template class WithProperties<FolderBuilder>;
template class WithProperties<StoreBuilder>;
template class WithProperties<FolderStream>;
template class WithProperties<StoreStream>;

MessageBuilder::MessageBuilder(std::string_view message_class) {
  Text(prop::kMessageClass, message_class);
  Int(prop::kMessageFlags, 1);  // read
  Int(0x0E17, 0);               // status
  Int(0x0017, 1);               // importance: normal
  Int(0x0036, 0);               // sensitivity: none
}

MessageBuilder& MessageBuilder::Subject(std::string_view text) {
  std::u16string subject = Utf16FromUtf8(text);
  const auto parsed = ParseSubject(subject);
  Text(0x0070, Utf8FromUtf16(parsed.normalized()));  // conversation topic
  if (parsed.prefix_length > 0) {
    const std::u16string lead{u'\x1', static_cast<char16_t>(parsed.prefix_length + 1)};
    return Text(prop::kSubject, Utf8FromUtf16(lead + subject));
  }
  return Text(prop::kSubject, Utf8FromUtf16(subject));
}

MessageBuilder& MessageBuilder::From(std::string_view name, std::string_view email) {
  Text(0x0C1A, name).Text(0x0C1E, "SMTP").Text(0x0C1F, email).Text(0x5D01, email);
  return Text(0x0042, name).Text(0x0064, "SMTP").Text(0x0065, email).Text(0x5D02, email);
}

MessageBuilder& MessageBuilder::SubmitTime(std::int64_t time) {
  Time(0x0039, time);
  for (const std::uint16_t id : {0x0E06, 0x3007, 0x3008}) {
    if (!properties_.count(id)) Time(id, time);
  }
  return *this;
}

MessageBuilder& MessageBuilder::Html(std::string_view html) {
  return Binary(0x1013, html).Int(0x3FDE, 65001).Int(0x1016, 3);
}

MessageBuilder& MessageBuilder::Rtf(std::string_view rtf) {
  const auto container = RtfContainer(rtf);
  return Binary(0x1009, container).Bool(0x0E1F, true).Int(0x1016, 2);
}

RecipientBuilder& MessageBuilder::AddRecipient(std::int32_t type) {
  return recipients_.emplace_back().Int(0x0C15, type).Int(0x0FFE, 6).Int(0x3900, 0);
}

MessageBuilder& MessageBuilder::AddRecipient(std::int32_t type, std::string_view name, std::string_view email) {
  RecipientBuilder& recipient = AddRecipient(type);
  recipient.Text(0x3001, name).Text(0x39FF, name).Text(0x3002, "SMTP").Text(0x3003, email).Text(0x39FE, email);
  recipient.Bool(0x0E0F, true).Binary(0x300B, "SMTP:" + std::string(email));
  return *this;
}

AttachmentBuilder& AttachmentBuilder::Named(std::string_view name) {
  Text(prop::kAttachLongFilename, name).Text(prop::kAttachFilename, name).Text(0x3001, name);
  if (const auto dot = name.rfind('.'); dot != name.npos) Text(0x3703, name.substr(dot));
  return *this;
}

AttachmentBuilder& MessageBuilder::Attach(AttachMethod method) {
  AttachmentBuilder& attachment = attachments_.emplace_back();
  return attachment.Int(prop::kAttachMethod, static_cast<std::int32_t>(method)).Int(0x370B, -1);
}

AttachmentBuilder& MessageBuilder::AttachFile(std::string_view name, std::span<const std::uint8_t> data) {
  return Attach(AttachMethod::kByValue).Named(name).Binary(prop::kAttachData, data);
}

AttachmentBuilder& MessageBuilder::AttachFile(std::string_view name, Source data) {
  return Attach(AttachMethod::kByValue).Named(name).Binary(prop::kAttachData, std::move(data));
}

MessageBuilder& MessageBuilder::AttachMessage(std::string_view message_class) {
  AttachmentBuilder& attachment = Attach(AttachMethod::kEmbedded);
  attachment.embedded_ = std::make_shared<MessageBuilder>(message_class);
  return *attachment.embedded_;
}

AttachmentBuilder& MessageBuilder::AttachReference(std::string_view name, std::string_view path, AttachMethod method) {
  return Attach(method).Named(name).Text(0x3708, path).Text(0x370D, path);
}

AttachmentBuilder& MessageBuilder::AttachOle(std::string_view name, std::span<const std::uint8_t> storage,
                                             bool binary) {
  return Attach(AttachMethod::kOle)
      .Named(name)
      .Set(prop::kAttachData, binary ? PropType::kBinary : PropType::kObject, storage);
}

FolderBuilder::FolderBuilder(std::string_view name, std::string_view container_class) {
  Text(prop::kDisplayName, name);
  if (!container_class.empty()) Text(prop::kContainerClass, container_class);
}

FolderBuilder& FolderBuilder::AddFolder(std::string_view name, std::string_view container_class) {
  return folders_.emplace_back(name, container_class);
}

// 64-bit FNV-1a twice: not a secret, only an identity.
Guid MakeStoreUid(std::string_view name) {
  Guid uid{};
  std::uint64_t hash = 0xCBF29CE484222325;
  for (std::size_t half = 0; half < 2; ++half) {
    for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3;
    hash = (hash ^ half) * 0x100000001B3;
    std::memcpy(uid.data() + 8 * half, &hash, 8);
  }
  return uid;
}

StoreBuilder::StoreBuilder(std::string_view name, Encoding encoding)
    : name_(name),
      encoding_(encoding),
      uid_(MakeStoreUid(name)),
      top_("Top of Personal Folders"),
      deleted_("Deleted Items", "IPF.Note") {}

StoreBuilder& StoreBuilder::Encode(Encoding encoding) {
  encoding_ = encoding;
  return *this;
}

StoreBuilder& StoreBuilder::Uid(const Guid& uid) {
  uid_ = uid;
  return *this;
}

namespace {

void CopyProperties(const PropertyMap& from, auto& to) {
  for (const auto& [key, data] : from) {
    if (data.source) {
      to.Set(key, data.type, *data.source);
    } else {
      to.Set(key, data.type, data.bytes);
    }
  }
}

void WriteFolder(const FolderBuilder& folder, FolderStream& to) {
  CopyProperties(folder.properties(), to);
  for (const MessageBuilder& message : folder.messages()) to.AddMessage(message);
  for (const MessageBuilder& message : folder.hidden()) to.AddHidden(message);
  for (const FolderBuilder& child : folder.folders()) {
    FolderStream& below = to.OpenFolder({}, {});
    WriteFolder(child, below);
    below.Close();
  }
}

}  // namespace

void StoreBuilder::Write(const std::filesystem::path& path) const {
  StoreStream stream(path, name_, encoding_, uid_);
  CopyProperties(properties(), stream);
  WriteFolder(deleted_, stream.deleted_items());
  WriteFolder(top_, stream.top());
  stream.Finish();
}

}  // namespace vault
