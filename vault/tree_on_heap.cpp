#include "vault/tree_on_heap.h"

#include "vault/heap.h"

namespace vault {
namespace {

constexpr std::uint8_t kTreeSignature = 0xB5;
constexpr unsigned kTreeHeader = 8;

std::uint64_t Key(const std::uint8_t* from, unsigned size) {
  std::uint64_t key = 0;
  for (unsigned i = 0; i < size; ++i) key |= std::uint64_t{from[i]} << (8 * i);
  return key;
}

Error BadTree(const Heap& heap, const char* what) {
  return Error(ErrorCode::kBadHeap, what, std::nullopt, heap.nid());
}

}  // namespace

TreeOnHeap::TreeOnHeap(const Heap& heap, std::uint32_t hid, unsigned key_size, unsigned record_size) {
  const auto header = heap.Item(hid);
  if (header.size() < kTreeHeader || header[0] != kTreeSignature) throw BadTree(heap, "a heap holds no sorted tree");
  if (header[1] != key_size || header[2] != record_size) {
    throw BadTree(heap, "a sorted tree has keys or records of another size than its place needs");
  }
  if (header[3] > kMaxLevels) throw BadTree(heap, "a sorted tree claims too many levels");
  key_size_ = header[1];
  record_size_ = header[2];
  levels_ = header[3];
  root_ = Load32(header.data() + 4);
}

std::optional<std::span<const std::uint8_t>> TreeOnHeap::Find(const Heap& heap, std::uint64_t key) const {
  std::uint32_t hid = root_;
  for (unsigned level = levels_; hid != 0; --level) {
    const auto item = heap.Item(hid);
    const std::size_t stride = key_size_ + (level ? 4u : record_size_);
    std::size_t low = 0, high = item.size() / stride;
    while (low < high) {
      const std::size_t middle = (low + high) / 2;
      if (Key(item.data() + middle * stride, key_size_) <= key) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    if (low == 0) return std::nullopt;
    const std::uint8_t* const at = item.data() + (low - 1) * stride;
    if (level == 0) {
      if (Key(at, key_size_) != key) return std::nullopt;
      return std::span(at + key_size_, record_size_);
    }
    hid = Load32(at + key_size_);
  }
  return std::nullopt;
}

TreeOnHeap::Cursor TreeOnHeap::Walk() const {
  Cursor cursor;
  cursor.key_size_ = key_size_;
  cursor.record_size_ = record_size_;
  cursor.root_ = root_;
  cursor.top_ = levels_;
  return cursor;
}

bool TreeOnHeap::Cursor::Next(const Heap& heap) {
  error_.reset();
  try {
    if (!started_) {
      started_ = true;
      if (root_ == 0) return false;
      levels_[top_].item = heap.Item(root_);
      at_ = top_;
    }
    while (at_ >= 0) {
      Level& level = levels_[at_];
      const std::size_t stride = key_size_ + (at_ ? 4u : record_size_);
      if (level.next + stride > level.item.size()) {
        at_ = at_ == top_ ? -1 : at_ + 1;
        continue;
      }
      const std::uint8_t* const at = level.item.data() + level.next;
      level.next += stride;
      const std::uint64_t key = Key(at, key_size_);
      if (level.any && key <= level.last_key) {
        level.next = level.item.size();  // the rest of this item is out of order, too
        throw BadTree(heap, "the keys of a sorted tree do not rise");
      }
      level.any = true;
      level.last_key = key;
      if (at_ == 0) {
        key_ = key;
        record_ = {at + key_size_, record_size_};
        return true;
      }
      const auto child = heap.Item(Load32(at + key_size_));
      --at_;
      levels_[at_].item = child;
      levels_[at_].next = 0;
    }
  } catch (const Error& error) {
    error_ = error;
    return true;
  }
  return false;
}

}  // namespace vault
