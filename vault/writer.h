// Describes stores, folders and messages in memory, for the writers of Unicode stores ([MS-PST]).
//
//   vault::StoreBuilder store("Archive 2024");
//   auto& inbox = store.top().AddFolder("Inbox");
//   inbox.AddMessage("IPM.Note").Subject("RE: Invoice 17").From("Ann Smith", "ann@example.com")
//       .To("Bob", "bob@example.org").SubmitTime(vault::FileTime(2024, 5, 2, 9, 30)).Body("Paid.");
//   store.Write("archive.db");
//
// StoreBuilder keeps all of a store that it writes; store_stream.h writes one of any size, message by message.
// The same calls give the same bytes. Text is UTF-8 and bodies and names may be of any length. References that Add...
// returns stay valid as long as the builder. One thread. What the format cannot hold is refused when it is written:
// Error(kUnwritable).
#pragma once

#include <compare>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vault/encoding.h"
#include "vault/source.h"
#include "vault/types.h"

namespace vault {

// 100-nanosecond units since 1601, UTC.
std::int64_t FileTime(int year, unsigned month, unsigned day, unsigned hour = 0, unsigned minute = 0,
                      unsigned second = 0);

// A property set from its first field; the rest is that of every set of MAPI: {xxxxxxxx-0000-0000-C000-000000000046}.
constexpr Guid MapiSet(std::uint32_t data1) {
  return {static_cast<std::uint8_t>(data1),
          static_cast<std::uint8_t>(data1 >> 8),
          static_cast<std::uint8_t>(data1 >> 16),
          static_cast<std::uint8_t>(data1 >> 24),
          0,
          0,
          0,
          0,
          0xC0,
          0,
          0,
          0,
          0,
          0,
          0,
          0x46};
}
inline constexpr Guid kAppointmentSet = MapiSet(0x00062002), kTaskSet = MapiSet(0x00062003),
                      kAddressSet = MapiSet(0x00062004), kCommonSet = MapiSet(0x00062008),
                      kLogSet = MapiSet(0x0006200A), kNoteSet = MapiSet(0x0006200E),
                      kPublicStringsSet = MapiSet(0x00020329);

// The name of a property: a number or, where that is not empty, a text.
struct PropertyName {
  Guid set{};
  std::uint32_t id = 0;
  std::u16string text;
  auto operator<=>(const PropertyName&) const = default;
};

// A property by id, or by a name that the store gives an id.
class PropertyKey {
 public:
  PropertyKey(std::uint16_t id) : id_(id) {}
  PropertyKey(const Guid& set, std::uint32_t id) : name_{set, id, {}} {}
  PropertyKey(const Guid& set, std::string_view name);
  auto operator<=>(const PropertyKey&) const = default;
  // 0 for a name.
  std::uint16_t id() const { return id_; }
  const PropertyName& name() const { return name_; }

 private:
  std::uint16_t id_ = 0;
  PropertyName name_;
};

struct PropertyData {
  PropType type = PropType::kUnspecified;
  // As PropertyValue::bytes() gives them; what an object holds.
  std::vector<std::uint8_t> bytes;
  // Gives the bytes instead, when the store is written.
  std::shared_ptr<const Source> source = nullptr;

  std::uint64_t size() const { return source ? source->size() : bytes.size(); }
};
using PropertyMap = std::map<PropertyKey, PropertyData>;

constexpr PropType MultiOf(PropType element) {
  return static_cast<PropType>(static_cast<unsigned>(element) | static_cast<unsigned>(PropType::kMultiFlag));
}

// What every object with properties can be told. Setting a property again replaces it, whatever its type was.
template <typename Self>
class WithProperties {
 public:
  Self& Set(const PropertyKey& key, PropType type, std::span<const std::uint8_t> bytes) {
    properties_[key] = {type, {bytes.begin(), bytes.end()}};
    return static_cast<Self&>(*this);
  }
  // A large value of type kBinary, kUnicode (UTF-16LE), kString8 or kObject, read when the store is written.
  Self& Set(const PropertyKey& key, PropType type, Source source) {
    properties_[key] = {type, {}, std::make_shared<const Source>(std::move(source))};
    return static_cast<Self&>(*this);
  }

