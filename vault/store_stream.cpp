#include "vault/store_stream.h"

#include <algorithm>
#include <list>
#include <string>

#include "vault/error.h"
#include "vault/file_writer.h"
#include "vault/item_writer.h"
#include "vault/standard_tables.h"
#include "vault/store.h"
#include "vault/table_writer.h"

namespace vault {
namespace {

constexpr Nid kSearchRootNid = 0x8042, kDeletedItemsNid = 0x8062, kSpamSearchNid = 0x2223;
constexpr std::int32_t kRead = 1;  // in PR_MESSAGE_FLAGS

void DefaultCounts(ItemProperties& p, std::uint32_t messages, std::uint32_t unread, bool has_folders) {
  p.Default(prop::kContentCount, PropType::kInt32, messages);
  p.Default(prop::kContentUnread, PropType::kInt32, unread);
  p.Default(prop::kSubfolders, PropType::kBoolean, static_cast<std::uint8_t>(has_folders));
}

}  // namespace

struct StoreStream::State {
  State(const std::filesystem::path& path, std::string_view display_name, Encoding encoding, const Guid& store_uid)
      : file(path, encoding), items(file, store_uid), name(display_name), uid(store_uid) {}

  // Runs a step that must not stop half-way: after an error nothing more can be added.
  template <typename Step>
  void Whole(Step step) {
    Check();
    broken = true;
    step();
    broken = false;
  }
  void Check() const {
    if (finished) throw Error(ErrorCode::kUnwritable, "the store is finished");
    if (broken || file.failed()) throw Error(ErrorCode::kCannotOpen, "the store could not be written before");
  }

  void Add(NodeInfo node, Nid nid, Nid parent) {
    node.nid = nid;
    node.parent = parent;
    file.AddNode(node);
  }
  void AddObject(Nid nid, const ItemProperties& p, Nid parent) { Add(items.WriteObject(p), nid, parent); }
  void AddEmptyTable(Nid nid, const TableLayout& layout) { Add(TableWriter(file, layout).Finish(), nid, 0); }

  void WriteSearchFolder(TableWriter& root_hierarchy);
  void WriteStoreObject(const PropertyMap& given);
  void WriteTemplates();

  FileWriter file;
  ItemWriter items;
  std::string name;
  Guid uid;
  bool broken = false, finished = false;
  std::unique_ptr<FolderStream> root;
  FolderStream *top = nullptr, *deleted = nullptr;
};

struct FolderStream::State {
  State(StoreStream::State& stream, FolderStream* above, Nid node)
      : store(stream),
        parent(above),
        nid(node),
        hierarchy(stream.file, StandardTables::Get().hierarchy),
        contents(stream.file, StandardTables::Get().contents),
        associated(stream.file, StandardTables::Get().associated) {}

  Nid AddItem(const MessageBuilder& message, NidType type, TableWriter& table);
  // Writes what is known only now, and the row in the folder above.
  void Complete(const PropertyMap& given);

