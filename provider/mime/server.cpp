// The converter as a COM class, which only this library registers, and only where no mail client has one.
#include <olectl.h>
#include <shlwapi.h>

#include <string>

#include "provider/mime/converter.h"

namespace {

using namespace provider;

constexpr wchar_t kClassKey[] = L"CLSID\\{4E3A7680-B77A-11D0-9DA5-00C04FD65685}";

class Factory final : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = iid == IID_IUnknown || iid == IID_IClassFactory ? this : nullptr;
    return *object ? S_OK : E_NOINTERFACE;
  }
  // One for the process: the library stays loaded as long as MAPI is.
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    try {
      return mime::MakeConverter()->QueryInterface(iid, object);
    } catch (...) {
      return CurrentFailure().code;
    }
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};
Factory factory;

std::wstring LibraryPath() {
  HMODULE self = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                     reinterpret_cast<LPCWSTR>(&factory), &self);
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(self, path, MAX_PATH);
  return length && length < MAX_PATH ? path : L"";
}

// The library that is registered now.
std::wstring Registered() {
  wchar_t path[MAX_PATH];
  DWORD size = sizeof(path);
  const std::wstring key = std::wstring(kClassKey) + L"\\InprocServer32";
  return RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, path, &size) == ERROR_SUCCESS
             ? path
             : L"";
}

LONG Set(const std::wstring& key, const wchar_t* name, const std::wstring& text) {
  return SHSetValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, text.c_str(),
                         static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

}  // namespace

STDAPI HxGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  if (!object) return E_POINTER;
  *object = nullptr;
  return clsid == CLSID_IConverterSession ? factory.QueryInterface(iid, object) : CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI HxCanUnloadNow() {
  return S_FALSE;
}

STDAPI HxRegisterServer() {
  const std::wstring path = LibraryPath(), present = Registered();
  if (path.empty()) return SELFREG_E_CLASS;
  // A mail client's converter is not ours to replace, as long as it is there.
  const bool foreign =
      !present.empty() && _wcsicmp(present.c_str(), path.c_str()) && present.find(L"HoardexMapi") == std::wstring::npos;
  if (foreign && GetFileAttributesW(present.c_str()) != INVALID_FILE_ATTRIBUTES)
    return HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS);
  const std::wstring server = std::wstring(kClassKey) + L"\\InprocServer32";
  LONG error = Set(kClassKey, nullptr, L"Hoardex MIME converter");
  if (!error) error = Set(server, nullptr, path);
  if (!error) error = Set(server, L"ThreadingModel", L"Both");
  return HRESULT_FROM_WIN32(static_cast<DWORD>(error));
}

STDAPI HxUnregisterServer() {
  if (Registered().find(L"HoardexMapi") == std::wstring::npos) return S_OK;
  return HRESULT_FROM_WIN32(static_cast<DWORD>(SHDeleteKeyW(HKEY_CLASSES_ROOT, kClassKey)));
}
