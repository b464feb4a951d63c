#include "tests/vault/store_surgeon.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace test {

using vault::Load16;
using vault::Load32;

StoreSurgeon::StoreSurgeon(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  bytes_.assign(std::istreambuf_iterator<char>(file), {});
  if (bytes_.size() < 1024) throw std::runtime_error("no store: " + path.string());
  CollectParts();
}

StoreSurgeon::StoreSurgeon(std::vector<std::uint8_t> bytes) : bytes_(std::move(bytes)) {
  CollectParts();
}

void StoreSurgeon::CollectParts() {
  layout_ = &vault::kUnicodeLayout;
  if (bytes_.size() < layout_->header_size) return;
  if (Load16(bytes_.data() + 10) != 23) layout_ = &vault::kAnsiLayout;
  CollectPages(node_root(), vault::kNodeTreePage);
  CollectPages(block_root(), vault::kBlockTreePage);
}

std::uint64_t StoreSurgeon::node_root() const {
  return layout_->Word(bytes_.data() + layout_->root_at + layout_->word);
}
std::uint64_t StoreSurgeon::block_root() const {
  return layout_->Word(bytes_.data() + layout_->root_at + 3 * layout_->word);
}

void StoreSurgeon::CollectPages(std::uint64_t offset, std::uint8_t type) {
  const unsigned w = layout_->word;
  if (!Holds(offset, vault::kPageSize) || !seen_.insert(offset).second) return;
  const std::uint8_t* const page = bytes_.data() + offset;
  parts_.push_back({offset, layout_->page_data, layout_->Word(page + layout_->page_bid_at), true});
  const std::uint8_t* const counts = page + layout_->entry_count_at;
  const unsigned entry_size = counts[2];
  if (entry_size < (counts[3] ? layout_->branch_entry : layout_->block_entry)) return;
  for (unsigned i = 0; i < counts[0] && (i + 1) * entry_size <= layout_->entry_count_at; ++i) {
    const std::uint8_t* const entry = page + i * entry_size;
    if (counts[3]) {
      CollectPages(layout_->Word(entry + 2 * w), type);
    } else if (type == vault::kBlockTreePage) {
      const Part part{layout_->Word(entry + w), Load16(entry + 2 * w), vault::PlainBid(layout_->Word(entry)), false};
      if (part.size > 0 && Holds(part.offset, WholeSize(part))) parts_.push_back(part);
    }
  }
}

std::size_t StoreSurgeon::WholeSize(const Part& part) const {
  return part.is_page ? vault::kPageSize : layout_->block_size(part.size);
}

std::vector<std::uint8_t> StoreSurgeon::Plain(const Part& part) const {
  const std::span data(bytes_at(part.offset), part.size);
  std::vector<std::uint8_t> plain(data.begin(), data.end());
  if (!part.is_page && !(part.bid & vault::kInternalBlock)) vault::Decode(encoding(), part.bid, data, plain.data());
  return plain;
}

void StoreSurgeon::Change(const Part& part, const std::function<void(std::span<std::uint8_t>)>& change) {
  std::vector<std::uint8_t> plain = Plain(part);
  change(plain);
  const bool stored_plain = part.is_page || part.bid & vault::kInternalBlock;
  vault::Encode(stored_plain ? vault::Encoding::kNone : encoding(), part.bid, plain, bytes_.data() + part.offset);
  Seal(part);
}

void StoreSurgeon::Seal(const Part& part) {
  std::uint8_t* const at = bytes_.data() + part.offset;
  const std::uint32_t crc = vault::Crc({at, part.size});
  const std::size_t crc_at =
      part.is_page ? layout_->page_crc_at : WholeSize(part) - layout_->block_trailer + layout_->block_crc_at;
  std::memcpy(at + crc_at, &crc, sizeof crc);
}

void StoreSurgeon::SealHeader() {
  const std::span<const std::uint8_t> file(bytes_);
  const std::uint32_t partial = vault::Crc(file.subspan(8, 471)), full = vault::Crc(file.subspan(8, 516));
  std::memcpy(bytes_.data() + 4, &partial, sizeof partial);
  if (layout_->word == 8) std::memcpy(bytes_.data() + 524, &full, sizeof full);
}

void StoreSurgeon::Save(const std::filesystem::path& path) const {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(reinterpret_cast<const char*>(bytes_.data()), static_cast<std::streamsize>(bytes_.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace test
