// Replaces functions that the test program imports from system DLLs, and with them those that the module's code linked
// into it calls. Calls that DLLs make among themselves are not seen.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace import_hook {

// The program's import slot of a function, wherever it is imported from.
inline void** FindSlot(const char* function) {
  auto* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  const auto* library = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
  for (; library->Name; ++library) {
    const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + library->OriginalFirstThunk);
    auto* slot = reinterpret_cast<void**>(base + library->FirstThunk);
    for (; name->u1.AddressOfData; ++name, ++slot) {
      if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) continue;
      const auto* import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
      if (!strcmp(reinterpret_cast<const char*>(import->Name), function)) return slot;
    }
  }
  return nullptr;
}

template <size_t Size>
struct Name {
  char text[Size];
  consteval Name(const char (&name)[Size]) { std::copy_n(name, Size, text); }  // NOLINT(google-explicit-constructor)
};

// While it lives, calls of the function go to `replacement`, which gets the real one as its first argument. One at a
// time for each function.
template <Name kFunction, class Function>
class Hook;
template <Name kFunction, class Result, class... Arguments>
class Hook<kFunction, Result(Arguments...)> {
 public:
  using Real = Result(WINAPI*)(Arguments...);
  using Replacement = std::function<Result(Real, Arguments...)>;

  explicit Hook(Replacement replacement) : slot_(FindSlot(kFunction.text)) {
    if (!slot_) throw std::runtime_error(std::string(kFunction.text) + " is not imported");
    memcpy(&real_, slot_, sizeof(real_));
    replacement_ = std::move(replacement);
    Put(reinterpret_cast<void*>(&Call));
  }
  ~Hook() { Put(reinterpret_cast<void*>(real_)); }
  Hook(const Hook&) = delete;
  Hook& operator=(const Hook&) = delete;

 private:
  static Result WINAPI Call(Arguments... arguments) { return replacement_(real_, arguments...); }
  void Put(void* target) {
    DWORD old;
    VirtualProtect(slot_, sizeof(void*), PAGE_READWRITE, &old);
    *slot_ = target;
    VirtualProtect(slot_, sizeof(void*), old, &old);
  }

  void** slot_;
  static inline Real real_ = nullptr;
  static inline Replacement replacement_;
};

}  // namespace import_hook

#define ZK_IMPORT_HOOK(function) import_hook::Hook<#function, decltype(function)>
