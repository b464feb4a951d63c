#include "module/shell/PropertyStores.h"

#include <string>

#include "module/core/HoardexPH.h"

namespace {

// The library beside the module before the system's, as if the module had been linked to it.
HMODULE Load() {
  constexpr wchar_t kLibrary[] = L"propsys.dll";
  wchar_t folder[MAX_PATH];
  DWORD length = GetModuleFileNameW(module::Instance(), folder, MAX_PATH);
  std::wstring path(folder, length < MAX_PATH ? length : 0);
  path.resize(path.rfind(L'\\') + 1);
  path += kLibrary;
  if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
    length = GetSystemDirectoryW(folder, MAX_PATH);
    if (!length || length >= MAX_PATH) return nullptr;
    path = std::wstring(folder, length) + L"\\" + kLibrary;
  }
  return LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
}

}  // namespace

HRESULT CreateMemoryPropertyStore(IPropertyStore** store) {
  *store = nullptr;
  using Create = HRESULT(STDAPICALLTYPE*)(REFIID, void**);
  static const HMODULE library = Load();
  if (!library) return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
  const auto create =
      reinterpret_cast<Create>(reinterpret_cast<void*>(GetProcAddress(library, "PSCreateMemoryPropertyStore")));
  if (!create) return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  return create(__uuidof(IPropertyStore), reinterpret_cast<void**>(store));
}
