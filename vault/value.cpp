#include "vault/value.h"

#include <algorithm>
#include <cstring>

#include "vault/data_tree.h"
#include "vault/error.h"

namespace vault {

std::int64_t PropertyValue::AsInt64() const {
  switch (bytes_.size()) {
    case 1:
      return bytes_[0];
    case 2:
      return Load<std::int16_t>(bytes_.data());
    case 4:
      return Load<std::int32_t>(bytes_.data());
    case 8:
      return Load<std::int64_t>(bytes_.data());
    default:
      return 0;
  }
}

double PropertyValue::AsDouble() const {
  if (type() == PropType::kFloat && bytes_.size() == 4) return Load<float>(bytes_.data());
  return bytes_.size() == 8 ? Load<double>(bytes_.data()) : 0;
}

std::u16string PropertyValue::AsText() const {
  if (type() == PropType::kString8) return Utf16FromBytes(bytes_);
  if (type() != PropType::kUnicode) return {};
  std::u16string text(bytes_.size() / 2, u'\0');
  if (!text.empty()) std::memcpy(text.data(), bytes_.data(), text.size() * 2);
  return text;
}

ValueReader::ValueReader(std::shared_ptr<const void> owner, std::span<const std::uint8_t> bytes)
    : owner_(std::move(owner)), bytes_(bytes), size_(bytes.size()) {}

ValueReader::ValueReader(std::shared_ptr<const Database> db, Bid root, Nid nid, PropType type)
    : tree_(std::make_shared<const DataTree>(std::move(db), root, nid)), size_(tree_->size()) {
  const unsigned width = type == PropType::kUnicode ? 2 : type == PropType::kString8 ? 1 : 0;
  if (width == 0 || size_ < width) return;
  size_ -= size_ % width;
  std::uint8_t end[2] = {1, 0};
  if (ReadAt(size_ - width, std::span(end, width)) == width && end[0] == 0 && end[1] == 0) size_ -= width;
}

std::span<const std::uint8_t> ValueReader::LoadBlock(std::uint64_t index) {
  if (!block_.empty() && block_index_ == index) return block_;
  const Database& db = tree_->db();
  const StoredBlock stored = tree_->Stored(static_cast<std::uint32_t>(index));
  const std::uint64_t full = db.layout().block_data;
  const bool last = index + 1 == tree_->block_count();
  if (stored.bytes.size() != (last ? tree_->size() - index * full : full)) {
    throw Error(ErrorCode::kBadBlock, "a block of a long value is not of the size that its list says", stored.offset,
                tree_->nid());
  }
  block_ = stored.bytes;
  if (db.encoding() != Encoding::kNone) {
    block_ = {};
    buffer_.resize(full);
    Decode(db.encoding(), stored.bid, stored.bytes, buffer_.data());
    block_ = std::span(buffer_).first(stored.bytes.size());
  }
  block_index_ = index;
  return block_;
}

std::span<const std::uint8_t> ValueReader::Piece(std::uint64_t offset) {
  if (offset >= size_) return {};
  if (!tree_) return bytes_.subspan(offset);
  const std::uint64_t full = tree_->db().layout().block_data;
  if (offset / full >= tree_->block_count()) {
    throw Error(ErrorCode::kBadBlock, "a long value has fewer blocks than its size needs", std::nullopt, tree_->nid());
  }
  const auto piece = LoadBlock(offset / full).subspan(offset % full);
  return piece.first(std::min<std::uint64_t>(piece.size(), size_ - offset));
}

std::size_t ValueReader::ReadAt(std::uint64_t offset, std::span<std::uint8_t> to) {
  std::size_t done = 0;
  while (done < to.size()) {
    const auto piece = Piece(offset + done);
    if (piece.empty()) break;
    const std::size_t n = std::min(piece.size(), to.size() - done);
    std::memcpy(to.data() + done, piece.data(), n);
    done += n;
  }
  return done;
}

std::vector<std::uint8_t> ValueReader::ReadAll(std::uint64_t limit) {
  std::vector<std::uint8_t> all(std::min(size_, limit));
  all.resize(ReadAt(0, all));
  return all;
}

MultiValue::MultiValue(PropType type, std::span<const std::uint8_t> bytes)
    : element_(ElementType(type)), bytes_(bytes) {
  if (const unsigned size = FixedSize(element_)) {
    count_ = bytes.size() / size;
    return;
  }
  if (bytes.empty()) return;
  const std::size_t count = bytes.size() >= 4 ? Load32(bytes.data()) : ~std::size_t{0};
  if (count > (bytes.size() - 4) / 4) {
    throw Error(ErrorCode::kBadProperty, "a multi-value claims more elements than it has room for");
  }
  count_ = count;
}

std::span<const std::uint8_t> MultiValue::operator[](std::size_t i) const {
  if (const unsigned size = FixedSize(element_)) return bytes_.subspan(i * size, size);
  const std::size_t begin = Load32(bytes_.data() + 4 + 4 * i);
  const std::size_t end = i + 1 < count_ ? Load32(bytes_.data() + 8 + 4 * i) : bytes_.size();
  if (begin > end || end > bytes_.size()) {
    throw Error(ErrorCode::kBadProperty, "an element of a multi-value has impossible bounds");
  }
  auto element = bytes_.subspan(begin, end - begin);
  const std::size_t width = element_ == PropType::kUnicode ? 2 : element_ == PropType::kString8 ? 1 : 0;
  if (width && element.size() >= width && element.back() == 0 && element[element.size() - width] == 0) {
    element = element.first(element.size() - width);
  }
  return element;
}

}  // namespace vault
