// The module's entry point and standard exports.
#include "module/core/HoardexPH.h"

#include <olectl.h>

#include <wrl/client.h>

#include <new>
#include <utility>

#include "module/core/Boundary.h"
#include "module/core/ComObject.h"
#include "module/core/Registrar.h"
#include "module/core/resource.h"
#include "module/mapi/MapiLoader.h"
#include "module/protocol/HoardexSP.h"
#include "module/registration/DesktopSearch.h"
#include "module/registration/Exports.h"

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

// The system's function writes the library's keys; what it has written of them when it fails is taken back.
HRESULT RegisterTypeLibrary(RegistryUndo& undo) {
  for (const auto& [parent, id] : {std::pair{L"TypeLib", module::kTypeLibrary},
                                   {L"Interface", __uuidof(IHoardexSP)},
                                   {L"Interface", __uuidof(IHoardexNotify)}}) {
    wchar_t text[40] = {};
    StringFromGUID2(id, text, 40);
    RegistryKey key;
    LONG error = undo.OpenOrCreate(HKEY_CLASSES_ROOT, parent, KEY_READ, key);
    if (error == ERROR_SUCCESS) error = undo.Remember(HKEY_CLASSES_ROOT, std::wstring(parent) + L"\\" + text);
    if (error != ERROR_SUCCESS) return HRESULT_FROM_WIN32(error);
  }
  Microsoft::WRL::ComPtr<ITypeLib> library;
  return LoadTypeLibEx(ModulePath().c_str(), REGKIND_REGISTER, &library);
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
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
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
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (clsid != module::kHoardexSPClass) return CLASS_E_CLASSNOTAVAILABLE;
  auto* factory = new (std::nothrow) ClassFactory;
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(iid, object);
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
    const HRESULT hr = registrar::Unregister(IDR_REGISTRATION, ModulePath());
    const HRESULT library = UnRegisterTypeLib(module::kTypeLibrary, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
    if (FAILED(library))
      ZK_LOG(L"HoardexPH::DllUnregisterServer() - UnRegisterTypeLib returned with a value of [0x%08lX]", library);
    DeleteWDSRegKeyForHX();
    return hr;
  });
}
