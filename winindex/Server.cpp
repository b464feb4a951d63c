// The DLL's exports: class objects and registration.
#include <string>

#include "winindex/ComObject.h"
#include "winindex/SearchManager.h"
#include "winindex/SearchRoot.h"
#include "winindex/Text.h"

namespace winindex {
namespace {

HINSTANCE instance = nullptr;

using Maker = ComPtr<IUnknown> (*)();

struct ClassRow {
  const CLSID& clsid;
  const char* creation;  // its name in the fault plan
  const wchar_t* title;
  Maker make;
};
constexpr ClassRow kClasses[] = {
    {CLSID_CSearchManager, "CSearchManager::CreateInstance", L"Hoardex system index: search manager",
     [] { return ComPtr<IUnknown>(MakeSearchManager()); }},
    {CLSID_CSearchRoot, "CSearchRoot::CreateInstance", L"Hoardex system index: search root",
     [] { return ComPtr<IUnknown>(static_cast<ISearchRoot*>(Make<SearchRoot>().Get())); }},
};

class ClassObject final : public ComObject<IClassFactory> {
 public:
  explicit ClassObject(const ClassRow& row) : row_(row) {}
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
    return Method(row_.creation, [&] {
      Require(object, E_POINTER);
      *object = nullptr;
      Require(!outer, CLASS_E_NOAGGREGATION);
      return row_.make()->QueryInterface(iid, object);
    });
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    living += lock ? 1 : -1;
    return S_OK;
  }

 private:
  const ClassRow& row_;
};

std::wstring KeyOf(const ClassRow& row) {
  wchar_t text[40] = {};
  StringFromGUID2(row.clsid, text, 40);
  return std::wstring(L"CLSID\\") + text;
}

constexpr wchar_t kServer[] = L"InprocServer32";

std::wstring ModulePath() {
  std::wstring path(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(instance, path.data(), static_cast<DWORD>(path.size()));
    Require(length > 0, HRESULT_FROM_WIN32(GetLastError()));
    if (length < path.size()) return path.substr(0, length);
    path.resize(path.size() * 2);
  }
}

enum class Owner { kNobody, kOurs, kAnother };

// Whose class this is: another's is left alone, above all the index of Windows itself.
Owner OwnerOf(const ClassRow& row) {
  HKEY key;
  if (RegOpenKeyExW(HKEY_CLASSES_ROOT, KeyOf(row).c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return Owner::kNobody;
  RegCloseKey(key);
  const std::wstring file = ModulePath().substr(ModulePath().find_last_of(L"\\/") + 1);
  wchar_t server[2048];
  DWORD size = sizeof(server);
  if (RegGetValueW(HKEY_CLASSES_ROOT, (KeyOf(row) + L"\\" + kServer).c_str(), nullptr, RRF_RT_REG_SZ, nullptr, server,
                   &size) != ERROR_SUCCESS)
    return Owner::kAnother;
  const std::wstring_view path = server;
  return SameText(path.substr(path.find_last_of(L"\\/") + 1), file) ? Owner::kOurs : Owner::kAnother;
}

void SetText(const std::wstring& key, const wchar_t* name, const std::wstring& text) {
  const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
  const LONG error = RegSetKeyValueW(HKEY_CLASSES_ROOT, key.c_str(), name, REG_SZ, text.c_str(), size);
  if (error != ERROR_SUCCESS) throw Failure{HRESULT_FROM_WIN32(error)};
}

HRESULT Remove() {
  HRESULT result = S_OK;
  for (const ClassRow& row : kClasses) {
    if (OwnerOf(row) != Owner::kOurs) continue;
    const LONG error = RegDeleteTreeW(HKEY_CLASSES_ROOT, KeyOf(row).c_str());
    if (error != ERROR_SUCCESS && SUCCEEDED(result)) result = HRESULT_FROM_WIN32(error);
  }
  return result;
}

}  // namespace
}  // namespace winindex

using namespace winindex;

extern "C" {

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, void*) {
  if (reason == DLL_PROCESS_ATTACH) {
    instance = self;
    DisableThreadLibraryCalls(self);
  }
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
  return Method("DllGetClassObject", [&] {
    Require(object, E_POINTER);
    *object = nullptr;
    for (const ClassRow& row : kClasses)
      if (row.clsid == clsid) return Make<ClassObject>(row)->QueryInterface(iid, object);
    return CLASS_E_CLASSNOTAVAILABLE;
  });
}

STDAPI DllCanUnloadNow() {
  return living == 0 ? S_OK : S_FALSE;
}

// Refuses with ERROR_ALREADY_EXISTS where the machine has an index of its own. What cannot be done whole is undone.
STDAPI DllRegisterServer() {
  return Method("DllRegisterServer", [] {
    for (const ClassRow& row : kClasses)
      Require(OwnerOf(row) != Owner::kAnother, HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    try {
      for (const ClassRow& row : kClasses) {
        SetText(KeyOf(row) + L"\\" + kServer, nullptr, ModulePath());
        SetText(KeyOf(row) + L"\\" + kServer, L"ThreadingModel", L"Both");
        SetText(KeyOf(row), nullptr, row.title);
      }
    } catch (const Failure&) {
      Remove();
      throw;
    }
    return S_OK;
  });
}

// Leaves classes of others alone, and the state: search roots are the users'.
STDAPI DllUnregisterServer() {
  return Method("DllUnregisterServer", [] { return Remove(); });
}

}  // extern "C"
