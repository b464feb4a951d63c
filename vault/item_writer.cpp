#include "vault/item_writer.h"

#include <algorithm>
#include <cstring>

#include "vault/encoding.h"
#include "vault/error.h"
#include "vault/heap_writer.h"
#include "vault/message.h"
#include "vault/standard_tables.h"
#include "vault/value.h"

namespace vault {
namespace {

constexpr std::uint8_t kPropertiesHeap = 0xBC;
constexpr std::uint32_t kHasAttachments = 0x10;  // in PR_MESSAGE_FLAGS
constexpr std::uint32_t kFirstAttachment = 0x401, kNidIndexes = 1u << 27;
constexpr std::uint64_t kValueOverhead = 8;  // in PR_MESSAGE_SIZE and PR_ATTACH_SIZE

PropertyValue ValueOf(std::uint16_t id, const PropertyData& data) {
  return {MakeTag(id, data.type), data.bytes};
}

std::uint32_t Size32(std::uint64_t size) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(size, 0x7FFFFFFF));
}

}  // namespace

const PropertyData* ItemProperties::Find(std::uint16_t id) const {
  if (const auto at = added_.find(id); at != added_.end()) return &at->second;
  const auto at = given_.find(id);
  return at == given_.end() ? nullptr : &at->second;
}

std::int32_t ItemProperties::Int(std::uint16_t id) const {
  const PropertyData* const data = Find(id);
  return data ? ValueOf(id, *data).AsInt32() : 0;
}

std::uint64_t ItemProperties::Size() const {
  std::uint64_t size = 0;
  for (const auto& [key, data] : given_) size += data.size() + kValueOverhead;
  return size;
}

void ItemProperties::DefaultText(std::uint16_t id, std::u16string_view text) {
  if (Find(id)) return;
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  added_[id] = {PropType::kUnicode, {bytes, bytes + 2 * text.size()}};
}

void ItemProperties::Refer(std::uint16_t id, Nid nid, std::uint32_t size) {
  Replace(id, PropType::kObject, std::array<std::uint32_t, 2>{nid, size});
  reference_ = id;
}

std::vector<WrittenProperty> ItemProperties::Written(NameRegistry& names) const {
  std::vector<WrittenProperty> written;
  written.reserve(given_.size() + added_.size());
  for (const auto& [key, data] : given_) {
    if (key.id() && added_.count(key.id())) continue;
    const std::uint16_t id = key.id() ? key.id() : names.IdOf(key.name());
    written.push_back({MakeTag(id, data.type), data.bytes, data.source.get()});
  }
  for (const auto& [id, data] : added_) {
    written.push_back({MakeTag(id, data.type), data.bytes, nullptr, id == reference_});
  }
  std::sort(written.begin(), written.end(),
            [](const WrittenProperty& a, const WrittenProperty& b) { return a.tag < b.tag; });
  const auto twice =
      std::adjacent_find(written.begin(), written.end(),
                         [](const WrittenProperty& a, const WrittenProperty& b) { return IdOf(a.tag) == IdOf(b.tag); });
  if (twice != written.end()) {
    throw Error(ErrorCode::kUnwritable, "a name and a number stand for the same property");
  }
  return written;
}

void ItemProperties::AddRow(TableWriter& table, std::uint32_t id) const {
  table.AddRow(id);
  const auto cell = [&](std::uint16_t property, const PropertyData& data) {
    if (!data.source) table.SetCell(MakeTag(property, data.type), data.bytes);
  };
  for (const auto& [key, data] : given_) {
    if (key.id() && !added_.count(key.id())) cell(key.id(), data);
  }
  for (const auto& [property, data] : added_) cell(property, data);
}

ItemWriter::ItemWriter(FileWriter& file, const Guid& store_uid) : file_(file), uid_(store_uid) {
  auto& next = counters_.next_index;
  next.fill(0x400);
  next[static_cast<unsigned>(NidType::kFolder)] = 0x405;  // behind the folders that every store has
  next[static_cast<unsigned>(NidType::kSearchFolder)] = 0x4000;
  next[static_cast<unsigned>(NidType::kMessage)] = 0x10001;
  next[static_cast<unsigned>(NidType::kAssociatedMessage)] = 0x8000;
}

void ItemWriter::TakeBack(const Counters& counters) {
  counters_ = counters;
  depth_ = 0;
}

Nid ItemWriter::NewNid(NidType type) {
  std::uint32_t& next = counters_.next_index[static_cast<unsigned>(type)];
  if (next == kNidIndexes) throw Error(ErrorCode::kUnwritable, "the store has too many messages or folders");
  return MakeNid(type, next++);
}

NodeInfo ItemWriter::WriteObject(const ItemProperties& p) {
  HeapWriter heap(file_, kPropertiesHeap);
  const std::uint32_t root = AddProperties(heap, p.Written(names_));
  return heap.Finish(root);
}

