// The module's main class: the protocol handler that the search indexer creates for the scheme.
#pragma once

#include <windows.h>

#include <shlobj.h>
#include <wrl/client.h>

#include <atomic>
#include <string>

#include "include/HoardexPH.h"
#include "module/core/ComObject.h"
#include "module/core/IHoardexSP.h"
#include "platform/critical_section.h"
#include "platform/searchapi.h"

// Makes a CHoardexSP and returns `iid` of it, aggregated into `outer` if that is set (then `iid` must be IUnknown).
HRESULT CreateHoardexSP(IUnknown* outer, REFIID iid, void** object);

// Any thread. Its state is the site, the host's allocator of item IDs and the URL of the item that a UI object was last
// asked for; the vault sessions that Init and ShutDown release are the process's.
class CHoardexSP final : public ISearchProtocol,
                         public IHoardexSP,
                         public IHoardexNotify,
                         public IHoardexSave,
                         public IShellFolder,
                         public IPersistFolder,
                         public IDelegateFolder,
                         public IContextMenu,
                         public IExtractIconW {
 public:
  explicit CHoardexSP(IUnknown* outer);
  CHoardexSP(const CHoardexSP&) = delete;
  CHoardexSP& operator=(const CHoardexSP&) = delete;

  // What an aggregating object holds: the one IUnknown that does not delegate.
  IUnknown* Inner() { return &m_inner; }

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

  // IHoardexSave
  STDMETHODIMP SaveItem(LPCWSTR url, LPCWSTR path) override;

  // IShellFolder: one level, whose items are named by their URLs
  STDMETHODIMP ParseDisplayName(HWND window, IBindCtx* context, LPWSTR name, ULONG* eaten, PIDLIST_RELATIVE* id,
                                ULONG* attributes) override;
  STDMETHODIMP EnumObjects(HWND, SHCONTF, IEnumIDList** list) override { return NotImplemented(list); }
  STDMETHODIMP BindToObject(PCUIDLIST_RELATIVE id, IBindCtx* context, REFIID iid, void** object) override;
  STDMETHODIMP BindToStorage(PCUIDLIST_RELATIVE, IBindCtx*, REFIID, void** object) override {
    return NotImplemented(object);
  }
  STDMETHODIMP CompareIDs(LPARAM, PCUIDLIST_RELATIVE, PCUIDLIST_RELATIVE) override { return 1; }
  STDMETHODIMP CreateViewObject(HWND, REFIID, void** object) override { return NotImplemented(object); }
  STDMETHODIMP GetAttributesOf(UINT count, PCUITEMID_CHILD_ARRAY ids, SFGAOF* attributes) override;
  STDMETHODIMP GetUIObjectOf(HWND window, UINT count, PCUITEMID_CHILD_ARRAY ids, REFIID iid, UINT* reserved,
                             void** object) override;
  STDMETHODIMP GetDisplayNameOf(PCUITEMID_CHILD id, SHGDNF flags, STRRET* name) override;
  STDMETHODIMP SetNameOf(HWND, PCUITEMID_CHILD, LPCWSTR, SHGDNF, PITEMID_CHILD* id) override {
    return NotImplemented(id);
  }

  // IPersistFolder
  STDMETHODIMP GetClassID(CLSID* clsid) override;
  STDMETHODIMP Initialize(PCIDLIST_ABSOLUTE) override { return S_OK; }

  // IDelegateFolder: the host that delegates to this folder allocates its item IDs
  STDMETHODIMP SetItemAlloc(IMalloc* allocator) override;

  // IContextMenu
  STDMETHODIMP QueryContextMenu(HMENU menu, UINT index, UINT first, UINT last, UINT flags) override;
  STDMETHODIMP InvokeCommand(CMINVOKECOMMANDINFO* command) override;
  STDMETHODIMP GetCommandString(UINT_PTR, UINT, UINT*, LPSTR, UINT) override { return E_INVALIDARG; }

  // IExtractIconW
  STDMETHODIMP GetIconLocation(UINT flags, LPWSTR file, UINT size, int* index, UINT* out_flags) override;
  STDMETHODIMP Extract(LPCWSTR file, UINT index, HICON* large_icon, HICON* small_icon, UINT sizes) override;

  // IDispatch, through the module's type library
  STDMETHODIMP GetTypeInfoCount(UINT* count) override;
  STDMETHODIMP GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) override;
  STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) override;
  STDMETHODIMP Invoke(DISPID id, REFIID iid, LCID locale, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                      EXCEPINFO* exception, UINT* argument) override;

 private:
  class InnerUnknown final : public IUnknown {
   public:
    explicit InnerUnknown(CHoardexSP& owner) : m_owner(owner) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

   private:
    CHoardexSP& m_owner;
    LONG m_references = 1;
  };

  virtual ~CHoardexSP();
  int DeleteAppDataFolder();
  HRESULT MakeAssociations(const std::wstring& url, REFIID iid, void** object);
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> Site();
  Microsoft::WRL::ComPtr<IMalloc> Allocator();
  std::wstring MsgURL();
  void SetMsgURL(std::wstring url);

  InnerUnknown m_inner;
  IUnknown* m_outer;       // not counted: the aggregating object outlives this one
  CriticalSection m_lock;  // Init may replace the site while another thread makes an accessor, and the like
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> m_site;
  Microsoft::WRL::ComPtr<IMalloc> m_allocator;
  std::wstring m_strMsgURL;
  std::atomic<ULONG> m_no_menu = 0;
};
