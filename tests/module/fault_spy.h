// COM's allocator as the module's code uses it.
#pragma once

#include <windows.h>

#include <objbase.h>

#include <iterator>
#include <utility>

#include "tests/module/fault_shortage.h"

namespace faults {

// Sees every CoTaskMemAlloc of the process, and may deny it.
class Spy final : public IMallocSpy {
 public:
  Spy() { CoRegisterMallocSpy(this); }
  ~Spy() { CoRevokeMallocSpy(); }
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = iid == IID_IMallocSpy || iid == IID_IUnknown ? this : nullptr;
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override {
    denied_ = IsOurs() && of_com.Denies();
    return denied_ ? 0 : size;
  }
  STDMETHODIMP_(void*) PostAlloc(void* block) override {
    // A request of no bytes may get a block all the same.
    if (denied_ && block) HeapFree(GetProcessHeap(), 0, block);
    return std::exchange(denied_, false) ? nullptr : (live_ += block != nullptr, block);
  }
  STDMETHODIMP_(void*) PreFree(void* block, BOOL) override {
    live_ -= block != nullptr;
    return block;
  }
  STDMETHODIMP_(void) PostFree(BOOL) override {}
  STDMETHODIMP_(SIZE_T) PreRealloc(void* block, SIZE_T size, void** real, BOOL) override {
    *real = block;
    return size;
  }
  STDMETHODIMP_(void*) PostRealloc(void* block, BOOL) override { return block; }
  STDMETHODIMP_(void*) PreGetSize(void* block, BOOL) override { return block; }
  STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T size, BOOL) override { return size; }
  STDMETHODIMP_(void*) PreDidAlloc(void* block, BOOL) override { return block; }
  STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int result) override { return result; }
  STDMETHODIMP_(void) PreHeapMinimize() override {}
  STDMETHODIMP_(void) PostHeapMinimize() override {}

  long live() const { return live_; }

 private:
  // Whether this program asks, rather than a library of the system that it called: those do not all expect to be
  // denied.
  static bool IsOurs() {
    void* frames[8] = {};
    const USHORT count = RtlCaptureStackBackTrace(0, static_cast<ULONG>(std::size(frames)), frames, nullptr);
    const HMODULE self = GetModuleHandleW(nullptr), com = GetModuleHandleW(L"combase.dll"),
                  ole = GetModuleHandleW(L"ole32.dll");
    USHORT i = 0;
    const auto module_at = [&](USHORT frame) {
      HMODULE module = nullptr;
      GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         static_cast<LPCWSTR>(frames[frame]), &module);
      return module;
    };
    while (i < count && module_at(i) == self) ++i;  // this spy
    while (i < count && (module_at(i) == com || module_at(i) == ole)) ++i;
    return i && i < count && module_at(i) == self;
  }

  bool denied_ = false;
  long live_ = 0;
};

}  // namespace faults
