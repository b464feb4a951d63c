// Lays the objects of a StoreBuilder out as nodes ([MS-PST] 2.4, 2.7).
#include <algorithm>
#include <cstring>

#include "vault/encoding.h"
#include "vault/error.h"
#include "vault/file_writer.h"
#include "vault/heap_writer.h"
#include "vault/store.h"
#include "vault/value.h"
#include "vault/writer.h"

namespace vault {
namespace {

constexpr std::uint8_t kPropertiesHeap = 0xBC;
constexpr Nid kSearchRootNid = 0x8042, kDeletedItemsNid = 0x8062, kSpamSearchNid = 0x2223;
constexpr std::uint32_t kHasAttachments = 0x10;  // in PR_MESSAGE_FLAGS
constexpr std::uint16_t kFirstNamed = 0x8000;
constexpr std::uint32_t kNameBuckets = 251;

// Columns of the tables, in the order in which clients lay them out.
constexpr PropTag kHierarchyColumns[] = {0x67F20003, 0x67F30003, 0x3001001F, 0x36020003, 0x36030003,
                                         0x0E300102, 0x0E330014, 0x0E340102, 0x0E380003, 0x3613001F,
                                         0x66350003, 0x66360003, 0x360A000B};
constexpr PropTag kContentsColumns[] = {0x67F20003, 0x67F30003, 0x0E170003, 0x001A001F, 0x0E070003, 0x00170003,
                                        0x0042001F, 0x0037001F, 0x0E060040, 0x00390040, 0x0E080003, 0x0E04001F,
                                        0x0E03001F, 0x00360003, 0x10970003, 0x0070001F, 0x00710102, 0x30130102,
                                        0x65C60003, 0x30080040, 0x0E300102, 0x0E330014, 0x0E340102, 0x0E3D0102,
                                        0x0E3C0102, 0x0E380003, 0x0057000B, 0x0058000B};
constexpr PropTag kAssociatedColumns[] = {0x67F20003, 0x67F30003, 0x0E170003, 0x001A001F, 0x0E070003,
                                          0x3001001F, 0x70030003, 0x70040102, 0x70050102, 0x7006001F,
                                          0x70070003, 0x6800001F, 0x68051003, 0x682F001F, 0x6803000B};
constexpr PropTag kSearchColumns[] = {0x67F20003, 0x67F30003, 0x67F10003, 0x0E05001F, 0x0E170003,
                                      0x001A001F, 0x0E070003, 0x00170003, 0x0042001F, 0x0037001F,
                                      0x0E060040, 0x0E080003, 0x0E04001F, 0x0E03001F, 0x00360003,
                                      0x30080040, 0x0057000B, 0x0058000B, 0x0E2A000B};
constexpr PropTag kAttachmentColumns[] = {0x67F20003, 0x67F30003, 0x370B0003, 0x0E200003, 0x37050003, 0x3704001F};
constexpr PropTag kRecipientColumns[] = {0x67F20003, 0x67F30003, 0x3002001F, 0x3003001F, 0x0FFF0102,
                                         0x3001001F, 0x0C150003, 0x300B0102, 0x0FF90102, 0x0FFE0003,
                                         0x39000003, 0x39FF001F, 0x0E0F000B, 0x3A40000B, 0x39FE001F};

template <typename T>
void Append(std::vector<std::uint8_t>& to, const T& value) {
  to.resize(to.size() + sizeof value);
  std::memcpy(to.data() + to.size() - sizeof value, &value, sizeof value);
}

std::span<const std::uint8_t> BytesOf(std::u16string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * 2};
}

// Fills in what a caller did not set.
template <typename T>
void Default(PropertyMap& properties, std::uint16_t id, PropType type, const T& value) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(&value);
  properties.try_emplace(id, PropertyData{type, {bytes, bytes + sizeof value}});
}

void DefaultText(PropertyMap& properties, std::uint16_t id, std::u16string_view text) {
  const auto bytes = BytesOf(text);
  properties.try_emplace(id, PropertyData{PropType::kUnicode, {bytes.begin(), bytes.end()}});
}

std::int32_t IntOf(const PropertyMap& properties, std::uint16_t id) {
  const auto found = properties.find(id);
  return found == properties.end() ? 0 : PropertyValue(MakeTag(id, found->second.type), found->second.bytes).AsInt32();
}

}  // namespace

