// Reference counting and interface look-up for the module's COM objects.
#pragma once

#include <windows.h>

#include <objidl.h>

#include <wrl/client.h>

#include <atomic>
#include <new>
#include <type_traits>

#include "module/core/HoardexPH.h"

// Takes over the one reference of a new object; null stays null. (The toolchain's ComPtr::Attach counts one more.)
template <class Object>
Microsoft::WRL::ComPtr<Object> Adopt(Object* made) {
  Microsoft::WRL::ComPtr<Object> pointer;
  *pointer.GetAddressOf() = made;
  return pointer;
}

// The answer of a method that hands nothing out: callers may look at what they asked for all the same.
template <class Out>
HRESULT NotImplemented(Out* out) {
  if (out) *out = Out{};
  return E_NOTIMPL;
}

// Base of an object that implements Interfaces... and nothing else; the first one answers for IUnknown. Counts are
// free-threaded and each living object holds the module.
template <class First, class... Rest>
class ComObject : public First, public Rest... {
 public:
  ComObject() { module::Lock(); }
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || Answers<First>(iid)) *object = static_cast<First*>(this);
    ((!*object && Answers<Rest>(iid) ? void(*object = static_cast<Rest*>(this)) : void()), ...);
    if (!*object) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (!left) delete this;
    return left;
  }

 protected:
  virtual ~ComObject() { module::Unlock(); }

 private:
  template <class Interface>
  static bool Answers(REFIID iid) {
    if constexpr (std::is_base_of_v<IPersist, Interface>)
      if (iid == IID_IPersist) return true;
    return iid == __uuidof(Interface);
  }

  std::atomic<ULONG> references_ = 1;
};
