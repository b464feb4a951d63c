// The program's operator new, apart from what uses it: the compiler must not see the one inside the other.
#include "tests/module/fault_shortage.h"

#include <cstdlib>
#include <new>

namespace {

void* Allocate(std::size_t size) noexcept {
  return faults::of_new.Denies() ? nullptr : std::malloc(size ? size : 1);
}

}  // namespace

void* operator new(std::size_t size) {
  void* block = Allocate(size);
  if (!block) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
