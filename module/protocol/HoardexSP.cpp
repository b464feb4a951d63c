#include "module/protocol/HoardexSP.h"

#include <shellapi.h>

#include <new>

#include "module/core/AppDataFolder.h"
#include "module/core/Boundary.h"
#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/UrlAccessor.h"
#include "module/shell/ChangeNotification.h"
#include "module/shell/GroupPolicy.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";

constexpr int kStoppedOnLink = 681;  // the system's own code, which not every header has

struct Interface {
  const IID* iid;
  void* (*cast)(CHoardexSP&);
};
template <class As>
void* Cast(CHoardexSP& object) {
  return static_cast<As*>(&object);
}
const Interface kInterfaces[] = {
    {&__uuidof(ISearchProtocol), Cast<ISearchProtocol>},
    {&__uuidof(IHoardexSP), Cast<IHoardexSP>},
    {&IID_IDispatch, Cast<IHoardexSP>},
    {&__uuidof(IHoardexNotify), Cast<IHoardexNotify>},
    {&__uuidof(IHoardexSave), Cast<IHoardexSave>},
    {&IID_IShellFolder, Cast<IShellFolder>},
    {&IID_IPersistFolder, Cast<IPersistFolder>},
    {&IID_IPersist, Cast<IPersistFolder>},
    {&IID_IDelegateFolder, Cast<IDelegateFolder>},
    {&IID_IContextMenu, Cast<IContextMenu>},
    {&IID_IExtractIconW, Cast<IExtractIconW>},
};

}  // namespace

HRESULT CreateHoardexSP(IUnknown* outer, REFIID iid, void** object) {
  *object = nullptr;
  if (outer && iid != IID_IUnknown) return CLASS_E_NOAGGREGATION;
  auto* made = new (std::nothrow) CHoardexSP(outer);
  if (!made) return E_OUTOFMEMORY;
  const HRESULT hr = made->Inner()->QueryInterface(iid, object);
  made->Inner()->Release();
  return hr;
}

CHoardexSP::CHoardexSP(IUnknown* outer) : m_inner(*this), m_outer(outer ? outer : &m_inner) {
  module::Lock();
}
CHoardexSP::~CHoardexSP() {
  m_site.Reset();  // both while the module is still held
  m_allocator.Reset();
  module::Unlock();
}

Microsoft::WRL::ComPtr<IProtocolHandlerSite> CHoardexSP::Site() {
  const CriticalSection::Guard guard(m_lock);
  return m_site;
}

STDMETHODIMP CHoardexSP::InnerUnknown::QueryInterface(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (iid == IID_IUnknown) *object = static_cast<IUnknown*>(this);
  for (const Interface& known : kInterfaces)
    if (!*object && iid == *known.iid) *object = known.cast(m_owner);
  if (!*object) return E_NOINTERFACE;
  static_cast<IUnknown*>(*object)->AddRef();
  return S_OK;
}
STDMETHODIMP_(ULONG) CHoardexSP::InnerUnknown::AddRef() {
  return static_cast<ULONG>(InterlockedIncrement(&m_references));
}
STDMETHODIMP_(ULONG) CHoardexSP::InnerUnknown::Release() {
  const LONG left = InterlockedDecrement(&m_references);
  if (!left) delete &m_owner;
  return static_cast<ULONG>(left);
}

STDMETHODIMP CHoardexSP::QueryInterface(REFIID iid, void** object) {
  return m_outer->QueryInterface(iid, object);
}
STDMETHODIMP_(ULONG) CHoardexSP::AddRef() {
  return m_outer->AddRef();
}
STDMETHODIMP_(ULONG) CHoardexSP::Release() {
  return m_outer->Release();
}

// One step of an operation that never reports a failure: what goes wrong is logged, and the next step is taken.
#define ZK_STEP(operation, ...)                                       \
  boundary::Guard(kLogSource, __LINE__, operation, [&]() -> HRESULT { \
    __VA_ARGS__;                                                      \
    return S_OK;                                                      \
  })

STDMETHODIMP CHoardexSP::Init(TIMEOUT_INFO*, IProtocolHandlerSite* site, PROXY_INFO*) {
  constexpr wchar_t kOperation[] = L"CHoardexSP::Init()";
  ZK_LOG(L"CHoardexSP::Init() - Start");
  g_Log.ResetThreshold();
  Microsoft::WRL::ComPtr<IProtocolHandlerSite> kept(site);
  {
    const CriticalSection::Guard guard(m_lock);
    kept.Swap(m_site);
  }
  kept.Reset();  // the earlier one, outside the lock
  ZK_STEP(kOperation, DeleteAppDataFolder());
  ZK_STEP(kOperation, DetectWDSGroupPolicy());
  ZK_STEP(kOperation, CMapiForWDS::CleanMapiObjs());
  ZK_LOG(L"CHoardexSP::Init() - Exit, return hr = [0x%08lX]", S_OK);
  return S_OK;
}

