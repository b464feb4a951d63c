// The shell folder side of the main class: names to item IDs and back, and items as streams.
#include <windows.h>

#include <initguid.h>

#include <propvarutil.h>
#include <shlguid.h>
#include <shlwapi.h>

#include "module/core/Boundary.h"
#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/ItemIdFactory.h"
#include "module/shell/PropertyStores.h"
#include "module/shell/VaultOfItem.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";
constexpr SFGAOF kAttributes = SFGAO_STREAM | SFGAO_READONLY | SFGAO_LINK;
static_assert(kAttributes == 0x00450000);

// The plain error number, which callers that look for negative values take for a success with an empty URL. Deliberate.
constexpr HRESULT kNoItemID = ERROR_INVALID_PARAMETER;

// The item's URL with its vault file path in backslashes.
HRESULT GetURLFromItemIDList(PCUIDLIST_RELATIVE list, std::wstring& url) {
  url.clear();
  if (!list) return kNoItemID;
  const HRESULT hr = ReadParsingName(list, url);
  if (SUCCEEDED(hr)) url = url::Normalise(url);
  return hr;
}

// A value of a property store.
struct Value : PROPVARIANT {
  Value() { PropVariantInit(this); }
  ~Value() { PropVariantClear(this); }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
};

// What the item is opened as, by its kind.
HRESULT OpenStream(CMapiForWDS& mapi, const std::wstring& url, IStream** stream) {
  const CHoardexURL item(url);
  if (item.IsAttachment()) {
    const HRESULT hr = mapi.GetStreamFromAttachmentURL(url, stream);
    if (FAILED(hr)) ZK_LOG(L"CHoardexSP::BindToObject() - GetStreamFromAttachmentURL() failed with [0x%08lX]", hr);
    return hr;
  }
  return item.IsMessage() ? mapi.GetMimeStreamFromMessageURL(url, stream) : E_NOINTERFACE;
}

}  // namespace

STDMETHODIMP CHoardexSP::ParseDisplayName(HWND, IBindCtx*, LPWSTR name, ULONG*, PIDLIST_RELATIVE* id,
                                          ULONG* attributes) {
  ZK_GUARD(L"CHoardexSP::ParseDisplayName()", [&]() -> HRESULT {
    if (!id) return E_POINTER;
    *id = nullptr;
    if (attributes) *attributes = 0;
    ComPtr<IPropertyStore> store;
    HRESULT hr = CreateMemoryPropertyStore(store.GetAddressOf());
    if (FAILED(hr)) {
      ZK_LOG(
          L"CHoardexSP::ParseDisplayName() - PSCreateMemoryPropertyStore for a getting an IPropertyStore interface "
          L"failed with error [0x%08lX]",
          hr);
      return hr;
    }
    Value value;
    hr = name ? InitPropVariantFromString(name, &value) : E_INVALIDARG;
    if (FAILED(hr)) {
      ZK_LOG(
          L"CHoardexSP::ParseDisplayName() - InitPropVariantFromString for a creating a PROPVARIANT failed with error "
          L"[0x%08lX]",
          hr);
    } else {
      store->SetValue(PKEY_ParsingName, value);
    }
    hr = ItemIDs::CreateItemID(Allocator().Get(), store.Get(), reinterpret_cast<PITEMID_CHILD*>(id));
    if (FAILED(hr))
      ZK_LOG(L"CHoardexSP::ParseDisplayName() - CreateItemID for a creating a PIDL failed with error [0x%08lX]", hr);
    return hr;
  });
}

STDMETHODIMP CHoardexSP::BindToObject(PCUIDLIST_RELATIVE id, IBindCtx*, REFIID iid, void** object) {
  ZK_GUARD(L"CHoardexSP::BindToObject()", [&]() -> HRESULT {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IShellFolder) {
      const HRESULT hr = QueryInterface(iid, object);
      ZK_LOG(
          L"CHoardexSP::BindToObject() - QueryInterface for an IShellFolder interface returned with a value "
          L"of[0x%08lX]",
          hr);
      return hr;
    }
    if (iid != IID_IStream && iid != IID_ISequentialStream) return E_NOINTERFACE;
    std::wstring url;
    HRESULT hr = GetURLFromItemIDList(id, url);
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::BindToObject() - GetURLFromItemIDList failed with error [0x%08lX]", hr);
      return hr;
    }
    ZK_LOG(L"CHoardexSP::BindToObject() - URL extracted from the property store is [%s]", url.c_str());
    // What is none of our URLs must not make MAPI open, or create, the file that its fourth token names.
    const bool allowed = CHoardexURL(url).kind() != CHoardexURL::kUnknown && IsRegisteredVault(url);
    const auto mapi = allowed ? CMapiForWDS::GetMapiObj(url) : nullptr;
    if (!mapi) {
      ZK_LOG(L"CUrlAccessor::BindToObject() - Failed to allocate MAPI helper object");
      return E_NOINTERFACE;
    }
    ComPtr<IStream> stream;
    hr = OpenStream(*mapi, url, stream.GetAddressOf());
    if (FAILED(hr)) return hr;
    hr = stream->QueryInterface(iid, object);
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::BindToObject() - pStream::QueryInterface() failed with [0x%08lX]", hr);
    } else {
      ZK_LOG(L"CHoardexSP::BindToObject() - pStream::QueryInterface() for IID_IStream SUCCESS hr = [0x%08lX]", hr);
    }
    return hr;
  });
}

STDMETHODIMP CHoardexSP::GetAttributesOf(UINT, PCUITEMID_CHILD_ARRAY, SFGAOF* attributes) {
  if (!attributes) return E_POINTER;
  *attributes = kAttributes;
  return S_OK;
}