  StoreStream::State& store;
  FolderStream* parent;  // null: the root folder
  Nid nid;
  TableWriter hierarchy, contents, associated;
  std::uint32_t unread = 0;
  std::list<std::unique_ptr<FolderStream>> folders;  // open
};

namespace {

// Some readers refuse a store without any name, or without a set of its own: these two every client knows, categories
// and the private mark.
void RegisterUsualNames(NameRegistry& names) {
  names.IdOf({kPublicStringsSet, 0, u"Keywords"});
  names.IdOf({kCommonSet, 0x8506, {}});
}

}  // namespace

FolderStream::FolderStream(std::unique_ptr<State> state) : state_(std::move(state)) {}
FolderStream::~FolderStream() = default;

Nid FolderStream::nid() const {
  return state_->nid;
}
std::uint32_t FolderStream::message_count() const {
  return state_->contents.row_count();
}

FolderStream& FolderStream::OpenFolder(std::string_view name, std::string_view container_class) {
  state_->store.Check();
  const Nid nid = state_->store.items.NewNid(NidType::kFolder);
  return OpenFolder(nid, name, container_class);
}

FolderStream& FolderStream::OpenFolder(Nid nid, std::string_view name, std::string_view container_class) {
  std::unique_ptr<FolderStream> folder(new FolderStream(std::make_unique<State>(state_->store, this, nid)));
  folder->Text(prop::kDisplayName, name);
  if (!container_class.empty()) folder->Text(prop::kContainerClass, container_class);
  return *state_->folders.emplace_back(std::move(folder));
}

Nid FolderStream::State::AddItem(const MessageBuilder& message, NidType type, TableWriter& table) {
  store.Check();
  if (!table.HasRoom()) throw Error(ErrorCode::kUnwritable, "the folder has no room for more messages");
  const ItemWriter::Counters before = store.items.counters();
  ItemProperties p(message.properties());
  FileWriter::Transaction transaction(store.file);
  Nid item = 0;
  try {
    item = store.items.NewNid(type);
    NodeInfo node = store.items.WriteMessage(message, p);
    node.nid = item;
    node.parent = nid;
    store.file.AddNode(node);
  } catch (...) {
    store.items.TakeBack(before);
    throw;
  }
  store.Whole([&] {
    transaction.Commit();
    p.AddRow(table, item);
  });
  if (type == NidType::kMessage && !(p.Int(prop::kMessageFlags) & kRead)) ++unread;
  return item;
}

Nid FolderStream::AddMessage(const MessageBuilder& message) {
  return state_->AddItem(message, NidType::kMessage, state_->contents);
}
Nid FolderStream::AddHidden(const MessageBuilder& message) {
  return state_->AddItem(message, NidType::kAssociatedMessage, state_->associated);
}

void FolderStream::State::Complete(const PropertyMap& given) {
  ItemProperties p(given);
  DefaultCounts(p, contents.row_count(), unread, hierarchy.row_count() > 0);
  store.AddObject(nid, p, parent ? parent->nid() : nid);
  store.Add(hierarchy.Finish(), Sibling(nid, NidType::kHierarchyTable), 0);
  store.Add(contents.Finish(), Sibling(nid, NidType::kContentsTable), 0);
  store.Add(associated.Finish(), Sibling(nid, NidType::kAssociatedTable), 0);
  if (parent) p.AddRow(parent->state_->hierarchy, nid);
}

void FolderStream::CloseBelow() {
  auto& folders = state_->folders;
  for (auto at = folders.begin(); at != folders.end();) {
    FolderStream& folder = **at++;
    folder.Close();
  }
}

void FolderStream::Close() {
  CloseBelow();
  const StoreStream::State& store = state_->store;
  if (this == store.top || this == store.deleted || !state_->parent) return;
  End();
}

void FolderStream::End() {
  state_->store.Whole([&] { state_->Complete(properties()); });
  auto& siblings = state_->parent->state_->folders;
  const auto self = std::find_if(siblings.begin(), siblings.end(), [&](const auto& f) { return f.get() == this; });
  siblings.erase(self);  // and this
}

StoreStream::StoreStream(const std::filesystem::path& path, std::string_view name, Encoding encoding,
                         const std::optional<Guid>& uid)
    : state_(std::make_unique<State>(path, name, encoding, uid.value_or(MakeStoreUid(name)))) {
  RegisterUsualNames(state_->items.names());
  state_->root.reset(new FolderStream(std::make_unique<FolderStream::State>(*state_, nullptr, kRootFolderNid)));
  state_->root->Text(prop::kDisplayName, "");
  state_->top = &state_->root->OpenFolder(kUsualSubtreeNid, "Top of Personal Folders", {});
  state_->deleted = &state_->top->OpenFolder(kDeletedItemsNid, "Deleted Items", "IPF.Note");
}

StoreStream::~StoreStream() = default;

FolderStream& StoreStream::top() {
  state_->Check();
  return *state_->top;
}
FolderStream& StoreStream::deleted_items() {
  state_->Check();
  return *state_->deleted;
}
std::uint64_t StoreStream::message_count() const {
  return state_->items.counters().messages;
}

void StoreStream::State::WriteSearchFolder(TableWriter& root_hierarchy) {
  const FolderBuilder folder("SPAM Search Folder 2");
  ItemProperties p(folder.properties());
  DefaultCounts(p, 0, 0, false);
  AddObject(kSpamSearchNid, p, kRootFolderNid);
  AddEmptyTable(Sibling(kSpamSearchNid, NidType::kSearchContentsTable), StandardTables::Get().search_contents);
  p.AddRow(root_hierarchy, kSpamSearchNid);
}

void StoreStream::State::WriteStoreObject(const PropertyMap& given) {
  ItemProperties p(given);
  const auto entry_id = [&](std::uint16_t id, Nid nid) { p.Default(id, PropType::kBinary, MakeEntryId(uid, nid)); };
  p.Default(prop::kRecordKey, PropType::kBinary, uid);
  p.DefaultText(prop::kDisplayName, Utf16FromUtf8(name));
  p.Default(0x35DF, PropType::kInt32, std::uint32_t{0x89});
  entry_id(prop::kIpmSubtreeEntryId, kUsualSubtreeNid);
  entry_id(prop::kIpmWastebasketEntryId, kDeletedItemsNid);
  entry_id(prop::kFinderEntryId, kSearchRootNid);
  entry_id(0x3416, kSpamSearchNid);
  p.Default(0x6633, PropType::kBoolean, std::uint8_t{1});
  p.Default(0x67FF, PropType::kInt32, std::uint32_t{0});
  AddObject(kStoreNid, p, 0);
}

void StoreStream::State::WriteTemplates() {
  const StandardTables& tables = StandardTables::Get();
  AddEmptyTable(0x60D, tables.hierarchy);
  AddEmptyTable(0x60E, tables.contents);
  AddEmptyTable(0x60F, tables.associated);
  AddEmptyTable(0x610, tables.search_contents);
  AddEmptyTable(kAttachmentTableNid, tables.attachments);
  AddEmptyTable(kRecipientTableNid, tables.recipients);
}

void StoreStream::Finish() {
  State& s = *state_;
  s.Check();
  s.root->CloseBelow();
  s.deleted->End();
  s.top->End();
  s.root->OpenFolder(kSearchRootNid, "Search Root", {}).Close();
  s.Whole([&] {
    s.WriteSearchFolder(s.root->state_->hierarchy);
    s.root->state_->Complete(s.root->properties());
    s.WriteStoreObject(properties());
    s.WriteTemplates();
    const PropertyMap names = s.items.names().Map();
    s.AddObject(kNameMapNid, ItemProperties(names), 0);
    s.file.AddNode({0x1E1, 0, 0, 0});
    s.file.AddNode({0x201, 0, 0, 0});
    s.file.Finish(s.items.counters().next_index);
  });
  s.finished = true;
}

}  // namespace vault
