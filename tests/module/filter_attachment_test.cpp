// Attachments: how a message lists them, what they say of themselves, and how they come to the filter of their type.
#include "tests/module/filter_fixture.h"

#include <functional>

#include "platform/mapi_extra.h"
#include "tests/module/fake_shell.h"

namespace {

namespace fs = std::filesystem;
using Attachments = Filter;

constexpr wchar_t kKindMap[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\KindMap";
const std::int64_t kTime = vault::FileTime(2024, 5, 1);

TEST_F(Attachments, AreListedWithALinkWhereTheyCanBeRead) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox"));
  for (const char* name : {"one;two.txt", "none", "photo.xyz", "draft.DOC", "last.TXT", "end.txt"})
    mail.AttachFile(name, name).Time(0x3008, kTime);
  const std::wstring message = MessagesOf(Write(store_)).at(0);
  SetPolicy(0, L".doc");
  NewLog();
  const auto chunks = Read(message);
  EXPECT_EQ(Text(chunks, kMail, 21), L"one;two.txt;none;photo.xyz;last.TXT;end.txt");
  std::vector<std::wstring> names;
  for (const std::wstring& link : Links(chunks)) {
    EXPECT_EQ(link.compare(0, message.size() + 1, message + L"/"), 0);
    names.push_back(link.substr(link.rfind(L'/') + 1));
  }
  EXPECT_EQ(names, (std::vector<std::wstring>{L"one;two.txt", L"end.txt"})) << "the site alone judges an extension";
  std::string log = NewLog();
  for (const char* line :
       {"CHoardexFilter::GetChunk() - Attachment extension could not be extracted for\trow [1]",
        "CHoardexFilter::GetChunk() -\tIFilter\tnot found for extension\t[xyz]",
        "CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore specific attachment of "
        "type - .doc;"})
    EXPECT_TRUE(HasLine(log, line)) << line;

  // The attachment table is the second one that a message's rows are asked of.
  const struct {
    ULONG column;
    size_t links;
    const wchar_t* names;
    const char* line;
  } kColumns[] = {
      {0, 0, L"<absent>", "CHoardexFilter::GetChunk() - Attachment name could not be extracted for row [5]"},
      {1, 0, L"one;two.txt;none;photo.xyz;last.TXT;end.txt",
       "CHoardexFilter::GetChunk() - Attachment key could not be extracted for row [5]"},
      {2, 0, L"one;two.txt;none;photo.xyz;draft.DOC;last.TXT;end.txt",
       "CHoardexFilter::GetChunk() - Attachment extension could not be extracted for\trow [5]"},
      {3, 0, L"one;two.txt;none;photo.xyz;last.TXT;end.txt",
       "CHoardexFilter::GetChunk() - Attachment modified time could not be extracted\tfor row\t[5]"}};
  for (const auto& expected : kColumns) {
    for (const auto fault : {kHoardexMapiErrorCell, kHoardexMapiWrongType}) {
      SCOPED_TRACE(expected.column);
      Item item(protocol_.Get(), message);
      ASSERT_EQ(item.Bind(), S_OK);
      ProviderFaults::Set(
          {"IMAPITable::QueryRows", 2, FALSE, fault, static_cast<HRESULT>(MAPI_E_NOT_FOUND), expected.column, 0});
      const auto spoilt = item.ReadAll();
      ProviderFaults::Clear();
      EXPECT_EQ(Text(spoilt, kMail, 21), expected.names);
      EXPECT_EQ(Links(spoilt).size(), expected.links);
      EXPECT_EQ(Find(spoilt, 0x9C1FCF74, 8)->number != VARIANT_FALSE, expected.column != 0);
      log = NewLog();
      EXPECT_TRUE(HasLine(log, expected.line)) << expected.line;
      EXPECT_EQ(HasLine(log, "CHoardexFilter::GetChunk() - No attachment names"), expected.column == 0);
    }
  }
}

TEST_F(Attachments, LeaveTheChunkUntouchedWhereThePolicyPreventsThem) {
  AddMail(store_.top().AddFolder("Inbox")).AttachFile("a.txt", "x").Time(0x3008, kTime);
  const std::wstring message = MessagesOf(Write(store_)).at(0), attachment = Links(Read(message)).at(0);
  SetPolicy(2, L"");
  EXPECT_EQ(Links(Read(message)).size(), 1u) << "only 1 prevents";
  SetPolicy(1, L"");
  NewLog();
  Item item(protocol_.Get(), message);
  ASSERT_EQ(item.Bind(), S_OK);
  STAT_CHUNK mark;
  memset(&mark, 0xA5, sizeof(mark));
  STAT_CHUNK stat = mark;
  int untouched = 0;
  for (int i = 0; i < 100 && item.filter->GetChunk(&stat) == S_OK; ++i) {
    untouched += !memcmp(&stat, &mark, sizeof(stat));
    stat = mark;
  }
  EXPECT_EQ(untouched, 3);
  std::string log = NewLog();
  for (const char* step : {"PROP_IS_ATTACHMENT", "PROP_ATTACHMENT_NAMES", "PROP_HAS_ATTACHMENT", "PROP_ATTACHMENTS"}) {
    const std::string line = std::string("CHoardexFilter::GetChunk() - ") + step +
                             " - WDS Group policy is set to ignore all email attachments";
    EXPECT_TRUE(HasLine(log, line)) << step;
  }
  const auto expect_untouched = [&](const char* line) {
    Item attached(protocol_.Get(), attachment);
    ASSERT_EQ(attached.Bind(), S_OK);
    for (int i = 0; i < 20; ++i) {
      stat = mark;
      EXPECT_EQ(attached.filter->GetChunk(&stat), S_OK);
      EXPECT_EQ(memcmp(&stat, &mark, sizeof(stat)), 0);
    }
    EXPECT_TRUE(HasLine(NewLog(), line)) << line;
  };
  expect_untouched(
      "CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
  SetPolicy(0, L"zip;XTXTX");
  expect_untouched(
      "CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore specific attachment of type "
      "- txt");
}

TEST_F(Attachments, PassThroughEachFailureOfTheirRedirection) {
  AddMail(store_.top().AddFolder("Inbox")).AttachFile("a.txt", "words").Time(0x3008, kTime);
  const std::wstring url = AttachmentsOf(store_).at(0);
  const char kExit[] = "CHoardexFilter::Init() - In StdInitExit failed with [0x%08lX]";
  struct Case {
    const char* line;
    HRESULT result;
    std::function<void()> arrange;
    bool lock = false;
  };
  const Case kCases[] = {
      {"CHoardexFilter::Init() - Redirection case GetFilter failed with [0x80004005]", S_OK,
       [&] { site_.known.clear(); }},
      {"CHoardexFilter::Init() - Redirection case QueryInterface failed with [0x80004002]", E_NOINTERFACE,
       [&] { site_.inner.persists = false; }},
      {"CHoardexFilter::Init() - Redirection case Load failed with [0x8007000D]",
       HRESULT_FROM_WIN32(ERROR_INVALID_DATA), [&] { site_.inner.load = HRESULT_FROM_WIN32(ERROR_INVALID_DATA); }},
      {"CHoardexFilter::Init() - Redirection case Init failed with [0x8004170C]",
       static_cast<HRESULT>(FILTER_E_UNKNOWNFORMAT),
       [&] { site_.inner.init = static_cast<HRESULT>(FILTER_E_UNKNOWNFORMAT); }},
      {"CHoardexFilter::Init() - Mapi no access failed with [0x80070005]", E_ACCESSDENIED, [] {}, true}};
  for (const Case& expected : kCases) {
    SCOPED_TRACE(expected.line);
    site_.known = {L"txt"};
    site_.inner = {};
    expected.arrange();
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.result, S_OK);
    if (expected.lock) {
      const fs::path file = fs::directory_iterator(TemporaryFolder())->path();
      DeleteFileW(file.c_str());
      fs::create_directory(file);  // cannot be opened as a stream
    }
    NewLog();
    EXPECT_EQ(item.Bind(), expected.result);
    const std::string log = NewLog();
    EXPECT_TRUE(HasLine(log, expected.line)) << log;
    char exit[100];
    snprintf(exit, sizeof(exit), kExit, expected.result);
    EXPECT_EQ(HasLine(log, exit), FAILED(expected.result));
    if (expected.result == S_OK) {
      EXPECT_EQ(item.ReadAll().size(), 14u) << "by its properties alone";
      PROPVARIANT* value = nullptr;
      EXPECT_TRUE(FAILED(item.filter->GetValue(&value)));
    }
    if (expected.lock) fs::remove(fs::directory_iterator(TemporaryFolder())->path());
  }
  // A file that is gone is the inner filter's to judge; the caller's arguments come to it as they are.
  site_.known = {L"txt"};
  site_.inner = {};
  Item item(protocol_.Get(), url);
  fs::remove(fs::directory_iterator(TemporaryFolder())->path());
  ASSERT_EQ(item.accessor->BindToFilter(&item.filter), S_OK);
  const FULLPROPSPEC attributes[2] = {};
  ULONG out = 77;
  EXPECT_EQ(item.filter->Init(0x30, 2, attributes, &out), S_OK);
  EXPECT_FALSE(site_.inner.had_stream);
  EXPECT_EQ(site_.inner.init_flags, 0x30u);
  EXPECT_EQ(site_.inner.init_count, 2u);
  EXPECT_EQ(site_.inner.init_attributes, attributes);
  EXPECT_EQ(site_.inner.init_out, &out);
  EXPECT_EQ(out, 77u);
  // Behind the last step, results are the inner filter's own.
  site_.inner.value = E_OUTOFMEMORY;
  EXPECT_EQ(item.ReadAll().size(), 15u);
  PROPVARIANT* value = nullptr;
  EXPECT_EQ(item.filter->GetValue(&value), E_OUTOFMEMORY);
}

TEST_F(Attachments, TakeKindAndTypeFromTheMachine) {
  auto& mail = store_.top().AddFolder("Inbox").AddMessage("IPM.Note");  // neither subject nor sender
  for (const char* name : {"a.b.TXT", "c.tar.txt"}) mail.AttachFile(name, "x").Time(0x3008, kTime);
  site_.known = {L"TXT", L"txt"};
  const auto urls = AttachmentsOf(store_);
  ASSERT_EQ(urls.size(), 2u);
  NewLog();
  auto chunks = Read(urls[0]);
  ASSERT_GE(chunks.size(), 14u);
  EXPECT_EQ(chunks[3].text, L"email;communication");
  EXPECT_EQ(chunks[4].text, L"TXT") << "as it stands in the URL";
  EXPECT_EQ(chunks[5].text, L"<unknown>");
  EXPECT_EQ(chunks[6].text, L"a.b.TXT");
  EXPECT_EQ(chunks[10].text, L"Attached to message with no subject");
  std::string log = NewLog();
  const std::string key = "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\KindMap";
  EXPECT_TRUE(HasLine(log, "CHoardexFilter::GetValue() - Failed [PROP_ATTACH_PERCIEVED_TYPE] to locate " + key +
                               " under HKLM registry key, errorCode = 2"));
  EXPECT_TRUE(HasLine(log,
                      "CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] Failed to locate .txt under HKCR registry "
                      "key, errorCode = 2"));

  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kKindMap, L".other", L"video");
  ScratchRegistry::SetDword(HKEY_CLASSES_ROOT, L".txt", L"other", 1);
  chunks = Read(urls[0]);
  EXPECT_EQ(chunks[3].text, L"email;communication");
  EXPECT_EQ(chunks[4].text, L"TXT");
  log = NewLog();
  EXPECT_TRUE(HasLine(log,
                      "CHoardexFilter::GetValue() - [PROP_ATTACH_PERCIEVED_TYPE] Failed to locate string value .txt "
                      "under - HKLM/" +
                          key));
  EXPECT_TRUE(HasLine(
      log, "CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] Failed to locate Item Type for extension .txt"));

  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kKindMap, L".TXT", L"document");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L".txt", nullptr, L"txtfile");
  for (const std::wstring& url : urls) {
    chunks = Read(url);
    EXPECT_EQ(chunks[3].text, L"document");
    EXPECT_EQ(chunks[4].text, L"txtfile");
  }
  // Both have room for 260 characters, with or without a terminator in the registry.
  for (const DWORD length : {260u, 261u}) {
    for (const DWORD terminator : {0u, 1u}) {
      const std::wstring text(length, L'k');
      const DWORD size = (length + terminator) * sizeof(wchar_t);
      RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKindMap, L".TXT", REG_SZ, text.c_str(), size);
      RegSetKeyValueW(HKEY_CLASSES_ROOT, L".txt", nullptr, REG_SZ, text.c_str(), size);
      chunks = Read(urls[1]);
      EXPECT_EQ(chunks[3].text, length == 260 ? text : L"email;communication");
      EXPECT_EQ(chunks[4].text, length == 260 ? text : L"txt");
    }
  }
}