STDMETHODIMP CHoardexSP::CreateAccessor(LPCWSTR url, AUTHENTICATION_INFO* authentication,
                                        INCREMENTAL_ACCESS_INFO* incremental, ITEM_INFO* item,
                                        IUrlAccessor** accessor) {
  ZK_GUARD(L"CHoardexSP::CreateAccessor()", [&]() -> HRESULT {
    ZK_LOG(L"CHoardexSP::CreateAccessor() - Start, URL is [%s]", url);
    if (!url || !authentication || !incremental || !item || !accessor) return E_POINTER;
    *accessor = nullptr;
    Microsoft::WRL::ComPtr<CUrlAccessor> made = Adopt(new (std::nothrow) CUrlAccessor);
    if (!made) {
      ZK_LOG(L"CHoardexSP::CreateAccessor() - Out of memory");
      return E_OUTOFMEMORY;
    }
    const std::wstring normalised = url::Normalise(url);
    const HRESULT hr = made->Init(normalised.c_str(), authentication, incremental, item, Site().Get());
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::CreateAccessor() - Init failed with [0x%08lX]", hr);
      return hr;
    }
    *accessor = made.Detach();
    return S_OK;
  });
}

STDMETHODIMP CHoardexSP::CloseAccessor(IUrlAccessor* accessor) {
  ZK_LOG(L"CHoardexSP::CloseAccessor() - Start");
  // The host returns only what CreateAccessor gave it.
  const auto* ours = static_cast<CUrlAccessor*>(accessor);
  if (ours && ours->has_temporary_file()) DeleteFileW(ours->temporary_file().c_str());
  return S_OK;
}

STDMETHODIMP CHoardexSP::ShutDown() {
  constexpr wchar_t kOperation[] = L"CHoardexSP::ShutDown()";
  ZK_STEP(kOperation, DeleteAppDataFolder());
  ZK_STEP(kOperation, CMapiForWDS::CleanMapiObjs());
  ZK_LOG(L"CHoardexSP::ShutDown() - Done");
  return S_OK;
}

int CHoardexSP::DeleteAppDataFolder() {
  ZK_LOG(L"CHoardexSP::DeleteAppDataFolder() - Enter");
  std::wstring folder = AppDataFolder();
  ZK_LOG(L"CHoardexSP::DeleteAppDataFolder() - Trying to delete folder [%s]", folder.c_str());
  int result = ERROR_PATH_NOT_FOUND;
  if (!folder.empty() && !DetachLinks(folder)) {
    result = kStoppedOnLink;
  } else if (!folder.empty()) {
    folder.push_back(L'\0');  // the operation takes a list of names, ended by an empty one
    SHFILEOPSTRUCTW operation = {};
    operation.wFunc = FO_DELETE;
    operation.pFrom = folder.c_str();
    operation.fFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOERRORUI;
    result = SHFileOperationW(&operation);
  }
  if (result)
    ZK_LOG(L"CHoardexSP::DeleteAppDataFolder() - Could not delete folder [%s], error code [%d]", folder.c_str(),
           result);
  ZK_LOG(L"CHoardexSP::DeleteAppDataFolder() - Exit");
  return result;
}

namespace {

HRESULT Notify(LPCWSTR path, SEARCH_KIND_OF_CHANGE change) {
  ZK_GUARD(L"CHoardexSP::ProcessHXItem()", [&] { return ProcessHXItem(path, change, SEARCH_NORMAL_PRIORITY); });
}

}  // namespace

STDMETHODIMP CHoardexSP::VaultDeleted(LPCWSTR path) {
  return Notify(path, SEARCH_CHANGE_DELETE);
}
STDMETHODIMP CHoardexSP::VaultAdded(LPCWSTR path) {
  return Notify(path, SEARCH_CHANGE_ADD);
}
STDMETHODIMP CHoardexSP::VaultModified(LPCWSTR path) {
  return Notify(path, SEARCH_CHANGE_MODIFY);
}
STDMETHODIMP CHoardexSP::AllVaultsDeleted() {
  return Notify(nullptr, SEARCH_CHANGE_DELETE);
}
STDMETHODIMP CHoardexSP::AllVaultsAdded() {
  return Notify(nullptr, SEARCH_CHANGE_ADD);
}
STDMETHODIMP CHoardexSP::AllVaultsModified() {
  return Notify(nullptr, SEARCH_CHANGE_MODIFY);
}

namespace {

// The type description of IHoardexSP out of the module's own type library, registered or not.
HRESULT LoadTypeInfo(ITypeInfo** info) {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(module::Instance(), path, MAX_PATH);
  if (!length || length == MAX_PATH) return E_FAIL;
  Microsoft::WRL::ComPtr<ITypeLib> library;
  const HRESULT hr = LoadTypeLibEx(path, REGKIND_NONE, &library);
  return FAILED(hr) ? hr : library->GetTypeInfoOfGuid(__uuidof(IHoardexSP), info);
}

}  // namespace

STDMETHODIMP CHoardexSP::GetTypeInfoCount(UINT* count) {
  if (!count) return E_POINTER;
  *count = 1;
  return S_OK;
}

STDMETHODIMP CHoardexSP::GetTypeInfo(UINT index, LCID, ITypeInfo** info) {
  if (!info) return E_POINTER;
  *info = nullptr;
  return index ? DISP_E_BADINDEX : LoadTypeInfo(info);
}

STDMETHODIMP CHoardexSP::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
  Microsoft::WRL::ComPtr<ITypeInfo> info;
  const HRESULT hr = LoadTypeInfo(&info);
  return FAILED(hr) ? hr : info->GetIDsOfNames(names, count, ids);
}

STDMETHODIMP CHoardexSP::Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* parameters, VARIANT* result,
                                EXCEPINFO* exception, UINT* argument) {
  Microsoft::WRL::ComPtr<ITypeInfo> info;
  const HRESULT hr = LoadTypeInfo(&info);
  return FAILED(hr) ? hr
                    : info->Invoke(static_cast<IHoardexSP*>(this), id, flags, parameters, result, exception, argument);
}
