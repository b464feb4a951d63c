#include "vault/store.h"

#include <algorithm>
#include <cstring>

#include "vault/database.h"
#include "vault/heap.h"

namespace vault {

std::shared_ptr<const Store> Store::Open(const std::filesystem::path& path) {
  return std::shared_ptr<const Store>(new Store(Database::Open(path)));
}

std::shared_ptr<const Store> Store::OpenBytes(std::span<const std::uint8_t> bytes) {
  return std::shared_ptr<const Store>(new Store(Database::OpenBytes(bytes)));
}

Store::Store(std::shared_ptr<const Database> db) : db_(std::move(db)) {
  const auto node = db_->FindNode(kStoreNid);
  if (!node) throw Error(ErrorCode::kNotFound, "the store has no store object", std::nullopt, kStoreNid);
  properties_ = PropertySet(Heap::Open(db_, *node, HeapClient::kProperties));
  const auto uid = properties_.Binary(prop::kRecordKey, uid_.size());
  if (uid && uid->size() == uid_.size()) std::memcpy(uid_.data(), uid->data(), uid_.size());
  const auto entry_id = properties_.Binary(prop::kIpmSubtreeEntryId, sizeof(EntryId));
  const auto parts = entry_id ? SplitEntryId(*entry_id) : std::nullopt;
  if (!parts || TypeOf(parts->nid) != NidType::kFolder) return;
  try {
    if (HasNode(parts->nid)) subtree_ = parts->nid;
  } catch (const Error&) {
    // Damage where the folder's node should be is no reason to refuse what lies elsewhere.
    subtree_ = parts->nid;
  }
}

Format Store::format() const {
  return db_->layout().word == 8 ? Format::kUnicode : Format::kAnsi;
}
Encoding Store::encoding() const {
  return db_->encoding();
}
std::uint64_t Store::file_size() const {
  return db_->file_size();
}
std::u16string Store::name() const {
  return properties_.Text(prop::kDisplayName).value_or(u"");
}

Folder Store::OpenFolder(Nid nid) const {
  const bool folder = TypeOf(nid) == NidType::kFolder || TypeOf(nid) == NidType::kSearchFolder;
  const auto node = folder ? db_->FindNode(nid) : std::nullopt;
  if (!node) throw Error(ErrorCode::kNotFound, "the store has no such folder", std::nullopt, nid);
  return {db_, *node};
}

Message Store::OpenMessage(Nid nid) const {
  const bool message = TypeOf(nid) == NidType::kMessage || TypeOf(nid) == NidType::kAssociatedMessage;
  const auto node = message ? db_->FindNode(nid) : std::nullopt;
  if (!node) throw Error(ErrorCode::kNotFound, "the store has no such message", std::nullopt, nid);
  return {db_, *node, nullptr};
}

std::optional<NodeInfo> Store::FindNode(Nid nid) const {
  return db_->FindNode(nid);
}

std::optional<Nid> Store::ParentOf(Nid nid) const {
  const auto node = FindNode(nid);
  return node ? std::optional(node->parent) : std::nullopt;
}

NodeCursor Store::Nodes(Nid first, Nid last) const {
  return {db_, first, last};
}

Store::~Store() {
  delete names_.load();
}

const NameMap& Store::names() const {
  if (const NameMap* known = names_.load()) return *known;
  auto read = std::make_unique<const NameMap>();
  try {
    if (const auto node = FindNode(kNameMapNid))
      read = std::make_unique<const NameMap>(PropertySet(Heap::Open(db_, *node, HeapClient::kProperties)));
  } catch (const Error&) {
    // Properties without names are still readable by their numbers.
  }
  // Of threads that read it together, the first one's is kept.
  const NameMap* kept = nullptr;
  return names_.compare_exchange_strong(kept, read.get()) ? *read.release() : *kept;
}

EntryId Store::MakeEntryId(Nid nid) const {
  return vault::MakeEntryId(uid_, nid);
}

std::optional<Nid> Store::ParseEntryId(std::span<const std::uint8_t> entry_id) const {
  const auto parts = SplitEntryId(entry_id);
  if (!parts || parts->store_uid != uid_) return std::nullopt;
  return parts->nid;
}

EntryId MakeEntryId(const Guid& store_uid, Nid nid) {
  EntryId id{};
  std::copy(store_uid.begin(), store_uid.end(), id.begin() + 4);
  std::memcpy(id.data() + 20, &nid, sizeof nid);
  return id;
}

std::optional<EntryIdParts> SplitEntryId(std::span<const std::uint8_t> entry_id) {
  if (entry_id.size() != sizeof(EntryId) || Load32(entry_id.data()) != 0) return std::nullopt;
  EntryIdParts parts;
  std::memcpy(parts.store_uid.data(), entry_id.data() + 4, parts.store_uid.size());
  parts.nid = Load32(entry_id.data() + 20);
  return parts;
}

}  // namespace vault
