#include "vault/file_writer.h"

#include <algorithm>
#include <cstring>

#include "vault/error.h"

namespace vault {
namespace {

constexpr const Layout& kLayout = kUnicodeLayout;
constexpr std::uint64_t kFirstArea = 0x4400, kAreaSize = 0x3E000, kDensityListAt = 0x4200;
constexpr std::uint8_t kFreeMapPage = 0x82, kPageMapPage = 0x83, kAllocationMapPage = 0x84, kDensityListPage = 0x86;
constexpr std::size_t kPageMapEvery = 8, kFirstFreeMap = 128, kFreeMapEvery = 496, kMostAreas = 8192;
constexpr std::size_t kMapSize = 496;
constexpr std::uint16_t kReferences = 2;  // of a block: its tree entry and the one place that uses it

template <typename T>
void Store(std::uint8_t* to, T value) {
  std::memcpy(to, &value, sizeof value);
}

template <typename T>
void Append(std::vector<std::uint8_t>& to, T value) {
  to.resize(to.size() + sizeof value);
  Store(to.data() + to.size() - sizeof value, value);
}

}  // namespace

FileWriter::FileWriter(const std::filesystem::path& path, Encoding encoding)
    : file_(path, std::ios::binary | std::ios::trunc), encoding_(encoding) {
  if (!file_) {
    const auto name = path.u8string();
    throw Error(ErrorCode::kCannotOpen, "cannot write " + std::string(name.begin(), name.end()));
  }
  OpenArea();
}

void FileWriter::Put(std::uint64_t offset, std::span<const std::uint8_t> bytes) {
  file_.seekp(static_cast<std::streamoff>(offset));
  file_.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Starts the next area with its maps; they are written at the end, when they are known.
void FileWriter::OpenArea() {
  const std::size_t number = maps_.size();
  if (number == kMostAreas) throw Error(ErrorCode::kUnwritable, "the store would be larger than two gigabytes");
  maps_.emplace_back().fill(0);
  used_in_area_ = 0;
  std::uint64_t pages = 1;
  if (number % kPageMapEvery == 0) ++pages;
  if (number >= kFirstFreeMap && (number - kFirstFreeMap) % kFreeMapEvery == 0) ++pages;
  Allocate(pages * kPageSize, kPageSize);
}

std::uint64_t FileWriter::Allocate(std::uint64_t size, std::uint64_t alignment) {
  // Areas begin on page boundaries, so that alignment within one is alignment within the file.
  std::uint64_t begin = (used_in_area_ + alignment - 1) / alignment * alignment;
  if (begin + size > kAreaSize) {
    OpenArea();
    begin = (used_in_area_ + alignment - 1) / alignment * alignment;
  }
  used_in_area_ = begin + size;
  auto& map = maps_.back();
  for (std::uint64_t unit = begin / kBlockAlignment; unit < used_in_area_ / kBlockAlignment; ++unit) {
    map[unit / 8] |= static_cast<std::uint8_t>(0x80 >> unit % 8);
  }
  return kFirstArea + (maps_.size() - 1) * kAreaSize + begin;
}

Bid FileWriter::AddBlock(std::span<const std::uint8_t> data, bool internal) {
  const Bid bid = next_block_++ * 4 | (internal ? kInternalBlock : 0);
  const std::uint64_t whole = kLayout.block_size(data.size());
  const std::uint64_t offset = Allocate(whole, kBlockAlignment);
  std::vector<std::uint8_t> stored(whole);
  Encode(internal ? Encoding::kNone : encoding_, bid, data, stored.data());
  std::uint8_t* const trailer = stored.data() + whole - kLayout.block_trailer;
  Store(trailer, static_cast<std::uint16_t>(data.size()));
  Store(trailer + 2, Signature(offset, bid));
  Store(trailer + 4, Crc(std::span(stored).first(data.size())));
  Store(trailer + 8, bid);
  Put(offset, stored);
  blocks_.push_back({bid, offset, static_cast<std::uint16_t>(data.size())});
  return bid;
}

Bid FileWriter::AddList(const std::vector<Bid>& bids, unsigned level, std::uint64_t total) {
  if (total > 0xFFFFFFFF) throw Error(ErrorCode::kUnwritable, "a value is larger than four gigabytes");
  std::vector<std::uint8_t> list{1, static_cast<std::uint8_t>(level)};
  Append(list, static_cast<std::uint16_t>(bids.size()));
  Append(list, static_cast<std::uint32_t>(total));
  for (const Bid bid : bids) Append(list, bid);
  return AddBlock(list, true);
}

Bid FileWriter::AddData(std::span<const std::uint8_t> data) {
  // Lists of one level are made and forgotten one after the other, so that a long value costs no copy.
  std::vector<Bid> lists, bids;
  std::uint64_t listed = 0;
  const std::uint64_t total = data.size();
  const auto close = [&] {
    lists.push_back(AddList(bids, 1, listed));
    bids.clear();
    listed = 0;
  };
  while (!data.empty()) {
    if (bids.size() == kLayout.max_list_entries()) close();
    const std::size_t n = std::min<std::size_t>(data.size(), kLayout.block_data);
    bids.push_back(AddBlock(data.first(n), false));
    listed += n;
    data = data.subspan(n);
  }
  if (lists.empty() && bids.size() <= 1) return bids.empty() ? 0 : bids[0];
  close();
  if (lists.size() == 1) return lists[0];
  if (lists.size() > kLayout.max_list_entries()) throw Error(ErrorCode::kUnwritable, "a value is too large");
  return AddList(lists, 2, total);
}

Bid FileWriter::AddBlocks(const std::vector<std::vector<std::uint8_t>>& blocks) {
  std::vector<Bid> lists, bids;
  std::uint64_t listed = 0, total = 0;
  for (const auto& block : blocks) {
    if (bids.size() == kLayout.max_list_entries()) {
      lists.push_back(AddList(bids, 1, listed));
      bids.clear();
      listed = 0;
    }
    bids.push_back(AddBlock(block, false));
    listed += block.size();
    total += block.size();
  }
  if (lists.empty() && bids.size() <= 1) return bids.empty() ? 0 : bids[0];
  lists.push_back(AddList(bids, 1, listed));
  return lists.size() == 1 ? lists[0] : AddList(lists, 2, total);
}

Bid FileWriter::AddSubnodes(std::vector<NodeInfo> subnodes) {
  if (subnodes.empty()) return 0;
  std::sort(subnodes.begin(), subnodes.end(), [](const NodeInfo& a, const NodeInfo& b) { return a.nid < b.nid; });
  const std::size_t per_leaf = (kLayout.block_data - kLayout.subnode_header) / kLayout.subnode_entry;
  const std::size_t per_root = (kLayout.block_data - kLayout.subnode_header) / kLayout.subnode_branch;
  const auto head = [](unsigned level, std::size_t count) {
    std::vector<std::uint8_t> block{2, static_cast<std::uint8_t>(level)};
    Append(block, static_cast<std::uint16_t>(count));
    Append(block, std::uint32_t{0});
    return block;
  };
  std::vector<std::pair<Nid, Bid>> leaves;
  for (std::size_t at = 0; at < subnodes.size(); at += per_leaf) {
    const std::size_t count = std::min(per_leaf, subnodes.size() - at);
    auto leaf = head(0, count);
    for (std::size_t i = at; i < at + count; ++i) {
      Append(leaf, std::uint64_t{subnodes[i].nid});
      Append(leaf, subnodes[i].data);
      Append(leaf, subnodes[i].subnodes);
    }
    leaves.emplace_back(subnodes[at].nid, AddBlock(leaf, true));
  }
  if (leaves.size() == 1) return leaves[0].second;
  if (leaves.size() > per_root) throw Error(ErrorCode::kUnwritable, "an item has too many attachments or values");
  auto root = head(1, leaves.size());
  for (const auto& [nid, bid] : leaves) {
    Append(root, std::uint64_t{nid});
    Append(root, bid);
  }
  return AddBlock(root, true);
}

void FileWriter::PutPage(std::uint64_t offset, std::uint8_t type, Bid bid, std::array<std::uint8_t, kPageSize>& page) {
  const bool map = type >= kFreeMapPage && type <= kAllocationMapPage;
  std::uint8_t* const trailer = page.data() + kLayout.page_data;
  trailer[0] = trailer[1] = type;
  Store(trailer + 2, map ? std::uint16_t{0} : Signature(offset, bid));
  Store(trailer + 4, Crc(std::span(page).first(kLayout.page_data)));
  Store(trailer + 8, map ? offset : bid);
  Put(offset, page);
}

FileWriter::Branch FileWriter::AddTreePage(std::uint8_t type, unsigned level, unsigned entry_size,
                                           std::span<const std::uint8_t> entries) {
  std::array<std::uint8_t, kPageSize> page{};
  std::copy(entries.begin(), entries.end(), page.begin());
  std::uint8_t* const counts = page.data() + kLayout.entry_count_at;
  counts[0] = static_cast<std::uint8_t>(entries.size() / entry_size);
  counts[1] = static_cast<std::uint8_t>(kLayout.entry_count_at / entry_size);
  counts[2] = static_cast<std::uint8_t>(entry_size);
  counts[3] = static_cast<std::uint8_t>(level);
  const Branch branch{Load64(entries.data()), next_page_++ * 4, Allocate(kPageSize, kPageSize)};
  PutPage(branch.offset, type, branch.bid, page);
  return branch;
}

FileWriter::Branch FileWriter::AddTree(std::uint8_t type, unsigned entry_size,
                                       const std::vector<std::uint8_t>& entries) {
  std::vector<std::uint8_t> level_entries = entries;
  for (unsigned level = 0;; ++level) {
    const std::size_t per_page = kLayout.entry_count_at / entry_size * entry_size;
    std::vector<std::uint8_t> above;
    Branch branch{};
    for (std::size_t at = 0; at < level_entries.size(); at += per_page) {
      const auto part = std::span(level_entries).subspan(at, std::min(per_page, level_entries.size() - at));
      branch = AddTreePage(type, level, entry_size, part);
      Append(above, branch.key);
      Append(above, branch.bid);
      Append(above, branch.offset);
    }
    if (above.size() <= kLayout.branch_entry) return branch;
    level_entries = std::move(above);
    entry_size = kLayout.branch_entry;
  }
}

void FileWriter::Finish(const std::array<std::uint32_t, 32>& next_index) {
  std::sort(nodes_.begin(), nodes_.end(), [](const NodeInfo& a, const NodeInfo& b) { return a.nid < b.nid; });
  std::vector<std::uint8_t> entries;
  for (const NodeInfo& node : nodes_) {
    Append(entries, std::uint64_t{node.nid});
    Append(entries, node.data);
    Append(entries, node.subnodes);
    Append(entries, std::uint64_t{node.parent});
  }
  const Branch node_root = AddTree(kNodeTreePage, kLayout.node_entry, entries);
  entries.clear();
  for (const Placed& block : blocks_) {
    Append(entries, block.bid);
    Append(entries, block.offset);
    Append(entries, block.size);
    Append(entries, kReferences);
    Append(entries, std::uint32_t{0});
  }
  const Branch block_root = AddTree(kBlockTreePage, kLayout.block_entry, entries);

  std::uint64_t free_units = 0;
  std::array<std::uint8_t, kPageSize> page{};
  for (std::size_t number = 0; number < maps_.size(); ++number) {
    std::uint64_t at = kFirstArea + number * kAreaSize;
    page.fill(0);
    std::copy(maps_[number].begin(), maps_[number].end(), page.begin());
    for (const std::uint8_t byte : maps_[number]) free_units += 8 - std::popcount(byte);
    PutPage(at, kAllocationMapPage, 0, page);
    page.fill(0);
    std::fill_n(page.begin(), kMapSize, std::uint8_t{0xFF});
    if (number % kPageMapEvery == 0) PutPage(at += kPageSize, kPageMapPage, 0, page);
    if (number >= kFirstFreeMap && (number - kFirstFreeMap) % kFreeMapEvery == 0) {
      PutPage(at += kPageSize, kFreeMapPage, 0, page);
    }
  }
  page.fill(0);
  PutPage(kDensityListAt, kDensityListPage, next_page_++ * 4, page);

  const std::uint64_t end = kFirstArea + maps_.size() * kAreaSize;
  std::array<std::uint8_t, 564> header{};
  std::uint8_t* const h = header.data();
  std::memcpy(h, "!BDN", 4);
  std::memcpy(h + 8, "SM", 2);
  Store(h + 10, std::uint16_t{23});
  Store(h + 12, std::uint16_t{19});
  h[14] = h[15] = 1;
  Store(h + 32, next_page_ * 4);
  Store(h + 40, std::uint32_t{1});
  for (std::size_t i = 0; i < next_index.size(); ++i) Store(h + 44 + 4 * i, next_index[i]);
  Store(h + 184, end);
  Store(h + 192, end - kAreaSize);
  Store(h + 200, free_units * kBlockAlignment);
  Store(h + 216, node_root.bid);
  Store(h + 224, node_root.offset);
  Store(h + 232, block_root.bid);
  Store(h + 240, block_root.offset);
  h[248] = 2;  // the allocation maps are valid
  std::fill(h + 256, h + 512, std::uint8_t{0xFF});
  h[512] = 0x80;
  h[513] = static_cast<std::uint8_t>(encoding_);
  Store(h + 516, next_block_ * 4);
  const std::span<const std::uint8_t> bytes(header);
  Store(h + 4, Crc(bytes.subspan(8, 471)));
  Store(h + 524, Crc(bytes.subspan(8, 516)));
  Put(0, header);
  // The file ends with the last area, used up or not.
  const std::uint8_t last = 0;
  if (used_in_area_ < kAreaSize) Put(end - 1, {&last, 1});
  if (!file_.flush()) throw Error(ErrorCode::kCannotOpen, "the store cannot be written to its file");
}

}  // namespace vault
