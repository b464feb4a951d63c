// One thing after the other goes wrong under an item that is bound, opened, printed or saved.
#include <windows.h>

#include <shellapi.h>
#include <shlobj.h>
#include <shlwapi.h>

#include <functional>
#include <optional>

#include "include/HoardexPH.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/PropertyStores.h"
#include "platform/converter.h"
#include "tests/module/shell_fixture.h"
#include "tests/support/class_double.h"
#include "tests/support/import_hook.h"
#include "tests/support/slot_hook.h"

namespace shell {
namespace {

using Microsoft::WRL::ComPtr;

constexpr HRESULT kFault = STG_E_MEDIUMFULL;
const std::string kCode = "[0x80030070]";

// A handler that takes everything, so that no program starts.
class Executed {
 public:
  int count = 0;

 private:
  ZK_IMPORT_HOOK(ShellExecuteW)
  hook_{[this](auto, HWND, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, INT) -> HINSTANCE {
    ++count;
    return reinterpret_cast<HINSTANCE>(INT_PTR{33});
  }};
};

class Faults : public Shell {
 protected:
  // What is alive while the store is open stays so.
  void ExpectLevel(const ProviderFaults::Alive& open, const std::string& what) {
    EXPECT_EQ(ProviderFaults::Count(), open) << what;
    EmptyTemporaryFolder();  // fails where somebody holds a file
  }
  HRESULT Open() { return Invoke(message_, 0u); }
  HRESULT OpenReport() { return Invoke(attachments_[kReport], 0u); }
  HRESULT Save(const std::wstring& url) {
    ComPtr<IHoardexSave> save;
    EXPECT_EQ(folder_.As(&save), S_OK);
    return save->SaveItem(url.c_str(), (folder_path_ + L"\\saved.tmp").c_str());
  }

