// Nodes: the named data streams of a store ([MS-PST] 2.2.2.7.7.4), and walks over their tree.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "vault/error.h"
#include "vault/types.h"

namespace vault {

class Database;

// What the node tree or a subnode tree says about a node.
struct NodeInfo {
  Nid nid = 0;
  Bid data = 0;      // block or list of blocks; 0: no data
  Bid subnodes = 0;  // tree of subnodes; 0: none
  Nid parent = 0;    // folders and messages: their folder; otherwise 0
};

// Walks the node tree upwards. Keeps the file mapped. Use by one thread at a time.
//   for (auto cursor = store->Nodes(); cursor.Next();) if (!cursor.error()) use(cursor.node());
class NodeCursor {
 public:
  bool Next();
  const NodeInfo& node() const { return node_; }
  // Set when this step met a damaged page instead of a node; the walk goes on behind it.
  const Error* error() const { return error_ ? &*error_ : nullptr; }

  // For the reader's own layers: the whole tree of `db` between two nodes, inclusive.
  NodeCursor(std::shared_ptr<const Database> db, Nid first, Nid last);

 private:
  static constexpr unsigned kMaxLevels = 8;
  struct Level {
    std::uint64_t page = 0;  // offset in the file
    Bid bid = 0;
    unsigned next = 0;  // entry to take
    std::uint64_t last_key = 0;
    bool any = false;
  };
  void Enter(unsigned level, std::uint64_t page, Bid bid);

  std::shared_ptr<const Database> db_;
  Nid last_ = 0;
  Nid first_ = 0;
  Level levels_[kMaxLevels];
  int at_ = -1;  // current level; -1: finished
  int top_ = -1;
  bool started_ = false;
  NodeInfo node_;
  std::optional<Error> error_;
};

}  // namespace vault
