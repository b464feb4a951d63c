// A caller of the provider: its functions looked up by name, as every MAPI program does, and owners for what it gives.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "provider/mapi.h"
#include "tests/support/provider_faults.h"
#include "vault/writer.h"

namespace test {

// The exports, from HoardexMapiChecked.dll beside the test program.
struct Library {
  HMODULE module;
  SCODE(WINAPI* AllocateBuffer)(ULONG, LPVOID*);
  SCODE(WINAPI* AllocateMore)(ULONG, LPVOID, LPVOID*);
  ULONG(WINAPI* FreeBuffer)(LPVOID);
  HRESULT(WINAPI* GetOneProp)(LPMAPIPROP, ULONG, LPSPropValue*);
  void(WINAPI* FreeProws)(LPSRowSet);
  HRESULT(WINAPI* QueryAllRows)(LPMAPITABLE, LPSPropTagArray, LPSRestriction, LPSSortOrderSet, LONG, LPSRowSet*);
  void(WINAPI* HexFromBin)(LPBYTE, int, char*);
  HRESULT(WINAPI* Initialize)(LPVOID);
  void(WINAPI* Uninitialize)();
  HRESULT(WINAPI* LogonEx)(ULONG_PTR, LPTSTR, LPTSTR, ULONG, LPMAPISESSION*);
  HRESULT(WINAPI* AdminProfiles)(ULONG, LPPROFADMIN*);
  SCODE(WINAPI* DupPropset)(int, LPSPropValue, LPALLOCATEBUFFER, LPSPropValue*);
  LPSPropValue(WINAPI* FindProp)(LPSPropValue, ULONG, ULONG);
};
const Library& Mapi();

constexpr HRESULT Code(SCODE code) {
  return static_cast<HRESULT>(code);
}

// A COM reference; Out() receives one.
template <class T>
class Com {
 public:
  Com() = default;
  Com(Com&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Com& operator=(Com&& other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Com() { Reset(); }
  void Reset() {
    if (object_) std::exchange(object_, nullptr)->Release();
  }
  T* operator->() const { return object_; }
  T* get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  template <class As = T>
  As** Out() {
    Reset();
    return reinterpret_cast<As**>(&object_);
  }

 private:
  T* object_ = nullptr;
};

// Values of GetProps or a row set, freed at the end.
class Values {
 public:
  ~Values() { Mapi().FreeBuffer(values); }
  HRESULT Get(IMAPIProp* object, const std::vector<ULONG>& tags, ULONG flags = 0);
  const SPropValue& operator[](std::size_t i) const { return values[i]; }
  LPSPropValue values = nullptr;
  ULONG count = 0;
};
class Rows {
 public:
  ~Rows() { Mapi().FreeProws(set); }
  // All of them, unless there are more than `most`; 0: whatever their number.
  HRESULT Query(IMAPITable* table, const std::vector<ULONG>& tags, LONG most = 0);
  const SRow& operator[](std::size_t i) const { return set->aRow[i]; }
  const SPropValue& At(std::size_t row, std::size_t column) const { return set->aRow[row].lpProps[column]; }
  ULONG size() const { return set ? set->cRows : 0; }
  LPSRowSet set = nullptr;
};

// A tag array for a call.
class Tags {
 public:
  explicit Tags(const std::vector<ULONG>& tags);
  operator LPSPropTagArray() { return reinterpret_cast<LPSPropTagArray>(words_.data()); }

 private:
  std::vector<ULONG> words_;
};

// One profile, one session, one open store, in the steps of a caller that wants a private profile.
class OpenStore {
 public:
  // `path`: of the file. Failures are test failures unless `expected` is another code for ConfigureMsgService.
  explicit OpenStore(const std::wstring& path, HRESULT expected = S_OK);
  ~OpenStore();

  // A folder or message.
  template <class T>
  Com<T> Open(const std::vector<std::uint8_t>& entry_id) {
    Com<T> object;
    ULONG type = 0;
    EXPECT_EQ(store->OpenEntry(static_cast<ULONG>(entry_id.size()), Entry(entry_id), nullptr, MAPI_BEST_ACCESS, &type,
                               object.template Out<IUnknown>()),
              S_OK);
    return object;
  }
  static LPENTRYID Entry(const std::vector<std::uint8_t>& bytes) {
    return reinterpret_cast<LPENTRYID>(const_cast<std::uint8_t*>(bytes.data()));
  }
  // What the store says is the top of its messages.
  Com<IMAPIFolder> OpenTop();
  // The 24-byte entry id of a node.
  std::vector<std::uint8_t> EntryIdOf(std::uint32_t nid) const;

  Com<IProfAdmin> profiles;
  Com<IMAPISession> session;
  Com<IMsgServiceAdmin> services;
  Com<IMsgStore> store;
  MAPIUID service{};

 private:
  std::string name_;
};

// Every test leaves nothing behind.
class ProviderTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  ProviderFaults::Alive before_;
};

// Stores that a test writes, each in the place of the one before.
class WrittenStoreTest : public ProviderTest {
 protected:
  void TearDown() override;
  OpenStore& Write(const vault::StoreBuilder& store);

  std::unique_ptr<OpenStore> opened_;

 private:
  std::wstring path_;
};

// The folder of sample stores as a path of this platform; empty when there is none.
std::wstring SampleFolder();
std::wstring Sample(const std::wstring& name);
#define SKIP_WITHOUT_SAMPLES() \
  if (test::SampleFolder().empty()) GTEST_SKIP() << "no sample stores (HOARDEX_SAMPLES)"

std::wstring Wide(std::string_view utf8);
std::vector<std::uint8_t> BytesOf(const SBinary& binary);
// All of a stream, in uneven pieces.
std::vector<std::uint8_t> ReadAll(IStream* stream);
// PR_BODY_W as a caller gets it: whole, or through a stream. Empty when there is none.
std::wstring BodyOf(IMessage* message);

}  // namespace test