  Executed executed_;
};

TEST_F(Faults, OfMapiAreSaidAndPassedOn) {
  const std::string mime = "CMapiForWDS::GetMimeStreamFromMessageURL() - ", msg = "CMapiForWDS::SaveToMSG() - ",
                    invoke = "CHoardexSP::InvokeCommand() - ", ansi = msg + "ANSI OpenIMsgOnIStg returned with ";
  const auto bind = [&] { return Bind(message_, IID_IStream); };
  const auto bind_report = [&] { return Bind(attachments_[kReport], IID_IStream); };
  const auto open = [&] { return Open(); };
  // Messages within the message are saved before it.
  ProviderFaults::Clear();
  EXPECT_EQ(Open(), S_OK);
  long saves = 0;
  for (long n = ProviderFaults::CallsEntered(); n > 0; --n)
    saves += std::string(ProviderFaults::CallName(n)) == "IMAPIProp::SaveChanges";
  EmptyTemporaryFolder();
  executed_.count = 0;
  const struct {
    const char* call;
    long nth;
    bool from_then_on;
    std::function<HRESULT()> operation;
    HRESULT result;
    std::vector<std::string> lines;
    // clang-format off
  } kCases[] = {
      {"IMsgStore::OpenEntry", 1, false, bind, kFault,
       {"CMapiForWDS::GetMimeStreamFromMessageURL() : hr = 0x80030070, Failed to create IMessage object for url - "}},
      {"IMAPISession::OpenAddressBook", 1, false, bind, kFault,
       {mime + "IMAPISession::OpenAddressBook failed, hr = " + kCode}},
      {"IMessage::GetAttachmentTable", 1, false, bind_report, kFault,
       {"CHoardexSP::BindToObject() - GetStreamFromAttachmentURL() failed with " + kCode}},
      {"IMsgStore::OpenEntry", 1, false, open, kFault, {invoke + "GetMsgFromURL failed with " + kCode}},
      {"OpenIMsgSession", 1, false, open, kFault, {msg + "OpenIMsgSession failed with " + kCode,
       invoke + "SaveToMSG failed with " + kCode}},
      {"OpenIMsgOnIStg", 1, false, open, S_OK, {msg + "Unicode OpenIMsgOnIStg returned with " + kCode,
       ansi + "[0x00000000]"}},
      {"OpenIMsgOnIStg", 1, true, open, kFault, {msg + "Unicode OpenIMsgOnIStg returned with " + kCode, ansi + kCode,
       invoke + "SaveToMSG failed with " + kCode}},
      {"IMAPIProp::CopyTo", 1, false, open, kFault, {msg + "CopyTo failed with " + kCode,
       invoke + "SaveToMSG failed with " + kCode}},
      {"IMAPIProp::SaveChanges", saves, false, open, kFault, {msg + "SaveChanges failed with " + kCode,
       invoke + "SaveToMSG failed with " + kCode}},
  };
  // clang-format on
  const ProviderFaults::Alive alive = ProviderFaults::Count();
  for (const auto& fault : kCases) {
    log_->New();
    ProviderFaults::Fail(fault.call, fault.nth, kFault, fault.from_then_on);
    const HRESULT hr = fault.operation();
    ProviderFaults::Clear();
    EXPECT_EQ(hr, fault.result) << fault.call;
    EXPECT_TRUE(Said(fault.lines)) << fault.call;
    ExpectLevel(alive, fault.call);
  }
  EXPECT_EQ(executed_.count, 1) << "nothing is opened but what was saved";
}

// Every call that an operation makes fails once: nothing breaks, nothing stays, and the next time all is well.
TEST_F(Faults, OfAnyCallLeaveNothing) {
  const struct {
    const char* name;
    std::function<HRESULT()> run;
  } kOperations[] = {{"bind", [&] { return Bind(message_, IID_IStream); }},
                     {"bind attachment", [&] { return Bind(attachments_[kReport], IID_IStream); }},
                     {"open", [&] { return Open(); }},
                     {"open attachment", [&] { return OpenReport(); }},
                     {"open attached message", [&] { return Invoke(attachments_[kInner], 0u); }}};
  const ProviderFaults::Alive alive = ProviderFaults::Count();
  for (const auto& operation : kOperations) {
    ProviderFaults::Clear();
    ASSERT_EQ(operation.run(), S_OK) << operation.name;
    EmptyTemporaryFolder();
    const long calls = ProviderFaults::CallsEntered();
    ASSERT_GT(calls, 5) << operation.name;
    int failed = 0;
    for (long n = 1; n <= calls && !HasFailure(); ++n) {
      ProviderFaults::Fail(nullptr, n, kFault);
      const HRESULT hr = operation.run();
      const char* call = ProviderFaults::CallName(n);
      ProviderFaults::Clear();
      EXPECT_TRUE(hr == S_OK || FAILED(hr));
      failed += FAILED(hr);
      ExpectLevel(alive, std::string(operation.name) + ", call " + std::to_string(n) + " " + (call ? call : ""));
    }
    EXPECT_GT(failed, 2) << operation.name;
    EXPECT_EQ(operation.run(), S_OK);
    ExpectLevel(alive, operation.name);
  }
}

TEST_F(Faults, OfTheSystemAreSaidAndPassedOn) {
  const ProviderFaults::Alive alive = ProviderFaults::Count();
  const auto expect = [&](HRESULT hr, HRESULT expected, const std::vector<std::string>& lines) {
    EXPECT_EQ(hr, expected) << lines[0];
    EXPECT_TRUE(Said(lines));
    ExpectLevel(alive, lines[0]);
  };
  const std::string saved = "CHoardexSP::InvokeCommand() - SaveToMSG failed with " + kCode;
  {
    const ZK_IMPORT_HOOK(StgCreateDocfile) hook(
        [](auto, const WCHAR*, DWORD mode, DWORD, IStorage**) -> HRESULT { return mode == 0x11002 ? kFault : E_FAIL; });
    expect(Open(), kFault, {"CMapiForWDS::SaveToMSG() - StgCreateDocfile failed with " + kCode, saved});
  }
  {
    const ZK_IMPORT_HOOK(WriteClassStg) hook([](auto, IStorage*, REFCLSID) -> HRESULT { return kFault; });
    expect(Open(), kFault, {"CMapiForWDS::SaveToMSG() - WriteClassStg failed with " + kCode, saved});
    // An attached message has no line of its own for it.
    expect(Invoke(attachments_[kInner], 0u), kFault, {"CMapiForWDS::SaveToMSG() - WriteClassStg failed with " + kCode});
  }
  {
    const ZK_IMPORT_HOOK(CreateStreamOnHGlobal) hook([](auto, HGLOBAL, BOOL, IStream**) -> HRESULT { return kFault; });
    expect(Bind(message_, IID_IStream), kFault,
           {"CMapiForWDS::GetMimeStreamFromMessageURL() - SHCreateStreamOnFile failed, hr = " + kCode});
  }
  {
    const ZK_IMPORT_HOOK(CoCreateInstance)
        hook([](auto, REFCLSID, IUnknown*, DWORD, REFIID, void**) -> HRESULT { return kFault; });
    expect(Bind(message_, IID_IStream), kFault,
           {"CMapiForWDS::GetMimeStreamFromMessageURL() - Failed to create IConverterSession object, hr = " + kCode});
  }
  {
    const ZK_IMPORT_HOOK(AssocCreate) hook([](auto, CLSID, REFIID, void**) -> HRESULT { return kFault; });
    ComPtr<IQueryAssociations> associations;
    expect(UIObject(message_, IID_IQueryAssociations, associations), kFault,
           {"CHoardexSP::GetUIObjectOf() - AssocCreate failed with " + kCode});
  }
  {
    const ZK_IMPORT_HOOK(SHGetSpecialFolderPathW) hook([](auto, HWND, LPWSTR, int, BOOL) -> BOOL { return FALSE; });
    const std::string none = "There is no roaming application-data folder for the ";
    EXPECT_EQ(Open(), E_FAIL);
    EXPECT_TRUE(Said({"CHoardexSP::InvokeCommand() - " + none + "message's copy"}));
    // Whether it is opened or saved, the copy would land in whatever folder is the host's current one.
    for (const size_t attached : {kReport, kInner}) {
      EXPECT_EQ(Invoke(attachments_[attached], 1u), E_FAIL);
      EXPECT_EQ(Save(attachments_[attached]), E_FAIL);
      EXPECT_TRUE(Said({"CUrlAccessor::Init() - " + none + "attachment's copy",
                        "CUrlAccessor::Init() - " + none + "attachment's copy"}));
    }
    EXPECT_EQ(GetFileAttributesW(L".msg"), INVALID_FILE_ATTRIBUTES);
    ComPtr<ISearchProtocol> protocol;
    ASSERT_EQ(folder_.As(&protocol), S_OK);
    protocol->ShutDown();
    EXPECT_TRUE(Said({"CHoardexSP::DeleteAppDataFolder() - Trying to delete folder []",
                      "CHoardexSP::DeleteAppDataFolder() - Could not delete folder []"}));
  }
  EXPECT_EQ(executed_.count, 0);
}

// Methods of the objects that the system has handed out.
TEST_F(Faults, OfTheSystemsObjectsAreSaidAndPassedOn) {
  static std::optional<SlotHook> slot;
  static int commits;
  const auto replace = [](IUnknown* object, size_t number, auto method) {
    slot.emplace(object, number, reinterpret_cast<void*>(method));
  };
  const auto expect = [&](HRESULT hr, HRESULT expected, const std::vector<std::string>& lines) {
    slot.reset();
    EXPECT_EQ(hr, expected) << lines[0];
    EXPECT_TRUE(Said(lines));
    EmptyTemporaryFolder();
  };
  using Unknown = HRESULT(STDMETHODCALLTYPE*)(IUnknown*, REFIID, void**);
  constexpr Unknown kNoInterface = [](IUnknown*, REFIID, void** object) -> HRESULT {
    *object = nullptr;
    return kFault;
  };
  {
    using Commit = HRESULT(STDMETHODCALLTYPE*)(IStorage*, DWORD);
    constexpr size_t kCommitSlot = 9;
    commits = 0;
    const ZK_IMPORT_HOOK(StgCreateDocfile)
        hook([&](auto next, const WCHAR* name, DWORD mode, DWORD reserved, IStorage** storage) -> HRESULT {
          const HRESULT hr = next(name, mode, reserved, storage);
          // The message commits when it is saved, and then whoever made the file.
          constexpr Commit kSecondFails = [](IStorage* self, DWORD flags) -> HRESULT {
            return ++commits == 2 ? kFault : slot->original<Commit>()(self, flags);
          };
          replace(*storage, kCommitSlot, kSecondFails);
          return hr;
        });
    expect(Open(), kFault,
           {"CMapiForWDS::SaveToMSG() - Commit failed with " + kCode,
            "CHoardexSP::InvokeCommand() - SaveToMSG failed with " + kCode});
  }
  {
    const ZK_IMPORT_HOOK(CreateStreamOnHGlobal)
        hook([&](auto next, HGLOBAL memory, BOOL drop, IStream** stream) -> HRESULT {
          const HRESULT hr = next(memory, drop, stream);
          replace(*stream, 0, kNoInterface);
          return hr;
        });
    expect(Bind(message_, IID_IStream), kFault,
           {"CHoardexSP::BindToObject() - pStream::QueryInterface() failed with " + kCode});
  }
  using Init = HRESULT(STDMETHODCALLTYPE*)(IQueryAssociations*, ASSOCF, PCWSTR, HKEY, HWND);
  constexpr Init kNoInit = [](IQueryAssociations*, ASSOCF, PCWSTR, HKEY, HWND) -> HRESULT { return kFault; };
  const struct {
    size_t slot;
    void* method;
    const char* line;
  } kMethods[] = {{3, reinterpret_cast<void*>(kNoInit), "IQueryAssociations::Init() failed with "},
                  {0, reinterpret_cast<void*>(kNoInterface), "IQueryAssociations::QueryInterface() failed with "}};
  for (const auto& failing : kMethods) {
    const ZK_IMPORT_HOOK(AssocCreate) hook([&](auto next, CLSID clsid, REFIID iid, void** object) -> HRESULT {
      const HRESULT hr = next(clsid, iid, object);
      replace(static_cast<IUnknown*>(*object), failing.slot, failing.method);
      return hr;
    });
    ComPtr<IQueryAssociations> associations;
    expect(UIObject(message_, IID_IQueryAssociations, associations), kFault,
           {std::string("CHoardexSP::GetUIObjectOf() - ") + failing.line + kCode});
  }
  // A vault that the client has not registered gets no session, and the user is told.
  Boxes shown;
  EXPECT_EQ(Invoke(root_ + L"Q:\\elsewhere.db" + message_.substr(vault_.size()), 0u), E_ACCESSDENIED);
  EXPECT_TRUE(Said({"CHoardexSP::InvokeCommand() - Cannot allocate MAPI helper object"}));
  EXPECT_EQ(Boxes::Take(), std::vector<std::wstring>{kCannotShow});
  EXPECT_EQ(executed_.count, 0);
}

TEST_F(Faults, OfThePropertyStoreMakeNoIds) {
  ItemId good;
  Parse(message_, good);
  using Create = HRESULT(STDAPICALLTYPE*)(REFIID, void**);
  const ZK_IMPORT_HOOK(GetProcAddress) hook([](auto next, HMODULE library, LPCSTR name) -> FARPROC {
    if (strcmp(name, "PSCreateMemoryPropertyStore")) return next(library, name);
    constexpr Create kFailing = [](REFIID, void** store) -> HRESULT {
      *store = nullptr;
      return kFault;
    };
    return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(kFailing));
  });
  ItemId item;
  ULONG attributes = 7;
  std::wstring name = message_;
  EXPECT_EQ(folder_->ParseDisplayName(nullptr, nullptr, name.data(), nullptr, &item.list, &attributes), kFault);
  EXPECT_EQ(item.list, nullptr);
  EXPECT_EQ(attributes, 0u);
  const std::string what = " failed with " + kCode;
  EXPECT_TRUE(
      Said({"CHoardexSP::ParseDisplayName() - PSCreateMemoryPropertyStore for a getting an "
            "IPropertyStore interface failed with error " +
            kCode}));
  STRRET text;
  EXPECT_EQ(folder_->GetDisplayNameOf(good.child(), 0, &text), kFault);
  EXPECT_TRUE(Said({"CHoardexSP::GetDisplayNameOf() - GetPropertyFromIDList" + what}));
  PCUITEMID_CHILD child = good.child();
  ComPtr<IUnknown> object;
  void** out = reinterpret_cast<void**>(object.GetAddressOf());
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 1, &child, IID_IContextMenu, nullptr, out), kFault);
  EXPECT_TRUE(Said({"CHoardexSP::GetUIObjectOf() - GetPropertyFromIDList" + what}));
  EXPECT_EQ(folder_->BindToObject(good.list, nullptr, IID_IStream, out), kFault);
  EXPECT_TRUE(Said({"CHoardexSP::BindToObject() - GetURLFromItemIDList failed with error " + kCode}));
}