// The names that the store's items use, numbered in the order of their first use.
class NameRegistry {
 public:
  std::uint16_t IdOf(const PropertyName& name) {
    const auto [at, is_new] = ids_.try_emplace(name, static_cast<std::uint16_t>(kFirstNamed + order_.size()));
    if (is_new) order_.push_back(name);
    if (order_.size() > 0x7FFF) throw Error(ErrorCode::kUnwritable, "the store has too many named properties");
    return at->second;
  }

  // [MS-PST] 2.4.7.
  PropertyMap Map() const {
    std::vector<std::uint8_t> guids, entries, strings;
    std::map<std::uint32_t, std::vector<std::uint8_t>> buckets;
    std::map<Guid, std::uint16_t> sets{{MapiSet(0x00020328), 1}, {kPublicStringsSet, 2}};
    for (std::size_t i = 0; i < order_.size(); ++i) {
      const PropertyName& name = order_[i];
      const auto [set, is_new] = sets.try_emplace(name.set, static_cast<std::uint16_t>(sets.size() + 1));
      if (is_new) Append(guids, name.set);
      const auto kind = static_cast<std::uint16_t>(set->second << 1 | (name.text.empty() ? 0 : 1));
      std::uint32_t id = 0, hash = 0;
      if (!name.text.empty()) {
        id = static_cast<std::uint32_t>(strings.size());
        hash = Crc(BytesOf(name.text));
        Append(strings, static_cast<std::uint32_t>(name.text.size() * 2));
        const auto bytes = BytesOf(name.text);
        strings.insert(strings.end(), bytes.begin(), bytes.end());
        strings.resize((strings.size() + 3) / 4 * 4);
      } else {
        id = hash = name.id;
      }
      const auto add = [&](std::vector<std::uint8_t>& to, std::uint32_t first) {
        Append(to, first);
        Append(to, kind);
        Append(to, static_cast<std::uint16_t>(i));
      };
      add(entries, id);
      add(buckets[(hash ^ kind) % kNameBuckets], hash);
    }
    PropertyMap map;
    Default(map, 0x0001, PropType::kInt32, kNameBuckets);
    map[std::uint16_t{0x0002}] = {PropType::kBinary, guids};
    map[std::uint16_t{0x0003}] = {PropType::kBinary, entries};
    map[std::uint16_t{0x0004}] = {PropType::kBinary, strings};
    for (auto& [bucket, bytes] : buckets) {
      map[static_cast<std::uint16_t>(0x1000 + bucket)] = {PropType::kBinary, std::move(bytes)};
    }
    return map;
  }

 private:
  std::map<PropertyName, std::uint16_t> ids_;
  std::vector<PropertyName> order_;
};

class StoreWriter {
 public:
  StoreWriter(const StoreBuilder& store, const std::filesystem::path& path)
      : store_(store), file_(path, store.encoding_) {
    next_index_.fill(0x400);
    next_index_[2] = 0x405;  // behind the folders that every store has
    next_index_[3] = 0x4000;
    next_index_[4] = 0x10000 + 1;
    next_index_[8] = 0x8000;
  }

  void Run() {
    // Some readers refuse a store without any name; categories are the one that every client knows.
    names_.IdOf({kPublicStringsSet, 0, u"Keywords"});
    WriteFolders();
    WriteSearchFolder();
    WriteStoreObject();
    WriteTemplates();
    AddObject(kNameMapNid, names_.Map(), 0);
    file_.AddNode({0x1E1, 0, 0, 0});
    file_.AddNode({0x201, 0, 0, 0});
    file_.Finish(next_index_);
  }

 private:
  Nid NewNid(NidType type) { return MakeNid(type, next_index_[static_cast<unsigned>(type)]++); }

  // Adds the properties of an object to its heap, names as numbers.
  std::uint32_t AddPropertiesTo(HeapWriter& heap, const PropertyMap& properties) {
    std::vector<WrittenProperty> written;
    for (const auto& [key, data] : properties) {
      const std::uint16_t id = key.id() ? key.id() : names_.IdOf(key.name());
      written.push_back({MakeTag(id, data.type), data.bytes});
    }
    std::sort(written.begin(), written.end(),
              [](const WrittenProperty& a, const WrittenProperty& b) { return IdOf(a.tag) < IdOf(b.tag); });
    return AddProperties(heap, written);
  }

