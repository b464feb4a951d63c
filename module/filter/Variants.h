// Builders of the values that a filter hands to the indexer. Strings are separate CoTaskMemAlloc blocks with a
// terminator; the only failure is E_OUTOFMEMORY, which leaves the value empty.
#pragma once

#include <windows.h>

#include <propidl.h>

#include <cstring>
#include <string_view>

namespace variant {

inline HRESULT SetString(PROPVARIANT& value, std::wstring_view text) {
  auto* copy = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
  if (!copy) return E_OUTOFMEMORY;
  text.copy(copy, text.size());
  copy[text.size()] = 0;
  value.vt = VT_LPWSTR;
  value.pwszVal = copy;
  return S_OK;
}

inline HRESULT SetTime(PROPVARIANT& value, const FILETIME& time) {
  value.vt = VT_FILETIME;
  value.filetime = time;
  return S_OK;
}

inline HRESULT SetBool(PROPVARIANT& value, bool on) {
  value.vt = VT_BOOL;
  value.boolVal = on ? VARIANT_TRUE : VARIANT_FALSE;
  return S_OK;
}

inline HRESULT SetUI2(PROPVARIANT& value, LONG number) {
  value.vt = VT_UI2;
  value.uiVal = static_cast<USHORT>(number);
  return S_OK;
}

inline HRESULT SetI8(PROPVARIANT& value, LONGLONG number) {
  value.vt = VT_I8;
  value.hVal.QuadPart = number;
  return S_OK;
}

// A link for the indexer: two variants, the URL and its modification time.
inline HRESULT SetLink(PROPVARIANT& value, std::wstring_view url, const FILETIME& time) {
  auto* elements = static_cast<PROPVARIANT*>(CoTaskMemAlloc(2 * sizeof(PROPVARIANT)));
  if (!elements) return E_OUTOFMEMORY;
  memset(elements, 0, 2 * sizeof(PROPVARIANT));
  if (FAILED(SetString(elements[0], url))) {
    CoTaskMemFree(elements);
    return E_OUTOFMEMORY;
  }
  SetTime(elements[1], time);
  value.vt = VT_VECTOR | VT_VARIANT;
  value.capropvar.cElems = 2;
  value.capropvar.pElems = elements;
  return S_OK;
}

// A value on its way to the caller: block and content are freed unless it is detached.
class Owner {
 public:
  Owner() = default;
  ~Owner() { Reset(); }
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;

  HRESULT Allocate() {
    value_ = static_cast<PROPVARIANT*>(CoTaskMemAlloc(sizeof(PROPVARIANT)));
    if (!value_) return E_OUTOFMEMORY;
    PropVariantInit(value_);
    return S_OK;
  }
  void Reset() {
    if (!value_) return;
    PropVariantClear(value_);
    CoTaskMemFree(value_);
    value_ = nullptr;
  }
  PROPVARIANT& operator*() const { return *value_; }
  PROPVARIANT* Detach() {
    PROPVARIANT* value = value_;
    value_ = nullptr;
    return value;
  }

 private:
  PROPVARIANT* value_ = nullptr;
};

}  // namespace variant
