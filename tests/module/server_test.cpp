// The built module as COM and its registrar meet it.
#include <gtest/gtest.h>

#include <windows.h>

#include <wrl/client.h>

#include <fstream>
#include <iterator>

#include "include/HoardexPH.h"
#include "platform/searchapi.h"
#include "tests/support/fake_index.h"
#include "tests/support/module_host.h"
#include "tests/support/thread.h"

namespace {

constexpr CLSID kClass = {0x6E2F0B6A, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};
constexpr GUID kLibrary = {0x6E2F0B69, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

TEST(Module, RefusesToLoadWithoutMapiAndSaysWhy) {
  const ScratchRegistry registry;  // names no mail client
  const ScratchFolders folders;
  SetLastError(0);
  EXPECT_EQ(LoadLibraryW(ModuleHost::ModulePath().c_str()), nullptr);
  EXPECT_EQ(GetLastError(), DWORD{ERROR_DLL_INIT_FAILED});
  const std::string log = ModuleHost::LogText();
  const size_t about = log.rfind("HoardexPH::DllMain() - About to load MAPI");
  const size_t failed = log.rfind("HoardexPH::CheckMAPIIsLoaded() - Failed to load MAPI");
  ASSERT_NE(about, std::string::npos);
  EXPECT_LT(about, failed);
  EXPECT_LT(failed, log.rfind("HoardexPH::DllMain() - MAPI Failed to load - exiting DllMain"));
}

TEST(Module, NamesItsItemTypesFromItsLoadOn) {
  ModuleHost host;
  ASSERT_TRUE(host.loaded());
  EXPECT_EQ(ScratchRegistry::GetString(HKEY_CLASSES_ROOT, L"MAPI/ZK.Task", L"FriendlyTypeName"), L"Tessary Task");
  const FARPROC address = GetProcAddress(GetModuleHandleW(L"HoardexPH.dll"), "DeleteWDSRegKeyForHX");
  reinterpret_cast<HoardexRegistrationExport>(address)();
  EXPECT_FALSE(ScratchRegistry::Exists(HKEY_CLASSES_ROOT, L"MAPI/ZK.Task"));
}

// Holds an inner object of the module, as an aggregating one does.
class Outer final : public IUnknown {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (iid != IID_IUnknown) return inner->QueryInterface(iid, object);
    *object = this;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  IUnknown* inner = nullptr;
  ULONG references = 1;
};

TEST(Module, ServesItsClassAloneAndAggregated) {
  ModuleHost host;
  ASSERT_TRUE(host.loaded());
  Microsoft::WRL::ComPtr<IClassFactory> factory;
  EXPECT_EQ(host.GetClassObject(IID_IUnknown, IID_IClassFactory, &factory), CLASS_E_CLASSNOTAVAILABLE);
  ASSERT_EQ(host.GetClassObject(kClass, IID_IClassFactory, &factory), S_OK);
  EXPECT_EQ(host.Call("DllCanUnloadNow"), S_FALSE);
  {
    Microsoft::WRL::ComPtr<ISearchProtocol> protocol;
    ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(ISearchProtocol),
                                      reinterpret_cast<void**>(protocol.ReleaseAndGetAddressOf())),
              S_OK);
    Microsoft::WRL::ComPtr<IDispatch> dispatch;
    EXPECT_EQ(protocol.As(&dispatch), S_OK);
    UINT count = 0;
    Microsoft::WRL::ComPtr<ITypeInfo> info;
    EXPECT_EQ(dispatch->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(dispatch->GetTypeInfo(0, 0, &info), S_OK);
    Microsoft::WRL::ComPtr<ITypeLib> library;
    UINT index;
    ASSERT_EQ(info->GetContainingTypeLib(&library, &index), S_OK);
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
    EXPECT_TRUE(attributes->guid == kLibrary);
    library->ReleaseTLibAttr(attributes);
    Microsoft::WRL::ComPtr<IHoardexNotify> notify;
    ASSERT_EQ(protocol.As(&notify), S_OK);
    Microsoft::WRL::ComPtr<ITypeInfo> described;
    ASSERT_EQ(library->GetTypeInfoOfGuid(IID_IHoardexNotify, &described), S_OK);
    TYPEATTR* shape = nullptr;
    ASSERT_EQ(described->GetTypeAttr(&shape), S_OK);
    EXPECT_EQ(shape->cFuncs, 6) << "as the header for clients has it";
    described->ReleaseTypeAttr(shape);
    void* nothing = &count;
    EXPECT_EQ(protocol->QueryInterface(IID_IMarshal, &nothing), E_NOINTERFACE);
    EXPECT_EQ(nothing, nullptr);
  }
  {
    Outer outer;
    void* wrong = nullptr;
    EXPECT_EQ(factory->CreateInstance(&outer, __uuidof(ISearchProtocol), &wrong), CLASS_E_NOAGGREGATION);
    ASSERT_EQ(factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&outer.inner)), S_OK);
    Microsoft::WRL::ComPtr<ISearchProtocol> protocol;
    ASSERT_EQ(outer.QueryInterface(__uuidof(ISearchProtocol), reinterpret_cast<void**>(protocol.GetAddressOf())), S_OK);
    EXPECT_EQ(outer.references, 2u) << "the inner object's interfaces count on the outer one";
    Microsoft::WRL::ComPtr<IUnknown> identity;
    EXPECT_EQ(protocol.As(&identity), S_OK);
    EXPECT_EQ(identity.Get(), static_cast<IUnknown*>(&outer));
    identity.Reset();
    protocol.Reset();
    EXPECT_EQ(outer.references, 1u);
    EXPECT_EQ(outer.inner->Release(), 0u);
  }
  EXPECT_EQ(factory->LockServer(TRUE), S_OK);
  factory.Reset();
  EXPECT_EQ(host.Call("DllCanUnloadNow"), S_FALSE);
  ASSERT_EQ(host.GetClassObject(kClass, IID_IClassFactory, &factory), S_OK);
  EXPECT_EQ(factory->LockServer(FALSE), S_OK);
  factory.Reset();
  EXPECT_EQ(host.Call("DllCanUnloadNow"), S_OK);
}