TEST_F(Attachments, TakeTheirAuthorFromTheShell) {
  AddMail(store_.top().AddFolder("Inbox")).AttachFile("a.txt", "x").Time(0x3008, kTime);
  const std::wstring url = AttachmentsOf(store_).at(0);
  FakeShell shell;
  const auto array_of = [](std::initializer_list<const wchar_t*> names) {
    VARIANT variant = {};
    variant.vt = VT_ARRAY | VT_BSTR;
    variant.parray = SafeArrayCreateVector(VT_BSTR, 3, static_cast<ULONG>(names.size()));
    LONG i = 3;
    for (const wchar_t* name : names) {
      const BSTR text = SysAllocString(name);
      SafeArrayPutElement(variant.parray, &i, text);
      SysFreeString(text);
      ++i;
    }
    return variant;
  };
  const auto text_of = [](const wchar_t* name) {
    VARIANT variant = {};
    variant.vt = VT_BSTR;
    variant.bstrVal = SysAllocString(name);
    return variant;
  };
  VARIANT number = {};
  number.vt = VT_I4;
  const std::string prefix = "CHoardexFilter::GetAttachmentAuthor() - ";
  const struct {
    FakeShell::Stage fails;
    HRESULT result;
    VARIANT author;
    const wchar_t* expected;
    std::string line;
    // clang-format off
  } kCases[] = {
      {FakeShell::kNone, S_OK, text_of(L"Ann"), L"Ann", ""},
      {FakeShell::kNone, S_OK, array_of({L"Ann", L"Bob", L"Cy"}), L"Ann; Bob; Cy", ""},
      {FakeShell::kNone, S_OK, array_of({L"", L"Bob"}), L"; Bob", ""},
      {FakeShell::kNone, S_OK, array_of({}), L"", ""},
      {FakeShell::kNone, S_OK, {}, L"", ""},
      {FakeShell::kNone, S_OK, number, L"",
       "CHoardexFilter::GetAttachmentAuthor - Unhandled case for vtAuthor.vt = 0x3 ,FileName - "},
      {FakeShell::kCreate, E_ACCESSDENIED, {}, L"",
       prefix + "CoCreateInstance for CLSID_Shell failed with error code [0x80070005]"},
      {FakeShell::kNameSpace, E_FAIL, {}, L"",
       prefix + "IShellDispatch::NameSpace() failed with error code [0x80004005], FileName - "},
      {FakeShell::kNameSpace, S_FALSE, {}, L"",
       prefix + "IShellDispatch::NameSpace() failed with error code [0x00000001], FileName - "},
      {FakeShell::kParseName, E_INVALIDARG, {}, L"",
       prefix + "Folder::ParseName() failed with error code [0x80070057], FileName - "},
      {FakeShell::kFolderItem2, E_NOINTERFACE, {}, L"",
       prefix + "FolderItem::QueryInterface() for FolderItem2 failed with error code [0x80004002], FileName - "},
      {FakeShell::kProperty, E_FAIL, {}, L"",
       prefix + "FolderItem2::ExtendedProperty() failed with error code [0x80004005], FileName - "},
  };
  // clang-format on
  for (const auto& expected : kCases) {
    SCOPED_TRACE(expected.line);
    shell.fails = expected.fails;
    shell.result = expected.result;
    shell.author = expected.author;
    NewLog();
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.Bind(), S_OK);
    const fs::path file = fs::directory_iterator(TemporaryFolder())->path();
    const auto chunks = item.ReadAll();
    ASSERT_GE(chunks.size(), 14u);
    EXPECT_EQ(chunks[11].type, VT_LPWSTR);
    EXPECT_EQ(chunks[11].text, expected.expected);
    const std::string log = NewLog();
    EXPECT_TRUE(expected.line.empty() || log.find("):" + expected.line) != std::string::npos) << log;
    EXPECT_EQ(
        log.find("CHoardexFilter::GetValue() - GetAttachmentAuthor() returned error code [0x") != std::string::npos,
        expected.fails != FakeShell::kNone);
    if (expected.fails != FakeShell::kNone) continue;
    EXPECT_EQ(fs::path(shell.folder), file.parent_path());
    EXPECT_EQ(fs::path(shell.name), file.filename());
    EXPECT_EQ(shell.property, L"{F29F85E0-4FF9-1068-AB91-08002B27B3D9} 4");
  }
  for (const auto& used : kCases) {
    VARIANT author = used.author;
    VariantClear(&author);
  }
}

}  // namespace
