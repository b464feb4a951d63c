#include "vault/database.h"

#include <atomic>
#include <new>
#include <string>

namespace vault {
namespace {

constexpr std::uint32_t kMagic = 0x4E444221;    // "!BDN"
constexpr std::uint16_t kClientMagic = 0x4D53;  // "SM"
constexpr unsigned kMaxTreeLevels = 8;          // 20^8 entries: more than any file has
constexpr unsigned kPartialCrcSize = 471, kFullCrcSize = 516, kFullCrcAt = 524;

// Index of the last of `count` entries whose key is not above `key`, or -1.
template <typename KeyAt>
int LastNotAbove(unsigned count, std::uint64_t key, KeyAt key_at) {
  unsigned low = 0, high = count;
  while (low < high) {
    const unsigned middle = (low + high) / 2;
    if (key_at(middle) <= key) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return static_cast<int>(low) - 1;
}

}  // namespace

Database::Verified::Verified(std::uint64_t file_size)
    : words_(static_cast<std::uint32_t*>(std::calloc(file_size / kBlockAlignment / 32 + 1, sizeof(std::uint32_t)))) {
  if (!words_) throw std::bad_alloc();
}

bool Database::Verified::Test(std::uint64_t offset) const {
  const std::uint64_t bit = offset / kBlockAlignment;
  return std::atomic_ref(words_[bit / 32]).load(std::memory_order_relaxed) >> (bit % 32) & 1;
}

void Database::Verified::Set(std::uint64_t offset) const {
  const std::uint64_t bit = offset / kBlockAlignment;
  std::atomic_ref(words_[bit / 32]).fetch_or(1u << (bit % 32), std::memory_order_relaxed);
}

std::shared_ptr<const Database> Database::Open(const std::filesystem::path& path) {
  MappedFile map(path);
  const auto bytes = map.bytes();
  return std::shared_ptr<const Database>(new Database(std::move(map), bytes));
}

std::shared_ptr<const Database> Database::OpenBytes(std::span<const std::uint8_t> bytes) {
  return std::shared_ptr<const Database>(new Database(std::nullopt, bytes));
}

Database::Database(std::optional<MappedFile> map, std::span<const std::uint8_t> bytes)
    : map_(std::move(map)), file_(bytes), verified_(bytes.size()) {
  ReadHeader();
}

void Database::ReadHeader() {
  const std::uint8_t* const h = file_.data();
  if (file_.size() < kUnicodeLayout.header_size) {
    throw Error(ErrorCode::kNotAStore, "the file is too short to be a personal-folder store");
  }
  if (Load32(h) != kMagic) throw Error(ErrorCode::kNotAStore, "the file is not a personal-folder store", 0);
  if (Load32(h + 4) != Crc(file_.subspan(8, kPartialCrcSize))) {
    throw Error(ErrorCode::kHeaderChecksum, "the store's header does not pass its checksum", 4);
  }
  if (Load16(h + 8) != kClientMagic) {
    throw Error(ErrorCode::kNotAStore, "the file is a database of another kind, not a personal-folder store", 8);
  }
  const unsigned version = Load16(h + 10);
  if (version == 36 || version == 37) {
    throw Error(ErrorCode::kUnsupportedVersion,
                "the store has the layout with 4-kilobyte pages (version " + std::to_string(version) +
                    "), which is not supported",
                10);
  }
  if (version != 14 && version != 15 && version != 23) {
    throw Error(ErrorCode::kUnsupportedVersion, "the store has the unknown version " + std::to_string(version), 10);
  }
  const bool unicode = version == 23;
  layout_ = unicode ? &kUnicodeLayout : &kAnsiLayout;
  if (unicode && Load32(h + kFullCrcAt) != Crc(file_.subspan(8, kFullCrcSize))) {
    throw Error(ErrorCode::kHeaderChecksum, "the store's header does not pass its second checksum", kFullCrcAt);
  }
  const unsigned encoding = h[layout_->encoding_at];
  if (encoding > static_cast<unsigned>(Encoding::kCyclic)) {
    throw Error(ErrorCode::kUnsupportedVersion, "the store's data has the unknown encoding " + std::to_string(encoding),
                layout_->encoding_at);
  }
  encoding_ = static_cast<Encoding>(encoding);
  const auto root = [&](unsigned at) { return Root{layout_->Word(h + at + layout_->word), layout_->Word(h + at)}; };
  node_root_ = root(layout_->root_at);
  block_root_ = root(layout_->root_at + 2 * layout_->word);
  // A store whose roots are broken has nothing to show: refuse it now.
  ReadTreePage(node_root_.offset, node_root_.bid, kNodeTreePage);
  ReadTreePage(block_root_.offset, block_root_.bid, kBlockTreePage);
}

TreePage Database::ReadTreePage(std::uint64_t offset, Bid bid, std::uint8_t type) const {
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadPage, what, offset); };
  if (offset % kPageSize || offset > file_.size() || file_.size() - offset < kPageSize) {
    throw bad("a tree page lies outside the file");
  }
  const std::uint8_t* const page = file_.data() + offset;
  const std::uint8_t* const trailer = page + layout_->page_data;
  if (trailer[0] != type || trailer[1] != type) throw bad("a page is not of the type that its tree needs");
  if (layout_->Word(page + layout_->page_bid_at) != bid) throw bad("a tree page has another id than its reference");
  if (!verified_.Test(offset)) {
    if (Load16(trailer + 2) != Signature(offset, bid)) throw bad("a tree page has a wrong signature");
    if (Load32(page + layout_->page_crc_at) != Crc({page, layout_->page_data})) {
      throw bad("a tree page does not pass its checksum");
    }
    verified_.Set(offset);
  }
  const std::uint8_t* const counts = page + layout_->entry_count_at;
  TreePage result{page, offset, counts[0], counts[2], counts[3]};
  if (result.level >= kMaxTreeLevels) throw bad("a tree page claims too many levels");
  const unsigned least = result.level            ? layout_->branch_entry
                         : type == kNodeTreePage ? layout_->node_entry
                                                 : layout_->block_entry;
  if (result.count && result.entry_size < least) throw bad("a tree page has entries that are too small");
  if (result.count * result.entry_size > layout_->entry_count_at) throw bad("a tree page claims too many entries");
  return result;
}

