// Counting and copying of property arrays: ScCountProps, ScCopyProps, ScDupPropset.
#include <cstring>

#include "provider/memory.h"
#include "provider/object.h"

namespace provider {
namespace {

// Copies an array and all it points to; the destination decides where things go.
class Copier {
 public:
  explicit Copier(Arena& arena) : arena_(arena) {}

  SPropValue* Run(const SPropValue* values, int count) {
    auto* copy = arena_.AllocateArray<SPropValue>(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
      copy[i] = values[i];
      Deepen(copy[i]);
    }
    return copy;
  }

 private:
  template <class T>
  void Array(ULONG count, T*& items) {
    items = static_cast<T*>(arena_.Copy(items, count * sizeof(T)));
  }
  void Text(char*& text) { text = static_cast<char*>(arena_.Copy(text, std::strlen(text) + 1)); }
  void Text(wchar_t*& text) { text = static_cast<wchar_t*>(arena_.Copy(text, (std::wcslen(text) + 1) * sizeof *text)); }

  void Deepen(SPropValue& value) {
    _PV& v = value.Value;
    switch (PROP_TYPE(value.ulPropTag)) {
      case PT_STRING8:
        return Text(v.lpszA);
      case PT_UNICODE:
        return Text(v.lpszW);
      case PT_BINARY:
        return Array(v.bin.cb, v.bin.lpb);
      case PT_CLSID:
        return Array(1, v.lpguid);
      case PT_MV_I2:
        return Array(v.MVi.cValues, v.MVi.lpi);
      case PT_MV_LONG:
        return Array(v.MVl.cValues, v.MVl.lpl);
      case PT_MV_R4:
        return Array(v.MVflt.cValues, v.MVflt.lpflt);
      case PT_MV_DOUBLE:
        return Array(v.MVdbl.cValues, v.MVdbl.lpdbl);
      case PT_MV_APPTIME:
        return Array(v.MVat.cValues, v.MVat.lpat);
      case PT_MV_CURRENCY:
        return Array(v.MVcur.cValues, v.MVcur.lpcur);
      case PT_MV_SYSTIME:
        return Array(v.MVft.cValues, v.MVft.lpft);
      case PT_MV_I8:
        return Array(v.MVli.cValues, v.MVli.lpli);
      case PT_MV_CLSID:
        return Array(v.MVguid.cValues, v.MVguid.lpguid);
      case PT_MV_STRING8:
        Array(v.MVszA.cValues, v.MVszA.lppszA);
        for (ULONG i = 0; i < v.MVszA.cValues; ++i) Text(v.MVszA.lppszA[i]);
        return;
      case PT_MV_UNICODE:
        Array(v.MVszW.cValues, v.MVszW.lppszW);
        for (ULONG i = 0; i < v.MVszW.cValues; ++i) Text(v.MVszW.lppszW[i]);
        return;
      case PT_MV_BINARY:
        Array(v.MVbin.cValues, v.MVbin.lpbin);
        for (ULONG i = 0; i < v.MVbin.cValues; ++i) Array(v.MVbin.lpbin[i].cb, v.MVbin.lpbin[i].lpb);
        return;
      default:
        return;
    }
  }

  Arena& arena_;
};

// Lays everything out one after the other in a block that somebody else has; without one it only counts.
class LinearArena : public Arena {
 public:
  explicit LinearArena(void* block) : block_(static_cast<std::uint8_t*>(block)) {}
  void* Allocate(std::size_t size) override {
    const std::size_t at = used_;
    used_ += (size + 7) & ~std::size_t{7};
    return block_ ? block_ + at : scratch_.Allocate(size);
  }
  std::size_t used() const { return used_; }

 private:
  std::uint8_t* block_;
  std::size_t used_ = 0;
  ScratchArena scratch_;
};

SCODE CopyLinear(int count, const SPropValue* values, void* block, ULONG* size) {
  if (count < 0 || (count && !values)) return MAPI_E_INVALID_PARAMETER;
  try {
    LinearArena arena(block);
    Copier(arena).Run(values, count);
    if (size) *size = static_cast<ULONG>(arena.used());
    return S_OK;
  } catch (...) {
    return CurrentFailure().code;
  }
}

SCODE CopyLinear(const char* function, int count, const SPropValue* values, void* block, ULONG* size) {
  try {
    const Call call(function);
  } catch (...) {
    return CurrentFailure().code;
  }
  return CopyLinear(count, values, block, size);
}

}  // namespace
}  // namespace provider

extern "C" {

SCODE WINAPI HxCountProps(int count, LPSPropValue values, ULONG* size) {
  return provider::CopyLinear("ScCountProps", count, values, nullptr, size);
}

SCODE WINAPI HxCopyProps(int count, LPSPropValue values, LPVOID block, ULONG* size) {
  return block ? provider::CopyLinear("ScCopyProps", count, values, block, size) : MAPI_E_INVALID_PARAMETER;
}

SCODE WINAPI HxDupPropset(int count, LPSPropValue values, LPALLOCATEBUFFER allocate, LPSPropValue* copy) {
  if (!allocate || !copy) return MAPI_E_INVALID_PARAMETER;
  *copy = nullptr;
  ULONG size = 0;
  SCODE result = provider::CopyLinear("ScDupPropset", count, values, nullptr, &size);
  if (result != S_OK) return result;
  void* block = nullptr;
  result = allocate(size, &block);
  if (result != S_OK) return result;
  *copy = static_cast<LPSPropValue>(block);
  return provider::CopyLinear(count, values, block, nullptr);
}

}  // extern "C"
