#include "fuzz/store_image.h"

#include <algorithm>
#include <cstring>

namespace fuzz {
namespace {

using vault::Layout;

constexpr std::uint64_t kFirstPage = 2 * vault::kPageSize;
constexpr std::size_t kBlockHead = 6;  // id and size in a corpus file

void Put(std::uint8_t* to, std::uint64_t value, unsigned size) {
  std::memcpy(to, &value, size);
}

const Layout& LayoutOf(bool ansi) {
  return ansi ? vault::kAnsiLayout : vault::kUnicodeLayout;
}

// Puts the parts of a store where they belong.
class Image {
 public:
  Image(const Layout& layout, vault::Encoding encoding) : layout_(layout), encoding_(encoding), bytes_(kFirstPage) {}

  // Appends a page with its trailer; the result is its offset.
  std::uint64_t AddPage(View data, vault::Bid bid, std::uint8_t type) {
    return PutPage(ReservePage(), data, bid, type);
  }
  std::uint64_t ReservePage() { return Grow(vault::kPageSize, vault::kPageSize); }
  std::uint64_t PutPage(std::uint64_t at, View data, vault::Bid bid, std::uint8_t type) {
    std::uint8_t* const page = bytes_.data() + at;
    std::copy_n(data.begin(), std::min<std::size_t>(data.size(), layout_.page_data), page);
    std::uint8_t* const trailer = page + layout_.page_data;
    trailer[0] = trailer[1] = type;
    Put(trailer + 2, vault::Signature(at, bid), 2);
    Put(page + layout_.page_bid_at, bid, layout_.word);
    Put(page + layout_.page_crc_at, vault::Crc({page, layout_.page_data}), 4);
    return at;
  }

  std::uint64_t AddBlock(View plain, vault::Bid bid) {
    const std::size_t whole = layout_.block_size(plain.size());
    const std::uint64_t at = Grow(whole, vault::kBlockAlignment);
    std::uint8_t* const block = bytes_.data() + at;
    vault::Encode(bid & vault::kInternalBlock ? vault::Encoding::kNone : encoding_, bid, plain, block);
    std::uint8_t* const trailer = block + whole - layout_.block_trailer;
    Put(trailer, plain.size(), 2);
    Put(trailer + 2, vault::Signature(at, bid), 2);
    Put(trailer + layout_.block_crc_at, vault::Crc({block, plain.size()}), 4);
    Put(trailer + layout_.block_bid_at, bid, layout_.word);
    return at;
  }

  // Writes the header; roots as id and offset.
  Bytes Finish(vault::Bid node_bid, std::uint64_t node_root, vault::Bid block_bid, std::uint64_t block_root) {
    std::uint8_t* const h = bytes_.data();
    std::memcpy(h, "!BDN", 4);
    std::memcpy(h + 8, "SM", 2);
    h[10] = layout_.word == 8 ? 23 : 15;
    h[layout_.encoding_at] = static_cast<std::uint8_t>(encoding_);
    const std::uint64_t words[] = {node_bid, node_root, block_bid, block_root};
    for (unsigned i = 0; i < 4; ++i) Put(h + layout_.root_at + i * layout_.word, words[i], layout_.word);
    if (layout_.word == 8) Put(h + 524, vault::Crc(View(h + 8, 516)), 4);
    Put(h + 4, vault::Crc(View(h + 8, 471)), 4);
    bytes_.shrink_to_fit();  // reading behind the end must not find spare room
    return std::move(bytes_);
  }

  const Layout& layout() const { return layout_; }

 private:
  std::uint64_t Grow(std::size_t size, std::size_t alignment) {
    const std::size_t at = (bytes_.size() + alignment - 1) / alignment * alignment;
    bytes_.resize(at + size);
    return at;
  }

  const Layout& layout_;
  vault::Encoding encoding_;
  Bytes bytes_;
};

// Builds one tree page entry by entry.
class PageBuilder {
 public:
  PageBuilder(const Layout& layout, unsigned entry_size, unsigned level)
      : layout_(layout), entry_size_(entry_size), data_(layout.page_data) {
    data_[layout.entry_count_at + 2] = static_cast<std::uint8_t>(entry_size);
    data_[layout.entry_count_at + 3] = static_cast<std::uint8_t>(level);
  }
  bool full() const { return (count() + 1u) * entry_size_ > layout_.entry_count_at; }
  std::uint8_t count() const { return data_[layout_.entry_count_at]; }
  std::uint8_t* Add() { return data_.data() + data_[layout_.entry_count_at]++ * entry_size_; }
  View data() const { return data_; }

 private:
  const Layout& layout_;
  unsigned entry_size_;
  Bytes data_;
};

}  // namespace

BlockCase BlockCase::Parse(View file) {
  BlockCase result;
  if (file.size() < 9) return result;
  result.ansi = file[0] & 1;
  result.encoding = static_cast<vault::Encoding>((file[0] >> 1) % 3);
  result.data = vault::PlainBid(vault::Load32(file.data() + 1));
  result.subnodes = vault::PlainBid(vault::Load32(file.data() + 5));
  file = file.subspan(9);
  while (file.size() > kBlockHead && result.blocks.size() < kMaxBlocks) {
    const vault::Bid bid = vault::PlainBid(vault::Load32(file.data()));
    const std::size_t claimed = std::min<std::size_t>(vault::Load16(file.data() + 4), file.size() - kBlockHead);
    file = file.subspan(kBlockHead);
    const std::size_t kept = std::min<std::size_t>(claimed, LayoutOf(result.ansi).block_data);
    if (kept) result.blocks.emplace(bid, Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(kept)));
    file = file.subspan(claimed);
  }
  return result;
}