// Which library the process has, or the system, is Windows's affair: here they are told apart by what is asked for.
TEST_F(Faults, OfThePropertySystemLeadToTheNextOne) {
  const HMODULE working = LoadPropertySystem();
  ASSERT_NE(working, nullptr);
  std::wstring system(MAX_PATH, L'\0'), own(MAX_PATH, L'\0');
  system.resize(GetSystemDirectoryW(system.data(), MAX_PATH));
  own.resize(GetModuleFileNameW(nullptr, own.data(), MAX_PATH));
  system += L"\\propsys.dll";
  own.replace(own.rfind(L'\\'), std::wstring::npos, L"\\propsys.dll");
  const HMODULE without = GetModuleHandleW(L"kernel32.dll");  // stands for one that makes no stores with a form
  const struct {
    HMODULE loaded, of_system, beside, chosen;
    std::vector<std::wstring> asked;
  } kCases[] = {{working, nullptr, nullptr, working, {}},
                {nullptr, working, nullptr, working, {system}},
                {without, working, working, working, {own}},
                {nullptr, without, working, working, {system, own}},
                {nullptr, without, nullptr, without, {system, own}},
                {nullptr, nullptr, nullptr, nullptr, {system, own}}};
  for (const auto& machine : kCases) {
    std::vector<std::wstring> asked;
    const ZK_IMPORT_HOOK(FreeLibrary) freed([](auto, HMODULE) -> BOOL { return TRUE; });
    const ZK_IMPORT_HOOK(GetModuleHandleExW) loaded([&](auto, DWORD flags, LPCWSTR name, HMODULE* library) -> BOOL {
      EXPECT_EQ(flags, 0u) << "counted";
      EXPECT_STREQ(name, L"propsys.dll");
      *library = machine.loaded;
      return machine.loaded != nullptr;
    });
    const ZK_IMPORT_HOOK(LoadLibraryExW) load([&](auto, LPCWSTR path, HANDLE, DWORD) -> HMODULE {
      asked.emplace_back(path);
      return asked.back() == system ? machine.of_system : machine.beside;
    });
    EXPECT_EQ(LoadPropertySystem(), machine.chosen);
    EXPECT_EQ(asked, machine.asked);
  }
}