STDMETHODIMP CHoardexSP::GetDisplayNameOf(PCUITEMID_CHILD id, SHGDNF flags, STRRET* name) {
  ZK_GUARD(L"CHoardexSP::GetDisplayNameOf()", [&]() -> HRESULT {
    ZK_LOG_DETAIL(L"CHoardexSP::GetDisplayNameOf()- uFlags [0x%08lX]", flags);
    if (!name) return E_POINTER;
    std::wstring url;
    const HRESULT hr = ReadParsingName(id, url);
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::GetDisplayNameOf() - GetPropertyFromIDList failed with [0x%08lX]", hr);
      return hr;
    }
    const bool named = flags != SHGDN_FORPARSING && CHoardexURL(url).IsRoot();
    const std::wstring text = named ? text::Resource(IDS_NAMESPACE) : url;
    const size_t bytes = (text.size() + 1) * sizeof(wchar_t);
    auto* copy = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
    if (!copy) return E_OUTOFMEMORY;
    memcpy(copy, text.c_str(), bytes);
    name->uType = STRRET_WSTR;
    name->pOleStr = copy;
    ZK_LOG(L"CHoardexSP::GetDisplayNameOf() - URL extracted from the property store that will be displayed [%s]", copy);
    ZK_LOG_DETAIL(L"CHoardexSP::GetDisplayNameOf() - End");
    return hr;
  });
}

STDMETHODIMP CHoardexSP::GetUIObjectOf(HWND, UINT count, PCUITEMID_CHILD_ARRAY ids, REFIID iid, UINT*, void** object) {
  ZK_GUARD(L"CHoardexSP::GetUIObjectOf()", [&]() -> HRESULT {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (count != 1 || !ids) return E_INVALIDARG;
    std::wstring url;
    HRESULT hr = ReadParsingName(ids[0], url);
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::GetUIObjectOf() - GetPropertyFromIDList failed with [0x%08lX]", hr);
      return hr;
    }
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - URL extracted from the property store [%s]", url.c_str());
    SetMsgURL(url);
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - URL saved in m_strMsgURL [%s]", url.c_str());
    hr = GetURLFromItemIDList(ids[0], url);
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::GetUIObjectOf() - GetURLFromItemIDList failed with error [0x%08lX]", hr);
      return hr;
    }
    if (url.empty()) {
      ZK_LOG(L"CHoardexSP::GetUIObjectOf() - Error : Url retrieved from ItemIDList has zero lenght. Returning E_FAIL");
      return E_FAIL;
    }
    if (iid == IID_IQueryAssociations) return MakeAssociations(url, iid, object);
    hr = QueryInterface(iid, object);
    if (FAILED(hr)) ZK_LOG(L"CHoardexSP::GetUIObjectOf() - QueryInterface failed with [0x%08lX]", hr);
    return hr;
  });
}

HRESULT CHoardexSP::MakeAssociations(const std::wstring& url, REFIID iid, void** object) {
  ZK_LOG(L"CHoardexSP::GetUIObjectOf() - IID_IQueryAssociations - URL extracted from the property store is [%s]",
         url.c_str());
  ComPtr<IQueryAssociations> associations;
  HRESULT hr = AssocCreate(CLSID_QueryAssociations, IID_IQueryAssociations,
                           reinterpret_cast<void**>(associations.GetAddressOf()));
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - AssocCreate failed with [0x%08lX]", hr);
    return hr;
  }
  const CHoardexURL item(url);
  std::wstring extension;
  if (item.IsMessage()) {
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - Provide .EML as extension for TY mail");
    extension = L".eml";
  } else if (item.IsAttachment()) {
    std::wstring name;
    GetAttachmentNameFromURL(url, name);
    extension = PathFindExtensionW(name.c_str());
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - Attachment Extension - %s", extension.c_str());
  }
  // A container has no file type to initialise the object with.
  if (item.IsMessage() || item.IsAttachment())
    hr = extension.empty() ? E_INVALIDARG : associations->Init(0, extension.c_str(), nullptr, nullptr);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - IQueryAssociations::Init() failed with [0x%08lX]", hr);
    return hr;
  }
  hr = associations->QueryInterface(iid, object);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexSP::GetUIObjectOf() - IQueryAssociations::QueryInterface() failed with [0x%08lX]", hr);
  } else {
    ZK_LOG(L"CHoardexSP:: GetUIObjectOf() - IID_IQueryAssociations SUCCESS hr = [0x%08lX]", hr);
  }
  return hr;
}

STDMETHODIMP CHoardexSP::GetClassID(CLSID* clsid) {
  if (!clsid) return E_POINTER;
  *clsid = module::kHoardexSPClass;
  return S_OK;
}

STDMETHODIMP CHoardexSP::SetItemAlloc(IMalloc* allocator) {
  ComPtr<IMalloc> kept(allocator);
  {
    const CriticalSection::Guard guard(m_lock);
    kept.Swap(m_allocator);
  }
  return S_OK;  // the earlier one goes outside the lock
}

ComPtr<IMalloc> CHoardexSP::Allocator() {
  const CriticalSection::Guard guard(m_lock);
  return m_allocator;
}

void CHoardexSP::SetMsgURL(std::wstring url) {
  const CriticalSection::Guard guard(m_lock);
  m_strMsgURL.swap(url);
}

std::wstring CHoardexSP::MsgURL() {
  const CriticalSection::Guard guard(m_lock);
  return m_strMsgURL;
}
