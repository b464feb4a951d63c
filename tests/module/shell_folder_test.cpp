// The shell folder: names, item IDs, streams and file types of items.
#include <windows.h>

#include <shlobj.h>
#include <shlwapi.h>

#include <algorithm>

#include "module/mapi/MapiForWDS.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/ItemIdFactory.h"
#include "tests/module/shell_fixture.h"

namespace shell {
namespace {

using Microsoft::WRL::ComPtr;

class Folder : public Shell {
 protected:
  std::wstring NameOf(const std::wstring& url, SHGDNF flags) {
    ItemId item;
    Parse(url, item);
    STRRET name = {};
    if (folder_->GetDisplayNameOf(item.child(), flags, &name) != S_OK || name.uType != STRRET_WSTR) return L"<failed>";
    const std::wstring text = name.pOleStr;
    CoTaskMemFree(name.pOleStr);
    return text;
  }
};

TEST_F(Folder, AnswersWhatItDoesNotDo) {
  ItemId item;
  Parse(message_, item);
  PCUITEMID_CHILD child = item.child();
  void *object = this, *view = this;
  auto* list = reinterpret_cast<IEnumIDList*>(this);
  auto* out = reinterpret_cast<PITEMID_CHILD>(this);
  EXPECT_EQ(folder_->EnumObjects(nullptr, SHCONTF_FOLDERS, &list), E_NOTIMPL);
  EXPECT_EQ(folder_->BindToStorage(item.list, nullptr, IID_IStream, &object), E_NOTIMPL);
  EXPECT_EQ(folder_->CompareIDs(0, item.list, item.list), 1);
  EXPECT_EQ(folder_->CreateViewObject(nullptr, IID_IUnknown, &view), E_NOTIMPL);
  EXPECT_EQ(folder_->SetNameOf(nullptr, child, L"x", 0, &out), E_NOTIMPL);
  EXPECT_TRUE(!list && !object && !view && !out) << "hands nothing out";
  EXPECT_EQ(folder_->SetNameOf(nullptr, child, L"x", 0, nullptr), E_NOTIMPL);
  EXPECT_EQ(folder_->GetAttributesOf(1, &child, nullptr), E_POINTER);
  for (SFGAOF asked : {SFGAOF{0}, SFGAOF{SFGAO_FOLDER}, ~SFGAOF{0}}) {
    EXPECT_EQ(folder_->GetAttributesOf(1, &child, &asked), S_OK);
    EXPECT_EQ(asked, 0x00450000u);
  }
  ComPtr<IPersistFolder> persist;
  ComPtr<IContextMenu> menu;
  ASSERT_EQ(folder_.As(&persist), S_OK);
  ASSERT_EQ(folder_.As(&menu), S_OK);
  EXPECT_EQ(persist->Initialize(nullptr), S_OK);
  for (const UINT type : {GCS_VERBA, GCS_VERBW, GCS_HELPTEXTW, GCS_VALIDATEW})
    EXPECT_EQ(menu->GetCommandString(0, type, nullptr, nullptr, 0), E_INVALIDARG);
}

TEST_F(Folder, NamesItemsByTheirUrls) {
  for (const std::wstring& url : {message_, attachments_[kReport], inbox_, vault_, std::wstring(L"anything"), root_}) {
    EXPECT_EQ(NameOf(url, SHGDN_FORPARSING), url);
    const std::wstring shown = url == root_ ? L"Valdrin Tessary" : url;
    for (const SHGDNF flags : {SHGDNF{SHGDN_NORMAL}, SHGDNF{SHGDN_INFOLDER}, SHGDN_FORPARSING | SHGDNF{SHGDN_INFOLDER}})
      EXPECT_EQ(NameOf(url, flags), shown);
    EXPECT_TRUE(
        InOrder(log_->New(),
                {"CHoardexSP::GetDisplayNameOf() - URL extracted from the property store that will be displayed [" +
                 Narrow(shown) + "]"}));
  }
  ItemId item;
  Parse(root_, item);
  STRRET name;
  EXPECT_EQ(folder_->GetDisplayNameOf(item.child(), 0, nullptr), E_POINTER);
  EXPECT_EQ(folder_->GetDisplayNameOf(nullptr, 0, &name), E_INVALIDARG);
  EXPECT_TRUE(Said({"CHoardexSP::GetDisplayNameOf() - GetPropertyFromIDList failed with [0x80070057]"}));
}

TEST_F(Folder, ParsesAnyName) {
  ItemId item;
  ULONG attributes = ~0u;
  std::wstring name = L"any name";
  ASSERT_EQ(folder_->ParseDisplayName(nullptr, nullptr, name.data(), nullptr, &item.list, &attributes), S_OK);
  EXPECT_EQ(attributes, 0u);
  std::wstring read;
  EXPECT_EQ(ReadParsingName(item.list, read), S_OK);
  EXPECT_EQ(read, name);
  EXPECT_EQ(folder_->ParseDisplayName(nullptr, nullptr, name.data(), nullptr, nullptr, nullptr), E_POINTER);
  // A name that makes no value still makes an ID, of an empty store.
  ItemId empty;
  EXPECT_EQ(folder_->ParseDisplayName(nullptr, nullptr, nullptr, nullptr, &empty.list, nullptr), S_OK);
  EXPECT_TRUE(
      Said({"CHoardexSP::ParseDisplayName() - InitPropVariantFromString for a creating a "
            "PROPVARIANT failed with error [0x80070057]"}));
  EXPECT_EQ(ReadParsingName(empty.list, read), E_INVALIDARG);
  std::wstring endless(40'000, L'x');
  ItemId none;
  EXPECT_EQ(folder_->ParseDisplayName(nullptr, nullptr, endless.data(), nullptr, &none.list, nullptr), E_OUTOFMEMORY);
  EXPECT_EQ(none.list, nullptr);
  EXPECT_TRUE(
      Said({"CHoardexSP::ParseDisplayName() - CreateItemID for a creating a PIDL failed with "
            "error [0x8007000E]"}));
}

TEST_F(Folder, BindsItemsToFoldersAndStreams) {
  ItemId item;
  Parse(message_, item);
  ComPtr<IShellFolder> folder;
  EXPECT_EQ(
      folder_->BindToObject(item.list, nullptr, IID_IShellFolder, reinterpret_cast<void**>(folder.GetAddressOf())),
      S_OK);
  EXPECT_EQ(folder, folder_);
  EXPECT_TRUE(
      Said({"CHoardexSP::BindToObject() - QueryInterface for an IShellFolder interface returned "
            "with a value of[0x00000000]"}));
  EXPECT_EQ(Bind(message_, IID_IStorage), E_NOINTERFACE);

  std::string bytes;
  EXPECT_EQ(Bind(attachments_[kReport], IID_ISequentialStream, &bytes), S_OK);
  EXPECT_EQ(bytes, "content of the report");
  EXPECT_TRUE(InOrder(
      log_->New(),
      {"CHoardexSP::BindToObject() - URL extracted from the property store is [" + Narrow(attachments_[kReport]) + "]",
       "CHoardexSP::BindToObject() - pStream::QueryInterface() for IID_IStream SUCCESS hr = [0x00000000]"}));
  EXPECT_EQ(Bind(message_, IID_IStream, &bytes), S_OK);
  EXPECT_NE(bytes.find("\r\nSubject: Quarterly report\r\n"), std::string::npos) << bytes;
  EXPECT_NE(bytes.find("Y29udGVudCBvZiB0aGUgcmVwb3J0"), std::string::npos) << "the attachment, in base64";
  EXPECT_TRUE(
      Said({"CMapiForWDS::GetMimeStreamFromMessageURL() - Success in getting MIME IStream for "
            "message url - " +
                Narrow(message_.substr(0, message_.find(L"[["))) + ".zkm",
            "CHoardexSP::BindToObject() - pStream::QueryInterface() for IID_IStream SUCCESS"}));
  // The vault's path with the slashes that some callers turn round.
  std::wstring turned = attachments_[kReport];
  const size_t end = turned.find(L".db");
  for (size_t i = turned.find(L"default/"); i < end; ++i)
    if (turned[i] == L'\\') turned[i] = L'/';
  EXPECT_EQ(Bind(turned, IID_IStream, &bytes), S_OK);
  EXPECT_EQ(bytes, "content of the report");
}

TEST_F(Folder, BindsNothingElse) {
  const struct {
    std::wstring url;
    HRESULT result;
    const char* line;
  } kCases[] = {
      {inbox_, E_NOINTERFACE, "CHoardexSP::BindToObject() - URL extracted"},
      {vault_, E_NOINTERFACE, "CHoardexSP::BindToObject() - URL extracted"},
      {root_, E_NOINTERFACE, "CUrlAccessor::BindToObject() - Failed to allocate MAPI helper object"},
      {L"http://example.com/default/C:/x.db", E_NOINTERFACE,
       "CUrlAccessor::BindToObject() - Failed to allocate MAPI helper object"},
      {message_ + L"/AB01/absent.txt", E_FAIL,
       "CHoardexSP::BindToObject() - GetStreamFromAttachmentURL() failed with [0x80004005]"},
      {inbox_ + L"/AB01.zkm", static_cast<HRESULT>(0x80040107),
       "CMapiForWDS::GetMimeStreamFromMessageURL() : hr = 0x80040107, Failed to create IMessage object for url - "},
  };
  for (const auto& bad : kCases) {
    EXPECT_EQ(Bind(bad.url, IID_IStream), bad.result) << Narrow(bad.url);
    EXPECT_TRUE(Said({bad.line}));
  }
  // A good item of a vault that lies elsewhere is not looked at, whatever the ID says.
  const std::wstring item = message_.substr(vault_.size()), name = store_path_.substr(store_path_.rfind(L'\\'));
  for (const std::wstring& folder :
       {std::wstring(L"\\\\server\\share"), folder_path_ + L"\\..", folder_path_ + L"\\Roaming", folder_path_ + L"2"}) {
    EXPECT_EQ(Bind(root_ + folder + name + item, IID_IStream), E_NOINTERFACE) << Narrow(folder);
    EXPECT_FALSE(InOrder(log_->New(), {"CMapiForWDS::GetMapiObj()"}));
    ComPtr<IHoardexSave> save;
    ASSERT_EQ(folder_.As(&save), S_OK);
    EXPECT_EQ(save->SaveItem((root_ + folder + name + item).c_str(), L"C:\\never"), E_ACCESSDENIED);
  }
  // An ID that is none fails; none at all counts as an empty URL.
  ComPtr<IStream> stream;
  void** object = reinterpret_cast<void**>(stream.GetAddressOf());
  constexpr BYTE kForeign[] = {4, 0, 1, 2, 0, 0};
  EXPECT_EQ(folder_->BindToObject(reinterpret_cast<PCUIDLIST_RELATIVE>(kForeign), nullptr, IID_IStream, object),
            E_INVALIDARG);
  EXPECT_TRUE(Said({"CHoardexSP::BindToObject() - GetURLFromItemIDList failed with error [0x80070057]"}));
  EXPECT_EQ(folder_->BindToObject(nullptr, nullptr, IID_IStream, object), E_NOINTERFACE);
  EXPECT_TRUE(Said({"CHoardexSP::BindToObject() - URL extracted from the property store is []",
                    "CUrlAccessor::BindToObject() - Failed to allocate MAPI helper object"}));
}

TEST_F(Folder, GivesItemsTheirFileTypes) {
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L".eml", nullptr, L"HoardexTest.Mail");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"HoardexTest.Mail\\DefaultIcon", nullptr, L"mail.ico,1");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L".txt", nullptr, L"HoardexTest.Text");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"HoardexTest.Text\\DefaultIcon", nullptr, L"text.ico,2");
  const auto icon = [&](const std::wstring& url) -> std::wstring {
    ComPtr<IQueryAssociations> associations;
    if (UIObject(url, IID_IQueryAssociations, associations) != S_OK) return L"<failed>";
    wchar_t text[64] = {};
    DWORD size = 64;
    associations->GetString(ASSOCF_NONE, ASSOCSTR_DEFAULTICON, nullptr, text, &size);
    return text;
  };
  log_->New();
  EXPECT_EQ(icon(message_), L"mail.ico,1");
  const std::string url = Narrow(message_), prefix = "CHoardexSP::GetUIObjectOf() - ";
  EXPECT_TRUE(Said({prefix + "URL extracted from the property store [" + url + "]",
                    prefix + "URL saved in m_strMsgURL [" + url + "]",
                    prefix + "IID_IQueryAssociations - URL extracted from the property store is [" + url,
                    prefix + "Provide .EML as extension for TY mail",
                    "CHoardexSP:: GetUIObjectOf() - IID_IQueryAssociations SUCCESS hr = [0x00000000]"}));
  EXPECT_EQ(icon(attachments_[kReport]), L"text.ico,2");
  EXPECT_TRUE(Said({prefix + "Attachment Extension - .txt"}));
  // What has no type: an extension that is none, and containers.
  EXPECT_EQ(icon(attachments_[kBlank]), L"<failed>");
  EXPECT_TRUE(
      Said({prefix + "Attachment Extension - ", prefix + "IQueryAssociations::Init() failed with [0x80070057]"}));
  // A container gets associations of no type.
  for (const std::wstring& container : {inbox_, vault_, root_}) {
    EXPECT_EQ(icon(container), L"");
    const auto lines = log_->New();
    EXPECT_TRUE(InOrder(lines, {"CHoardexSP:: GetUIObjectOf() - IID_IQueryAssociations SUCCESS hr = [0x00000000]"}));
    EXPECT_FALSE(InOrder(lines, {prefix + "IQueryAssociations::Init()"}));
  }
}

