// A table context ([MS-PST] 2.3.4) as a view: columns, rows, cells.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "vault/error.h"
#include "vault/tree_on_heap.h"
#include "vault/value.h"

namespace vault {

class Heap;
class BlockList;

// Copies are cheap and share what is decoded; const operations may run on several threads. Keeps the file mapped.
// Rows are decoded block by block when first touched; the bound is the table's own size.
class Table {
 public:
  struct Column {
    PropTag tag;
    std::uint16_t offset;  // in the row
    std::uint8_t size;     // in the row: 1, 2, 4 or 8
    std::uint8_t bit;      // in the cell-existence bits
  };

  // A view of one row; used no longer than the Table object that gave it stays where it is. The values it gives live
  // as long as that table or any copy of it.
  class Row {
   public:
    // The sub-folder, message or attachment that the row is for; a running number in recipient tables.
    std::uint32_t id() const { return id_; }
    // Cell of the n-th column; nullopt when empty. Throws Error when its reference is broken.
    std::optional<PropertyValue> Cell(std::size_t column) const;
    // Cell by property id; nullopt when there is no such column or the cell is empty. Throws Error.
    std::optional<PropertyValue> Find(std::uint16_t id) const;

   private:
    friend class Table;
    const Table* table_ = nullptr;
    std::span<const std::uint8_t> bytes_;
    std::uint32_t id_ = 0;
  };

  Table() = default;  // no columns, no rows
  // Opens the table that lies in `heap`. Throws Error when it is none.
  explicit Table(std::shared_ptr<const Heap> heap);

  std::span<const Column> columns() const { return columns_; }
  // Index of the column for a property id; nullopt when there is none.
  std::optional<std::size_t> FindColumn(std::uint16_t id) const;

  // Rows are numbered 0 .. row_count() - 1 in stored order.
  std::uint32_t row_count() const { return row_count_; }
  // Throws Error when there is no such row or its block is broken.
  Row At(std::uint32_t number) const;
  // Logarithmic; nullopt when the index has no such row. Throws Error.
  std::optional<Row> FindRow(std::uint32_t id) const;

  // Walks the rows; a broken one is reported and passed over:
  //   for (auto cursor = table.Walk(); cursor.Next();) if (cursor.error()) ...; else use(cursor.row());
  class Cursor {
   public:
    bool Next();
    const Row& row() const { return row_; }
    const Error* error() const { return error_ ? &*error_ : nullptr; }

   private:
    friend class Table;
    const Table* table_ = nullptr;
    std::uint32_t next_ = 0;
    Row row_;
    std::optional<Error> error_;
  };
  // The cursor lives no longer than the table.
  Cursor Walk() const;

  // Opens a cell's value for reading in pieces. Throws Error.
  ValueReader Open(const PropertyValue& value) const;

 private:
  std::span<const std::uint8_t> RowBytes(std::uint32_t number) const;

  std::shared_ptr<const Heap> heap_;
  std::shared_ptr<const BlockList> blocks_;  // rows in a subnode
  std::span<const std::uint8_t> packed_;     // rows in the heap
  std::vector<Column> columns_;
  TreeOnHeap index_;
  std::uint16_t row_size_ = 0, bits_at_ = 0;
  std::uint32_t rows_per_block_ = 0, row_count_ = 0;
};

}  // namespace vault
