// The built module, loaded over the provider's checked build, in a registry of the test's own.
#pragma once

#include <windows.h>

#include <shlobj.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/provider_faults.h"
#include "tests/support/scratch_folders.h"
#include "tests/support/scratch_registry.h"

class ModuleHost {
 public:
  ModuleHost() {
    ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, L"Software\\Clients\\Mail\\Microsoft Outlook", L"DLLPathEx",
                               ProviderPath());
    module_ = LoadLibraryW(ModulePath().c_str());
  }
  ~ModuleHost() {
    if (module_) FreeLibrary(module_);
  }
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  bool loaded() const { return module_ != nullptr; }

  HRESULT Call(const char* name) const {
    HRESULT(STDMETHODCALLTYPE * call)();
    return Find(name, call) ? call() : E_NOTIMPL;
  }
  HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** object) const {
    HRESULT(STDMETHODCALLTYPE * get)(REFCLSID, REFIID, void**);
    return Find("DllGetClassObject", get) ? get(clsid, iid, object) : E_NOTIMPL;
  }

  // MAPI objects and buffers that are alive; the provider stays loaded once the module has loaded it.
  static long LiveObjects() { return ProviderFaults::Count().objects(); }
  static long LiveBuffers() { return ProviderFaults::Count().buffers; }

  // Both lie in the build tree; ctest runs a test in the folder of its own executable.
  static std::wstring ModulePath() { return BuildFolder() + L"module\\HoardexPH.dll"; }
  static std::wstring ProviderPath() { return BuildFolder() + L"provider\\HoardexMapiChecked.dll"; }

  // What the module's log holds now.
  static std::string LogText() {
    wchar_t folder[MAX_PATH] = {};
    SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, folder);
    const std::wstring path = std::wstring(folder) + L"\\HoardexPH.log";
    std::ifstream file(std::string(path.begin(), path.end()), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

 private:
  template <class Function>
  bool Find(const char* name, Function& function) const {
    const FARPROC address = module_ ? GetProcAddress(module_, name) : nullptr;
    memcpy(&function, &address, sizeof(function));
    return address != nullptr;
  }
  // <build>/tests/<folder>/<test>.exe
  static std::wstring BuildFolder() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder = path;
    for (int level = 0; level < 3; ++level) folder.resize(folder.rfind(L'\\'));
    return folder + L"\\";
  }

  ScratchRegistry registry_;
  ScratchFolders folders_;
  HMODULE module_ = nullptr;
};
