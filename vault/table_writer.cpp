#include "vault/table_writer.h"

#include <algorithm>

#include "vault/append.h"

namespace vault {
namespace {

constexpr std::size_t kBlockData = kUnicodeLayout.block_data;
constexpr PropTag kRowId = 0x67F20003, kRowVersion = 0x67F30003;
// A row's cells of variable size take at most this many heap blocks or subnodes.
constexpr std::size_t kMostInRow = 32;

std::span<const std::uint8_t> BytesOf(const std::uint32_t& value) {
  return {reinterpret_cast<const std::uint8_t*>(&value), sizeof value};
}

}  // namespace

TableLayout::TableLayout(std::span<const PropTag> columns) {
  std::uint16_t offset = 0;
  std::uint8_t bit = 0;
  const auto size_of = [](PropTag tag) {
    const unsigned fixed = FixedSize(PropTypeOf(tag));
    return fixed > 0 && fixed <= 8 ? fixed : 4u;
  };
  for (const unsigned group : {0u, 1u, 2u}) {
    for (const PropTag tag : columns) {
      const unsigned size = size_of(tag);
      if ((size >= 4 ? 0u : size == 2 ? 1u : 2u) != group) continue;
      columns_.push_back({tag, offset, static_cast<std::uint8_t>(size), bit++});
      offset = static_cast<std::uint16_t>(offset + size);
    }
    ends_[group] = offset;
  }
  ends_[3] = static_cast<std::uint16_t>(offset + (columns_.size() + 7) / 8);
  std::sort(columns_.begin(), columns_.end(), [](const Column& a, const Column& b) { return a.tag < b.tag; });
}

const TableLayout::Column* TableLayout::Find(PropTag tag) const {
  const auto at =
      std::lower_bound(columns_.begin(), columns_.end(), tag, [](const Column& c, PropTag t) { return c.tag < t; });
  return at == columns_.end() || at->tag != tag ? nullptr : &*at;
}

TableWriter::TableWriter(FileWriter& file, const TableLayout& layout)
    : layout_(layout), heap_(file, 0x7C), row_blocks_(file) {}

void TableWriter::AddRow(std::uint32_t id) {
  const std::size_t row_size = layout_.row_size(), per_block = kBlockData / row_size;
  if (rows_.size() == per_block * row_size) {
    // A row never crosses a block: what is left at the end of one stays unused.
    rows_.resize(kBlockData);
    row_blocks_.Add(heap_.file().AddBlock(rows_), rows_.size());
    rows_in_blocks_ += per_block;
    rows_.clear();
  }
  index_.push_back({id, row_count()});
  rows_.resize(rows_.size() + row_size);
  SetCell(kRowId, BytesOf(id));
  SetCell(kRowVersion, BytesOf(row_count()));  // any number that changes with the row
}

void TableWriter::SetCell(PropTag tag, std::span<const std::uint8_t> bytes) {
  const TableLayout::Column* const column = layout_.Find(tag);
  if (!column) return;
  const unsigned fixed = FixedSize(PropTypeOf(tag));
  std::uint32_t reference = 0;
  if (fixed == 0 || fixed > 8) {
    reference = heap_.AddValue(bytes);
    bytes = BytesOf(reference);
  }
  std::uint8_t* const row = rows_.data() + rows_.size() - layout_.row_size();
  std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), column->size), row + column->offset);
  row[layout_.ends()[2] + column->bit / 8] |= static_cast<std::uint8_t>(0x80 >> column->bit % 8);
}

bool TableWriter::HasRoom() const {
  const std::size_t index_blocks = index_.size() * sizeof(IndexEntry) / (2 * HeapWriter::kMaxItem) + 2;
  return heap_.block_count() + index_blocks + kMostInRow <= HeapWriter::kMaxBlocks &&
         heap_.subnode_count() + kMostInRow <= FileWriter::max_subnodes() && index_.size() < 1u << 26;
}

NodeInfo TableWriter::Finish() {
  std::sort(index_.begin(), index_.end(), [](const IndexEntry& a, const IndexEntry& b) { return a.id < b.id; });
  const auto* const records = reinterpret_cast<const std::uint8_t*>(index_.data());
  const std::uint32_t index = heap_.AddTree(4, 4, {records, index_.size() * sizeof(IndexEntry)});
  std::uint32_t rows = 0;
  if (rows_in_blocks_ > 0 || rows_.size() > HeapWriter::kMaxItem) {
    row_blocks_.Add(heap_.file().AddBlock(rows_), rows_.size());
    rows = heap_.AddSubnode(row_blocks_.Finish());
  } else {
    rows = heap_.Add(rows_);
  }
  std::vector<std::uint8_t> info{0x7C, static_cast<std::uint8_t>(layout_.columns().size())};
  for (const std::uint16_t end : layout_.ends()) AppendValue(info, end);
  AppendValue(info, index);
  AppendValue(info, rows);
  AppendValue(info, std::uint32_t{0});
  for (const TableLayout::Column& column : layout_.columns()) {
    AppendValue(info, column.tag);
    AppendValue(info, column.offset);
    info.push_back(column.size);
    info.push_back(column.bit);
  }
  return heap_.Finish(heap_.Add(info));
}

}  // namespace vault
