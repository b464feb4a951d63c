#include "vault/heap_writer.h"

#include <algorithm>
#include <cstring>

#include "vault/error.h"

namespace vault {
namespace {

constexpr std::size_t kBlockData = kUnicodeLayout.block_data;
constexpr unsigned kFirstHeader = 12, kPlainHeader = 2, kMapHeader = 66;
constexpr unsigned kFirstMapBlock = 8, kMapBlockEvery = 128;  // blocks that hold the fill levels of those behind them
constexpr unsigned kMaxItems = 2047;
constexpr std::size_t kPageMapFixed = 6;  // counts, and the end of the last item

template <typename T>
void Append(std::vector<std::uint8_t>& to, T value) {
  to.resize(to.size() + sizeof value);
  std::memcpy(to.data() + to.size() - sizeof value, &value, sizeof value);
}

// [MS-PST] 2.3.1.2: how much room is left in a block, in 16 steps.
unsigned FillLevel(std::size_t free) {
  constexpr std::size_t kSteps[] = {3584, 2560, 2048, 1792, 1536, 1280, 1024, 768, 512, 256, 128, 64, 32, 16, 8};
  return static_cast<unsigned>(
      std::find_if(std::begin(kSteps), std::end(kSteps), [&](std::size_t s) { return free >= s; }) -
      std::begin(kSteps));
}

}  // namespace

HeapWriter::HeapWriter(FileWriter& file, std::uint8_t client) : file_(file), client_(client) {
  OpenBlock();
}

void HeapWriter::OpenBlock() {
  const std::size_t number = blocks_.size();
  if (number > 0xFFFF) throw Error(ErrorCode::kUnwritable, "a heap has too many blocks");
  const bool map = number >= kFirstMapBlock && (number - kFirstMapBlock) % kMapBlockEvery == 0;
  blocks_.emplace_back().bytes.resize(number == 0 ? kFirstHeader : map ? kMapHeader : kPlainHeader);
}

std::uint32_t HeapWriter::Add(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return 0;
  if (bytes.size() > kMaxItem) throw Error(ErrorCode::kUnwritable, "an item is too large for its heap");
  const auto full = [&](const Block& block) {
    // One byte may be needed to begin the page map at an even place.
    return block.bytes.size() + bytes.size() + 1 + kPageMapFixed + 2 * (block.item_begins.size() + 1) > kBlockData ||
           block.item_begins.size() == kMaxItems;
  };
  if (full(blocks_.back())) OpenBlock();
  Block& block = blocks_.back();
  block.item_begins.push_back(static_cast<std::uint16_t>(block.bytes.size()));
  block.bytes.insert(block.bytes.end(), bytes.begin(), bytes.end());
  return static_cast<std::uint32_t>((blocks_.size() - 1) << 16 | block.item_begins.size() << 5);
}

std::uint32_t HeapWriter::AddValue(std::span<const std::uint8_t> bytes, std::size_t limit) {
  return bytes.size() <= std::min(limit, kMaxItem) ? Add(bytes) : AddSubnode(file_.AddData(bytes));
}

Nid HeapWriter::AddSubnode(Bid data) {
  const Nid nid = MakeNid(NidType::kLargeValue, next_subnode_++);
  subnodes_.push_back({nid, data, 0, 0});
  return nid;
}

std::uint32_t HeapWriter::AddTree(unsigned key_size, unsigned record_size, std::span<const std::uint8_t> records) {
  std::vector<std::uint8_t> level_records(records.begin(), records.end());
  std::size_t stride = key_size + record_size;
  std::uint32_t root = 0;
  std::uint8_t levels = 0;
  while (!level_records.empty()) {
    const std::size_t per_item = kMaxItem / stride * stride;
    std::vector<std::uint8_t> above;
    for (std::size_t at = 0; at < level_records.size(); at += per_item) {
      const auto part = std::span(level_records).subspan(at, std::min(per_item, level_records.size() - at));
      root = Add(part);
      above.insert(above.end(), part.begin(), part.begin() + key_size);
      Append(above, root);
    }
    stride = key_size + 4;
    if (above.size() == stride) break;
    level_records = std::move(above);
    ++levels;
  }
  std::vector<std::uint8_t> header{0xB5, static_cast<std::uint8_t>(key_size), static_cast<std::uint8_t>(record_size),
                                   levels};
  Append(header, root);
  return Add(header);
}

NodeInfo HeapWriter::Finish(std::uint32_t root) {
  std::vector<std::vector<std::uint8_t>> written;
  std::vector<unsigned> levels;
  for (Block& block : blocks_) {
    auto& bytes = block.bytes;
    block.item_begins.push_back(static_cast<std::uint16_t>(bytes.size()));
    if (bytes.size() % 2) bytes.push_back(0);
    const auto map_at = static_cast<std::uint16_t>(bytes.size());
    std::memcpy(bytes.data(), &map_at, sizeof map_at);
    Append(bytes, static_cast<std::uint16_t>(block.item_begins.size() - 1));
    Append(bytes, std::uint16_t{0});
    for (const std::uint16_t begin : block.item_begins) Append(bytes, begin);
    levels.push_back(FillLevel(kBlockData - bytes.size()));
    written.push_back(std::move(bytes));
  }
  std::uint8_t* const head = written[0].data();
  head[2] = 0xEC;
  head[3] = client_;
  std::memcpy(head + 4, &root, sizeof root);
  for (std::size_t i = 0; i < levels.size(); ++i) {
    const bool first = i < kFirstMapBlock;
    const std::size_t of = first ? 0 : (i - kFirstMapBlock) / kMapBlockEvery * kMapBlockEvery + kFirstMapBlock;
    std::uint8_t& pair = written[of][(first ? 8 : 2) + (i - of) / 2];
    pair |= static_cast<std::uint8_t>(levels[i] << (i % 2 ? 4 : 0));
  }
  return {0, file_.AddBlocks(written), file_.AddSubnodes(std::move(subnodes_)), 0};
}

std::uint32_t AddProperties(HeapWriter& heap, const std::vector<WrittenProperty>& properties) {
  // Some readers cope with a few heap blocks only: the fuller the heap would get, the sooner values leave it.
  constexpr std::size_t kRoomyHeap = 6 * kBlockData;
  const auto inside = [&](std::size_t limit) {
    std::size_t sum = 0;
    for (const auto& p : properties) sum += p.bytes.size() <= limit ? p.bytes.size() : 0;
    return sum;
  };
  std::size_t limit = HeapWriter::kMaxItem;
  while (limit > 16 && inside(limit) > kRoomyHeap) limit /= 2;

  std::vector<std::uint8_t> records;
  for (const WrittenProperty& p : properties) {
    const PropType type = PropTypeOf(p.tag);
    const unsigned size = FixedSize(type);
    Append(records, IdOf(p.tag));
    Append(records, static_cast<std::uint16_t>(type));
    std::uint32_t value = 0;
    if (size > 0 && size <= 4) {
      std::memcpy(&value, p.bytes.data(), size);
    } else if (size > 0 || type == PropType::kObject) {
      value = heap.Add(p.bytes);
    } else {
      value = heap.AddValue(p.bytes, limit);
    }
    Append(records, value);
  }
  return heap.AddTree(2, 6, records);
}

TableWriter::TableWriter(FileWriter& file, std::span<const PropTag> columns) : heap_(file, 0x7C) {
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

void TableWriter::AddRow(std::uint32_t id) {
  Append(index_, id);
  Append(index_, static_cast<std::uint32_t>(rows_.size() / ends_[3]));
  rows_.resize(rows_.size() + ends_[3]);
  SetCell(0x67F20003, id);
  SetCell(0x67F30003, row_count());  // a version: any number that changes with the row
}

void TableWriter::SetCell(PropTag tag, std::span<const std::uint8_t> bytes) {
  const auto column =
      std::lower_bound(columns_.begin(), columns_.end(), tag, [](const Column& c, PropTag t) { return c.tag < t; });
  if (column == columns_.end() || column->tag != tag) return;
  const unsigned fixed = FixedSize(PropTypeOf(tag));
  std::uint32_t reference = 0;
  if (fixed == 0 || fixed > 8) {
    reference = heap_.AddValue(bytes);
    bytes = {reinterpret_cast<const std::uint8_t*>(&reference), sizeof reference};
  }
  std::uint8_t* const row = rows_.data() + rows_.size() - ends_[3];
  std::copy_n(bytes.begin(), std::min<std::size_t>(bytes.size(), column->size), row + column->offset);
  row[ends_[2] + column->bit / 8] |= static_cast<std::uint8_t>(0x80 >> column->bit % 8);
}

void TableWriter::SetCell(PropTag tag, std::uint32_t value) {
  SetCell(tag, {reinterpret_cast<const std::uint8_t*>(&value), FixedSize(PropTypeOf(tag))});
}

NodeInfo TableWriter::Finish() {
  const std::uint32_t index = heap_.AddTree(4, 4, index_);
  std::uint32_t rows = 0;
  if (rows_.size() > HeapWriter::kMaxItem) {
    // A row never crosses a block: what is left at the end of one stays unused.
    const std::size_t per_block = kBlockData / ends_[3] * ends_[3];
    std::vector<std::vector<std::uint8_t>> blocks;
    for (std::size_t at = 0; at < rows_.size(); at += per_block) {
      const auto begin = rows_.begin() + static_cast<std::ptrdiff_t>(at);
      const std::size_t n = std::min(per_block, rows_.size() - at);
      auto& block = blocks.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(n));
      if (at + n < rows_.size()) block.resize(kBlockData);
    }
    rows = heap_.AddSubnode(heap_.file().AddBlocks(blocks));
  } else {
    rows = heap_.Add(rows_);
  }
  std::vector<std::uint8_t> info{0x7C, static_cast<std::uint8_t>(columns_.size())};
  for (const std::uint16_t end : ends_) Append(info, end);
  Append(info, index);
  Append(info, rows);
  Append(info, std::uint32_t{0});
  for (const Column& column : columns_) {
    Append(info, column.tag);
    Append(info, column.offset);
    info.push_back(column.size);
    info.push_back(column.bit);
  }
  return heap_.Finish(heap_.Add(info));
}

}  // namespace vault