// A registered folder may be written in any way that Windows takes for the same.
TEST_F(Folder, KnowsAVaultsFolderHoweverItIsWritten) {
  constexpr wchar_t kClient[] = L"SOFTWARE\\Trelmo\\Zarnak\\Client\\Caf\x00C9";
  const std::wstring folder = folder_path_ + L"\\Caf\x00C9", name = store_path_.substr(store_path_.rfind(L'\\')),
                     item = attachments_[kReport].substr(vault_.size());
  CreateDirectoryW(folder.c_str(), nullptr);
  ASSERT_TRUE(CopyFileW(store_path_.c_str(), (folder + name).c_str(), FALSE));
  std::wstring turned = folder_path_;
  std::replace(turned.begin(), turned.end(), L'\\', L'/');
  const std::wstring drive = folder_path_.substr(0, 2), below = folder_path_.substr(2);
  for (const std::wstring& root : {folder_path_, folder_path_ + L"\\", turned, turned + L"/", drive + L"\\" + below,
                                   folder_path_ + L"\\Roaming\\..", folder_path_ + L"\\."}) {
    ScratchRegistry::SetString(HKEY_CURRENT_USER, kClient, L"HXRootDirectory", root);
    // As the filter links to it, and in another case.
    for (const std::wstring& path : {root + L"\\Caf\x00C9" + name, folder_path_ + L"\\CAF\x00E9" + name}) {
      log_->New();
      std::string bytes;
      EXPECT_EQ(Bind(root_ + path + item, IID_IStream, &bytes), S_OK) << Narrow(path);
      EXPECT_EQ(bytes, "content of the report");
      EXPECT_FALSE(Said({"CHoardexFilter::EnumAllHXFiles()"})) << "the filter's lines";
    }
  }
  CMapiForWDS::CleanMapiObjs();
  RegDeleteKeyW(HKEY_CURRENT_USER, kClient);
  EXPECT_TRUE(DeleteFileW((folder + name).c_str()));
  RemoveDirectoryW(folder.c_str());
}

