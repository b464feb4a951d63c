#include "vault/table.h"

#include <algorithm>

#include "vault/heap.h"

namespace vault {
namespace {

constexpr std::uint8_t kTableSignature = 0x7C;
constexpr unsigned kInfoSize = 22, kColumnSize = 8, kRowIdSize = 4;

}  // namespace

Table::Table(std::shared_ptr<const Heap> heap) : heap_(std::move(heap)) {
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadTable, what, std::nullopt, heap_->nid()); };
  const auto info = heap_->Item(heap_->root());
  if (info.size() < kInfoSize || info[0] != kTableSignature) throw bad("the node holds no table");
  const unsigned count = info[1];
  if (info.size() < kInfoSize + count * kColumnSize) throw bad("a table's columns are cut off");
  bits_at_ = Load16(info.data() + 6);
  row_size_ = Load16(info.data() + 8);
  const Layout& layout = heap_->db()->layout();
  if (bits_at_ > row_size_ || row_size_ < kRowIdSize || row_size_ > layout.block_data) {
    throw bad("a table has rows of an impossible size");
  }
  columns_.reserve(count);
  unsigned cells = 0;
  for (unsigned i = 0; i < count; ++i) {
    const std::uint8_t* const c = info.data() + kInfoSize + i * kColumnSize;
    const Column column{Load32(c), Load16(c + 4), c[6], c[7]};
    if (column.offset + column.size > bits_at_ || column.bit >= (row_size_ - bits_at_) * 8) {
      throw bad("a column lies outside its table's rows");
    }
    columns_.push_back(column);
    cells += column.size;
  }
  // Work on a row stays within the row's size.
  if (cells > bits_at_) throw bad("a table's columns overlap");
  index_ = TreeOnHeap(*heap_, Load32(info.data() + 10), kRowIdSize, layout.row_number);
  const std::uint32_t rows = Load32(info.data() + 14);
  if (rows == 0) return;
  if ((rows & 0x1F) == 0) {
    packed_ = heap_->Item(rows);
    row_count_ = static_cast<std::uint32_t>(packed_.size() / row_size_);
    return;
  }
  const NodeInfo node = heap_->Subnode(rows);
  blocks_ = std::make_shared<const BlockList>(heap_->db(), node.data, heap_->nid());
  rows_per_block_ = layout.block_data / row_size_;
  if (blocks_->size() == 0) return;
  const std::uint32_t last = blocks_->size() - 1;
  const std::uint64_t row_total =
      std::uint64_t{last} * rows_per_block_ + blocks_->tree().Stored(last).bytes.size() / row_size_;
  // A list of blocks may name the same block again and again.
  if (row_total * row_size_ > heap_->db()->file_size()) throw bad("a table claims more rows than the file holds");
  row_count_ = static_cast<std::uint32_t>(row_total);
}

std::optional<std::size_t> Table::FindColumn(std::uint16_t id) const {
  const auto found = std::find_if(columns_.begin(), columns_.end(), [&](const Column& c) { return IdOf(c.tag) == id; });
  if (found == columns_.end()) return std::nullopt;
  return found - columns_.begin();
}

std::span<const std::uint8_t> Table::RowBytes(std::uint32_t number) const {
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadTable, what, std::nullopt, heap_->nid()); };
  if (number >= row_count_) throw bad("a table has no such row");
  if (!blocks_) return packed_.subspan(std::size_t{number} * row_size_, row_size_);
  const auto block = (*blocks_)[number / rows_per_block_];
  const std::size_t begin = std::size_t{number % rows_per_block_} * row_size_;
  if (begin + row_size_ > block.size()) throw bad("a row lies outside its block");
  return block.subspan(begin, row_size_);
}

Table::Row Table::At(std::uint32_t number) const {
  Row row;
  row.table_ = this;
  row.bytes_ = RowBytes(number);
  row.id_ = Load32(row.bytes_.data());
  return row;
}

std::optional<Table::Row> Table::FindRow(std::uint32_t id) const {
  if (!heap_) return std::nullopt;
  const auto record = index_.Find(*heap_, id);
  if (!record) return std::nullopt;
  const Row row = At(record->size() == 2 ? Load16(record->data()) : Load32(record->data()));
  if (row.id() != id) {
    throw Error(ErrorCode::kBadTable, "a table's index leads to the wrong row", std::nullopt, heap_->nid());
  }
  return row;
}

std::optional<PropertyValue> Table::Row::Cell(std::size_t column) const {
  const Column& c = table_->columns_[column];
  if (!(bytes_[table_->bits_at_ + c.bit / 8] & (0x80 >> (c.bit % 8)))) return std::nullopt;
  const auto cell = bytes_.subspan(c.offset, c.size);
  const unsigned fixed = FixedSize(PropTypeOf(c.tag));
  if (fixed > 0 && fixed <= 8) {
    if (cell.size() != fixed) {
      throw Error(ErrorCode::kBadTable, "a column's size does not fit its type", std::nullopt, table_->heap_->nid());
    }
    return PropertyValue(c.tag, cell);
  }
  if (cell.size() != 4) {
    throw Error(ErrorCode::kBadTable, "a column's size does not fit its type", std::nullopt, table_->heap_->nid());
  }
  return table_->heap_->Resolve(c.tag, Load32(cell.data()));
}

std::optional<PropertyValue> Table::Row::Find(std::uint16_t id) const {
  const auto column = table_->FindColumn(id);
  return column ? Cell(*column) : std::nullopt;
}

Table::Cursor Table::Walk() const {
  Cursor cursor;
  cursor.table_ = this;
  return cursor;
}

bool Table::Cursor::Next() {
  error_.reset();
  if (next_ >= table_->row_count_) return false;
  try {
    row_ = table_->At(next_++);
  } catch (const Error& error) {
    // The rows of one broken block are reported once.
    if (table_->blocks_)
      next_ = (next_ - 1) / table_->rows_per_block_ * table_->rows_per_block_ + table_->rows_per_block_;
    error_ = error;
  }
  return true;
}

ValueReader Table::Open(const PropertyValue& value) const {
  return Heap::OpenValue(heap_, value);
}

}  // namespace vault
