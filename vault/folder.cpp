#include "vault/folder.h"

#include "vault/heap.h"

namespace vault {

Folder::Folder(std::shared_ptr<const Database> db, const NodeInfo& node)
    : db_(std::move(db)), node_(node), properties_(Heap::Open(db_, node, HeapClient::kProperties)) {}

std::u16string Folder::name() const {
  return properties_.Text(prop::kDisplayName).value_or(u"");
}
std::u16string Folder::container_class() const {
  return properties_.Text(prop::kContainerClass).value_or(u"");
}

Table Folder::OpenTable(NidType type) const {
  const auto node = db_->FindNode(Sibling(node_.nid, type));
  if (!node || node->data == 0) return {};
  if (type != NidType::kSearchContentsTable) return Table(Heap::Open(db_, *node, HeapClient::kTable));
  auto heap = Heap::Open(db_, *node, HeapClient::kAny);
  return heap->client() == HeapClient::kSearchResults ? Table() : Table(std::move(heap));
}

Table Folder::Hierarchy() const {
  return OpenTable(NidType::kHierarchyTable);
}
Table Folder::Contents() const {
  return OpenTable(is_search_folder() ? NidType::kSearchContentsTable : NidType::kContentsTable);
}
Table Folder::Associated() const {
  return OpenTable(NidType::kAssociatedTable);
}

}  // namespace vault
