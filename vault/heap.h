// A node's data as a heap of small items ([MS-PST] 2.3.1, "Heap-on-Node").
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "vault/data_tree.h"
#include "vault/value.h"

namespace vault {

// What lies in a heap. kAny leaves the check to the caller; kSearchResults is the form in which some clients keep what
// a search folder found, which is not a table.
enum class HeapClient : std::uint8_t { kAny = 0, kTable = 0x7C, kSearchResults = 0xAC, kProperties = 0xBC };

// Immutable but for blocks decoded on first touch; any thread.
class Heap {
 public:
  // Throws Error when the node's data is no heap of that kind.
  static std::shared_ptr<const Heap> Open(std::shared_ptr<const Database> db, const NodeInfo& node, HeapClient client);
  Heap(std::shared_ptr<const Database> db, const NodeInfo& node, HeapClient client);

  const std::shared_ptr<const Database>& db() const { return db_; }
  Nid nid() const { return node_.nid; }
  HeapClient client() const { return client_; }
  // The client's root item.
  std::uint32_t root() const { return root_; }

  // The item's bytes, valid as long as the heap. Heap id 0 is the empty item. Throws Error.
  std::span<const std::uint8_t> Item(std::uint32_t hid) const;
  // A reference that is a heap id or the id of a subnode, as a value of type `tag`.
  PropertyValue Resolve(PropTag tag, std::uint32_t reference) const;
  // The subnode `nid` of the heap's node; throws Error when it is not there.
  NodeInfo Subnode(Nid nid) const;
  // Opens a value that came from `self`, short or long.
  static ValueReader OpenValue(std::shared_ptr<const Heap> self, const PropertyValue& value);

 private:
  std::shared_ptr<const Database> db_;
  NodeInfo node_;
  BlockList blocks_;
  std::uint32_t root_ = 0;
  HeapClient client_ = HeapClient::kAny;
};

}  // namespace vault
