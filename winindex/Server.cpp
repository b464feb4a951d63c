// The DLL's exports: class objects and registration.
#include <string>

#include "module/core/RegistryUndo.h"
#include "winindex/ChangeQueue.h"
#include "winindex/ComObject.h"
#include "winindex/Scope.h"
#include "winindex/SearchManager.h"
#include "winindex/SearchRoot.h"
#include "winindex/StateFiles.h"
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

// A text of the classes' part of the registry; empty when there is none.
std::wstring TextOf(const std::wstring& key, const wchar_t* name = nullptr) {
  wchar_t text[2048];
  DWORD size = sizeof(text);
  return RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), name, RRF_RT_REG_SZ, nullptr, text, &size) == ERROR_SUCCESS ? text
                                                                                                                  : L"";
}

// Whose class this is: another's is left alone, above all the index of Windows itself, whose server is a service.
// Ours is what has our title, our library, or no server at all: the rest of a registration.
Owner OwnerOf(const ClassRow& row) {
  const std::wstring key = KeyOf(row);
  RegistryKey there;
  if (there.Open(HKEY_CLASSES_ROOT, key.c_str()) != ERROR_SUCCESS) return Owner::kNobody;
  if (SameText(TextOf(key), row.title)) return Owner::kOurs;
  const auto file_of = [](const std::wstring& path) { return path.substr(path.find_last_of(L"\\/") + 1); };
  const std::wstring server = TextOf(key + L"\\" + kServer);
  if (!server.empty()) return SameText(file_of(server), file_of(ModulePath())) ? Owner::kOurs : Owner::kAnother;
  for (const wchar_t* out_of_process : {L"LocalServer32", L"LocalServer"})
    if (there.Open(HKEY_CLASSES_ROOT, (key + L"\\" + out_of_process).c_str()) == ERROR_SUCCESS) return Owner::kAnother;
  return TextOf(key, L"AppID").empty() ? Owner::kOurs : Owner::kAnother;
}

void SetText(RegistryUndo& undo, const std::wstring& path, const wchar_t* name, const std::wstring& text) {
  RegistryKey key;
  LONG error = undo.OpenOrCreate(HKEY_CLASSES_ROOT, path, KEY_READ | KEY_WRITE, key);
  if (error == ERROR_SUCCESS)
    error = undo.SetValue(HKEY_CLASSES_ROOT, path, key, name, REG_SZ, text.c_str(),
                          static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
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

// Refuses with ERROR_ALREADY_EXISTS where the machine has an index of its own. What cannot be done whole is undone:
// what stood there before stands there again.
STDAPI DllRegisterServer() {
  return Method("DllRegisterServer", [] {
    for (const ClassRow& row : kClasses)
      Require(OwnerOf(row) != Owner::kAnother, HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    RegistryUndo undo;
    RegistryKey classes;
    if (const LONG error = undo.OpenOrCreate(HKEY_CLASSES_ROOT, L"CLSID", KEY_READ, classes); error != ERROR_SUCCESS)
      return HRESULT_FROM_WIN32(error);
    for (const ClassRow& row : kClasses) {
      SetText(undo, KeyOf(row), nullptr, row.title);
      SetText(undo, KeyOf(row) + L"\\" + kServer, nullptr, ModulePath());
      SetText(undo, KeyOf(row) + L"\\" + kServer, L"ThreadingModel", L"Both");
    }
    undo.Keep();
    return S_OK;
  });
}

// Leaves classes of others alone, and search roots, which are the users'. Without any there is nobody whose index waits
// for the changes that are queued.
STDAPI DllUnregisterServer() {
  return Method("DllUnregisterServer", [] {
    const HRESULT result = Remove();
    const StateLock lock;
    if (Scope::Load().roots().empty()) ForgetChanges();
    return result;
  });
}

}  // extern "C"
