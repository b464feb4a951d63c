#include "module/shell/ItemIdFactory.h"

#include <algorithm>
#include <new>

#include "module/shell/PropertyStores.h"

using Microsoft::WRL::ComPtr;

namespace {

// What GetPropertyStorage hands out.
struct Serialized {
  ~Serialized() { CoTaskMemFree(bytes); }
  std::span<const std::byte> span() const {
    return {reinterpret_cast<const std::byte*>(bytes), bytes ? std::size_t{size} : 0};
  }
  SERIALIZEDPROPSTORAGE* bytes = nullptr;
  DWORD size = 0;
};

HRESULT Serialize(IPropertyStore* store, Serialized& form) {
  ComPtr<IPersistSerializedPropStorage> persist;
  const HRESULT hr =
      store->QueryInterface(__uuidof(IPersistSerializedPropStorage), reinterpret_cast<void**>(persist.GetAddressOf()));
  return FAILED(hr) ? hr : persist->GetPropertyStorage(&form.bytes, &form.size);
}

// Bytes from `begin` on that can be read: a list has no length but what its own words say, and those may lie.
std::size_t Readable(const void* begin) {
  constexpr DWORD kReadable = PAGE_READONLY | PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READ |
                              PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  const auto first = reinterpret_cast<ULONG_PTR>(begin);
  ULONG_PTR end = first;
  MEMORY_BASIC_INFORMATION region;
  while (end - first < itemid::kLongestList && VirtualQuery(reinterpret_cast<void*>(end), &region, sizeof(region)) &&
         region.State == MEM_COMMIT && (region.Protect & kReadable) && !(region.Protect & PAGE_GUARD))
    end = reinterpret_cast<ULONG_PTR>(region.BaseAddress) + region.RegionSize;
  return (std::min)(static_cast<std::size_t>(end - first), itemid::kLongestList);
}

HRESULT Deserialize(std::span<const std::byte> form, ComPtr<IPropertyStore>& store) {
  HRESULT hr = CreateMemoryPropertyStore(store.GetAddressOf());
  if (FAILED(hr) || form.empty()) return hr;
  ComPtr<IPersistSerializedPropStorage> persist;
  hr = store.As(&persist);
  if (FAILED(hr)) return hr;
  hr = persist->SetPropertyStorage(reinterpret_cast<PCUSERIALIZEDPROPSTORAGE>(form.data()),
                                   static_cast<DWORD>(form.size()));
  return FAILED(hr) && hr != E_OUTOFMEMORY ? E_INVALIDARG : hr;  // what cannot be read makes no ID of ours
}

}  // namespace

template <class Item, DWORD Signature>
HRESULT CItemIDFactory<Item, Signature>::CreateItemID(IMalloc* allocator, IPropertyStore* store, PITEMID_CHILD* id) {
  *id = nullptr;
  Serialized form;
  if (store) {
    const HRESULT hr = Serialize(store, form);
    if (FAILED(hr)) return hr;
  }
  const std::span<const std::byte> storage = form.span();
  // A host that allocates IDs itself knows what it can carry.
  if (!allocator && !itemid::Fits(storage.size())) return E_OUTOFMEMORY;
  void* block = allocator ? allocator->Alloc(itemid::InnerSize(storage.size()))
                          : CoTaskMemAlloc(itemid::BlockSize(storage.size()));
  if (!block) return E_OUTOFMEMORY;
  auto* bytes = static_cast<std::byte*>(block);
  if (!allocator) {
    memset(bytes, 0, itemid::BlockSize(storage.size()));
    itemid::WriteOuter(bytes, storage.size());
  }
  itemid::WriteInner(bytes, Signature, storage);
  *id = static_cast<PITEMID_CHILD>(block);
  return S_OK;
}

template <class Item, DWORD Signature>
HRESULT CItemIDFactory<Item, Signature>::GetPropertyFromIDList(PCUIDLIST_RELATIVE list, REFPROPERTYKEY key,
                                                               PROPVARIANT* value) {
  PropVariantInit(value);
  const auto storage = itemid::Storage(reinterpret_cast<const std::byte*>(list), Readable(list), Signature);
  if (!storage) return E_INVALIDARG;
  ComPtr<IPropertyStore> store;
  const HRESULT hr = Deserialize(*storage, store);
  return FAILED(hr) ? hr : store->GetValue(key, value);
}

template class CItemIDFactory<HOARDEX_ITEM, itemid::kSignature>;

HRESULT ReadParsingName(PCUIDLIST_RELATIVE list, std::wstring& url) {
  url.clear();
  PROPVARIANT value;
  HRESULT hr = ItemIDs::GetPropertyFromIDList(list, PKEY_ParsingName, &value);
  if (SUCCEEDED(hr) && (value.vt != VT_LPWSTR || !value.pwszVal)) hr = E_INVALIDARG;
  try {
    if (SUCCEEDED(hr)) url = value.pwszVal;
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  PropVariantClear(&value);
  return hr;
}
