#include "vault/heap_writer.h"

#include <algorithm>
#include <array>
#include <string>

#include "vault/append.h"
#include "vault/error.h"

namespace vault {
namespace {

constexpr std::size_t kBlockData = kUnicodeLayout.block_data;
constexpr unsigned kFirstHeader = 12, kPlainHeader = 2, kMapHeader = 66;
constexpr unsigned kFirstMapBlock = 8, kMapBlockEvery = 128;  // blocks that hold the fill levels of those behind them
constexpr unsigned kMaxItems = 2047;
constexpr std::size_t kPageMapFixed = 6;  // counts, and the end of the last item

// [MS-PST] 2.3.1.2: how much room is left in a block, in 16 steps.
unsigned FillLevel(std::size_t free) {
  constexpr std::size_t kSteps[] = {3584, 2560, 2048, 1792, 1536, 1280, 1024, 768, 512, 256, 128, 64, 32, 16, 8};
  return static_cast<unsigned>(
      std::find_if(std::begin(kSteps), std::end(kSteps), [&](std::size_t s) { return free >= s; }) -
      std::begin(kSteps));
}

bool IsMapBlock(std::size_t number) {
  return number >= kFirstMapBlock && (number - kFirstMapBlock) % kMapBlockEvery == 0;
}

void Check(const WrittenProperty& p) {
  const PropType type = PropTypeOf(p.tag), element = ElementType(type);
  const unsigned size = FixedSize(element);
  const bool text = element == PropType::kUnicode;
  const bool sized = size > 0 || text || element == PropType::kString8 || element == PropType::kBinary;
  const bool single_only = element == PropType::kBoolean || element == PropType::kError;
  bool good = IsMulti(type) ? sized && !single_only : sized || type == PropType::kObject;
  if (size > 0) good = good && (IsMulti(type) ? p.size() % size == 0 : !p.source && p.size() == size);
  if (text && !IsMulti(type)) good = good && p.size() % 2 == 0;
  if (good) return;
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string tag;
  for (int shift = 28; shift >= 0; shift -= 4) tag += kDigits[p.tag >> shift & 0xF];
  throw Error(ErrorCode::kUnwritable, "property 0x" + tag + " has a type or a size that it cannot have");
}

}  // namespace

HeapWriter::HeapWriter(FileWriter& file, std::uint8_t client) : file_(file), client_(client) {
  OpenBlock();
}

void HeapWriter::OpenBlock() {
  const std::size_t number = closed_.size();
  if (number == kMaxBlocks) throw Error(ErrorCode::kUnwritable, "a heap has too many blocks");
  block_.resize(number == 0 ? kFirstHeader : IsMapBlock(number) ? kMapHeader : kPlainHeader);
}

void HeapWriter::CloseBlock() {
  item_begins_.push_back(static_cast<std::uint16_t>(block_.size()));
  if (block_.size() % 2) block_.push_back(0);
  PutValue(block_.data(), static_cast<std::uint16_t>(block_.size()));
  AppendValue(block_, static_cast<std::uint16_t>(item_begins_.size() - 1));
  AppendValue(block_, std::uint16_t{0});
  for (const std::uint16_t begin : item_begins_) AppendValue(block_, begin);

  const unsigned level = FillLevel(kBlockData - block_.size());
  const std::size_t number = closed_.size();
  closed_.push_back({0, static_cast<std::uint16_t>(block_.size())});
  if (number == 0) {
    held_.push_back(std::move(block_));
  } else if (IsMapBlock(number)) {
    ReleaseMapBlock(number - kMapBlockEvery);
    held_.push_back(std::move(block_));
  } else {
    closed_.back().bid = file_.AddBlock(block_);
  }
  const std::size_t place =
      number < kFirstMapBlock ? 2 * 8 + number : 2 * 2 + (number - kFirstMapBlock) % kMapBlockEvery;
  held_.back()[place / 2] |= static_cast<std::uint8_t>(level << (place % 2 ? 4 : 0));
  block_.clear();
  item_begins_.clear();
}

// Writes a block of fill levels, when all that it tells about are closed.
void HeapWriter::ReleaseMapBlock(std::size_t number) {
  if (held_.size() == 1) return;
  closed_[number].bid = file_.AddBlock(held_[1]);
  held_.pop_back();
}

std::uint32_t HeapWriter::Add(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return 0;
  if (bytes.size() > kMaxItem) throw Error(ErrorCode::kUnwritable, "an item is too large for its heap");
  // One byte may be needed to begin the page map at an even place.
  if (block_.size() + bytes.size() + 1 + kPageMapFixed + 2 * (item_begins_.size() + 1) > kBlockData ||
      item_begins_.size() == kMaxItems) {
    CloseBlock();
    OpenBlock();
  }
  item_begins_.push_back(static_cast<std::uint16_t>(block_.size()));
  block_.insert(block_.end(), bytes.begin(), bytes.end());
  return static_cast<std::uint32_t>(closed_.size() << 16 | item_begins_.size() << 5);
}

std::uint32_t HeapWriter::AddValue(std::span<const std::uint8_t> bytes, std::size_t limit) {
  return bytes.size() <= std::min(limit, kMaxItem) ? Add(bytes) : AddSubnode(file_.AddData(bytes));
}

std::uint32_t HeapWriter::AddValue(const Source& source, std::size_t limit) {
  if (source.size() > std::min(limit, kMaxItem)) return AddSubnode(file_.AddData(source));
  std::vector<std::uint8_t> bytes(source.size());
  SourceReader reader(source);
  reader.Fill(bytes);
  reader.ExpectEnd();
  return Add(bytes);
}

Nid HeapWriter::AddSubnode(Bid data) {
  const Nid nid = MakeNid(NidType::kLargeValue, next_subnode_++);
  subnodes_.push_back({nid, data, 0, 0});
  return nid;
}

std::uint32_t HeapWriter::AddTree(unsigned key_size, unsigned record_size, std::span<const std::uint8_t> records) {
  std::vector<std::uint8_t> above, level_records;
  std::size_t stride = key_size + record_size;
  std::uint32_t root = 0;
  std::uint8_t levels = 0;
  while (!records.empty()) {
    const std::size_t per_item = kMaxItem / stride * stride;
    above.clear();
    for (std::size_t at = 0; at < records.size(); at += per_item) {
      const auto part = records.subspan(at, std::min(per_item, records.size() - at));
      root = Add(part);
      above.insert(above.end(), part.begin(), part.begin() + key_size);
      AppendValue(above, root);
    }
    stride = key_size + 4;
    if (above.size() == stride) break;
    level_records.swap(above);
    records = level_records;
    ++levels;
  }
  std::vector<std::uint8_t> header{0xB5, static_cast<std::uint8_t>(key_size), static_cast<std::uint8_t>(record_size),
                                   levels};
  AppendValue(header, root);
  return Add(header);
}

NodeInfo HeapWriter::Finish(std::uint32_t root) {
  CloseBlock();
  ReleaseMapBlock((closed_.size() - 1 - kFirstMapBlock) / kMapBlockEvery * kMapBlockEvery + kFirstMapBlock);
  std::uint8_t* const head = held_[0].data();
  head[2] = 0xEC;
  head[3] = client_;
  PutValue(head + 4, root);
  closed_[0].bid = file_.AddBlock(held_[0]);
  BlockListWriter list(file_);
  for (const Closed& block : closed_) list.Add(block.bid, block.size);
  return {0, list.Finish(), file_.AddSubnodes(std::move(subnodes_)), 0};
}

std::uint32_t AddProperties(HeapWriter& heap, std::span<const WrittenProperty> properties) {
  // Some readers cope with a few heap blocks only: the fuller the heap would get, the sooner values leave it.
  constexpr std::size_t kRoomyHeap = 6 * kBlockData;
  const auto inside = [&](std::size_t limit) {
    std::size_t sum = 0;
    for (const auto& p : properties) sum += p.size() <= limit ? p.size() : 0;
    return sum;
  };
  std::size_t limit = HeapWriter::kMaxItem;
  while (limit > 16 && inside(limit) > kRoomyHeap) limit /= 2;

  std::vector<std::uint8_t> records;
  records.reserve(8 * properties.size());
  for (const WrittenProperty& p : properties) {
    Check(p);
    const PropType type = PropTypeOf(p.tag);
    const unsigned size = FixedSize(type);
    std::uint32_t value = 0;
    if (size > 0 && size <= 4) {
      std::memcpy(&value, p.bytes.data(), size);
    } else if (size > 0 || p.refers) {
      value = heap.Add(p.bytes);
    } else if (type == PropType::kObject) {
      const Nid nid = heap.AddSubnode(p.source ? heap.file().AddData(*p.source) : heap.file().AddData(p.bytes));
      const std::array<std::uint32_t, 2> object{nid, static_cast<std::uint32_t>(p.size())};
      value = heap.Add({reinterpret_cast<const std::uint8_t*>(object.data()), sizeof object});
    } else {
      value = p.source ? heap.AddValue(*p.source, limit) : heap.AddValue(p.bytes, limit);
    }
    AppendValue(records, IdOf(p.tag));
    AppendValue(records, static_cast<std::uint16_t>(type));
    AppendValue(records, value);
  }
  return heap.AddTree(2, 6, records);
}

}  // namespace vault
