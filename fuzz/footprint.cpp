#include "fuzz/footprint.h"

#include <cstring>
#include <set>

#include "vault/types.h"

namespace fuzz {
namespace {

using vault::Bid;
using vault::Load16;
using vault::Load32;

struct Entry {
  const std::uint8_t* bytes;
  std::vector<std::uint64_t> path;  // pages from the root
};

class Tracer {
 public:
  explicit Tracer(const test::StoreSurgeon& store) : store_(store), layout_(store.layout()) {
    ReadTree(store.node_root(), {}, [&](const Entry& entry) { nodes_.emplace(Load32(entry.bytes), entry); });
    ReadTree(store.block_root(), {},
             [&](const Entry& entry) { blocks_.emplace(vault::PlainBid(layout_.Word(entry.bytes)), entry); });
  }

  Footprints Run() {
    Footprints result;
    result.store = Trace(vault::kStoreNid);
    for (const auto& [nid, entry] : nodes_) {
      const auto type = vault::TypeOf(nid);
      if (type == vault::NidType::kMessage || type == vault::NidType::kAssociatedMessage) {
        result.messages.emplace(nid, Trace(nid));
      }
    }
    return result;
  }

 private:
  template <typename Take>
  void ReadTree(std::uint64_t page_at, std::vector<std::uint64_t> path, const Take& take) {
    path.push_back(page_at);
    const std::uint8_t* const page = store_.bytes_at(page_at);
    const std::uint8_t* const counts = page + layout_.entry_count_at;
    for (unsigned i = 0; i < counts[0]; ++i) {
      const std::uint8_t* const entry = page + i * counts[2];
      if (counts[3]) {
        ReadTree(layout_.Word(entry + 2 * layout_.word), path, take);
      } else {
        take({entry, path});
      }
    }
  }

  Footprint Trace(vault::Nid nid) {
    seen_.clear();
    Footprint result;
    result.ranges = {{0, layout_.header_size}, {store_.block_root(), vault::kPageSize}};
    const auto found = nodes_.find(nid);
    if (found == nodes_.end()) return result;
    for (const std::uint64_t page : found->second.path) result.ranges.push_back({page, vault::kPageSize});
    const unsigned w = layout_.word;
    const Bid data = vault::PlainBid(layout_.Word(found->second.bytes + w));
    AddBlock(data, result);
    if (const auto block = blocks_.find(data); block != blocks_.end()) {
      result.first_block = layout_.Word(block->second.bytes + w);
    }
    AddBlock(vault::PlainBid(layout_.Word(found->second.bytes + 2 * w)), result);
    return result;
  }

  // A block with its pages, and all blocks that it leads to.
  void AddBlock(Bid bid, Footprint& to) {
    if (!bid || !seen_.insert(bid).second) return;
    const auto found = blocks_.find(bid);
    if (found == blocks_.end()) return;
    for (const std::uint64_t page : found->second.path) to.ranges.push_back({page, vault::kPageSize});
    const unsigned w = layout_.word;
    const std::uint64_t at = layout_.Word(found->second.bytes + w);
    const std::size_t size = Load16(found->second.bytes + 2 * w);
    to.ranges.push_back({at, static_cast<std::size_t>(layout_.block_size(size))});
    if (!(bid & vault::kInternalBlock)) return;
    const std::uint8_t* const list = store_.bytes_at(at);
    const unsigned count = Load16(list + 2);
    if (list[0] == 1) {
      for (unsigned i = 0; i < count; ++i) AddBlock(vault::PlainBid(layout_.Word(list + 8 + i * w)), to);
      return;
    }
    const unsigned entry_size = list[1] ? layout_.subnode_branch : layout_.subnode_entry;
    for (unsigned i = 0; i < count; ++i) {
      const std::uint8_t* const entry = list + layout_.subnode_header + i * entry_size;
      AddBlock(vault::PlainBid(layout_.Word(entry + w)), to);
      if (!list[1]) AddBlock(vault::PlainBid(layout_.Word(entry + 2 * w)), to);
    }
  }

  const test::StoreSurgeon& store_;
  const vault::Layout& layout_;
  std::map<vault::Nid, Entry> nodes_;
  std::map<Bid, Entry> blocks_;
  std::set<Bid> seen_;
};

}  // namespace

bool Footprint::IsIntact(std::span<const std::uint8_t> good, std::span<const std::uint8_t> changed) const {
  for (const Range& range : ranges) {
    if (range.offset + range.size > changed.size()) return false;
    if (std::memcmp(good.data() + range.offset, changed.data() + range.offset, range.size) != 0) return false;
  }
  return true;
}

Footprints FindFootprints(const test::StoreSurgeon& store) {
  return Tracer(store).Run();
}

}  // namespace fuzz
