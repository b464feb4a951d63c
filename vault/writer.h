// Builds Unicode stores ([MS-PST]) in memory and writes them in one go, for demonstrations, tests and benchmarks.
//
//   vault::StoreBuilder store("Archive 2024");
//   auto& inbox = store.top().AddFolder("Inbox");
//   inbox.AddMessage("IPM.Note").Subject("RE: Invoice 17").From("Ann Smith", "ann@example.com")
//       .To("Bob", "bob@example.org").SubmitTime(vault::FileTime(2024, 5, 2, 9, 30)).Body("Paid.");
//   store.Write("archive.db");
//
// The same calls give the same bytes. Text is UTF-8 and bodies and names may be of any length. References that Add...
// returns stay valid as long as the builder. One thread. Methods throw Error(kUnwritable) for what the format cannot
// hold.
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
  std::vector<std::uint8_t> bytes;  // as PropertyValue::bytes() gives them
};
using PropertyMap = std::map<PropertyKey, PropertyData>;

// What every object with properties can be told. Setting a property again replaces it.
template <typename Self>
class WithProperties {
 public:
  Self& Set(const PropertyKey& key, PropType type, std::span<const std::uint8_t> bytes) {
    properties_[key] = {type, {bytes.begin(), bytes.end()}};
    return static_cast<Self&>(*this);
  }
  Self& Int(const PropertyKey& key, std::int32_t value) { return Scalar(key, PropType::kInt32, value); }
  Self& Int64(const PropertyKey& key, std::int64_t value) { return Scalar(key, PropType::kInt64, value); }
  Self& Bool(const PropertyKey& key, bool value) {
    return Scalar(key, PropType::kBoolean, static_cast<std::uint8_t>(value));
  }
  Self& Double(const PropertyKey& key, double value) { return Scalar(key, PropType::kDouble, value); }
  Self& Time(const PropertyKey& key, std::int64_t file_time) { return Scalar(key, PropType::kTime, file_time); }
  Self& Text(const PropertyKey& key, std::string_view utf8);
  Self& Texts(const PropertyKey& key, const std::vector<std::string>& utf8);
  Self& Binary(const PropertyKey& key, std::span<const std::uint8_t> bytes) {
    return Set(key, PropType::kBinary, bytes);
  }
  Self& Binary(const PropertyKey& key, std::string_view bytes) {
    return Binary(key, std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
  }
  const PropertyMap& properties() const { return properties_; }

 protected:
  template <typename T>
  Self& Scalar(const PropertyKey& key, PropType type, T value) {
    return Set(key, type, {reinterpret_cast<const std::uint8_t*>(&value), sizeof value});
  }
  PropertyMap properties_;
};

class RecipientBuilder : public WithProperties<RecipientBuilder> {};
class MessageBuilder;

class AttachmentBuilder : public WithProperties<AttachmentBuilder> {
 public:
  AttachmentBuilder& MimeType(std::string_view type) { return Text(0x370E, type); }

 private:
  friend class MessageBuilder;
  friend class StoreWriter;
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
  // A file by value, or a message.
  AttachmentBuilder& AttachFile(std::string_view name, std::span<const std::uint8_t> data);
  AttachmentBuilder& AttachFile(std::string_view name, std::string_view data) {
    return AttachFile(name, std::span(reinterpret_cast<const std::uint8_t*>(data.data()), data.size()));
  }
  MessageBuilder& AttachMessage(std::string_view message_class);

 private:
  friend class StoreWriter;
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

 private:
  friend class StoreWriter;
  std::list<FolderBuilder> folders_;
  std::deque<MessageBuilder> messages_, hidden_;
};

class StoreBuilder : public WithProperties<StoreBuilder> {
 public:
  explicit StoreBuilder(std::string_view name, Encoding encoding = Encoding::kPermute);
  // The 16 bytes in every entry id; made from the name when not set.
  StoreBuilder& Uid(const Guid& uid);
  StoreBuilder& Encode(Encoding encoding);
  // The top of the mail subtree, and the "Deleted Items" in it.
  FolderBuilder& top() { return top_; }
  FolderBuilder& deleted_items() { return deleted_; }
  // Writes the whole store, replacing the file. Throws Error.
  void Write(const std::filesystem::path& path) const;

 private:
  friend class StoreWriter;
  std::string name_;
  Encoding encoding_;
  Guid uid_{};
  FolderBuilder top_, deleted_;
};

}  // namespace vault
