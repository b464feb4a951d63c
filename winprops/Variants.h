// Values of property stores as PROPVARIANTs and as the serialised form has them.
#pragma once

#include <windows.h>

#include <propidl.h>

#include <utility>

#include "winprops/SerializedStorage.h"

namespace winprops {

// A PROPVARIANT and what it owns.
class OwnedVariant : public PROPVARIANT {
 public:
  OwnedVariant() { PropVariantInit(this); }
  ~OwnedVariant() { PropVariantClear(this); }
  OwnedVariant(OwnedVariant&& other) noexcept : PROPVARIANT(other) { PropVariantInit(&other); }
  OwnedVariant& operator=(OwnedVariant&& other) noexcept {
    std::swap(static_cast<PROPVARIANT&>(*this), static_cast<PROPVARIANT&>(other));
    return *this;
  }
  HRESULT Assign(const PROPVARIANT& value) {
    OwnedVariant copy;
    const HRESULT hr = PropVariantCopy(&copy, &value);
    if (SUCCEEDED(hr)) *this = std::move(copy);
    return hr;
  }
};

// Both fill the type and the data of an empty `to`. A type that the form has here no rule for is
// HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED), data that does not fit its type ERROR_INVALID_DATA. May throw bad_alloc.
HRESULT ToVariant(const Value& value, OwnedVariant& to);
HRESULT FromVariant(const PROPVARIANT& value, Value& to);

}  // namespace winprops
