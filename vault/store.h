// A personal-folder store ([MS-PST]) opened for reading: Unicode and ANSI layouts, any of the three encodings.
//
//   auto store = vault::Store::Open(path);                      // throws vault::Error when it is refused
//   vault::Folder top = store->OpenFolder(store->subtree());
//   vault::Table rows = top.Contents();
//   for (auto row = rows.Walk(); row.Next();)
//     if (!row.error()) Use(store->OpenMessage(row.row().id()).properties());
//
// Threads: a Store is immutable; any number of threads may use one. Folder, Message, Attachment, PropertySet and Table
// are cheap handles: copies share their (locked or atomic) decoded blocks, const operations may run on several
// threads. Cursors and ValueReaders belong to one thread at a time; a ValueReader is moved, not copied.
// Lifetime: every handle keeps the file mapped, so it may outlive the Store pointer. Views (PropertyValue, Row) live as
// long as the handle, or a copy of it, that they came from; a Row or Cursor needs the very Table object.
// Errors: vault::Error names the damaged place. Damage to one item never spoils another one.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "vault/encoding.h"
#include "vault/error.h"
#include "vault/folder.h"
#include "vault/message.h"
#include "vault/name_map.h"
#include "vault/node.h"
#include "vault/property_set.h"
#include "vault/table.h"
#include "vault/types.h"

namespace vault {

enum class Format { kUnicode, kAnsi };

class Store {
 public:
  // Maps the file read-only and checks its header: costs a few pages whatever the size. Throws Error: kCannotOpen,
  // kNotAStore, kHeaderChecksum, kUnsupportedVersion, kBadHeader, or the damage of the tree roots or store object.
  static std::shared_ptr<const Store> Open(const std::filesystem::path& path);
  // The same for a file's bytes in memory, which outlive the store and every handle of it.
  static std::shared_ptr<const Store> OpenBytes(std::span<const std::uint8_t> bytes);

  Format format() const;
  Encoding encoding() const;
  std::uint64_t file_size() const;

  // PR_RECORD_KEY of the store object; zeros when the store has none.
  const Guid& uid() const { return uid_; }
  // Properties of the store object (node 0x21).
  const PropertySet& properties() const { return properties_; }
  // PR_DISPLAY_NAME; empty when there is none.
  std::u16string name() const;
  // The top of the mail subtree: PR_IPM_SUBTREE_ENTRYID, or its conventional node where that is missing.
  Nid subtree() const { return subtree_; }

  // Opens a folder or search folder, or a message. Throws Error (kNotFound when there is no such node or it is of
  // another kind).
  Folder OpenFolder(Nid nid) const;
  Message OpenMessage(Nid nid) const;

  // A node of the node tree: data, subnodes, parent folder. Logarithmic. Throws Error for a damaged tree page.
  std::optional<NodeInfo> FindNode(Nid nid) const;
  bool HasNode(Nid nid) const { return FindNode(nid).has_value(); }
  // The folder of a folder or message; nullopt when there is no such node.
  std::optional<Nid> ParentOf(Nid nid) const;
  // Walks the node tree from `first` to `last` (inclusive) in ascending order; damaged pages are reported and passed
  // over. Finds messages by their parent where a folder's own table is damaged.
  NodeCursor Nodes(Nid first = 0, Nid last = ~Nid{0}) const;

  // Names of named properties; read when first asked for. A store whose map is damaged has no names.
  const NameMap& names() const;

  // The 24-byte entry id of a folder or message of this store.
  EntryId MakeEntryId(Nid nid) const;
  // The node of an entry id made by this store; nullopt when it has another form or belongs to another store.
  std::optional<Nid> ParseEntryId(std::span<const std::uint8_t> entry_id) const;

  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

 private:
  explicit Store(std::shared_ptr<const Database> db);

  std::shared_ptr<const Database> db_;
  PropertySet properties_;
  Guid uid_{};
  Nid subtree_ = kUsualSubtreeNid;
  mutable std::atomic<const NameMap*> names_ = nullptr;  // owned
};

// Entry ids without a store: 4 zero bytes, store uid, node id ([MS-PST] 2.4.3.2).
EntryId MakeEntryId(const Guid& store_uid, Nid nid);
struct EntryIdParts {
  Guid store_uid;
  Nid nid;
};
std::optional<EntryIdParts> SplitEntryId(std::span<const std::uint8_t> entry_id);

}  // namespace vault