TEST_F(Folder, RefusesUIObjectsOfWhatIsNotOneItem) {
  ItemId item, empty, nameless;
  Parse(message_, item);
  Parse(L"", empty);
  folder_->ParseDisplayName(nullptr, nullptr, nullptr, nullptr, &nameless.list, nullptr);
  PCUITEMID_CHILD two[] = {item.child(), item.child()}, none = nullptr, blank = empty.child(),
                  unnamed = nameless.child();
  ComPtr<IContextMenu> menu;
  void** object = reinterpret_cast<void**>(menu.GetAddressOf());
  log_->New();
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 2, two, IID_IContextMenu, nullptr, object), E_INVALIDARG);
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 0, two, IID_IContextMenu, nullptr, object), E_INVALIDARG);
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 1, nullptr, IID_IContextMenu, nullptr, object), E_INVALIDARG);
  for (PCUITEMID_CHILD bad : {none, unnamed}) {
    EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 1, &bad, IID_IContextMenu, nullptr, object), E_INVALIDARG);
    EXPECT_TRUE(Said({"CHoardexSP::GetUIObjectOf() - GetPropertyFromIDList failed with [0x80070057]"}));
  }
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 1, &blank, IID_IContextMenu, nullptr, object), E_FAIL);
  EXPECT_TRUE(Said({"CHoardexSP::GetUIObjectOf() - URL saved in m_strMsgURL []",
                    "CHoardexSP::GetUIObjectOf() - Error : Url retrieved from ItemIDList has zero lenght. "
                    "Returning E_FAIL"}));
  EXPECT_EQ(folder_->GetUIObjectOf(nullptr, 1, two, IID_IDropTarget, nullptr, object), E_NOINTERFACE);
  EXPECT_TRUE(Said({"CHoardexSP::GetUIObjectOf() - QueryInterface failed with [0x80004002]"}));
  EXPECT_EQ(menu, nullptr);
}