  Self& Int16(const PropertyKey& key, std::int16_t value) { return Scalar(key, PropType::kInt16, value); }
  Self& Int(const PropertyKey& key, std::int32_t value) { return Scalar(key, PropType::kInt32, value); }
  Self& Int64(const PropertyKey& key, std::int64_t value) { return Scalar(key, PropType::kInt64, value); }
  Self& Bool(const PropertyKey& key, bool value) {
    return Scalar(key, PropType::kBoolean, static_cast<std::uint8_t>(value));
  }
  Self& Float(const PropertyKey& key, float value) { return Scalar(key, PropType::kFloat, value); }
  Self& Double(const PropertyKey& key, double value) { return Scalar(key, PropType::kDouble, value); }
  // Ten-thousandths of the unit.
  Self& Currency(const PropertyKey& key, std::int64_t value) { return Scalar(key, PropType::kCurrency, value); }
  // Days since 30 December 1899.
  Self& AppTime(const PropertyKey& key, double days) { return Scalar(key, PropType::kAppTime, days); }
  Self& Time(const PropertyKey& key, std::int64_t file_time) { return Scalar(key, PropType::kTime, file_time); }
  // A result code.
  Self& Code(const PropertyKey& key, std::uint32_t code) { return Scalar(key, PropType::kError, code); }
  Self& ClassId(const PropertyKey& key, const Guid& id) { return Scalar(key, PropType::kGuid, id); }
  Self& Text(const PropertyKey& key, std::string_view utf8);
  // Characters of the object's own code page.
  Self& Text8(const PropertyKey& key, std::string_view bytes) { return Set(key, PropType::kString8, BytesOf(bytes)); }
  Self& Binary(const PropertyKey& key, std::span<const std::uint8_t> bytes) {
    return Set(key, PropType::kBinary, bytes);
  }
  Self& Binary(const PropertyKey& key, std::string_view bytes) { return Binary(key, BytesOf(bytes)); }
  Self& Binary(const PropertyKey& key, Source source) { return Set(key, PropType::kBinary, std::move(source)); }
  // The bytes that the object holds.
  Self& Object(const PropertyKey& key, std::span<const std::uint8_t> bytes) {
    return Set(key, PropType::kObject, bytes);
  }

  // Multi-valued properties.
  Self& Int16s(const PropertyKey& key, const std::vector<std::int16_t>& v) { return Packed(key, PropType::kInt16, v); }
  Self& Ints(const PropertyKey& key, const std::vector<std::int32_t>& v) { return Packed(key, PropType::kInt32, v); }
  Self& Int64s(const PropertyKey& key, const std::vector<std::int64_t>& v) { return Packed(key, PropType::kInt64, v); }
  Self& Floats(const PropertyKey& key, const std::vector<float>& v) { return Packed(key, PropType::kFloat, v); }
  Self& Doubles(const PropertyKey& key, const std::vector<double>& v) { return Packed(key, PropType::kDouble, v); }
  Self& Currencies(const PropertyKey& key, const std::vector<std::int64_t>& v) {
    return Packed(key, PropType::kCurrency, v);
  }
  Self& AppTimes(const PropertyKey& key, const std::vector<double>& v) { return Packed(key, PropType::kAppTime, v); }
  Self& Times(const PropertyKey& key, const std::vector<std::int64_t>& v) { return Packed(key, PropType::kTime, v); }
  Self& ClassIds(const PropertyKey& key, const std::vector<Guid>& v) { return Packed(key, PropType::kGuid, v); }
  Self& Texts(const PropertyKey& key, const std::vector<std::string>& utf8);
  Self& Texts8(const PropertyKey& key, const std::vector<std::string>& bytes);
  Self& Binaries(const PropertyKey& key, const std::vector<std::vector<std::uint8_t>>& values) {
    return Elements(key, PropType::kBinary, values);
  }

  const PropertyMap& properties() const { return properties_; }

 protected:
  static std::span<const std::uint8_t> BytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
  }
  template <typename T>
  Self& Scalar(const PropertyKey& key, PropType type, const T& value) {
    return Set(key, type, {reinterpret_cast<const std::uint8_t*>(&value), sizeof value});
  }
  template <typename T>
  Self& Packed(const PropertyKey& key, PropType type, const std::vector<T>& values) {
    return Set(key, MultiOf(type), {reinterpret_cast<const std::uint8_t*>(values.data()), values.size() * sizeof(T)});
  }
  Self& Elements(const PropertyKey& key, PropType type, const std::vector<std::vector<std::uint8_t>>& values);
  PropertyMap properties_;
};

class FolderStream;
class MessageBuilder;
class RecipientBuilder : public WithProperties<RecipientBuilder> {};

class AttachmentBuilder : public WithProperties<AttachmentBuilder> {
 public:
  AttachmentBuilder& MimeType(std::string_view type) { return Text(0x370E, type); }
  // A picture that an HTML body shows by "cid:".
  AttachmentBuilder& Inline(std::string_view content_id) { return Text(0x3712, content_id).Int(0x3714, 4); }
  // The message that is attached; null for other attachments.
  const MessageBuilder* embedded() const { return embedded_.get(); }

