// Reference counting, the boundary of every method, and small owners, for the stand-in's COM objects.
#pragma once

#include <windows.h>

#include <objidl.h>

#include <wrl/client.h>

#include <atomic>
#include <new>
#include <string_view>
#include <utility>

#include "winindex/Faults.h"

namespace winindex {

template <class Interface>
using ComPtr = Microsoft::WRL::ComPtr<Interface>;

// Living objects and server locks of this DLL.
inline std::atomic<long> living{0};

// A step that failed, inside a method's body.
struct Failure {
  HRESULT code;
};
inline void Check(HRESULT code) {
  if (FAILED(code)) throw Failure{code};
}
inline void Require(bool holds, HRESULT code) {
  if (!holds) throw Failure{code};
}

// Runs a method's body, unless the fault plan names the method. What the body throws becomes the method's result.
template <class Body>
HRESULT Method(std::string_view name, Body&& body) noexcept {
  try {
    if (const auto planned = PlannedResult(name)) return *planned;
    return body();
  } catch (const Failure& failure) {
    return failure.code;
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_UNEXPECTED;
  }
}
inline HRESULT NotImplemented(std::string_view name) noexcept {
  return Method(name, [] { return E_NOTIMPL; });
}

// A copy that the caller frees with CoTaskMemFree.
inline LPWSTR CopyForCaller(std::wstring_view text) {
  auto* copy = static_cast<LPWSTR>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
  if (!copy) throw std::bad_alloc();
  text.copy(copy, text.size());
  copy[text.size()] = 0;
  return copy;
}

// Base of an object that implements Interfaces... and nothing else; the first one answers for IUnknown. Free-threaded
// counts.
template <class First, class... Rest>
class ComObject : public First, public Rest... {
 public:
  ComObject() { ++living; }
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == __uuidof(First)) *object = static_cast<First*>(this);
    ((iid == __uuidof(Rest) ? void(*object = static_cast<Rest*>(this)) : void()), ...);
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
  virtual ~ComObject() { --living; }

 private:
  std::atomic<ULONG> references_ = 1;
};

// A new object; its first reference is the pointer's. (The toolchain's ComPtr::Attach would count one more.)
template <class Object, class... Arguments>
ComPtr<Object> Make(Arguments&&... arguments) {
  ComPtr<Object> made;
  *made.GetAddressOf() = new Object(std::forward<Arguments>(arguments)...);
  return made;
}

}  // namespace winindex
