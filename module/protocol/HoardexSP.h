// The module's main class: the protocol handler that the search indexer creates for the scheme.
#pragma once

#include <windows.h>

#include <wrl/client.h>

#include "include/HoardexPH.h"
#include "module/core/IHoardexSP.h"
#include "platform/searchapi.h"

// Makes a CHoardexSP and returns `iid` of it, aggregated into `outer` if that is set (then `iid` must be IUnknown).
HRESULT CreateHoardexSP(IUnknown* outer, REFIID iid, void** object);

// Any thread. Its only state is the site; the vault sessions that Init and ShutDown release are the process's.
class CHoardexSP final : public ISearchProtocol, public IHoardexSP, public IHoardexNotify {
 public:
  explicit CHoardexSP(IUnknown* outer);
  CHoardexSP(const CHoardexSP&) = delete;
  CHoardexSP& operator=(const CHoardexSP&) = delete;

  // What an aggregating object holds: the one IUnknown that does not delegate.
  IUnknown* Inner() { return &inner_; }

  // IUnknown, delegated to the controlling object
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
  STDMETHODIMP_(ULONG) AddRef() override;
  STDMETHODIMP_(ULONG) Release() override;

  // ISearchProtocol
  STDMETHODIMP Init(TIMEOUT_INFO* timeouts, IProtocolHandlerSite* site, PROXY_INFO* handler) override;
  STDMETHODIMP CreateAccessor(LPCWSTR url, AUTHENTICATION_INFO* authentication, INCREMENTAL_ACCESS_INFO* incremental,
                              ITEM_INFO* item, IUrlAccessor** accessor) override;
  STDMETHODIMP CloseAccessor(IUrlAccessor* accessor) override;
  STDMETHODIMP ShutDown() override;

  // IHoardexNotify
  STDMETHODIMP VaultDeleted(LPCWSTR path) override;
  STDMETHODIMP VaultAdded(LPCWSTR path) override;
  STDMETHODIMP VaultModified(LPCWSTR path) override;
  STDMETHODIMP AllVaultsDeleted() override;
  STDMETHODIMP AllVaultsAdded() override;
  STDMETHODIMP AllVaultsModified() override;

  // IDispatch, through the module's type library
  STDMETHODIMP GetTypeInfoCount(UINT* count) override;
  STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) override;
  STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) override;
  STDMETHODIMP Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                      EXCEPINFO* exception, UINT* argument) override;

 private:
  class InnerUnknown final : public IUnknown {
   public:
    explicit InnerUnknown(CHoardexSP& owner) : owner_(owner) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

   private:
    CHoardexSP& owner_;
    LONG references_ = 1;
  };

  virtual ~CHoardexSP();
  int DeleteAppDataFolder();
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> Site();

  InnerUnknown inner_;
  IUnknown* outer_;                   // not counted: the aggregating object outlives this one
  SRWLOCK site_lock_ = SRWLOCK_INIT;  // Init may replace the site while another thread makes an accessor
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> site_;
};
