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
  layout_ = Load16(bytes_.data() + 10) == 23 ? &vault::kUnicodeLayout : &vault::kAnsiLayout;
  CollectPages(node_root(), vault::kNodeTreePage);
  CollectPages(layout_->Word(bytes_.data() + layout_->root_at + 3 * layout_->word), vault::kBlockTreePage);
}

std::uint64_t StoreSurgeon::node_root() const {
  return layout_->Word(bytes_.data() + layout_->root_at + layout_->word);
}

void StoreSurgeon::CollectPages(std::uint64_t offset, std::uint8_t type) {
  const unsigned w = layout_->word;
  const std::uint8_t* const page = bytes_.data() + offset;
  parts_.push_back({offset, layout_->page_data, layout_->Word(page + layout_->page_bid_at), true});
  const std::uint8_t* const counts = page + layout_->entry_count_at;
  for (unsigned i = 0; i < counts[0]; ++i) {
    const std::uint8_t* const entry = page + i * counts[2];
    if (counts[3]) {
      CollectPages(layout_->Word(entry + 2 * w), type);
    } else if (type == vault::kBlockTreePage) {
      parts_.push_back({layout_->Word(entry + w), Load16(entry + 2 * w), vault::PlainBid(layout_->Word(entry)), false});
    }
  }
}

void StoreSurgeon::Change(const Part& part, const std::function<void(std::span<std::uint8_t>)>& change) {
  std::uint8_t* const at = bytes_.data() + part.offset;
  const std::span<std::uint8_t> data(at, part.size);
  if (part.is_page) {
    change(data);
    const std::uint32_t crc = vault::Crc(data);
    std::memcpy(at + layout_->page_crc_at, &crc, sizeof crc);
    return;
  }
  const auto encoding = part.bid & vault::kInternalBlock ? vault::Encoding::kNone
                                                         : static_cast<vault::Encoding>(bytes_[layout_->encoding_at]);
  std::vector<std::uint8_t> plain(part.size);
  vault::Decode(encoding, part.bid, data, plain.data());
  change(plain);
  vault::Encode(encoding, part.bid, plain, data.data());
  const std::uint32_t crc = vault::Crc(data);
  std::memcpy(at + layout_->block_size(part.size) - layout_->block_trailer + layout_->block_crc_at, &crc, sizeof crc);
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
