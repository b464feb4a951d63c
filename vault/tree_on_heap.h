// A sorted tree of small records in a heap ([MS-PST] 2.3.2, "BTree-on-Heap").
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "vault/error.h"

namespace vault {

class Heap;

// A view: keys of 1 to 8 bytes, records of a fixed size. Does not own the heap: whoever has one keeps the heap alive.
class TreeOnHeap {
 public:
  static constexpr unsigned kMaxLevels = 8;

  TreeOnHeap() = default;  // empty
  // The tree whose header is heap item `hid`; key and record sizes must be the ones given. Throws Error.
  TreeOnHeap(const Heap& heap, std::uint32_t hid, unsigned key_size, unsigned record_size);

  // The record (without its key) of `key`; nullopt when there is none. Throws Error.
  std::optional<std::span<const std::uint8_t>> Find(const Heap& heap, std::uint64_t key) const;

  // Walks the records in ascending order of their keys. Damaged parts are reported and passed over; a key that does
  // not rise is damage, which also ends any circle.
  class Cursor {
   public:
    bool Next(const Heap& heap);
    std::uint64_t key() const { return key_; }
    std::span<const std::uint8_t> record() const { return record_; }
    const Error* error() const { return error_ ? &*error_ : nullptr; }

   private:
    friend class TreeOnHeap;
    struct Level {
      std::span<const std::uint8_t> item;
      std::size_t next = 0;
      std::uint64_t last_key = 0;
      bool any = false;
    };
    Level levels_[kMaxLevels + 1];
    int at_ = -1, top_ = -1;
    unsigned key_size_ = 0, record_size_ = 0;
    std::uint32_t root_ = 0;
    bool started_ = false;
    std::uint64_t key_ = 0;
    std::span<const std::uint8_t> record_;
    std::optional<Error> error_;
  };
  Cursor Walk() const;

 private:
  std::uint8_t key_size_ = 0, record_size_ = 0, levels_ = 0;
  std::uint32_t root_ = 0;  // heap item; 0: empty
};

}  // namespace vault