TEST_F(Faults, OfIconsAreFalse) {
  ComPtr<IExtractIconW> icons;
  ASSERT_EQ(UIObject(message_, IID_IExtractIconW, icons), S_OK);
  WORD missing = 0;
  const ZK_IMPORT_HOOK(LoadImageW)
      hook([&](auto real, HINSTANCE module, LPCWSTR name, UINT type, INT width, INT height, UINT flags) -> HANDLE {
        return LOWORD(reinterpret_cast<ULONG_PTR>(name)) == missing ? nullptr
                                                                    : real(module, name, type, width, height, flags);
      });
  const std::pair<WORD, const char*> kIcons[] = {{203, "large"}, {205, "small"}};
  for (const auto& [id, kind] : kIcons) {
    missing = id;
    HICON icons_of[2] = {};
    log_->New();
    EXPECT_EQ(icons->Extract(L"", 0, &icons_of[0], &icons_of[1], 0), S_FALSE);
    EXPECT_TRUE(Said({std::string("CHoardexSP::Extract() - Could not ") + kind + " icon"}));
    EXPECT_EQ(icons_of[0] == nullptr, id == 203);
    EXPECT_EQ(icons_of[1] == nullptr, id == 205);
    for (const HICON icon : icons_of)
      if (icon) DestroyIcon(icon);
  }
}

