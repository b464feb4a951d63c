// A filter on a stream that offers nothing; what a test's own filters do otherwise they override.
#pragma once

#include <windows.h>

#include <filter.h>
#include <filterr.h>

#include <atomic>

class FilterDouble : public IFilter, public IPersistStream {
 public:
  virtual ~FilterDouble() = default;
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == IID_IFilter || iid == IID_IUnknown) *object = static_cast<IFilter*>(this);
    if ((iid == IID_IPersist || iid == IID_IPersistStream) && persists()) *object = static_cast<IPersistStream*>(this);
    if (*object) AddRef();
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (!left) delete this;
    return left;
  }
  STDMETHODIMP GetClassID(CLSID*) override { return E_NOTIMPL; }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream* stream) override { return stream ? S_OK : E_POINTER; }
  STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER*) override { return E_NOTIMPL; }
  STDMETHODIMP_(SCODE) Init(ULONG, ULONG, const FULLPROPSPEC*, ULONG*) override { return S_OK; }
  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK*) override { return FILTER_E_END_OF_CHUNKS; }
  STDMETHODIMP_(SCODE) GetText(ULONG*, WCHAR*) override { return FILTER_E_NO_TEXT; }
  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT**) override { return FILTER_E_NO_VALUES; }
  STDMETHODIMP_(SCODE) BindRegion(FILTERREGION, REFIID, void**) override { return E_NOTIMPL; }

 protected:
  virtual bool persists() const { return true; }

 private:
  std::atomic<ULONG> references_ = 1;
};
