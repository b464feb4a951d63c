// The data of a node: one block, or a list (XBLOCK) or list of lists (XXBLOCK) of blocks ([MS-PST] 2.2.2.8).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "vault/database.h"

namespace vault {

// Finds the blocks of a node's data without reading more than the lists on the way. Immutable; any thread.
class DataTree {
 public:
  // `root` 0: no data. Throws Error for damaged lists, and for data said to be larger than the whole file.
  DataTree(std::shared_ptr<const Database> db, Bid root, Nid nid);

  std::uint32_t block_count() const { return count_; }
  // Bytes of all blocks together.
  std::uint64_t size() const { return size_; }
  const Database& db() const { return *db_; }
  Nid nid() const { return nid_; }

  // The i-th data block, checked but still encoded. Throws Error.
  StoredBlock Stored(std::uint32_t i) const;

 private:
  struct List {
    const std::uint8_t* entries = nullptr;
    unsigned count = 0, level = 0;
    std::uint32_t total = 0;
  };
  List ReadList(Bid bid) const;

  std::shared_ptr<const Database> db_;
  Nid nid_;
  Bid root_;
  List list_;
  std::uint32_t count_ = 0;
  std::uint64_t size_ = 0;
};

// The decoded blocks of a node, each decoded when it is first asked for and kept until this object goes. Stores
// without encoding are read in place. Any thread.
class BlockList {
 public:
  BlockList(std::shared_ptr<const Database> db, Bid root, Nid nid);
  ~BlockList();
  BlockList(const BlockList&) = delete;
  BlockList& operator=(const BlockList&) = delete;

  const DataTree& tree() const { return tree_; }
  std::uint32_t size() const { return tree_.block_count(); }
  // Throws Error, also when the blocks, which may all be the same one, decode to more than the whole file;
  // i < size() is the caller's to check.
  std::span<const std::uint8_t> operator[](std::uint32_t i) const {
    const Slot& slot = slots_[i];
    const std::uint8_t* const bytes = slot.bytes.load(std::memory_order_acquire);
    return bytes ? std::span(bytes, slot.size.load(std::memory_order_relaxed)) : Load(i);
  }

 private:
  struct Slot {
    mutable std::atomic<const std::uint8_t*> bytes{nullptr};
    mutable std::atomic<std::uint32_t> size{0};
  };
  std::span<const std::uint8_t> Load(std::uint32_t i) const;

  DataTree tree_;
  std::unique_ptr<Slot[]> slots_;
  mutable std::atomic<std::uint64_t> decoded_{0};  // bytes
};

}  // namespace vault