Bytes BlockCase::Serialize() const {
  Bytes file(9);
  file[0] = static_cast<std::uint8_t>(ansi | static_cast<unsigned>(encoding) << 1);
  Put(file.data() + 1, data, 4);
  Put(file.data() + 5, subnodes, 4);
  for (const auto& [bid, bytes] : blocks) {
    std::uint8_t head[kBlockHead];
    Put(head, bid, 4);
    Put(head + 4, bytes.size(), 2);
    file.insert(file.end(), head, head + kBlockHead);
    file.insert(file.end(), bytes.begin(), bytes.end());
  }
  return file;
}

Bytes BlockCase::MakeStore(vault::Nid nid) const {
  Image image(LayoutOf(ansi), encoding);
  const Layout& layout = image.layout();
  const unsigned w = layout.word;
  PageBuilder node(layout, layout.node_entry, 0);
  std::uint8_t* const entry = node.Add();
  Put(entry, nid, 4);
  Put(entry + w, data, w);
  Put(entry + 2 * w, subnodes, w);
  vault::Bid page_bid = 0x40000000;
  const std::uint64_t node_root = image.AddPage(node.data(), page_bid, vault::kNodeTreePage);

  // Blocks come last, and among them the node's data: whoever reads on behind it leaves the file.
  std::vector<std::uint64_t> leaves(blocks.size() / (layout.entry_count_at / layout.block_entry) + 1);
  for (std::uint64_t& leaf : leaves) leaf = image.ReservePage();
  const std::uint64_t block_root = image.ReservePage();
  std::map<vault::Bid, std::uint64_t> places;
  for (const auto& [bid, bytes] : blocks)
    if (bid != data) places[bid] = image.AddBlock(bytes, bid);
  if (const auto found = blocks.find(data); found != blocks.end()) places[data] = image.AddBlock(found->second, data);

  PageBuilder root(layout, layout.branch_entry, 1);
  auto next = blocks.begin();
  for (const std::uint64_t at : leaves) {
    if (next == blocks.end()) break;
    page_bid += 4;
    const std::uint64_t branch[] = {next->first, page_bid, at};
    std::uint8_t* const entry_of_leaf = root.Add();
    for (unsigned i = 0; i < 3; ++i) Put(entry_of_leaf + i * w, branch[i], w);
    PageBuilder leaf(layout, layout.block_entry, 0);
    for (; next != blocks.end() && !leaf.full(); ++next) {
      std::uint8_t* const block = leaf.Add();
      Put(block, next->first, w);
      Put(block + w, places[next->first], w);
      Put(block + 2 * w, next->second.size(), 2);
    }
    image.PutPage(at, leaf.data(), page_bid, vault::kBlockTreePage);
  }
  page_bid += 4;
  image.PutPage(block_root, root.data(), page_bid, vault::kBlockTreePage);
  return image.Finish(0x40000000, node_root, page_bid, block_root);
}

std::uint64_t PageCase::OffsetOf(std::size_t page) {
  return kFirstPage + page * vault::kPageSize;
}

PageCase PageCase::Parse(View file) {
  PageCase result;
  if (file.size() < 2) return result;
  result.ansi = file[0] & 1;
  const std::size_t size = LayoutOf(result.ansi).page_data;
  std::size_t nodes = std::max<std::size_t>(file[1] % kMaxPages, 1);
  file = file.subspan(2);
  for (std::size_t n = 0; n < kMaxPages && !file.empty(); ++n) {
    const View page = file.first(std::min(size, file.size()));
    (n < nodes ? result.node_pages : result.block_pages).emplace_back(page.begin(), page.end());
    file = file.subspan(page.size());
  }
  return result;
}

Bytes PageCase::Serialize() const {
  Bytes file = {static_cast<std::uint8_t>(ansi), static_cast<std::uint8_t>(node_pages.size())};
  for (const auto* pages : {&node_pages, &block_pages})
    for (const Bytes& page : *pages) file.insert(file.end(), page.begin(), page.end());
  return file;
}

Bytes PageCase::MakeStore() const {
  Image image(LayoutOf(ansi), vault::Encoding::kNone);
  std::size_t n = 0;
  for (const Bytes& page : node_pages) image.AddPage(page, BidOf(n++), vault::kNodeTreePage);
  const std::size_t block_root = n;
  if (block_pages.empty()) image.AddPage({}, BidOf(n), vault::kBlockTreePage);
  for (const Bytes& page : block_pages) image.AddPage(page, BidOf(n++), vault::kBlockTreePage);
  return image.Finish(BidOf(0), OffsetOf(0), BidOf(block_root), OffsetOf(block_root));
}

}  // namespace fuzz