NodeInfo ItemWriter::WriteMessage(const MessageBuilder& message, ItemProperties& p) {
  HeapWriter heap(file_, kPropertiesHeap);
  std::uint64_t size = p.Size();
  WriteRecipients(message, p, heap);
  if (!message.attachments().empty()) {
    size += WriteAttachments(message, heap);
    const std::uint32_t flags = static_cast<std::uint32_t>(p.Int(prop::kMessageFlags)) | kHasAttachments;
    p.Replace(prop::kMessageFlags, PropType::kInt32, flags);
  }
  const std::int64_t created = FileTime(2024, 1, 1);
  p.Default(0x3007, PropType::kTime, created);
  p.Default(0x3008, PropType::kTime, created);
  Guid search_key = uid_;
  const std::uint64_t number = ++counters_.messages;
  for (int i = 0; i < 4; ++i) search_key[12 + i] ^= static_cast<std::uint8_t>(number >> (8 * i));
  p.Default(0x300B, PropType::kBinary, search_key);
  p.Default(prop::kMessageSize, PropType::kInt32, Size32(size));
  DefaultConversation(p);
  const std::uint32_t root = AddProperties(heap, p.Written(names_));
  return heap.Finish(root);
}

// [MS-OXOMSG] 2.2.1.3: 0x01, the upper five bytes of the time behind its first, and an identity of the topic.
void ItemWriter::DefaultConversation(ItemProperties& p) const {
  const PropertyData *const topic = p.Find(0x0070), *const submitted = p.Find(0x0039);
  if (!topic || !submitted) return;
  const std::int64_t time = ValueOf(0x0039, *submitted).AsInt64();
  std::array<std::uint8_t, 22> index{1};
  for (int i = 0; i < 5; ++i) index[1 + i] = static_cast<std::uint8_t>(time >> (48 - 8 * i));
  const std::uint32_t crc = Crc(topic->bytes);
  std::copy(uid_.begin(), uid_.end(), index.begin() + 6);
  std::memcpy(index.data() + 18, &crc, sizeof crc);
  p.Default(0x0071, PropType::kBinary, index);
}

void ItemWriter::WriteRecipients(const MessageBuilder& message, ItemProperties& p, HeapWriter& heap) {
  TableWriter table(file_, StandardTables::Get().recipients);
  std::u16string shown[4];  // by recipient type
  for (const RecipientBuilder& recipient : message.recipients()) {
    const ItemProperties r(recipient.properties());
    r.AddRow(table, table.row_count());
    const std::int32_t type = r.Int(0x0C15);
    const PropertyData* const name = r.Find(prop::kDisplayName);
    if (type < 1 || type > 3 || !name) continue;
    shown[type] += (shown[type].empty() ? u"" : u"; ") + ValueOf(prop::kDisplayName, *name).AsText();
  }
  constexpr std::uint16_t kDisplayIds[] = {0, 0x0E04, 0x0E03, 0x0E02};
  for (int type = 1; type <= 3; ++type) p.DefaultText(kDisplayIds[type], shown[type]);
  NodeInfo node = table.Finish();
  node.nid = kRecipientTableNid;
  heap.AddSubnode(node);
}

// The bytes that the attachments add to the message's size.
std::uint64_t ItemWriter::WriteAttachments(const MessageBuilder& message, HeapWriter& heap) {
  TableWriter table(file_, StandardTables::Get().attachments);
  std::uint32_t index = kFirstAttachment;
  std::uint64_t total = 0;
  for (const AttachmentBuilder& attachment : message.attachments()) {
    ItemProperties p(attachment.properties());
    NodeInfo node = WriteAttachment(attachment, p);
    node.nid = MakeNid(NidType::kAttachment, index++);
    heap.AddSubnode(node);
    p.AddRow(table, node.nid);
    total += static_cast<std::uint32_t>(p.Int(prop::kAttachSize));
  }
  NodeInfo node = table.Finish();
  node.nid = kAttachmentTableNid;
  heap.AddSubnode(node);
  return total;
}

NodeInfo ItemWriter::WriteAttachment(const AttachmentBuilder& attachment, ItemProperties& p) {
  HeapWriter heap(file_, kPropertiesHeap);
  std::uint64_t size = p.Size();
  if (attachment.embedded()) size += WriteEmbedded(*attachment.embedded(), p, heap);
  p.Default(prop::kAttachSize, PropType::kInt32, Size32(size));
  const std::uint32_t root = AddProperties(heap, p.Written(names_));
  return heap.Finish(root);
}

// The size of the embedded message.
std::uint32_t ItemWriter::WriteEmbedded(const MessageBuilder& message, ItemProperties& p, HeapWriter& heap) {
  if (++depth_ > kMaxEmbeddingDepth) throw Error(ErrorCode::kUnwritable, "messages are embedded too deeply");
  ItemProperties inner(message.properties());
  NodeInfo node = WriteMessage(message, inner);
  --depth_;
  node.nid = NewNid(NidType::kMessage);
  heap.AddSubnode(node);
  const auto size = static_cast<std::uint32_t>(inner.Int(prop::kMessageSize));
  p.Refer(prop::kAttachData, node.nid, size);
  if (const PropertyData* const subject = inner.Find(prop::kSubject)) {
    p.DefaultText(0x3001, ParseSubject(ValueOf(prop::kSubject, *subject).AsText()).text);
  }
  return size;
}

}  // namespace vault
