// Takes the place of one method of a COM class for as long as it lives: of all objects that share the vtable.
#pragma once

#include <windows.h>

class SlotHook {
 public:
  SlotHook(IUnknown* object, size_t slot, void* replacement) : place_(*reinterpret_cast<void***>(object) + slot) {
    original_ = Put(replacement);
  }
  ~SlotHook() { Put(original_); }
  SlotHook(const SlotHook&) = delete;
  SlotHook& operator=(const SlotHook&) = delete;

  template <class Method>
  Method original() const {
    return reinterpret_cast<Method>(original_);
  }

 private:
  void* Put(void* method) {
    DWORD protection = 0;
    VirtualProtect(place_, sizeof(*place_), PAGE_READWRITE, &protection);
    void* before = *place_;
    *place_ = method;
    VirtualProtect(place_, sizeof(*place_), protection, &protection);
    return before;
  }

  void** place_;
  void* original_ = nullptr;
};
