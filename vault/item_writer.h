// Lays messages and what hangs on them out as nodes ([MS-PST] 2.4.5, 2.4.6).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "vault/file_writer.h"
#include "vault/name_registry.h"
#include "vault/table_writer.h"
#include "vault/writer.h"

namespace vault {

// The properties of an object that is being written: those it was given, and those that the writer adds. Refers to the
// given ones.
class ItemProperties {
 public:
  explicit ItemProperties(const PropertyMap& given) : given_(given) {}
  // A temporary map would be gone when it is needed.
  explicit ItemProperties(PropertyMap&&) = delete;

  const PropertyData* Find(std::uint16_t id) const;
  // 0 when there is none.
  std::int32_t Int(std::uint16_t id) const;
  // Bytes of all values.
  std::uint64_t Size() const;

  // Adds a property unless there is one of that id.
  template <typename T>
  void Default(std::uint16_t id, PropType type, const T& value) {
    if (!Find(id)) Replace(id, type, value);
  }
  void DefaultText(std::uint16_t id, std::u16string_view text);
  // Adds a property; it stands for a given one of that id.
  template <typename T>
  void Replace(std::uint16_t id, PropType type, const T& value) {
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&value);
    added_[id] = {type, {bytes, bytes + sizeof value}};
  }
  // An object that lies in subnode `nid` already.
  void Refer(std::uint16_t id, Nid nid, std::uint32_t size);

  // All of them in ascending order of their ids, names as numbers. Throws Error(kUnwritable) when two get one id.
  std::vector<WrittenProperty> Written(NameRegistry& names) const;
  // Starts a row and sets its cells.
  void AddRow(TableWriter& table, std::uint32_t id) const;

 private:
  const PropertyMap& given_;
  std::map<std::uint16_t, PropertyData> added_;
  std::uint16_t reference_ = 0;  // the id of Refer
};

// Writes items into blocks of `file`. Throws Error(kUnwritable) for what the format cannot hold.
class ItemWriter {
 public:
  ItemWriter(FileWriter& file, const Guid& store_uid);

  // Ids given out so far; put them back to take an item back.
  struct Counters {
    std::array<std::uint32_t, 32> next_index;  // by node type
    std::uint64_t messages;
  };
  const Counters& counters() const { return counters_; }
  void TakeBack(const Counters& counters);
  Nid NewNid(NidType type);
  NameRegistry& names() { return names_; }

  // A message with all that hangs on it; `p` are its properties, completed here. The node is without id and parent.
  NodeInfo WriteMessage(const MessageBuilder& message, ItemProperties& p);
  // An object that is nothing but its properties.
  NodeInfo WriteObject(const ItemProperties& p);

 private:
  void DefaultConversation(ItemProperties& p) const;
  void WriteRecipients(const MessageBuilder& message, ItemProperties& p, HeapWriter& heap);
  std::uint64_t WriteAttachments(const MessageBuilder& message, HeapWriter& heap);
  NodeInfo WriteAttachment(const AttachmentBuilder& attachment, ItemProperties& p);
  std::uint32_t WriteEmbedded(const MessageBuilder& message, ItemProperties& p, HeapWriter& heap);

  FileWriter& file_;
  Guid uid_;
  NameRegistry names_;
  Counters counters_{};
  unsigned depth_ = 0;
};

}  // namespace vault
