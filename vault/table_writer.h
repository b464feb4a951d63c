// Table contexts of a store being written ([MS-PST] 2.3.4).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "vault/heap_writer.h"

namespace vault {

// Where the cells of a row lie. Immutable.
class TableLayout {
 public:
  // Columns are laid out in the order given; the first two are 0x67F20003 and 0x67F30003.
  explicit TableLayout(std::span<const PropTag> columns);

  struct Column {
    PropTag tag;
    std::uint16_t offset;
    std::uint8_t size, bit;
  };
  const std::vector<Column>& columns() const { return columns_; }  // ascending by tag
  const Column* Find(PropTag tag) const;
  // Ends of the groups of 4 and 8, 2 and 1 bytes, and of the row.
  std::span<const std::uint16_t, 4> ends() const { return ends_; }
  std::size_t row_size() const { return ends_[3]; }

 private:
  std::vector<Column> columns_;
  std::uint16_t ends_[4] = {};
};

// Full blocks of rows are written as they come: memory is one of them and 8 bytes for each row, besides the heap's.
// Throws Error.
class TableWriter {
 public:
  // The layout must live as long as this.
  TableWriter(FileWriter& file, const TableLayout& layout);

  // Starts a row; each id once.
  void AddRow(std::uint32_t id);
  // Sets a cell of the last row; ignored when the table has no such column or another type for it.
  void SetCell(PropTag tag, std::span<const std::uint8_t> bytes);
  std::uint32_t row_count() const { return static_cast<std::uint32_t>(index_.size()); }
  // Whether the format has room for one more row, whatever is in it.
  bool HasRoom() const;

  // Writes the table; the node is without id and parent.
  NodeInfo Finish();

 private:
  struct IndexEntry {
    std::uint32_t id, number;
  };
  const TableLayout& layout_;
  HeapWriter heap_;
  BlockListWriter row_blocks_;
  std::size_t rows_in_blocks_ = 0;
  std::vector<std::uint8_t> rows_;  // behind those
  std::vector<IndexEntry> index_;
};

}  // namespace vault
