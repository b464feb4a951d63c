#include "vault/file_writer.h"

#include <algorithm>

#include "vault/append.h"
#include "vault/error.h"

namespace vault {
namespace {

constexpr const Layout& kLayout = kUnicodeLayout;
constexpr std::uint16_t kReferences = 2;  // of a block: its tree entry and the one place that uses it
constexpr std::size_t kSubnodesInLeaf = (kLayout.block_data - kLayout.subnode_header) / kLayout.subnode_entry;
constexpr std::size_t kLeavesInRoot = (kLayout.block_data - kLayout.subnode_header) / kLayout.subnode_branch;

std::filesystem::path Extended(std::filesystem::path path, const char* by) {
  return path += by;
}

}  // namespace

FileWriter::FileWriter(const std::filesystem::path& path, Encoding encoding)
    : encoding_(encoding),
      space_(path),
      blocks_(space_, kBlockTreePage, kLayout.block_entry, next_page_),
      nodes_(Extended(space_.temporary_name(), ".nodes")) {}

Bid FileWriter::AddBlock(std::span<const std::uint8_t> data, bool internal) {
  const Bid bid = next_block_ | (internal ? kInternalBlock : 0);
  next_block_ += 4;
  const std::uint64_t whole = kLayout.block_size(data.size());
  const auto [offset, bytes] = space_.AddBlock(whole);
  Encode(internal ? Encoding::kNone : encoding_, bid, data, bytes);
  std::uint8_t* const trailer = bytes + whole - kLayout.block_trailer;
  PutValue(trailer, static_cast<std::uint16_t>(data.size()));
  PutValue(trailer + 2, Signature(offset, bid));
  PutValue(trailer + kLayout.block_crc_at, Crc({bytes, data.size()}));
  PutValue(trailer + kLayout.block_bid_at, bid);
  BlockEntry entry{};
  PutValue(entry.data(), bid);
  PutValue(entry.data() + 8, offset);
  PutValue(entry.data() + 16, static_cast<std::uint16_t>(data.size()));
  PutValue(entry.data() + 18, kReferences);
  if (in_transaction_) {
    pending_blocks_.push_back(entry);
  } else {
    blocks_.Add(entry);
  }
  return bid;
}

void FileWriter::AddNode(const NodeInfo& node) {
  if (in_transaction_) {
    pending_nodes_.push_back(node);
  } else {
    nodes_.Add(node);
  }
}

FileWriter::Transaction::~Transaction() {
  End();
}

void FileWriter::Transaction::Commit() {
  for (const BlockEntry& entry : file_.pending_blocks_) file_.blocks_.Add(entry);
  for (const NodeInfo& node : file_.pending_nodes_) file_.nodes_.Add(node);
  End();
}

void FileWriter::Transaction::End() {
  constexpr std::size_t kKept = 4096;  // entries: room that the next message need not ask for again
  file_.in_transaction_ = false;
  file_.pending_blocks_.clear();
  file_.pending_nodes_.clear();
  if (file_.pending_blocks_.capacity() > kKept) file_.pending_blocks_.shrink_to_fit();
}

Bid FileWriter::AddList(std::span<const Bid> bids, unsigned level, std::uint64_t total) {
  std::vector<std::uint8_t> list{1, static_cast<std::uint8_t>(level)};
  AppendValue(list, static_cast<std::uint16_t>(bids.size()));
  AppendValue(list, static_cast<std::uint32_t>(total));
  for (const Bid bid : bids) AppendValue(list, bid);
  return AddBlock(list, true);
}

Bid FileWriter::AddData(std::span<const std::uint8_t> data) {
  BlockListWriter list(*this);
  for (std::size_t n; !data.empty(); data = data.subspan(n)) {
    n = std::min<std::size_t>(data.size(), kLayout.block_data);
    list.Add(AddBlock(data.first(n)), n);
  }
  return list.Finish();
}

Bid FileWriter::AddData(const Source& source) {
  if (source.size() > kMaxValue) throw Error(ErrorCode::kUnwritable, "a value is larger than four gigabytes");
  BlockListWriter list(*this);
  SourceReader reader(source);
  std::vector<std::uint8_t> block(std::min<std::uint64_t>(source.size(), kLayout.block_data));
  for (std::uint64_t left = source.size(); left > 0; left -= block.size()) {
    if (left < block.size()) block.resize(left);
    reader.Fill(block);
    list.Add(AddBlock(block), block.size());
  }
  reader.ExpectEnd();
  return list.Finish();
}

std::size_t FileWriter::max_subnodes() {
  return kSubnodesInLeaf * kLeavesInRoot;
}

Bid FileWriter::AddSubnodes(std::vector<NodeInfo> subnodes) {
  if (subnodes.empty()) return 0;
  if (subnodes.size() > max_subnodes()) {
    throw Error(ErrorCode::kUnwritable, "an item has too many attachments or large values");
  }
  std::sort(subnodes.begin(), subnodes.end(), [](const NodeInfo& a, const NodeInfo& b) { return a.nid < b.nid; });
  const auto head = [](unsigned level, std::size_t count) {
    std::vector<std::uint8_t> block{2, static_cast<std::uint8_t>(level)};
    AppendValue(block, static_cast<std::uint16_t>(count));
    AppendValue(block, std::uint32_t{0});
    return block;
  };
  std::vector<std::pair<Nid, Bid>> leaves;
  for (std::size_t at = 0; at < subnodes.size(); at += kSubnodesInLeaf) {
    const std::size_t count = std::min(kSubnodesInLeaf, subnodes.size() - at);
    auto leaf = head(0, count);
    for (std::size_t i = at; i < at + count; ++i) {
      AppendValue(leaf, std::uint64_t{subnodes[i].nid});
      AppendValue(leaf, subnodes[i].data);
      AppendValue(leaf, subnodes[i].subnodes);
    }
    leaves.emplace_back(subnodes[at].nid, AddBlock(leaf, true));
  }
  if (leaves.size() == 1) return leaves[0].second;
  auto root = head(1, leaves.size());
  for (const auto& [nid, bid] : leaves) {
    AppendValue(root, std::uint64_t{nid});
    AppendValue(root, bid);
  }
  return AddBlock(root, true);
}

void FileWriter::Finish(const std::array<std::uint32_t, 32>& next_index) {
  TreeWriter nodes(space_, kNodeTreePage, kLayout.node_entry, next_page_);
  nodes_.Drain([&](const NodeInfo& node) {
    std::array<std::uint8_t, kLayout.node_entry> entry{};
    PutValue(entry.data(), std::uint64_t{node.nid});
    PutValue(entry.data() + 8, node.data);
    PutValue(entry.data() + 16, node.subnodes);
    PutValue(entry.data() + 24, node.parent);
    nodes.Add(entry);
  });
  const AreaWriter::Root node_root = nodes.Finish(), block_root = blocks_.Finish();
  space_.Finish({.encoding = static_cast<std::uint8_t>(encoding_),
                 .node_tree = node_root,
                 .block_tree = block_root,
                 .next_block = next_block_,
                 .next_page = next_page_,
                 .next_index = next_index});
}

void BlockListWriter::Add(Bid bid, std::size_t size) {
  if (total_ + size > FileWriter::kMaxValue) {
    throw Error(ErrorCode::kUnwritable, "a value is larger than four gigabytes");
  }
  if (bids_.size() == kLayout.max_list_entries()) CloseList();
  bids_.push_back(bid);
  listed_ += size;
  total_ += size;
}

void BlockListWriter::CloseList() {
  lists_.push_back(file_.AddList(bids_, 1, listed_));
  bids_.clear();
  listed_ = 0;
}

Bid BlockListWriter::Finish() {
  if (lists_.empty() && bids_.size() <= 1) return bids_.empty() ? 0 : bids_[0];
  CloseList();
  return lists_.size() == 1 ? lists_[0] : file_.AddList(lists_, 2, total_);
}

}  // namespace vault
