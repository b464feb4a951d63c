// Registers a class object while it lives: makes what `create` hands out.
#pragma once

#include <windows.h>

#include <objbase.h>

#include <functional>
#include <utility>

class ClassDouble final : public IClassFactory {
 public:
  using Create = std::function<HRESULT(REFIID, void**)>;
  ClassDouble(REFCLSID clsid, Create create) : create_(std::move(create)) {
    CoRegisterClassObject(clsid, this, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie_);
  }
  ~ClassDouble() { CoRevokeClassObject(cookie_); }
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = iid == IID_IUnknown || iid == IID_IClassFactory ? this : nullptr;
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown*, REFIID iid, void** object) override { return create_(iid, object); }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

 private:
  Create create_;
  DWORD cookie_ = 0;
};
