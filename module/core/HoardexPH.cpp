// The module's entry point and standard exports.
#include "module/core/HoardexPH.h"

#include <olectl.h>

#include <wrl/client.h>

#include <new>
#include <optional>

#include "module/core/Boundary.h"
#include "module/core/ComObject.h"
#include "module/core/Registrar.h"
#include "module/core/resource.h"
#include "module/mapi/MapiForWDS.h"
#include "module/mapi/MapiLoader.h"
#include "module/protocol/HoardexSP.h"
#include "module/registration/DesktopSearch.h"
#include "module/registration/Exports.h"
#include "module/shell/GroupPolicy.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexPH";

// The class object. It holds the module like any object, so that a host that keeps it keeps the code.
class ClassFactory final : public ComObject<IClassFactory> {
 public:
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    ZK_GUARD(L"CHoardexPHModule::CreateInstance()", [&] { return CreateHoardexSP(outer, iid, object); });
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    lock ? module::Lock() : module::Unlock();
    return S_OK;
  }
};

std::wstring ModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(module::Instance(), path.data(), static_cast<DWORD>(path.size()));
    if (!length) return {};
    if (length < path.size()) {
      path.resize(length);
      return path;
    }
    path.resize(2 * path.size());
  }
}

std::wstring ClassesKey(const wchar_t* parent, const GUID& id) {
  wchar_t text[40] = {};
  StringFromGUID2(id, text, 40);
  return std::wstring(parent) + L"\\" + text;
}

// The identifier of the library's type number `index`, if it is an interface: those are registered.
HRESULT InterfaceOf(ITypeLib* library, UINT index, std::optional<GUID>& id) {
  id.reset();
  Microsoft::WRL::ComPtr<ITypeInfo> type;
  HRESULT hr = library->GetTypeInfo(index, &type);
  TYPEATTR* attributes = nullptr;
  if (SUCCEEDED(hr)) hr = type->GetTypeAttr(&attributes);
  if (FAILED(hr)) return hr;
  if (attributes->typekind == TKIND_INTERFACE || attributes->typekind == TKIND_DISPATCH) id = attributes->guid;
  type->ReleaseTypeAttr(attributes);
  return S_OK;
}

// The system's function writes the keys of the library and its interfaces; what it has written of them when it fails is
// taken back.
HRESULT RegisterTypeLibrary(RegistryUndo& undo) {
  const std::wstring path = ModulePath();
  Microsoft::WRL::ComPtr<ITypeLib> library;
  HRESULT hr = LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
  if (FAILED(hr)) return hr;
  const auto remember = [&](const wchar_t* parent, const GUID& id) {
    RegistryKey key;
    LONG error = undo.OpenOrCreate(HKEY_CLASSES_ROOT, parent, KEY_READ, key);
    if (error == ERROR_SUCCESS) error = undo.Remember(HKEY_CLASSES_ROOT, ClassesKey(parent, id));
    return HRESULT_FROM_WIN32(error);
  };
  if (FAILED(hr = remember(L"TypeLib", module::kTypeLibrary))) return hr;
  for (UINT i = 0; i < library->GetTypeInfoCount(); ++i) {
    std::optional<GUID> id;
    if (FAILED(hr = InterfaceOf(library.Get(), i, id))) return hr;
    if (id && FAILED(hr = remember(L"Interface", *id))) return hr;
  }
  return LoadTypeLibEx(path.c_str(), REGKIND_REGISTER, library.ReleaseAndGetAddressOf());
}

// One that is not registered is no failure.
HRESULT UnregisterTypeLibrary() {
  RegistryKey key;
  if (key.Open(HKEY_CLASSES_ROOT, (ClassesKey(L"TypeLib", module::kTypeLibrary) + L"\\1.0\\0\\win64").c_str()) ==
      ERROR_FILE_NOT_FOUND)
    return S_OK;
  const HRESULT hr = UnRegisterTypeLib(module::kTypeLibrary, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
  if (FAILED(hr))
    ZK_LOG(L"HoardexPH::DllUnregisterServer() - UnRegisterTypeLib returned with a value of [0x%08lX]", hr);
  return hr;
}

}  // namespace

bool CheckMAPIIsLoaded() {
  if (g_MapiLoader.IsLoaded()) {
    ZK_LOG(L"HoardexPH::CheckMAPIIsLoaded() - MAPI has loaded");
    return true;
  }
  ZK_LOG(L"HoardexPH::CheckMAPIIsLoaded() - Failed to load MAPI");
  return false;
}

// Under the loader lock: no COM call, no thread, no wait for one.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID process_ends) {
  module::SetInstance(instance);
  if (reason == DLL_PROCESS_ATTACH) {
    ZK_LOG(L"HoardexPH::DllMain() - About to load MAPI");
    if (!CheckMAPIIsLoaded()) {
      ZK_LOG(L"HoardexPH::DllMain() - MAPI Failed to load - exiting DllMain\n");
      return FALSE;
    }
    ZK_LOG(L"HoardexPH::DllMain() - Finished loading MAPI");
  }
  if (reason != DLL_PROCESS_DETACH && reason != DLL_THREAD_DETACH) UpdateRegistryOnAttach();
  // A process that ends gives everything back itself, and what else it unloads may still call this module.
  if (reason == DLL_PROCESS_DETACH && !process_ends) {
    ReleaseGroupPolicies();
    CMapiForWDS::ReleaseTable();
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (clsid != module::kHoardexSPClass) return CLASS_E_CLASSNOTAVAILABLE;
  auto* factory = new (std::nothrow) ClassFactory;
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(iid, object);
  // While the class object holds the module: the index may be another process, and waiting for it lets other calls in.
  AddUserRootOnce();
  factory->Release();
  return hr;
}

STDAPI DllCanUnloadNow() {
  return module::LockCount() ? S_FALSE : S_OK;
}

STDAPI DllRegisterServer() {
  ZK_GUARD(L"HoardexPH::DllRegisterServer()", [] {
    RegistryUndo undo;
    HRESULT hr = registrar::Register(IDR_REGISTRATION, ModulePath(), undo);
    if (SUCCEEDED(hr)) hr = RegisterTypeLibrary(undo);
    if (SUCCEEDED(hr)) undo.Keep();
    return hr;
  });
}

STDAPI DllUnregisterServer() {
  ZK_GUARD(L"HoardexPH::DllUnregisterServer()", [] {
    const HRESULT script = registrar::Unregister(IDR_REGISTRATION, ModulePath());
    const HRESULT library = UnregisterTypeLibrary();
    DeleteWDSRegKeyForHX();
    return FAILED(script) ? script : library;
  });
}