const std::uint8_t* Database::FindEntry(Root root, std::uint8_t type, std::uint64_t key) const {
  TreePage page = ReadTreePage(root.offset, root.bid, type);
  for (;;) {
    const int at = LastNotAbove(page.count, key, [&](unsigned i) {
      const std::uint64_t k = layout_->Word(page.entries + i * page.entry_size);
      return type == kNodeTreePage ? k & 0xFFFFFFFF : PlainBid(k);
    });
    if (at < 0) return nullptr;
    const std::uint8_t* const entry = page.entries + at * page.entry_size;
    if (page.level == 0) {
      const std::uint64_t k = layout_->Word(entry);
      return (type == kNodeTreePage ? k & 0xFFFFFFFF : PlainBid(k)) == key ? entry : nullptr;
    }
    const TreePage child =
        ReadTreePage(layout_->Word(entry + 2 * layout_->word), layout_->Word(entry + layout_->word), type);
    // Falling levels end any circle.
    if (child.level + 1 != page.level) {
      throw Error(ErrorCode::kBadPage, "a tree page has another level than its place in the tree", child.offset);
    }
    page = child;
  }
}

NodeInfo Database::ParseNode(const std::uint8_t* entry) const {
  const unsigned w = layout_->word;
  return {Load32(entry), PlainBid(layout_->Word(entry + w)), PlainBid(layout_->Word(entry + 2 * w)),
          Load32(entry + 3 * w)};
}

std::optional<NodeInfo> Database::FindNode(Nid nid) const {
  const std::uint8_t* const entry = FindEntry(node_root_, kNodeTreePage, nid);
  if (!entry) return std::nullopt;
  return ParseNode(entry);
}

