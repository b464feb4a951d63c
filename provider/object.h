// What every COM object of the provider shares: reference count, the exception boundary and the
// text of its last error.
#pragma once

#include <atomic>
#include <string>
#include <type_traits>
#include <utility>

#include "platform/critical_section.h"
#include "provider/instrument.h"
#include "provider/mapi.h"

namespace provider {

// An HRESULT as an exception, with a sentence for GetLastError where there is something to say.
struct Failure {
  HRESULT code;
  std::string sentence;
};
[[noreturn]] inline void Fail(HRESULT code, std::string sentence = {}) {
  throw Failure{code, std::move(sentence)};
}
inline void Require(bool condition, HRESULT otherwise) {
  if (!condition) Fail(otherwise);
}

// The code that a caller sees for the exception being handled, and its sentence.
Failure CurrentFailure() noexcept;

// Runs the body of a function or method.
template <class Body>
HRESULT Run(Body& body, const Call& call) {
  const auto run = [&] {
    if constexpr (std::is_invocable_v<Body&, const Call&>) {
      return body(call);
    } else {
      return body();
    }
  };
  if constexpr (std::is_void_v<decltype(run())>) {
    run();
    return S_OK;
  } else {
    return run();
  }
}

class ObjectCore {
 public:
  ObjectCore(const ObjectCore&) = delete;
  ObjectCore& operator=(const ObjectCore&) = delete;

 protected:
  explicit ObjectCore(Kind kind);
  virtual ~ObjectCore();

  ULONG Increment() { return ++references_; }
  ULONG Decrement();

  // Runs a method's body, which returns an HRESULT or nothing (S_OK) and may take the call: nothing that it throws
  // crosses. What the method hands out (`outs`; any may be null) is nothing until the body sets it.
  template <class Body, class... Out>
  HRESULT Guarded(const char* method, Body&& body, Out*... outs) noexcept {
    ((outs ? void(*outs = {}) : void()), ...);
    try {
      const Call call(method);
      return Run(body, call);
    } catch (...) {
      return Remember(CurrentFailure());
    }
  }
  // A method that always answers the same.
  template <class... Out>
  HRESULT Answer(const char* method, HRESULT code, Out*... outs) noexcept {
    return Guarded(
        method, [code] { return code; }, outs...);
  }

  // IMAPIxxx::GetLastError.
  HRESULT LastError(const char* method, HRESULT code, ULONG flags, LPMAPIERROR* error) noexcept {
    if (!error) return MAPI_E_INVALID_PARAMETER;
    *error = nullptr;
    try {
      const Call call(method);
      DescribeError(code, flags, error);
      return S_OK;
    } catch (...) {
      return CurrentFailure().code;  // not remembered: the error that was asked for still stands
    }
  }

 private:
  HRESULT Remember(Failure&& failure) noexcept;
  void DescribeError(HRESULT code, ULONG flags, LPMAPIERROR* error);

  Kind kind_;
  std::atomic<ULONG> references_{1};
  CriticalSection error_lock_;
  HRESULT error_code_ = S_OK;
  std::string error_sentence_;
};

// IUnknown for an object with the interfaces `Interface` and the identifiers of those that it derives from.
template <class Interface>
class Object : public Interface, public ObjectCore {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return MAPI_E_INVALID_PARAMETER;
    return Guarded(
        "IUnknown::QueryInterface",
        [&] {
          if (iid != IID_IUnknown && !Implements(iid)) return E_NOINTERFACE;
          *object = static_cast<Interface*>(this);
          Increment();
          return S_OK;
        },
        object);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return Increment(); }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = Decrement();
    if (!left) delete this;
    return left;
  }

 protected:
  explicit Object(Kind kind) : ObjectCore(kind) {}
  virtual bool Implements(REFIID iid) const = 0;
};

// An owned COM reference.
template <class T>
class Ref {
 public:
  Ref() = default;
  explicit Ref(T* adopted) : object_(adopted) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref(const Ref& other) : object_(other.object_) {
    if (object_) object_->AddRef();
  }
  Ref& operator=(Ref other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Ref() {
    if (object_) object_->Release();
  }
  T* get() const { return object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  T* Detach() { return std::exchange(object_, nullptr); }
  T** Receive() {
    *this = Ref();
    return &object_;
  }

 private:
  T* object_ = nullptr;
};

// Hands `object` out as the interface that a caller asked for; `iid` null: as what it is. Throws
// MAPI_E_INTERFACE_NOT_SUPPORTED.
template <class T, class Out>
void HandOut(Ref<T> object, LPCIID iid, Out** out) {
  Require(out != nullptr, MAPI_E_INVALID_PARAMETER);
  *out = nullptr;
  void* answer = nullptr;
  if (iid && object->QueryInterface(*iid, &answer) != S_OK) Fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
  *out = iid ? static_cast<Out*>(answer) : static_cast<Out*>(object.Detach());
}

}  // namespace provider
