// MAPI buffers: a block, the blocks linked to it, and one call that frees them all.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "provider/mapi.h"

namespace provider {

// MAPIAllocateBuffer, MAPIAllocateMore, MAPIFreeBuffer. Any thread; two threads may link blocks to one parent. Sizes in
// bytes; blocks are aligned for any type. `parent` is a block of AllocateBuffer. Freeing null, and what is no such
// block, frees nothing and answers an error.
SCODE AllocateBuffer(ULONG size, void** buffer);
SCODE AllocateMore(ULONG size, void* parent, void** buffer);
ULONG FreeBuffer(void* buffer);

// Notes that a block is a row set, to count it as one.
void MarkRowSet(void* buffer);

// Where the parts of a property value are put.
class Arena {
 public:
  virtual ~Arena() = default;
  // Throws std::bad_alloc.
  virtual void* Allocate(std::size_t size) = 0;

  template <class T>
  T* AllocateArray(std::size_t count) {
    if (count > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(Allocate(count * sizeof(T)));
  }
  void* Copy(const void* bytes, std::size_t size);
};

// A buffer that the caller of a MAPI method will free, and everything linked to it. Freed here unless released.
class MapiArena : public Arena {
 public:
  MapiArena() = default;
  ~MapiArena() override { FreeBuffer(root_); }
  MapiArena(const MapiArena&) = delete;
  MapiArena& operator=(const MapiArena&) = delete;

  // The first allocation is the block that the others are linked to.
  void* Allocate(std::size_t size) override;
  void* Release();

 private:
  void* root_ = nullptr;
};

// Memory for values that are compared and thrown away. Reset() keeps what is allocated for the next use.
class ScratchArena : public Arena {
 public:
  ScratchArena() = default;
  ~ScratchArena() override;
  ScratchArena(const ScratchArena&) = delete;
  ScratchArena& operator=(const ScratchArena&) = delete;
  void* Allocate(std::size_t size) override;
  void Reset();

 private:
  struct Block {
    Block* next;
    std::size_t size, used;
  };
  Block* blocks_ = nullptr;
};

}  // namespace provider
