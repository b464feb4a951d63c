// propsys.dll for Wine, whose in-memory property store has no serialised form: this one has. Lies beside the program
// that needs it; every other function is that of Wine's own library, to which the exports are forwarded. Never
// installed on Windows.
#include <windows.h>

#include <objbase.h>

#include <initguid.h>

#include <propsys.h>
#include <propvarutil.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

#include "platform/critical_section.h"
#include "winprops/Variants.h"

namespace {

using winprops::OwnedVariant;

struct Entry {
  PROPERTYKEY key;
  OwnedVariant value;
  PSC_STATE state = PSC_NORMAL;
};

class MemoryStore final : public IPropertyStoreCache, public IPersistSerializedPropStorage {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == IID_IPropertyStore || iid == IID_IPropertyStoreCache)
      *object = static_cast<IPropertyStoreCache*>(this);
    if (iid == IID_IPersistSerializedPropStorage) *object = static_cast<IPersistSerializedPropStorage*>(this);
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

  STDMETHODIMP GetCount(DWORD* count) override {
    if (!count) return E_POINTER;
    const std::lock_guard guard(lock_);
    *count = static_cast<DWORD>(entries_.size());
    return S_OK;
  }
  STDMETHODIMP GetAt(DWORD index, PROPERTYKEY* key) override {
    if (!key) return E_POINTER;
    const std::lock_guard guard(lock_);
    if (index >= entries_.size()) return E_INVALIDARG;
    *key = entries_[index].key;
    return S_OK;
  }
  STDMETHODIMP GetValue(REFPROPERTYKEY key, PROPVARIANT* value) override {
    if (!value) return E_POINTER;
    PropVariantInit(value);
    const std::lock_guard guard(lock_);
    const Entry* entry = Find(key);
    return entry ? PropVariantCopy(value, &entry->value) : S_OK;  // a value that is not there is empty
  }
  STDMETHODIMP SetValue(REFPROPERTYKEY key, REFPROPVARIANT value) override {
    return Change(key, [&](Entry& entry) { return entry.value.Assign(value); });
  }
  STDMETHODIMP Commit() override { return S_OK; }

  STDMETHODIMP GetState(REFPROPERTYKEY key, PSC_STATE* state) override {
    if (!state) return E_POINTER;
    *state = PSC_NORMAL;
    const std::lock_guard guard(lock_);
    const Entry* entry = Find(key);
    if (!entry) return TYPE_E_ELEMENTNOTFOUND;
    *state = entry->state;
    return S_OK;
  }
  STDMETHODIMP GetValueAndState(REFPROPERTYKEY key, PROPVARIANT* value, PSC_STATE* state) override {
    if (!value) return E_POINTER;
    PropVariantInit(value);
    const HRESULT hr = GetState(key, state);
    return FAILED(hr) ? hr : GetValue(key, value);
  }
  STDMETHODIMP SetState(REFPROPERTYKEY key, PSC_STATE state) override {
    const std::lock_guard guard(lock_);
    Entry* entry = Find(key);
    if (!entry) return TYPE_E_ELEMENTNOTFOUND;
    entry->state = state;
    return S_OK;
  }
  STDMETHODIMP SetValueAndState(REFPROPERTYKEY key, const PROPVARIANT* value, PSC_STATE state) override {
    if (!value) return E_POINTER;
    return Change(key, [&](Entry& entry) {
      entry.state = state;
      return entry.value.Assign(*value);
    });
  }

  STDMETHODIMP SetFlags(PERSIST_SPROPSTORE_FLAGS flags) override {
    if (flags & ~FPSPS_READONLY) return E_INVALIDARG;
    const std::lock_guard guard(lock_);
    read_only_ = flags & FPSPS_READONLY;
    return S_OK;
  }
  STDMETHODIMP SetPropertyStorage(PCUSERIALIZEDPROPSTORAGE form, DWORD size) override {
    if (!form && size) return E_INVALIDARG;
    try {
      const auto values = winprops::Parse({reinterpret_cast<const std::byte*>(form), size});
      if (!values) return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
      std::vector<Entry> entries;
      for (const winprops::Value& value : *values) {
        Entry& entry = entries.emplace_back();
        memcpy(&entry.key.fmtid, value.format.data(), sizeof(GUID));
        entry.key.pid = value.id;
        const HRESULT hr = winprops::ToVariant(value, entry.value);
        if (FAILED(hr)) return hr;
      }
      const std::lock_guard guard(lock_);
      entries_.swap(entries);
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }
  STDMETHODIMP GetPropertyStorage(SERIALIZEDPROPSTORAGE** form, DWORD* size) override {
    if (!form || !size) return E_POINTER;
    *form = nullptr;
    *size = 0;
    try {
      std::vector<winprops::Value> values;
      {
        const std::lock_guard guard(lock_);
        for (const Entry& entry : entries_) {
          winprops::Value& value = values.emplace_back();
          memcpy(value.format.data(), &entry.key.fmtid, sizeof(GUID));
          value.id = entry.key.pid;
          const HRESULT hr = winprops::FromVariant(entry.value, value);
          if (FAILED(hr)) return hr;
        }
      }
      const std::vector<std::byte> bytes = winprops::Serialize(values);
      void* block = CoTaskMemAlloc(bytes.size());
      if (!block) return E_OUTOFMEMORY;
      memcpy(block, bytes.data(), bytes.size());
      *form = static_cast<SERIALIZEDPROPSTORAGE*>(block);
      *size = static_cast<DWORD>(bytes.size());
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }

 private:
  Entry* Find(REFPROPERTYKEY key) {
    const auto same = [&](const Entry& entry) { return entry.key.pid == key.pid && entry.key.fmtid == key.fmtid; };
    const auto found = std::find_if(entries_.begin(), entries_.end(), same);
    return found == entries_.end() ? nullptr : &*found;
  }
  template <class Apply>
  HRESULT Change(REFPROPERTYKEY key, Apply&& apply) {
    const std::lock_guard guard(lock_);
    if (read_only_) return STG_E_ACCESSDENIED;
    try {
      Entry* entry = Find(key);
      if (!entry) {
        entry = &entries_.emplace_back();
        entry->key = key;
      }
      return apply(*entry);
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }

  std::atomic<ULONG> references_ = 1;
  CriticalSection lock_;
  bool read_only_ = false;
  std::vector<Entry> entries_;
};

}  // namespace

// Exported as PSCreateMemoryPropertyStore.
STDAPI CreateMemoryStore(REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  auto* store = new (std::nothrow) MemoryStore;
  if (!store) return E_OUTOFMEMORY;
  const HRESULT hr = store->QueryInterface(iid, object);
  store->Release();
  return hr;
}
