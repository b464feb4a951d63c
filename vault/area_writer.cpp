#include "vault/area_writer.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "vault/append.h"
#include "vault/encoding.h"

namespace vault {
namespace {

constexpr const Layout& kLayout = kUnicodeLayout;
constexpr std::uint64_t kFirstArea = 0x4400, kAreaSize = 0x3E000, kDensityListAt = 0x4200;
constexpr std::uint8_t kFreeMapPage = 0x82, kPageMapPage = 0x83, kAllocationMapPage = 0x84, kFreePageMapPage = 0x85,
                       kDensityListPage = 0x86;
constexpr std::size_t kMapSize = 496;
// Pages come one for some twenty blocks, each with a gap before it: room for several is taken at a time.
constexpr std::uint64_t kPagesAtOnce = 4;

// The maps behind an area's allocation map. They are out of use, but their places are kept and they are all ones.
struct ExtraMap {
  std::uint8_t type;
  std::uint64_t first, every;  // areas that have it
  bool In(std::uint64_t area) const { return area >= first && (area - first) % every == 0; }
};
constexpr ExtraMap kExtraMaps[] = {{kPageMapPage, 0, 8}, {kFreeMapPage, 128, 496}, {kFreePageMapPage, 8192, 31744}};

}  // namespace

void SealPage(std::uint8_t* page, std::uint8_t type, std::uint64_t offset, Bid bid) {
  const bool map = type >= kFreeMapPage && type <= kFreePageMapPage;
  std::uint8_t* const trailer = page + kLayout.page_data;
  trailer[0] = trailer[1] = type;
  PutValue(trailer + 2, map ? std::uint16_t{0} : Signature(offset, bid));
  PutValue(trailer + 4, Crc({page, kLayout.page_data}));
  PutValue(trailer + 8, map ? offset : bid);
}

AreaWriter::AreaWriter(const std::filesystem::path& path) : file_(path), area_(kAreaSize) {
  // Until the header is written, the file begins with zeros: no reader takes it for a store.
  file_.Append(std::vector<std::uint8_t>(kFirstArea));
  OpenArea();
}

void AreaWriter::OpenArea() {
  const std::uint64_t number = areas_++;
  std::fill(area_.begin(), area_.end(), std::uint8_t{0});
  used_ = next_page_ = pages_end_ = 0;
  Take(0, kPageSize);  // the map, which is written when the area is closed
  for (const ExtraMap& map : kExtraMaps) {
    if (!map.In(number)) continue;
    const Room room = Take(used_, kPageSize);
    std::fill_n(room.bytes, kMapSize, std::uint8_t{0xFF});
    SealPage(room.bytes, map.type, room.offset, 0);
  }
}

void AreaWriter::CloseArea() {
  for (std::size_t i = 0; i < kMapSize; ++i) free_units_ += 8 - std::popcount(area_[i]);
  SealPage(area_.data(), kAllocationMapPage, kFirstArea + (areas_ - 1) * kAreaSize, 0);
  file_.Append(area_);
}

AreaWriter::Room AreaWriter::Take(std::uint64_t begin, std::uint64_t size) {
  used_ = std::max(used_, begin + size);
  for (std::uint64_t unit = begin / kBlockAlignment; unit < (begin + size) / kBlockAlignment; ++unit) {
    area_[unit / 8] |= static_cast<std::uint8_t>(0x80 >> unit % 8);
  }
  return {kFirstArea + (areas_ - 1) * kAreaSize + begin, area_.data() + begin};
}

AreaWriter::Room AreaWriter::AddBlock(std::size_t size) {
  if (used_ + size > kAreaSize) {
    CloseArea();
    OpenArea();
  }
  return Take(used_, size);
}

AreaWriter::Room AreaWriter::AddPage() {
  if (next_page_ == pages_end_) {
    // Areas begin on page boundaries, so that alignment within one is alignment within the file.
    std::uint64_t begin = (used_ + kPageSize - 1) / kPageSize * kPageSize;
    if (begin + kPageSize > kAreaSize) {
      CloseArea();
      OpenArea();
      begin = used_;
    }
    next_page_ = begin;
    used_ = pages_end_ = std::min(begin + kPagesAtOnce * kPageSize, kAreaSize);
  }
  const Room room = Take(next_page_, kPageSize);
  next_page_ += kPageSize;
  return room;
}

void AreaWriter::Finish(const Header& h) {
  CloseArea();
  std::array<std::uint8_t, kPageSize> page{};
  SealPage(page.data(), kDensityListPage, kDensityListAt, h.next_page);
  file_.WriteAt(kDensityListAt, page);

  const std::uint64_t end = kFirstArea + areas_ * kAreaSize;
  std::array<std::uint8_t, kLayout.header_size> header{};
  std::uint8_t* const at = header.data();
  std::memcpy(at, "!BDN", 4);
  std::memcpy(at + 8, "SM", 2);
  PutValue(at + 10, std::uint16_t{23});
  PutValue(at + 12, std::uint16_t{19});
  at[14] = at[15] = 1;
  PutValue(at + 32, h.next_page + 4);
  PutValue(at + 40, std::uint32_t{1});
  for (std::size_t i = 0; i < h.next_index.size(); ++i) PutValue(at + 44 + 4 * i, h.next_index[i]);
  PutValue(at + 184, end);
  PutValue(at + 192, end - kAreaSize);
  PutValue(at + 200, free_units_ * kBlockAlignment);
  PutValue(at + 216, h.node_tree.bid);
  PutValue(at + 224, h.node_tree.offset);
  PutValue(at + 232, h.block_tree.bid);
  PutValue(at + 240, h.block_tree.offset);
  at[248] = 2;  // the allocation maps are valid
  std::fill(at + 256, at + 512, std::uint8_t{0xFF});
  at[512] = 0x80;
  at[kLayout.encoding_at] = h.encoding;
  PutValue(at + 516, h.next_block);
  const std::span<const std::uint8_t> bytes(header);
  PutValue(at + 4, Crc(bytes.subspan(8, 471)));
  PutValue(at + 524, Crc(bytes.subspan(8, 516)));
  file_.WriteAt(0, header);
  file_.Publish();
}

}  // namespace vault
