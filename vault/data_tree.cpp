#include "vault/data_tree.h"

namespace vault {
namespace {

constexpr unsigned kListHeader = 8;  // btype, cLevel, cEnt, lcbTotal
constexpr std::uint8_t kListType = 1;

}  // namespace

DataTree::DataTree(std::shared_ptr<const Database> db, Bid root, Nid nid) : db_(std::move(db)), nid_(nid), root_(root) {
  if (!root) return;
  if (!(root & kInternalBlock)) {
    count_ = 1;
    size_ = db_->FindBlock(root, nid).bytes.size();
    return;
  }
  list_ = ReadList(root);
  if (!list_.count) return;
  size_ = list_.total;
  std::uint64_t count = list_.count;
  if (list_.level == 2) {
    const List last = ReadList(db_->layout().Word(list_.entries + (list_.count - 1) * db_->layout().word));
    if (last.level != 1) throw Error(ErrorCode::kBadBlock, "a list of blocks is nested too deeply", std::nullopt, nid);
    count = std::uint64_t{list_.count - 1} * db_->layout().max_list_entries() + last.count;
  }
  if (size_ > db_->file_size() || count > db_->file_size() / kBlockAlignment) {
    throw Error(ErrorCode::kBadBlock, "a node claims more data than the file holds", std::nullopt, nid);
  }
  count_ = static_cast<std::uint32_t>(count);
}

DataTree::List DataTree::ReadList(Bid bid) const {
  const StoredBlock block = db_->FindBlock(bid, nid_);
  const std::uint8_t* const b = block.bytes.data();
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadBlock, what, block.offset, nid_); };
  if (!block.internal() || block.bytes.size() < kListHeader || b[0] != kListType || (b[1] != 1 && b[1] != 2)) {
    throw bad("a block is no list of blocks");
  }
  const List list{b + kListHeader, Load16(b + 2), b[1], Load32(b + 4)};
  if (std::size_t{list.count} * db_->layout().word > block.bytes.size() - kListHeader) {
    throw bad("a list of blocks claims too many entries");
  }
  return list;
}

StoredBlock DataTree::Stored(std::uint32_t i) const {
  const Layout& layout = db_->layout();
  Bid bid = root_;
  if (list_.level == 1) bid = layout.Word(list_.entries + std::size_t{i} * layout.word);
  if (list_.level == 2) {
    const unsigned per_list = layout.max_list_entries();
    const List list = ReadList(layout.Word(list_.entries + std::size_t{i / per_list} * layout.word));
    if (list.level != 1 || i % per_list >= list.count) {
      throw Error(ErrorCode::kBadBlock, "a list of blocks has gaps or is nested too deeply", std::nullopt, nid_);
    }
    bid = layout.Word(list.entries + std::size_t{i % per_list} * layout.word);
  }
  const StoredBlock block = db_->FindBlock(bid, nid_);
  if (block.internal()) throw Error(ErrorCode::kBadBlock, "a list stands where data should be", block.offset, nid_);
  return block;
}

BlockList::BlockList(std::shared_ptr<const Database> db, Bid root, Nid nid)
    : tree_(std::move(db), root, nid), slots_(new Slot[tree_.block_count()]) {}

BlockList::~BlockList() {
  if (tree_.db().encoding() == Encoding::kNone) return;
  for (std::uint32_t i = 0; i < size(); ++i) delete[] slots_[i].bytes.load(std::memory_order_relaxed);
}

std::span<const std::uint8_t> BlockList::Load(std::uint32_t i) const {
  const StoredBlock block = tree_.Stored(i);
  const Slot& slot = slots_[i];
  // Every thread that comes here stores the same size, and the first one's bytes stay.
  slot.size.store(static_cast<std::uint32_t>(block.bytes.size()), std::memory_order_relaxed);
  if (tree_.db().encoding() == Encoding::kNone) {
    slot.bytes.store(block.bytes.data(), std::memory_order_release);
    return block.bytes;
  }
  if (decoded_.load(std::memory_order_relaxed) >= tree_.db().file_size()) {
    throw Error(ErrorCode::kBadBlock, "a node's blocks hold more data than the file", block.offset, tree_.nid());
  }
  auto decoded = std::make_unique_for_overwrite<std::uint8_t[]>(block.bytes.size());
  Decode(tree_.db().encoding(), block.bid, block.bytes, decoded.get());
  const std::uint8_t* expected = nullptr;
  if (slot.bytes.compare_exchange_strong(expected, decoded.get(), std::memory_order_acq_rel)) {
    decoded_.fetch_add(block.bytes.size(), std::memory_order_relaxed);
    expected = decoded.release();
  }
  return {expected, block.bytes.size()};
}

}  // namespace vault