 private:
  friend class MessageBuilder;
  AttachmentBuilder& Named(std::string_view name);
  std::shared_ptr<MessageBuilder> embedded_;
};

class MessageBuilder : public WithProperties<MessageBuilder> {
 public:
  explicit MessageBuilder(std::string_view message_class);

  // Stores the two lead characters when the text has a prefix such as "RE: ".
  MessageBuilder& Subject(std::string_view text);
  // Sender and represented sender with address type SMTP.
  MessageBuilder& From(std::string_view name, std::string_view email);
  MessageBuilder& To(std::string_view name, std::string_view email) { return AddRecipient(1, name, email); }
  MessageBuilder& Cc(std::string_view name, std::string_view email) { return AddRecipient(2, name, email); }
  MessageBuilder& Bcc(std::string_view name, std::string_view email) { return AddRecipient(3, name, email); }
  // File times; the submit time also gives the other times that are not set otherwise.
  MessageBuilder& SubmitTime(std::int64_t time);
  MessageBuilder& DeliveryTime(std::int64_t time) { return Time(0x0E06, time); }
  // Any of the three forms; Html is UTF-8, Rtf is plain RTF source.
  MessageBuilder& Body(std::string_view text) { return Text(0x1000, text); }
  MessageBuilder& Html(std::string_view html);
  MessageBuilder& Rtf(std::string_view rtf);
  // Recipients in the order of the calls; the result is the recipient's own properties.
  RecipientBuilder& AddRecipient(std::int32_t type);
  // A file by value, from memory or from a source; or a message.
  AttachmentBuilder& AttachFile(std::string_view name, std::span<const std::uint8_t> data);
  AttachmentBuilder& AttachFile(std::string_view name, std::string_view data) {
    return AttachFile(name, std::span(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()));
  }
  AttachmentBuilder& AttachFile(std::string_view name, Source data);
  MessageBuilder& AttachMessage(std::string_view message_class);
  // A file that stays where it is: kByReference, kByReferenceResolve, kByReferenceOnly or kWebReference, with its path.
  AttachmentBuilder& AttachReference(std::string_view name, std::string_view path,
                                     AttachMethod method = AttachMethod::kByReference);
  // An OLE object: the bytes of its storage, as an object or, where `binary`, as a binary value.
  AttachmentBuilder& AttachOle(std::string_view name, std::span<const std::uint8_t> storage, bool binary = false);

  const std::deque<RecipientBuilder>& recipients() const { return recipients_; }
  const std::deque<AttachmentBuilder>& attachments() const { return attachments_; }

 private:
  AttachmentBuilder& Attach(AttachMethod method);
  MessageBuilder& AddRecipient(std::int32_t type, std::string_view name, std::string_view email);
  std::deque<RecipientBuilder> recipients_;
  std::deque<AttachmentBuilder> attachments_;
};

class FolderBuilder : public WithProperties<FolderBuilder> {
 public:
  explicit FolderBuilder(std::string_view name, std::string_view container_class = {});
  FolderBuilder& AddFolder(std::string_view name, std::string_view container_class = "IPF.Note");
  MessageBuilder& AddMessage(std::string_view message_class) { return messages_.emplace_back(message_class); }
  // A hidden message of the associated table.
  MessageBuilder& AddHidden(std::string_view message_class) { return hidden_.emplace_back(message_class); }

  const std::list<FolderBuilder>& folders() const { return folders_; }
  const std::deque<MessageBuilder>& messages() const { return messages_; }
  const std::deque<MessageBuilder>& hidden() const { return hidden_; }

 private:
  std::list<FolderBuilder> folders_;
  std::deque<MessageBuilder> messages_, hidden_;
};

// 16 bytes that differ where the name differs.
Guid MakeStoreUid(std::string_view name);

class StoreBuilder : public WithProperties<StoreBuilder> {
 public:
  explicit StoreBuilder(std::string_view name, Encoding encoding = Encoding::kPermute);
  // The 16 bytes in every entry id; made from the name when not set.
  StoreBuilder& Uid(const Guid& uid);
  StoreBuilder& Encode(Encoding encoding);
  // The top of the mail subtree, and the "Deleted Items" in it.
  FolderBuilder& top() { return top_; }
  FolderBuilder& deleted_items() { return deleted_; }
  const FolderBuilder& top() const { return top_; }
  const FolderBuilder& deleted_items() const { return deleted_; }
  // Writes the whole store in place of the file, as StoreStream does. Throws Error.
  void Write(const std::filesystem::path& path) const;

 private:
  std::string name_;
  Encoding encoding_;
  Guid uid_{};
  FolderBuilder top_, deleted_;
};

}  // namespace vault
