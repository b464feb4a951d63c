#include "module/shell/PropertyStores.h"

#include <wrl/client.h>

#include <string>

#include "module/core/HoardexPH.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLibrary[] = L"propsys.dll";
using Create = HRESULT(STDAPICALLTYPE*)(REFIID, void**);

HRESULT CreateStore(HMODULE library, IPropertyStore** store) {
  *store = nullptr;
  if (!library) return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
  const auto create =
      reinterpret_cast<Create>(reinterpret_cast<void*>(GetProcAddress(library, "PSCreateMemoryPropertyStore")));
  if (!create) return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  return create(__uuidof(IPropertyStore), reinterpret_cast<void**>(store));
}

bool HasSerialisedForm(HMODULE library) {
  ComPtr<IPropertyStore> store;
  ComPtr<IPersistSerializedPropStorage> persist;
  return SUCCEEDED(CreateStore(library, store.GetAddressOf())) &&
         SUCCEEDED(store->QueryInterface(__uuidof(IPersistSerializedPropStorage),
                                         reinterpret_cast<void**>(persist.GetAddressOf())));
}

// By its full path alone: a bare name would also be looked for where anybody may put a library.
HMODULE LoadFrom(std::wstring folder) {
  if (folder.empty()) return nullptr;
  if (folder.back() != L'\\') folder += L'\\';
  return LoadLibraryExW((folder + kLibrary).c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

std::wstring SystemFolder() {
  wchar_t folder[MAX_PATH];
  const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
  return std::wstring(folder, length < MAX_PATH ? length : 0);
}

std::wstring ModuleFolder() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(module::Instance(), path, MAX_PATH);
  std::wstring folder(path, length < MAX_PATH ? length : 0);
  folder.resize(folder.rfind(L'\\') + 1);
  return folder;
}

}  // namespace

HMODULE LoadPropertySystem() {
  HMODULE library = nullptr;
  if (!GetModuleHandleExW(0, kLibrary, &library)) library = LoadFrom(SystemFolder());
  if (library && HasSerialisedForm(library)) return library;
  // Never on Windows: its stores have the form.
  const HMODULE neighbour = LoadFrom(ModuleFolder());
  if (!neighbour) return library;
  if (library) FreeLibrary(library);
  return neighbour;
}

HRESULT CreateMemoryPropertyStore(IPropertyStore** store) {
  static const HMODULE library = LoadPropertySystem();
  return CreateStore(library, store);
}