// What is attached as a message is read as a .msg file, whatever its subject looks like and with none at all.
TEST_F(Folder, AttachedMessagesBecomeMsgFiles) {
  ComPtr<ISearchProtocol> protocol;
  ASSERT_EQ(folder_.As(&protocol), S_OK);
  const std::wstring inner = attachments_[kInner];
  EXPECT_TRUE(inner.ends_with(L"/v1.2 of the plan")) << Narrow(inner);
  for (const std::wstring& url : {inner, inner.substr(0, inner.rfind(L'/')) + L"/.msg"}) {
    AUTHENTICATION_INFO authentication = {};
    INCREMENTAL_ACCESS_INFO incremental = {};
    ITEM_INFO info = {};
    ComPtr<IUrlAccessor> accessor;
    ASSERT_EQ(protocol->CreateAccessor(url.c_str(), &authentication, &incremental, &info, accessor.GetAddressOf()),
              S_OK);
    const auto files = TemporaryFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(files[0].ends_with(L".msg")) << Narrow(files[0]);
    EXPECT_EQ(TextIn(files[0], L"__substg1.0_0037001F"), L"v1.2 of the plan");
    ULONGLONG size = 0;
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    EXPECT_TRUE(GetFileAttributesExW(files[0].c_str(), GetFileExInfoStandard, &data));
    EXPECT_EQ(accessor->GetSize(&size), S_OK);
    EXPECT_EQ(size, data.nFileSizeLow);
    EXPECT_EQ(protocol->CloseAccessor(accessor.Get()), S_OK);
    EXPECT_TRUE(TemporaryFiles().empty());
  }
}

}  // namespace
}  // namespace shell