  void AddObject(Nid nid, const PropertyMap& properties, Nid parent) {
    HeapWriter heap(file_, kPropertiesHeap);
    const std::uint32_t root = AddPropertiesTo(heap, properties);
    Add(heap.Finish(root), nid, parent);
  }

  void Add(NodeInfo node, Nid nid, Nid parent) {
    node.nid = nid;
    node.parent = parent;
    file_.AddNode(node);
  }

  void AddEmptyTable(Nid nid, std::span<const PropTag> columns) { Add(TableWriter(file_, columns).Finish(), nid, 0); }

  void WriteTemplates() {
    AddEmptyTable(0x60D, kHierarchyColumns);
    AddEmptyTable(0x60E, kContentsColumns);
    AddEmptyTable(0x60F, kAssociatedColumns);
    AddEmptyTable(0x610, kSearchColumns);
    AddEmptyTable(kAttachmentTableNid, kAttachmentColumns);
    AddEmptyTable(kRecipientTableNid, kRecipientColumns);
  }

  void WriteStoreObject() {
    PropertyMap p = store_.properties();
    const auto entry_id = [&](Nid nid) { return MakeEntryId(store_.uid_, nid); };
    Default(p, prop::kRecordKey, PropType::kBinary, store_.uid_);
    DefaultText(p, prop::kDisplayName, Utf16FromUtf8(store_.name_));
    Default(p, 0x35DF, PropType::kInt32, std::uint32_t{0x89});
    Default(p, prop::kIpmSubtreeEntryId, PropType::kBinary, entry_id(kUsualSubtreeNid));
    Default(p, prop::kIpmWastebasketEntryId, PropType::kBinary, entry_id(kDeletedItemsNid));
    Default(p, prop::kFinderEntryId, PropType::kBinary, entry_id(kSearchRootNid));
    Default(p, 0x3416, PropType::kBinary, entry_id(kSpamSearchNid));
    Default(p, 0x6633, PropType::kBoolean, std::uint8_t{1});
    Default(p, 0x67FF, PropType::kInt32, std::uint32_t{0});
    AddObject(kStoreNid, p, 0);
  }

  // A folder of the tree of builders, with its fixed node or 0.
  struct FolderPlan {
    const FolderBuilder* builder;
    Nid nid;
    Nid parent;
    std::vector<std::size_t> children;
  };

  void WriteFolders() {
    const FolderBuilder root(""), search_root("Search Root");
    std::vector<FolderPlan> plans{{&root, kRootFolderNid, kRootFolderNid, {1, 2}},
                                  {&store_.top_, kUsualSubtreeNid, kRootFolderNid, {3}},
                                  {&search_root, kSearchRootNid, kRootFolderNid, {}},
                                  {&store_.deleted_, kDeletedItemsNid, kUsualSubtreeNid, {}}};
    // Parents stand before their children in the list.
    for (std::size_t i = 0; i < plans.size(); ++i) {
      for (const FolderBuilder& child : plans[i].builder->folders_) {
        plans[i].children.push_back(plans.size());
        plans.push_back({&child, NewNid(NidType::kFolder), plans[i].nid, {}});
      }
    }
    std::vector<PropertyMap> properties;
    for (const FolderPlan& plan : plans) {
      PropertyMap p = plan.builder->properties();
      const auto& messages = plan.builder->messages_;
      const auto unread = std::count_if(messages.begin(), messages.end(), [](const MessageBuilder& m) {
        return !(IntOf(m.properties(), prop::kMessageFlags) & 1);
      });
      Default(p, prop::kContentCount, PropType::kInt32, static_cast<std::uint32_t>(messages.size()));
      Default(p, prop::kContentUnread, PropType::kInt32, static_cast<std::uint32_t>(unread));
      const bool searches = plan.nid == kRootFolderNid;
      Default(p, prop::kSubfolders, PropType::kBoolean, static_cast<std::uint8_t>(searches || !plan.children.empty()));
      properties.push_back(std::move(p));
    }
    for (std::size_t i = 0; i < plans.size(); ++i) {
      const FolderPlan& plan = plans[i];
      AddObject(plan.nid, properties[i], plan.parent);
      TableWriter hierarchy(file_, kHierarchyColumns);
      std::map<Nid, const PropertyMap*> rows;  // ids rise
      for (const std::size_t child : plan.children) rows[plans[child].nid] = &properties[child];
      const PropertyMap search = SearchFolderProperties();
      if (plan.nid == kRootFolderNid) rows[kSpamSearchNid] = &search;
      for (const auto& [nid, p] : rows) AddRow(hierarchy, nid, *p);
      Add(hierarchy.Finish(), Sibling(plan.nid, NidType::kHierarchyTable), 0);
      WriteItems(plan, plan.builder->messages_, NidType::kMessage, NidType::kContentsTable, kContentsColumns);
      WriteItems(plan, plan.builder->hidden_, NidType::kAssociatedMessage, NidType::kAssociatedTable,
                 kAssociatedColumns);
    }
  }

