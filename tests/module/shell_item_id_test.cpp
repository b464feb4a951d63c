// Item IDs: their bytes, and what becomes of those that are not ours.
#include <windows.h>

#include <propvarutil.h>

#include <cstring>

#include "module/shell/ItemIdFactory.h"
#include "tests/module/shell_fixture.h"

namespace shell {
namespace {

using Bytes = std::vector<BYTE>;
using Microsoft::WRL::ComPtr;

// The serialised form of a store whose one value, the parsing name, is "ab".
const Bytes kStorage = {0x35, 0,    0,    0,    '1',  'S',  'P',  'S',  0xA6, 0x6A, 0x63, 0x28, 0x3D, 0x95, 0xD2,
                        0x11, 0xB5, 0xD6, 0,    0xC0, 0x4F, 0xD9, 0x18, 0xD0, 0x19, 0,    0,    0,    0x18, 0,
                        0,    0,    0,    0x1F, 0,    0,    0,    3,    0,    0,    0,    'a',  0,    'b',  0,
                        0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0};

// The ID around it, written down by hand.
Bytes KnownId() {
  Bytes id = {0x4A, 0, 0, 0, 0x44, 0, 0x37, 0x3C, 0x57, 0x2A, 0x39, 0, 1, 0, 0};
  id.insert(id.end(), kStorage.begin(), kStorage.end());
  id.insert(id.end(), 4, 0);
  return id;
}

// A store whose serialised form a test chooses.
class FormOf final : public IPropertyStore, public IPersistSerializedPropStorage {
 public:
  explicit FormOf(Bytes form, HRESULT answer = S_OK, bool has_form = true)
      : form_(std::move(form)), answer_(answer), has_form_(has_form) {}
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = nullptr;
    if (iid == __uuidof(IPersistSerializedPropStorage) && has_form_)
      *object = static_cast<IPersistSerializedPropStorage*>(this);
    if (*object) ++references;
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  STDMETHODIMP GetCount(DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP GetAt(DWORD, PROPERTYKEY*) override { return E_NOTIMPL; }
  STDMETHODIMP GetValue(REFPROPERTYKEY, PROPVARIANT*) override { return E_NOTIMPL; }
  STDMETHODIMP SetValue(REFPROPERTYKEY, REFPROPVARIANT) override { return E_NOTIMPL; }
  STDMETHODIMP Commit() override { return E_NOTIMPL; }
  STDMETHODIMP SetFlags(PERSIST_SPROPSTORE_FLAGS) override { return E_NOTIMPL; }
  STDMETHODIMP SetPropertyStorage(PCUSERIALIZEDPROPSTORAGE, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP GetPropertyStorage(SERIALIZEDPROPSTORAGE** form, DWORD* size) override {
    *form = static_cast<SERIALIZEDPROPSTORAGE*>(CoTaskMemAlloc(form_.size() + 1));
    memcpy(*form, form_.data(), form_.size());
    *size = static_cast<DWORD>(form_.size());
    return answer_;
  }
  ULONG references = 0;

 private:
  Bytes form_;
  HRESULT answer_;
  bool has_form_;
};

// The allocator of a host that fills an ID's first words and keeps bytes of its own behind the rest.
class HostMalloc final : public IMalloc {
 public:
  static constexpr WORD kOwn = 6, kOuterWord = 0x0BB0;
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  STDMETHODIMP_(void*) Alloc(SIZE_T inner) override {
    asked = inner;
    if (refuses) return nullptr;
    const auto total = static_cast<WORD>(inner + 6 + kOwn);
    auto* block = static_cast<BYTE*>(CoTaskMemAlloc(inner + 6 + kOwn + 2));
    memset(block, 0xEE, inner + 6 + kOwn);
    const WORD words[] = {total, kOuterWord, static_cast<WORD>(inner)};
    memcpy(block, words, sizeof(words));
    memset(block + inner + 6 + kOwn, 0, 2);
    return block;
  }
  STDMETHODIMP_(void*) Realloc(void*, SIZE_T) override { return nullptr; }
  STDMETHODIMP_(void) Free(void* block) override { CoTaskMemFree(block); }
  STDMETHODIMP_(SIZE_T) GetSize(void*) override { return 0; }
  STDMETHODIMP_(int) DidAlloc(void*) override { return -1; }
  STDMETHODIMP_(void) HeapMinimize() override {}
  ULONG references = 0;
  SIZE_T asked = 0;
  bool refuses = false;
};

// Bytes that end where the process's memory does.
class Guarded {
 public:
  static constexpr size_t kRoom = 0x20000, kPage = 0x1000;
  Guarded()
      : base_(static_cast<BYTE*>(VirtualAlloc(nullptr, kRoom + kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))) {
    DWORD old;
    VirtualProtect(base_ + kRoom, kPage, PAGE_NOACCESS, &old);
  }
  ~Guarded() { VirtualFree(base_, 0, MEM_RELEASE); }
  PCUIDLIST_RELATIVE Put(const BYTE* bytes, size_t size) {
    memcpy(base_ + kRoom - size, bytes, size);
    return reinterpret_cast<PCUIDLIST_RELATIVE>(base_ + kRoom - size);
  }
  PCUIDLIST_RELATIVE Put(const Bytes& bytes) { return Put(bytes.data(), bytes.size()); }

 private:
  BYTE* base_;
};

HRESULT Read(PCUIDLIST_RELATIVE list, std::wstring* name = nullptr) {
  PROPVARIANT value;
  const HRESULT hr = ItemIDs::GetPropertyFromIDList(list, PKEY_ParsingName, &value);
  if (SUCCEEDED(hr) && name) *name = value.vt == VT_LPWSTR ? value.pwszVal : L"<none>";
  EXPECT_TRUE(SUCCEEDED(hr) || value.vt == VT_EMPTY);
  PropVariantClear(&value);
  return hr;
}

HRESULT Create(IMalloc* allocator, IPropertyStore* store, Bytes* bytes = nullptr, size_t tail = 2) {
  ItemId item;
  item.list = reinterpret_cast<PIDLIST_RELATIVE>(1);
  const HRESULT hr = ItemIDs::CreateItemID(allocator, store, reinterpret_cast<PITEMID_CHILD*>(&item.list));
  EXPECT_EQ(SUCCEEDED(hr), item.list != nullptr);
  if (SUCCEEDED(hr) && bytes) {
    const auto* begin = reinterpret_cast<const BYTE*>(item.list);
    bytes->assign(begin, begin + *reinterpret_cast<const WORD*>(begin) + tail);
  }
  return hr;
}

TEST(ItemIds, AreLaidOutForEver) {
  FormOf store(kStorage);
  Bytes id;
  ASSERT_EQ(Create(nullptr, &store, &id), S_OK);
  EXPECT_EQ(id, KnownId());
  EXPECT_EQ(store.references, 0u);
  std::wstring name;
  Guarded memory;
  EXPECT_EQ(Read(memory.Put(id), &name), S_OK);
  EXPECT_EQ(name, L"ab");

  // Nothing to carry: no store, or one with an empty form.
  const Bytes empty = {17, 0, 0, 0, 11, 0, 0x37, 0x3C, 0x57, 0x2A, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  FormOf nothing({});
  for (IPropertyStore* none : {static_cast<IPropertyStore*>(nullptr), static_cast<IPropertyStore*>(&nothing)}) {
    ASSERT_EQ(Create(nullptr, none, &id), S_OK);
    EXPECT_EQ(id, empty);
    EXPECT_EQ(Read(memory.Put(id), &name), S_OK);
    EXPECT_EQ(name, L"<none>");
  }
}

TEST(ItemIds, OfAHostAreItsToAllocate) {
  HostMalloc host;
  FormOf store(kStorage);
  Bytes id;
  ASSERT_EQ(Create(&host, &store, &id), S_OK);
  EXPECT_EQ(host.asked, kStorage.size() + 11);
  const Bytes known = KnownId();
  ASSERT_EQ(id.size(), known.size() + HostMalloc::kOwn);
  EXPECT_EQ(*reinterpret_cast<WORD*>(&id[2]), HostMalloc::kOuterWord) << "the host's, not written over";
  EXPECT_EQ(Bytes(id.begin() + 4, id.begin() + 74), Bytes(known.begin() + 4, known.begin() + 74));
  EXPECT_EQ(Bytes(id.begin() + 74, id.begin() + 80), Bytes(6, 0xEE)) << "the host's";
  std::wstring name;
  Guarded memory;
  for (const BYTE outer : {0xB0, 0x00}) {  // the second with no mark that the host has bytes of its own
    id[2] = outer;
    if (!outer) id[3] = 0;
    name.clear();
    EXPECT_EQ(Read(memory.Put(id), &name), S_OK);
    EXPECT_EQ(name, L"ab");
  }
  host.refuses = true;
  EXPECT_EQ(Create(&host, &store), E_OUTOFMEMORY);
  // What is too long for an ID is the host's to refuse, too.
  FormOf longest(Bytes(0xFFEF, 7));
  EXPECT_EQ(Create(&host, &longest), E_OUTOFMEMORY);
  EXPECT_EQ(host.asked, 0xFFEFu + 11);
}

TEST(ItemIds, HaveALongestFormAndNeedOne) {
  FormOf longest(Bytes(0xFFEE, 7)), longer(Bytes(0xFFEF, 7)), much_longer(Bytes(0x10000 + 57, 7));
  Bytes id;
  ASSERT_EQ(Create(nullptr, &longest, &id), S_OK);
  EXPECT_EQ(id.size(), 0xFFFFu + 2);
  EXPECT_EQ(Bytes(id.begin() + 10, id.begin() + 12), (Bytes{0xEE, 0xFF}));
  EXPECT_EQ(Create(nullptr, &longer), E_OUTOFMEMORY);
  EXPECT_EQ(Create(nullptr, &much_longer), E_OUTOFMEMORY);
  FormOf without({}, S_OK, false), failing(kStorage, E_ABORT);
  EXPECT_EQ(Create(nullptr, &without), E_NOINTERFACE);
  EXPECT_EQ(Create(nullptr, &failing), E_ABORT);
  EXPECT_EQ(failing.references, 0u);
}

TEST(ItemIds, ThatAreCutOrChangedAreRefused) {
  Guarded memory;
  const Bytes good = KnownId();
  EXPECT_EQ(Read(nullptr), E_INVALIDARG);
  EXPECT_EQ(Read(reinterpret_cast<PCUIDLIST_RELATIVE>(16)), E_INVALIDARG) << "no memory at all";
  for (size_t size = 0; size < good.size(); ++size)
    EXPECT_EQ(Read(memory.Put(good.data(), size)), E_INVALIDARG) << "cut to " << size;
  // Every other value of every byte of the header, and of the bytes behind the storage.
  for (size_t at = 0; at < good.size(); ++at) {
    if (at >= 15 && at < 15 + kStorage.size()) continue;
    for (int value = 0; value < 256; ++value) {
      Bytes bad = good;
      bad[at] = static_cast<BYTE>(value);
      const bool hosts_own = at == 2 || at == 3, same = bad == good;
      EXPECT_EQ(Read(memory.Put(bad)), hosts_own || same ? S_OK : E_INVALIDARG) << "byte " << at << " = " << value;
    }
  }
  // A size that its own words agree on, but that the storage has not.
  Bytes shorter = good;
  shorter.erase(shorter.begin() + 60);
  for (const size_t at : {0, 4, 10}) --shorter[at];
  EXPECT_EQ(Read(memory.Put(shorter)), E_INVALIDARG);
}

TEST(ItemIds, BehindOthersCount) {
  Guarded memory;
  const Bytes good = KnownId();
  Bytes list = {5, 0, 'x', 'y', 'z'};
  list.insert(list.end(), good.begin(), good.end());
  std::wstring name;
  EXPECT_EQ(Read(memory.Put(list), &name), S_OK);
  EXPECT_EQ(name, L"ab");
  // Ours first and another last is none of ours.
  Bytes foreign(good.begin(), good.end() - 2);
  foreign.insert(foreign.end(), {5, 0, 'x', 'y', 'z', 0, 0});
  EXPECT_EQ(Read(memory.Put(foreign)), E_INVALIDARG);
  EXPECT_EQ(Read(memory.Put({0, 0})), E_INVALIDARG);
}

}  // namespace
}  // namespace shell