// A converter one of whose operations fails, and that checks what it is asked for.
class Converter final : public IConverterSession {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = iid == __uuidof(IConverterSession) || iid == IID_IUnknown ? this : nullptr;
    if (*object) ++references;
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
  STDMETHODIMP_(ULONG) Release() override { return --references; }
  STDMETHODIMP SetAdrBook(LPADRBOOK book) override { return Step("SetAdrBook", book != nullptr); }
  STDMETHODIMP SetEncoding(ENCODINGTYPE encoding) override { return Step("SetEncoding ", encoding == 1); }
  STDMETHODIMP Reserved5() override { return E_NOTIMPL; }
  STDMETHODIMP MIMEToMAPI(LPSTREAM, LPMESSAGE, LPCSTR, ULONG) override { return E_NOTIMPL; }
  STDMETHODIMP MAPIToMIMEStm(LPMESSAGE message, LPSTREAM stream, ULONG flags) override {
    if (stream) stream->Write("MIME", 4, nullptr);
    return Step("MAPIToMIMEStm", message && stream && flags == 2);
  }
  STDMETHODIMP Reserved8() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved9() override { return E_NOTIMPL; }
  STDMETHODIMP Reserved10() override { return E_NOTIMPL; }
  STDMETHODIMP SetTextWrapping(BOOL wrap, ULONG width) override { return Step("SetTextWrapping", wrap && !width); }
  STDMETHODIMP SetSaveFormat(MIMESAVETYPE format) override { return Step("SetSaveFormat", format == 1); }
  STDMETHODIMP Reserved13() override { return E_NOTIMPL; }
  STDMETHODIMP SetCharset(BOOL, HANDLE, CSETAPPLYTYPE) override { return E_NOTIMPL; }

