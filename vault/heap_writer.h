// Heaps and property contexts of a store being written ([MS-PST] 2.3.1 to 2.3.3).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "vault/file_writer.h"
#include "vault/types.h"

namespace vault {

// The items of one node's heap, and the subnodes of that node. Blocks are written as they fill, all but those that tell
// how full the others are: memory is three blocks and 8 bytes for each block and 32 for each subnode. Throws Error.
class HeapWriter {
 public:
  HeapWriter(FileWriter& file, std::uint8_t client);

  // Largest item of a heap, and most blocks.
  static constexpr std::size_t kMaxItem = 3580, kMaxBlocks = 0x10000;
  // Adds an item; 0 for no bytes. Throws Error(kUnwritable) for more than kMaxItem bytes.
  std::uint32_t Add(std::span<const std::uint8_t> bytes);
  // Adds a value: an item when it has at most `limit` bytes, else a subnode. The reference to it.
  std::uint32_t AddValue(std::span<const std::uint8_t> bytes, std::size_t limit = kMaxItem);
  std::uint32_t AddValue(const Source& source, std::size_t limit = kMaxItem);
  // A sorted tree of records (key first), given in order. The reference to its header.
  std::uint32_t AddTree(unsigned key_size, unsigned record_size, std::span<const std::uint8_t> records);
  // A subnode with an id that is free in this node.
  Nid AddSubnode(Bid data);
  void AddSubnode(const NodeInfo& node) { subnodes_.push_back(node); }

  // Blocks and subnodes so far.
  std::size_t block_count() const { return closed_.size() + 1; }
  std::size_t subnode_count() const { return subnodes_.size(); }

  // Writes heap and subnodes; the node is without id and parent.
  NodeInfo Finish(std::uint32_t root);
  FileWriter& file() { return file_; }

 private:
  void OpenBlock();
  void CloseBlock();
  void ReleaseMapBlock(std::size_t number);

  FileWriter& file_;
  std::uint8_t client_;
  std::vector<std::uint8_t> block_;              // the open one: header and items
  std::vector<std::uint16_t> item_begins_;       // the end of the last item is block_.size()
  std::vector<std::vector<std::uint8_t>> held_;  // closed: the first block, then the last that holds fill levels
  struct Closed {
    Bid bid;  // 0: held
    std::uint16_t size;
  };
  std::vector<Closed> closed_;
  std::vector<NodeInfo> subnodes_;
  std::uint32_t next_subnode_ = 1;
};

// A property with its type, and its bytes as they are read back or where they come from.
struct WrittenProperty {
  PropTag tag = 0;
  std::span<const std::uint8_t> bytes;
  const Source* source = nullptr;
  // kObject: the bytes are the node and the size of a subnode that is there already. Otherwise they are what the object
  // holds, and get a subnode.
  bool refers = false;
  std::uint64_t size() const { return source ? source->size() : bytes.size(); }
};

// Adds a property context to `heap`; the properties in ascending order of their ids. The heap's root. Throws
// Error(kUnwritable) for values that their types cannot have.
std::uint32_t AddProperties(HeapWriter& heap, std::span<const WrittenProperty> properties);

}  // namespace vault
