#include "provider/memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "provider/instrument.h"

namespace provider {
namespace {

constexpr std::uint32_t kRootMark = 0x4D424652, kPartMark = 0x4D425054, kFreedMark = 0x44454144;

// In front of each block. Parts hang on their root in a list that only grows until the root is freed.
struct alignas(16) Header {
  std::uint32_t mark;
  bool row_set = false;
  Header* root;                // the block that frees this one
  std::atomic<Header*> parts;  // of a root: the newest part
  Header* next;                // of a part: the part before it
};

Header* HeaderOf(void* block) {
  return static_cast<Header*>(block) - 1;
}

Header* NewBlock(ULONG size, std::uint32_t mark) {
  if (DenyAllocation()) return nullptr;
  void* memory = std::malloc(sizeof(Header) + size);
  if (!memory) return nullptr;
  auto* header = new (memory) Header{mark, false, nullptr, nullptr, nullptr};
  header->root = header;
  return header;
}

void Complain(const char* what) {
  OutputDebugStringA(what);
}

}  // namespace

SCODE AllocateBuffer(ULONG size, void** buffer) {
  if (!buffer) return MAPI_E_INVALID_PARAMETER;
  *buffer = nullptr;
  Header* header = NewBlock(size, kRootMark);
  if (!header) return MAPI_E_NOT_ENOUGH_MEMORY;
  CountLive(Kind::kBuffer, 1);
  *buffer = header + 1;
  return S_OK;
}

SCODE AllocateMore(ULONG size, void* parent, void** buffer) {
  if (!buffer || !parent) return MAPI_E_INVALID_PARAMETER;
  *buffer = nullptr;
  Header* given = HeaderOf(parent);
  if (given->mark != kRootMark && given->mark != kPartMark) {
    Complain("MAPIAllocateMore: the parent is not a MAPI buffer\n");
    return MAPI_E_INVALID_PARAMETER;
  }
  Header* part = NewBlock(size, kPartMark);
  if (!part) return MAPI_E_NOT_ENOUGH_MEMORY;
  Header* root = given->root;
  part->root = root;
  part->next = root->parts.load(std::memory_order_relaxed);
  while (!root->parts.compare_exchange_weak(part->next, part, std::memory_order_release, std::memory_order_relaxed)) {
  }
  *buffer = part + 1;
  return S_OK;
}

ULONG FreeBuffer(void* buffer) {
  if (!buffer) return S_OK;
  Header* root = HeaderOf(buffer);
  if (root->mark != kRootMark) {
    Complain("MAPIFreeBuffer: not a MAPI buffer, or freed before\n");
    return static_cast<ULONG>(MAPI_E_INVALID_PARAMETER);
  }
  for (Header* part = root->parts.load(std::memory_order_acquire); part;) {
    Header* next = part->next;
    part->mark = kFreedMark;
    std::free(part);
    part = next;
  }
  if (root->row_set) CountLive(Kind::kRowSet, -1);
  root->mark = kFreedMark;
  std::free(root);
  CountLive(Kind::kBuffer, -1);
  return S_OK;
}

void MarkRowSet(void* buffer) {
  HeaderOf(buffer)->row_set = true;
  CountLive(Kind::kRowSet, 1);
}

void* Arena::Copy(const void* bytes, std::size_t size) {
  void* copy = Allocate(size);
  if (size) std::memcpy(copy, bytes, size);
  return copy;
}

void* MapiArena::Allocate(std::size_t size) {
  if (size > MAXLONG) throw std::bad_alloc();
  void* block = nullptr;
  const auto bytes = static_cast<ULONG>(size);
  const SCODE result = root_ ? AllocateMore(bytes, root_, &block) : AllocateBuffer(bytes, &block);
  if (result != S_OK) throw std::bad_alloc();
  if (!root_) root_ = block;
  return block;
}

void* MapiArena::Release() {
  return std::exchange(root_, nullptr);
}

ScratchArena::~ScratchArena() {
  while (blocks_) std::free(std::exchange(blocks_, blocks_->next));
}

void* ScratchArena::Allocate(std::size_t size) {
  constexpr std::size_t kAlignment = 16, kBlock = 16384;
  size = (size + kAlignment - 1) & ~(kAlignment - 1);
  if (!blocks_ || blocks_->size - blocks_->used < size) {
    const std::size_t capacity = size > kBlock ? size : kBlock;
    auto* block = static_cast<Block*>(std::malloc(sizeof(Block) + kAlignment + capacity));
    if (!block) throw std::bad_alloc();
    *block = {blocks_, capacity, 0};
    blocks_ = block;
  }
  static_assert(sizeof(Block) % 8 == 0);
  auto* base = reinterpret_cast<std::uint8_t*>((reinterpret_cast<std::uintptr_t>(blocks_ + 1) + kAlignment - 1) &
                                               ~std::uintptr_t{kAlignment - 1});
  void* result = base + blocks_->used;
  blocks_->used += size;
  return result;
}

void ScratchArena::Reset() {
  while (blocks_ && blocks_->next) std::free(std::exchange(blocks_, blocks_->next));
  if (blocks_) blocks_->used = 0;
}

}  // namespace provider