  std::vector<std::string> steps;
  std::string failing;
  ULONG references = 0;

 private:
  HRESULT Step(const char* name, bool as_expected) {
    EXPECT_TRUE(as_expected) << name;
    steps.push_back(name);
    return failing == name ? kFault : S_OK;
  }
};

TEST_F(Faults, OfTheConverterAreSaidAndPassedOn) {
  Converter converter;
  CoRevokeClassObject(std::exchange(converter_, 0));
  const ClassDouble registered(CLSID_IConverterSession,
                               [&](REFIID iid, void** object) { return converter.QueryInterface(iid, object); });
  const ProviderFaults::Alive alive = ProviderFaults::Count();
  std::string bytes;
  ASSERT_EQ(Bind(message_, IID_IStream, &bytes), S_OK);
  EXPECT_EQ(bytes, "MIME");
  const std::vector<std::string> all = {"SetAdrBook", "SetEncoding ", "SetSaveFormat", "SetTextWrapping",
                                        "MAPIToMIMEStm"};
  ASSERT_EQ(converter.steps, all);
  for (size_t i = 0; i < all.size(); ++i) {
    converter.steps.clear();
    converter.failing = all[i];
    log_->New();
    EXPECT_EQ(Bind(message_, IID_IStream), kFault);
    EXPECT_EQ(converter.steps, std::vector<std::string>(all.begin(), all.begin() + static_cast<ptrdiff_t>(i) + 1));
    EXPECT_TRUE(
        Said({"CMapiForWDS::GetMimeStreamFromMessageURL() - IConverterSession::" + all[i] + " failed, hr = " + kCode}));
    EXPECT_EQ(converter.references, 0u);
    ExpectLevel(alive, all[i]);
  }
}

TEST_F(Faults, OfSavingLeaveTheCodeAndNoCopy) {
  const std::wstring path = folder_path_ + L"\\saved.tmp";
  EXPECT_EQ(Save(message_), S_OK);
  EXPECT_EQ(TextIn(path, L"__substg1.0_0037001F"), L"Quarterly report");
  EXPECT_EQ(Save(attachments_[kReport]), S_OK) << "over what is there";
  EXPECT_EQ(Save(inbox_), E_INVALIDARG);
  EXPECT_TRUE(Said({"CHoardexSP::SaveItem() - failed with [0x80070057]"}));
  DeleteFileW(path.c_str());
  CreateDirectoryW(path.c_str(), nullptr);
  EXPECT_TRUE(FAILED(Save(attachments_[kReport])));
  EXPECT_TRUE(TemporaryFiles().empty());
  RemoveDirectoryW(path.c_str());
}

}  // namespace
}  // namespace shell