// What is made up for at the class object, outside the loader's lock, once in a process.
TEST(Module, AddsTheUsersRootWhenItsClassIsFirstAskedForAndServesItWhateverComesOfThat) {
  Microsoft::WRL::ComPtr<IClassFactory> factory;
  for (const bool refused : {false, true}) {
    // The index's class objects stand in the apartment that threads without one of their own share.
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    {
      FakeIndex index;
      if (refused) index.faults["ISearchManager::GetCatalog"] = E_ACCESSDENIED;
      ModuleHost host;
      ASSERT_TRUE(host.loaded());
      host.Call("DllCanUnloadNow");
      EXPECT_TRUE(index.calls.empty()) << "COM under the loader's lock";
      EXPECT_EQ(host.GetClassObject(IID_IUnknown, IID_IClassFactory, &factory), CLASS_E_CLASSNOTAVAILABLE);
      EXPECT_TRUE(index.calls.empty());
      Thread([&] { EXPECT_EQ(host.GetClassObject(kClass, IID_IClassFactory, &factory), S_OK); }).join();
      EXPECT_EQ(index.roots.size(), refused ? 0u : 1u);
      const auto calls = index.calls;
      EXPECT_EQ(calls.size(), refused ? 2u : 16u);
      EXPECT_EQ(host.GetClassObject(kClass, IID_IClassFactory, &factory), S_OK);
      index.roots.clear();
      EXPECT_EQ(index.calls, calls) << "once is enough";
      factory.Reset();
    }
    EXPECT_EQ(FakeIndex::LiveObjects(), 0);
    CoUninitialize();
  }
}

}  // namespace
