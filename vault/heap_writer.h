// Heaps and what lies in them, for a store being written: property contexts and table contexts ([MS-PST] 2.3).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "vault/file_writer.h"
#include "vault/types.h"

namespace vault {

// Collects the items of one node's heap, and the subnodes of that node.
class HeapWriter {
 public:
  HeapWriter(FileWriter& file, std::uint8_t client);

  // Largest item of a heap.
  static constexpr std::size_t kMaxItem = 3580;
  // Adds an item; 0 for no bytes. Throws Error for more than kMaxItem bytes.
  std::uint32_t Add(std::span<const std::uint8_t> bytes);
  // Adds a value: an item when it has at most `limit` bytes, else a subnode. The reference to it.
  std::uint32_t AddValue(std::span<const std::uint8_t> bytes, std::size_t limit = kMaxItem);
  // A sorted tree of records (key first), given in order. The reference to its header.
  std::uint32_t AddTree(unsigned key_size, unsigned record_size, std::span<const std::uint8_t> records);
  // A subnode with an id that is free in this node.
  Nid AddSubnode(Bid data);
  void AddSubnode(const NodeInfo& node) { subnodes_.push_back(node); }

  // Writes heap and subnodes; the node is without id and parent.
  NodeInfo Finish(std::uint32_t root);
  FileWriter& file() { return file_; }

 private:
  struct Block {
    std::vector<std::uint8_t> bytes;         // header and items
    std::vector<std::uint16_t> item_begins;  // the end of the last item is bytes.size()
  };
  void OpenBlock();

  FileWriter& file_;
  std::uint8_t client_;
  std::vector<Block> blocks_;
  std::vector<NodeInfo> subnodes_;
  std::uint32_t next_subnode_ = 1;
};

// A property with its type and bytes as they are read back.
struct WrittenProperty {
  PropTag tag;
  std::span<const std::uint8_t> bytes;
};

// Adds a property context to `heap`; the properties in ascending order of their ids. The heap's root.
std::uint32_t AddProperties(HeapWriter& heap, const std::vector<WrittenProperty>& properties);

// A table context: columns are laid out in the order given.
class TableWriter {
 public:
  TableWriter(FileWriter& file, std::span<const PropTag> columns);

  // Starts a row; ids rise from row to row.
  void AddRow(std::uint32_t id);
  // Sets a cell of the last row; ignored when the table has no such column or another type for it.
  void SetCell(PropTag tag, std::span<const std::uint8_t> bytes);
  void SetCell(PropTag tag, std::uint32_t value);
  std::uint32_t row_count() const { return static_cast<std::uint32_t>(index_.size() / 8); }

  // Writes the table; the node is without id and parent.
  NodeInfo Finish();

 private:
  struct Column {
    PropTag tag;
    std::uint16_t offset;
    std::uint8_t size, bit;
  };
  HeapWriter heap_;
  std::vector<Column> columns_;  // ascending by tag
  std::uint16_t ends_[4] = {};   // of the groups of 4 and 8, 2 and 1 bytes, and of the row
  std::vector<std::uint8_t> rows_;
  std::vector<std::uint8_t> index_;  // id and number of each row
};

}  // namespace vault
