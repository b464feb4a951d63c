// The built stand-in, with a folder of the test's own for its state.
#pragma once

#include <gtest/gtest.h>

#include <windows.h>

#include <wrl/client.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/changequeue.h"

class IndexServer {
 public:
  template <class Interface>
  using ComPtr = Microsoft::WRL::ComPtr<Interface>;
  using Changes = std::vector<std::pair<SEARCH_KIND_OF_CHANGE, std::wstring>>;

  // With a folder of its own, which goes with it; or with that of the process that started this one.
  explicit IndexServer(bool own_folder = true) : own_folder_(own_folder) {
    wchar_t folder[MAX_PATH] = {};
    if (own_folder) {
      GetTempPathW(MAX_PATH, folder);
      data_ = std::wstring(folder) + L"HoardexIndexTest" + std::to_wstring(GetCurrentProcessId());
      CreateDirectoryW(data_.c_str(), nullptr);
      SetEnvironmentVariableW(L"ProgramData", data_.c_str());
    }
    Fail(nullptr);
    module_ = LoadLibraryW(DllPath().c_str());
  }
  ~IndexServer() {
    EXPECT_EQ(Call("DllCanUnloadNow"), S_OK) << "objects are left alive";
    Fail(nullptr);
    if (module_) FreeLibrary(module_);
    if (!own_folder_) return;
    for (const wchar_t* file : {L"changes.txt", L"scope.txt", L"changes.txt.new", L"scope.txt.new"})
      DeleteFileW(File(file).c_str());
    for (const wchar_t* folder : {L"\\Hoardex\\SystemIndex", L"\\Hoardex", L""})
      RemoveDirectoryW((data_ + folder).c_str());
  }
  IndexServer(const IndexServer&) = delete;
  IndexServer& operator=(const IndexServer&) = delete;

  // <build>/tests/winindex/<test>.exe
  static std::wstring DllPath() {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder = path;
    for (int level = 0; level < 3; ++level) folder.resize(folder.rfind(L'\\'));
    return folder + L"\\winindex\\HoardexIndex.dll";
  }

  HRESULT Call(const char* name) const {
    HRESULT(STDMETHODCALLTYPE * call)();
    return Find(name, call) ? call() : E_NOTIMPL;
  }
  HRESULT ClassObject(REFCLSID clsid, ComPtr<IClassFactory>& factory) const {
    HRESULT(STDMETHODCALLTYPE * get)(REFCLSID, REFIID, void**);
    if (!Find("DllGetClassObject", get)) return E_NOTIMPL;
    return get(clsid, IID_IClassFactory, reinterpret_cast<void**>(factory.ReleaseAndGetAddressOf()));
  }
  template <class Interface>
  HRESULT Create(REFCLSID clsid, ComPtr<Interface>& object) const {
    ComPtr<IClassFactory> factory;
    const HRESULT hr = ClassObject(clsid, factory);
    return FAILED(hr) ? hr
                      : factory->CreateInstance(nullptr, __uuidof(Interface),
                                                reinterpret_cast<void**>(object.ReleaseAndGetAddressOf()));
  }

  // The plan of HOARDEX_INDEX_FAULTS; null for none.
  static void Fail(const wchar_t* plan) { SetEnvironmentVariableW(L"HOARDEX_INDEX_FAULTS", plan); }

  ComPtr<ISearchCatalogManager> Catalog() const {
    ComPtr<ISearchManager> manager;
    ComPtr<ISearchCatalogManager> catalog;
    EXPECT_EQ(Create(CLSID_CSearchManager, manager), S_OK);
    EXPECT_EQ(manager->GetCatalog(L"SystemIndex", &catalog), S_OK);
    return catalog;
  }
  ComPtr<ISearchCrawlScopeManager> Scope() const {
    ComPtr<ISearchCrawlScopeManager> scope;
    EXPECT_EQ(Catalog()->GetCrawlScopeManager(&scope), S_OK);
    return scope;
  }
  ComPtr<ISearchRoot> Root(const wchar_t* url) const {
    ComPtr<ISearchRoot> root;
    EXPECT_EQ(Create(CLSID_CSearchRoot, root), S_OK);
    EXPECT_EQ(root->put_RootURL(url), S_OK);
    return root;
  }
  ComPtr<ISearchPersistentItemsChangedSink> Sink() const {
    ComPtr<ISearchPersistentItemsChangedSink> sink;
    EXPECT_EQ(Catalog()->GetPersistentItemsChangedSink(&sink), S_OK);
    return sink;
  }
  ComPtr<IHoardexChangeQueue> Queue() const {
    ComPtr<IHoardexChangeQueue> queue;
    EXPECT_EQ(Create(CLSID_CSearchManager, queue), S_OK);
    return queue;
  }
  // One change, acknowledged.
  HRESULT Notify(SEARCH_KIND_OF_CHANGE kind, std::wstring url) const {
    SEARCH_ITEM_PERSISTENT_CHANGE change = {kind, url.data(), url.data(), SEARCH_NORMAL_PRIORITY};
    HRESULT code = E_PENDING;
    const HRESULT hr = Sink()->OnItemsChanged(1, &change, &code);
    EXPECT_EQ(hr, code);
    return hr;
  }
  // What is queued; its numbers must grow.
  Changes Queued(std::vector<ULONGLONG>* ids = nullptr) const {
    QUEUED_CHANGE* list = nullptr;
    ULONG count = 0;
    BOOL more = TRUE;
    EXPECT_EQ(Queue()->Read(1'000'000, &list, &count, &more), S_OK);
    EXPECT_FALSE(more);
    Changes changes;
    for (ULONG i = 0; i < count; ++i) {
      EXPECT_TRUE(i == 0 || list[i].id > list[i - 1].id);
      changes.emplace_back(list[i].change, list[i].url);
      if (ids) ids->push_back(list[i].id);
      CoTaskMemFree(list[i].url);
    }
    CoTaskMemFree(list);
    return changes;
  }

  const std::wstring& data() const { return data_; }
  std::wstring File(const wchar_t* name) const { return data_ + L"\\Hoardex\\SystemIndex\\" + name; }
  bool Exists(const std::wstring& path) const { return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }
  void WriteQueueFile(const std::string& text) const {
    CreateDirectoryW((data_ + L"\\Hoardex").c_str(), nullptr);
    CreateDirectoryW((data_ + L"\\Hoardex\\SystemIndex").c_str(), nullptr);
    const HANDLE file = CreateFileW(File(L"changes.txt").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD put = 0;
    EXPECT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &put, nullptr));
    CloseHandle(file);
  }

 private:
  template <class Function>
  bool Find(const char* name, Function& function) const {
    const FARPROC address = module_ ? GetProcAddress(module_, name) : nullptr;
    memcpy(&function, &address, sizeof(function));
    return address != nullptr;
  }
  const bool own_folder_;
  std::wstring data_;
  HMODULE module_ = nullptr;
};