StoredBlock Database::FindBlock(Bid bid, Nid nid) const {
  bid = PlainBid(bid);
  const std::uint8_t* const entry = FindEntry(block_root_, kBlockTreePage, bid);
  if (!entry) {
    char name[64];
    std::snprintf(name, sizeof name, "block 0x%llX is referred to but not there", static_cast<unsigned long long>(bid));
    throw Error(ErrorCode::kBadBlock, name, std::nullopt, nid);
  }
  const std::uint64_t offset = layout_->Word(entry + layout_->word);
  const std::uint64_t size = Load16(entry + 2 * layout_->word);
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadBlock, what, offset, nid); };
  if (size == 0 || size > layout_->block_data) throw bad("a block has an impossible size");
  const std::uint64_t whole = layout_->block_size(size);
  if (offset % kBlockAlignment || offset > file_.size() || file_.size() - offset < whole) {
    throw bad("a block lies outside the file");
  }
  const std::uint8_t* const bytes = file_.data() + offset;
  const std::uint8_t* const trailer = bytes + whole - layout_->block_trailer;
  if (Load16(trailer) != size) throw bad("a block has another size than its tree says");
  if (PlainBid(layout_->Word(trailer + layout_->block_bid_at)) != bid)
    throw bad("a block has another id than its reference");
  if (!verified_.Test(offset)) {
    if (Load32(trailer + layout_->block_crc_at) != Crc({bytes, size})) throw bad("a block does not pass its checksum");
    verified_.Set(offset);
  }
  return {bid, offset, {bytes, static_cast<std::size_t>(size)}};
}

Database::SubnodeBlock Database::ReadSubnodeBlock(Bid bid, Nid nid) const {
  const StoredBlock block = FindBlock(bid, nid);
  const auto bad = [&](const char* what) { return Error(ErrorCode::kBadBlock, what, block.offset, nid); };
  if (!block.internal() || block.bytes.size() < layout_->subnode_header || block.bytes[0] != 2 || block.bytes[1] > 1) {
    throw bad("a block is no list of subnodes");
  }
  SubnodeBlock result{block.bytes.data() + layout_->subnode_header, Load16(block.bytes.data() + 2),
                      block.bytes[1] ? layout_->subnode_branch : layout_->subnode_entry, block.bytes[1]};
  if (result.count * result.entry_size > block.bytes.size() - layout_->subnode_header) {
    throw bad("a list of subnodes claims too many entries");
  }
  return result;
}

NodeInfo Database::ParseSubnode(const std::uint8_t* entry) const {
  const unsigned w = layout_->word;
  return {Load32(entry), PlainBid(layout_->Word(entry + w)), PlainBid(layout_->Word(entry + 2 * w)), 0};
}

std::optional<NodeInfo> Database::FindSubnode(Bid tree, Nid nid) const {
  if (!tree) return std::nullopt;
  SubnodeBlock block = ReadSubnodeBlock(tree, nid);
  for (;;) {
    const int at =
        LastNotAbove(block.count, nid, [&](unsigned i) { return Load32(block.entries + i * block.entry_size); });
    if (at < 0) return std::nullopt;
    const std::uint8_t* const entry = block.entries + at * block.entry_size;
    if (block.level == 0) {
      if (Load32(entry) != nid) return std::nullopt;
      return ParseSubnode(entry);
    }
    const SubnodeBlock child = ReadSubnodeBlock(layout_->Word(entry + layout_->word), nid);
    if (child.level != 0)
      throw Error(ErrorCode::kBadBlock, "a tree of subnodes has too many levels", std::nullopt, nid);
    block = child;
  }
}

std::vector<NodeInfo> Database::ListSubnodes(Bid tree) const {
  std::vector<NodeInfo> result;
  const auto take = [&](const SubnodeBlock& leaf) {
    for (unsigned i = 0; i < leaf.count; ++i) {
      const NodeInfo node = ParseSubnode(leaf.entries + i * leaf.entry_size);
      if (result.empty() || node.nid > result.back().nid) result.push_back(node);
    }
  };
  if (!tree) return result;
  try {
    const SubnodeBlock root = ReadSubnodeBlock(tree, 0);
    if (root.level == 0) {
      take(root);
      return result;
    }
    for (unsigned i = 0; i < root.count; ++i) {
      try {
        const SubnodeBlock leaf =
            ReadSubnodeBlock(layout_->Word(root.entries + i * root.entry_size + layout_->word), 0);
        if (leaf.level == 0) take(leaf);
      } catch (const Error&) {
        // The other leaves are still good.
      }
    }
  } catch (const Error&) {
    // Nothing of the tree is readable.
  }
  return result;
}

}  // namespace vault