  void WriteItems(const FolderPlan& folder, const std::deque<MessageBuilder>& items, NidType type, NidType table_type,
                  std::span<const PropTag> columns) {
    TableWriter table(file_, columns);
    for (const MessageBuilder& item : items) {
      const Nid nid = NewNid(type);
      PropertyMap p;
      Add(WriteMessage(item, p), nid, folder.nid);
      AddRow(table, nid, p);
    }
    Add(table.Finish(), Sibling(folder.nid, table_type), 0);
  }

  static void AddRow(TableWriter& table, std::uint32_t id, const PropertyMap& properties) {
    table.AddRow(id);
    for (const auto& [key, data] : properties) {
      if (key.id()) table.SetCell(MakeTag(key.id(), data.type), data.bytes);
    }
  }

  static PropertyMap SearchFolderProperties() {
    PropertyMap p = FolderBuilder("SPAM Search Folder 2").properties();
    Default(p, prop::kContentCount, PropType::kInt32, std::uint32_t{0});
    Default(p, prop::kContentUnread, PropType::kInt32, std::uint32_t{0});
    Default(p, prop::kSubfolders, PropType::kBoolean, std::uint8_t{0});
    return p;
  }

  void WriteSearchFolder() {
    AddObject(kSpamSearchNid, SearchFolderProperties(), kRootFolderNid);
    AddEmptyTable(Sibling(kSpamSearchNid, NidType::kSearchContentsTable), kSearchColumns);
  }

  // Writes a message with all that hangs on it; `p` receives its properties. The node is without id and parent.
  NodeInfo WriteMessage(const MessageBuilder& message, PropertyMap& p) {
    HeapWriter heap(file_, kPropertiesHeap);
    p = message.properties();
    std::uint64_t size = 0;
    for (const auto& [key, data] : p) size += data.bytes.size() + 8;
    WriteRecipients(message, p, heap);
    if (!message.attachments_.empty()) size += WriteAttachments(message, p, heap);

    const std::int64_t created = FileTime(2024, 1, 1);
    Default(p, 0x3007, PropType::kTime, created);
    Default(p, 0x3008, PropType::kTime, created);
    Guid search_key = store_.uid_;
    const std::uint32_t number = ++messages_;
    for (int i = 0; i < 4; ++i) search_key[12 + i] ^= static_cast<std::uint8_t>(number >> (8 * i));
    Default(p, 0x300B, PropType::kBinary, search_key);
    Default(p, prop::kMessageSize, PropType::kInt32,
            static_cast<std::uint32_t>(std::min<std::uint64_t>(size, 0x7FFFFFFF)));
    DefaultConversation(p);
    const std::uint32_t root = AddPropertiesTo(heap, p);
    return heap.Finish(root);
  }

  // [MS-OXOMSG] 2.2.1.3: 0x01, the upper five bytes of the time behind its first, and an identity of the topic.
  void DefaultConversation(PropertyMap& p) const {
    const auto topic = p.find(std::uint16_t{0x0070}), submitted = p.find(std::uint16_t{0x0039});
    if (topic == p.end() || submitted == p.end()) return;
    const std::int64_t time = PropertyValue(MakeTag(0x0039, PropType::kTime), submitted->second.bytes).AsInt64();
    std::array<std::uint8_t, 22> index{1};
    for (int i = 0; i < 5; ++i) index[1 + i] = static_cast<std::uint8_t>(time >> (48 - 8 * i));
    const std::uint32_t crc = Crc(topic->second.bytes);
    std::copy(store_.uid_.begin(), store_.uid_.end(), index.begin() + 6);
    std::memcpy(index.data() + 18, &crc, sizeof crc);
    Default(p, 0x0071, PropType::kBinary, index);
  }

  void WriteRecipients(const MessageBuilder& message, PropertyMap& p, HeapWriter& heap) {
    TableWriter table(file_, kRecipientColumns);
    std::u16string shown[4];  // by recipient type
    for (const RecipientBuilder& recipient : message.recipients_) {
      AddRow(table, table.row_count(), recipient.properties());
      const std::int32_t type = IntOf(recipient.properties(), 0x0C15);
      const auto name = recipient.properties().find(prop::kDisplayName);
      if (type < 1 || type > 3 || name == recipient.properties().end()) continue;
      const PropertyValue text(MakeTag(prop::kDisplayName, PropType::kUnicode), name->second.bytes);
      shown[type] += (shown[type].empty() ? u"" : u"; ") + text.AsText();
    }
    constexpr std::uint16_t kDisplayIds[] = {0, 0x0E04, 0x0E03, 0x0E02};
    for (int type = 1; type <= 3; ++type) DefaultText(p, kDisplayIds[type], shown[type]);
    NodeInfo node = table.Finish();
    node.nid = kRecipientTableNid;
    heap.AddSubnode(node);
  }

  // The bytes that the attachments add to the message's size.
  std::uint64_t WriteAttachments(const MessageBuilder& message, PropertyMap& p, HeapWriter& heap) {
    PropertyData& flags = p[prop::kMessageFlags];
    const std::uint32_t value = static_cast<std::uint32_t>(IntOf(p, prop::kMessageFlags)) | kHasAttachments;
    flags.type = PropType::kInt32;
    flags.bytes.assign(reinterpret_cast<const std::uint8_t*>(&value),
                       reinterpret_cast<const std::uint8_t*>(&value + 1));
    TableWriter table(file_, kAttachmentColumns);
    std::uint32_t index = 0x401;
    std::uint64_t total = 0;
    for (const AttachmentBuilder& attachment : message.attachments_) {
      PropertyMap a = attachment.properties();
      NodeInfo node = WriteAttachment(attachment, a);
      node.nid = MakeNid(NidType::kAttachment, index++);
      heap.AddSubnode(node);
      AddRow(table, node.nid, a);
      total += static_cast<std::uint32_t>(IntOf(a, prop::kAttachSize));
    }
    NodeInfo node = table.Finish();
    node.nid = kAttachmentTableNid;
    heap.AddSubnode(node);
    return total;
  }

  NodeInfo WriteAttachment(const AttachmentBuilder& attachment, PropertyMap& a) {
    HeapWriter heap(file_, kPropertiesHeap);
    std::uint64_t size = 0;
    for (const auto& [key, data] : a) size += data.bytes.size() + 8;
    if (attachment.embedded_) {
      if (++depth_ > kMaxEmbeddingDepth) throw Error(ErrorCode::kUnwritable, "messages are embedded too deeply");
      PropertyMap inner;
      NodeInfo node = WriteMessage(*attachment.embedded_, inner);
      --depth_;
      node.nid = NewNid(NidType::kMessage);
      heap.AddSubnode(node);
      const auto inner_size = static_cast<std::uint32_t>(IntOf(inner, prop::kMessageSize));
      size += inner_size;
      Default(a, prop::kAttachData, PropType::kObject, std::array{std::uint32_t{node.nid}, inner_size});
      if (const auto subject = attachment.embedded_->properties().find(prop::kSubject);
          subject != attachment.embedded_->properties().end()) {
        const PropertyValue text(MakeTag(prop::kSubject, PropType::kUnicode), subject->second.bytes);
        DefaultText(a, 0x3001, ParseSubject(text.AsText()).text);
      }
    }
    Default(a, prop::kAttachSize, PropType::kInt32,
            static_cast<std::uint32_t>(std::min<std::uint64_t>(size, 0x7FFFFFFF)));
    const std::uint32_t root = AddPropertiesTo(heap, a);
    return heap.Finish(root);
  }

  const StoreBuilder& store_;
  FileWriter file_;
  NameRegistry names_;
  std::array<std::uint32_t, 32> next_index_;
  std::uint32_t messages_ = 0;
  unsigned depth_ = 0;
};

void StoreBuilder::Write(const std::filesystem::path& path) const {
  StoreWriter(*this, path).Run();
}

}  // namespace vault
