// Accessors, the copies of attachments that they make, the protocol object that hands them out, and container paths.
#include "tests/module/filter_fixture.h"

#include <fstream>
#include <iterator>

#include "platform/mapi_extra.h"
#include "tests/support/thread.h"

namespace {

namespace fs = std::filesystem;
using Accessors = Filter;
using Containers = Filter;
using Protocol = Filter;
using Microsoft::WRL::ComPtr;

const std::int64_t kTime = vault::FileTime(2024, 5, 1);

std::string ContentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The bytes of a compound file with one stream.
std::vector<std::uint8_t> CompoundFile(const fs::path& path) {
  ComPtr<IStorage> storage;
  EXPECT_EQ(StgCreateDocfile(path.c_str(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, &storage), S_OK);
  ComPtr<IStream> stream;
  storage->CreateStream(L"CONTENTS", STGM_CREATE | STGM_WRITE | STGM_SHARE_EXCLUSIVE, 0, 0, &stream);
  stream->Write("inside", 6, nullptr);
  stream.Reset();
  storage->Commit(STGC_DEFAULT);
  storage.Reset();
  const std::string bytes = ContentOf(path);
  fs::remove(path);
  return {bytes.begin(), bytes.end()};
}

TEST_F(Accessors, CopyAnAttachmentByTheWayItIsStored) {
  using vault::AttachMethod;
  const auto compound = CompoundFile(folder_ / "compound.tmp");
  auto& mail = AddMail(store_.top().AddFolder("Inbox"));
  const auto timed = [](vault::AttachmentBuilder& attachment) { attachment.Time(0x3008, kTime).Text(0x3703, ".txt"); };
  timed(mail.AttachFile("value.txt", "by value"));
  timed(mail.AttachOle("object.txt", compound));
  timed(mail.AttachOle("plain.txt", std::vector<std::uint8_t>{'r', 'a', 'w'}));
  timed(mail.AttachReference("reference.txt", "C:\\secret.txt", AttachMethod::kByReference));
  timed(mail.AttachReference("resolve.txt", "C:\\secret.txt", AttachMethod::kByReferenceResolve));
  timed(mail.AttachReference("only.txt", "\\\\server\\secret.txt", AttachMethod::kByReferenceOnly));
  timed(mail.AttachFile("message.txt", "none").Int(0x3705, 5));  // says that it is a message
  timed(mail.AttachFile("unknown.txt", "none").Int(0x3705, 99));
  const auto links = AttachmentsOf(store_);
  ASSERT_EQ(links.size(), 8u);
  const char kNoStorage[] =
      "CUrlAccessor::Init() - OpenProperty with Stream%s for OLE-attachment failed with [0x80004002]";
  const auto content = [&](const std::wstring& url, const HoardexMapiFaultPlan* plan, ULONGLONG* size) {
    if (plan) ProviderFaults::Set(*plan);
    Item item(protocol_.Get(), url);
    ProviderFaults::Clear();
    EXPECT_EQ(item.result, S_OK);
    if (FAILED(item.result)) return std::string();
    EXPECT_EQ(item.accessor->GetSize(size), S_OK);
    FILETIME time;
    EXPECT_EQ(item.accessor->GetLastModified(&time), S_OK);
    EXPECT_EQ(TicksOf(time), kTime);
    std::string bytes = ContentOf(fs::directory_iterator(TemporaryFolder())->path());
    item.Close();
    EXPECT_EQ(TemporaryFiles(), 0u);
    return bytes;
  };
  const std::string whole(compound.begin(), compound.end());
  ULONGLONG size = 0;
  NewLog();
  EXPECT_EQ(content(links[0], nullptr, &size), "by value");
  EXPECT_EQ(size, 8u);
  EXPECT_EQ(content(links[1], nullptr, &size), whole);
  EXPECT_EQ(size, whole.size());
  EXPECT_EQ(NewLog().find("OLE-attachment failed"), std::string::npos);
  EXPECT_EQ(content(links[2], nullptr, &size), "raw");
  EXPECT_NE(NewLog().find("OpenProperty with StreamDocFile for OLE-attachment failed with [0x"), std::string::npos);
  // Neither kind of stream: what the object holds is copied as a storage.
  // clang-format off
  const HoardexMapiFaultPlan no_streams = {
      "IMAPIProp::OpenProperty", 1, TRUE, kHoardexMapiAnswer, static_cast<HRESULT>(MAPI_E_INTERFACE_NOT_SUPPORTED), 0,
       0, 2
  };
  // clang-format on
  const std::string copy = content(links[1], &no_streams, &size);
  EXPECT_EQ(size, copy.size());
  std::ofstream(folder_ / "copy.tmp", std::ios::binary) << copy;
  {
    ComPtr<IStorage> storage;
    ComPtr<IStream> stream;
    ASSERT_EQ(
        StgOpenStorage((folder_ / "copy.tmp").c_str(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, &storage),
        S_OK);
    ASSERT_EQ(storage->OpenStream(L"CONTENTS", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream), S_OK);
    char bytes[7] = {};
    stream->Read(bytes, 6, nullptr);
    EXPECT_STREQ(bytes, "inside");
  }
  fs::remove(folder_ / "copy.tmp");
  std::string log = NewLog();
  for (const char* kind : {"DocFile", ""}) {
    char line[120];
    snprintf(line, sizeof(line), kNoStorage, kind);
    EXPECT_TRUE(HasLine(log, line)) << log;
  }
  // A path in mail is never followed.
  for (size_t i = 3; i < 6; ++i) {
    Item item(protocol_.Get(), links[i]);
    EXPECT_EQ(item.result, static_cast<HRESULT>(MAPI_E_NO_SUPPORT));
    EXPECT_TRUE(HasLine(NewLog(), "CUrlAccessor::Init() - GetProps for ref-attachment failed with [0x80040102]"));
  }
  Item message(protocol_.Get(), links[6]), unknown(protocol_.Get(), links[7]);
  EXPECT_TRUE(FAILED(message.result));
  EXPECT_EQ(unknown.result, E_FAIL);
  log = NewLog();
  EXPECT_NE(log.find("CUrlAccessor::Init() - OpenProperty embedded-msg-attachment failed with [0x"), std::string::npos);
  EXPECT_TRUE(HasLine(log, "CUrlAccessor::Init() - Attachment is stored by a method that is not known [99]"));
  EXPECT_EQ(TemporaryFiles(), 0u);
}

TEST_F(Accessors, SayWhereACopyCannotBeMade) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox"));
  mail.AttachFile("value.txt", "by value").Time(0x3008, kTime);
  mail.AttachOle("object.txt", CompoundFile(folder_ / "compound.tmp")).Time(0x3008, kTime).Text(0x3703, ".txt");
  const auto links = AttachmentsOf(store_);
  ASSERT_EQ(links.size(), 2u);
  std::ofstream(fs::path(TemporaryFolder())) << "a file where the folder should be";
  const auto expect = [&](const std::wstring& url, const char* line, const HoardexMapiFaultPlan* plan) {
    NewLog();
    if (plan) ProviderFaults::Set(*plan);
    Item item(protocol_.Get(), url);
    ProviderFaults::Clear();
    EXPECT_TRUE(FAILED(item.result));
    EXPECT_NE(NewLog().find(std::string("):CUrlAccessor::Init() - ") + line + " failed with [0x8"), std::string::npos)
        << line;
  };
  expect(links[0], "SHCreateStreamOnFile for value-attachment", nullptr);
  expect(links[1], "SHCreateStreamOnFile for OLE-attachment", nullptr);
  HoardexMapiFaultPlan no_streams = {"IMAPIProp::OpenProperty", 1, TRUE, kHoardexMapiAnswer, E_NOINTERFACE, 0, 0, 2};
  expect(links[1], "StgOpenStorage for OLE-attachment", &no_streams);
  no_streams.last = 3;
  expect(links[1], "OpenProperty with Storage for OLE-attachment", &no_streams);
  fs::remove(TemporaryFolder());
}

TEST_F(Accessors, AreForExactlyOneAttachment) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox"));
  mail.AttachFile("a.txt", "x").Time(0x3008, kTime);
  mail.AttachMessage("IPM.Note").Subject("Inner");
  const std::wstring url = AttachmentsOf(store_).at(0);
  const size_t name = url.rfind(L'/'), key = url.rfind(L'/', name - 1);
  for (const wchar_t* other : {L"/FFFFFFFF", L"/no key", L""}) {
    NewLog();
    EXPECT_EQ(Item(protocol_.Get(), url.substr(0, key) + other + url.substr(name)).result, E_FAIL);
    const std::string log = NewLog();
    EXPECT_TRUE(HasLine(log, "CUrlAccessor::Init() - RowCount for attachment table not correct [0]")) << log;
    EXPECT_TRUE(HasLine(log, "CHoardexSP::CreateAccessor() - Init failed with [0x80004005]"));
  }
  // The keys of a message's attachments count up by 0x20, the lowest byte first: the message beside it.
  std::wstring inner = url;
  inner[key + 1] = static_cast<wchar_t>(inner[key + 1] + 2);
  EXPECT_EQ(Item(protocol_.Get(), inner).result, S_OK);
  EXPECT_EQ(TemporaryFiles(), 0u);
  ProviderFaults::Set({"IMAPITable::GetRowCount", 1, FALSE, kHoardexMapiHugeCount, S_OK, 0, 0});
  NewLog();
  Item many(protocol_.Get(), url);
  ProviderFaults::Clear();
  EXPECT_EQ(many.result, E_FAIL);
  EXPECT_TRUE(HasLine(NewLog(), "CUrlAccessor::Init() - RowCount for attachment table not correct [2147483647]"));
}

TEST_F(Accessors, AnswerWhatTheyDoNotDo) {
  AddMail(store_.top().AddFolder("Inbox"));
  const std::wstring vault = Write(store_), message = MessagesOf(vault).at(0);
  for (const std::wstring& url : {std::wstring(kRoot), vault, message}) {
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.result, S_OK);
    IUrlAccessor* accessor = item.accessor.Get();
    WCHAR text[8];
    BYTE bytes[8];
    DWORD length;
    CLSID clsid;
    auto* stream = reinterpret_cast<IStream*>(this);
    EXPECT_EQ(accessor->AddRequestParameter(nullptr, nullptr), E_NOTIMPL);
    EXPECT_EQ(accessor->GetDocFormat(text, 8, &length), E_NOTIMPL);
    EXPECT_EQ(accessor->GetCLSID(&clsid), E_NOTIMPL);
    EXPECT_EQ(accessor->GetHost(text, 8, &length), E_NOTIMPL);
    EXPECT_EQ(accessor->GetFileName(text, 8, &length), E_NOTIMPL);
    EXPECT_EQ(accessor->GetSecurityDescriptor(bytes, 8, &length), E_NOTIMPL);
    EXPECT_EQ(accessor->GetRedirectedURL(text, 8, &length), E_NOTIMPL);
    EXPECT_EQ(accessor->GetSecurityProvider(&clsid), E_NOTIMPL);
    EXPECT_EQ(accessor->BindToStream(&stream), E_NOTIMPL);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(accessor->BindToFilter(nullptr), E_POINTER);
    EXPECT_EQ(accessor->GetLastModified(nullptr), E_POINTER);
    EXPECT_EQ(accessor->IsDirectory(), url == message ? S_FALSE : S_OK);
    NewLog();
    FILETIME time = {1, 1};
    EXPECT_EQ(accessor->GetLastModified(&time), url == message ? S_OK : E_NOTIMPL);
    EXPECT_TRUE(HasLine(NewLog(), url == message
                                      ? "CUrlAccessor::GetLastModified() -  2024/05/02 09:30:00 hr=[0x00000000]"
                                      : "CUrlAccessor::GetLastModified() -  n/a hr=[0x80004001]"));
    ULONGLONG size = 1;
    EXPECT_EQ(accessor->GetSize(&size), S_OK);
    EXPECT_EQ(size, url == message ? std::stoull(message.substr(message.find(L"[[") + 2)) : 0);
    EXPECT_EQ(accessor->GetSize(&size), S_OK);
    EXPECT_EQ(size, 0u) << "the URL keeps no size";
    EXPECT_EQ(accessor->GetSize(nullptr), E_POINTER);
  }
  // A message without a time has none.
  ProviderFaults::Set({"IMAPIProp::GetProps", 1, FALSE, kHoardexMapiErrorCell, E_FAIL, 0, 0});
  Item timeless(protocol_.Get(), message);
  ProviderFaults::Clear();
  ASSERT_EQ(timeless.result, S_OK);
  FILETIME time = {1, 1};
  EXPECT_EQ(timeless.accessor->GetLastModified(&time), E_NOTIMPL);
  EXPECT_EQ(TicksOf(time), 0);
  left_alive_ += 2;  // a set-up that failed keeps its session and service administration
  EXPECT_EQ(Item(protocol_.Get(), kRoot + std::wstring(L"Z:\\no\\such.db")).result, E_OUTOFMEMORY);
}

// What is none of the module's URLs but has a fourth token opens the file of it, and holds nothing.
TEST_F(Accessors, OfOtherUrlsOpenTheVaultAndAreEmpty) {
  AddMail(store_.top().AddFolder("Inbox"));
  const std::wstring path = Write(store_).substr(wcslen(kRoot));
  for (const std::wstring& url : {L"http://example.com/x/" + path, L"zkoffline3x://S-1/other/" + path + L"/AB.zkm"}) {
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.result, S_OK);
    EXPECT_EQ(item.accessor->IsDirectory(), S_FALSE);
    ULONGLONG size = 1;
    EXPECT_EQ(item.accessor->GetSize(&size), S_OK);
    EXPECT_EQ(size, 0u);
    ASSERT_EQ(item.Bind(), S_OK);
    EXPECT_TRUE(item.ReadAll().empty());
    EXPECT_EQ(item.last, static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
    auto* region = static_cast<void*>(this);
    EXPECT_EQ(item.filter->BindRegion({}, IID_IUnknown, &region), E_NOTIMPL);
    EXPECT_EQ(region, nullptr);
  }
  NewLog();
  EXPECT_EQ(Item(protocol_.Get(), L"http://example.com/x").result, E_OUTOFMEMORY);
  EXPECT_TRUE(HasLine(NewLog(), "CUrlAccessor::Init() - Cannot allocate MAPI helper object"));
}

TEST_F(Accessors, LeaveNoCopyBehindWhateverEndsThem) {
  AddMail(store_.top().AddFolder("Inbox")).AttachFile("a.txt", "x").Time(0x3008, kTime);
  const std::wstring url = AttachmentsOf(store_).at(0);
  AUTHENTICATION_INFO authentication = {};
  INCREMENTAL_ACCESS_INFO incremental = {};
  ITEM_INFO info = {};
  // An accessor that nobody closes, as a host leaves it that is killed.
  const auto abandon = [&] {
    ComPtr<IUrlAccessor> accessor;
    ASSERT_EQ(protocol_->CreateAccessor(url.c_str(), &authentication, &incremental, &info, &accessor), S_OK);
    accessor.Reset();
    ASSERT_EQ(TemporaryFiles(), 1u);
  };
  abandon();
  Start();
  EXPECT_FALSE(fs::exists(TemporaryFolder()));
  abandon();
  EXPECT_EQ(protocol_->ShutDown(), S_OK);
  EXPECT_FALSE(fs::exists(TemporaryFolder()));
  NewLog();
  Start();
  EXPECT_TRUE(HasLine(NewLog(), "CHoardexSP::Init() - Exit, return hr = [0x00000000]")) << "with nothing to delete";
  fs::create_directories(fs::path(TemporaryFolder()) / L"deeper");
  std::ofstream(fs::path(TemporaryFolder()) / L"deeper" / L"ZK_HX_1_2_3_4_5other.txt") << "of a host before";
  Start();
  EXPECT_FALSE(fs::exists(TemporaryFolder()));
  EXPECT_EQ(protocol_->CloseAccessor(nullptr), S_OK);
}

TEST_F(Protocol, RefusesWhatIsMissing) {
  const std::wstring root = kRoot;
  AUTHENTICATION_INFO authentication = {};
  INCREMENTAL_ACCESS_INFO incremental = {};
  ITEM_INFO info = {};
  Write(store_);
  for (int missing = 0; missing < 5; ++missing) {
    ComPtr<IUrlAccessor> accessor;
    EXPECT_EQ(protocol_->CreateAccessor(missing == 0 ? nullptr : root.c_str(), missing == 1 ? nullptr : &authentication,
                                        missing == 2 ? nullptr : &incremental, missing == 3 ? nullptr : &info,
                                        missing == 4 ? nullptr : accessor.ReleaseAndGetAddressOf()),
              E_POINTER);
  }
}

TEST_F(Protocol, ReadsThePolicyAnewByEachInit) {
  Write(store_);
  const auto lines = [&] {
    NewLog();
    Start();
    return NewLog();
  };
  std::string log = lines();
  EXPECT_TRUE(HasLine(log,
                      "WDS GroupPolicy registry key not available, errorCode = 2, Key - "
                      "HKLM\\Software\\Policies\\Microsoft\\Windows\\Windows Search"));
  EXPECT_TRUE(HasLine(log, "CHoardexSP::DetectWDSGroupPolicy() - Enter"));
  EXPECT_TRUE(HasLine(log, "CHoardexSP::DetectWDSGroupPolicy() - Exit"));
  const std::pair<const wchar_t*, const wchar_t*> kValues[] = {{L"ExcludedExtensionsMultiline0", L"DOC"},
                                                               {L"ExcludedExtensionsMultiline2", L"zip"},
                                                               {L"ExcludedExtensionsMultiline4", L"txt"}};
  for (const auto& [name, text] : kValues) ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kPolicyKey, name, text);
  log = lines();
  for (const char* line :
       {"PreventIndexingEmailAttachments policy is not configured, errorCode = 2",
        "ExcludedExtensionsMultiline0 policy is set to 'DOC'",
        "ExcludedExtensionsMultiline1 policy is not configured, errorCode = 2",
        "ExcludedExtensionsMultiline2 policy is set to 'zip'",
        "ExcludedExtensionsMultiline3 policy is not configured, errorCode = 2", "strExcludeExtensions = doc;zip;."})
    EXPECT_TRUE(HasLine(log, line)) << line;
  SetPolicy(7, L"");
  log = lines();
  EXPECT_TRUE(HasLine(log, "PreventIndexingEmailAttachments policy is set to 7"));
  EXPECT_TRUE(HasLine(log, "strExcludeExtensions = ;zip;."));
}

TEST_F(Protocol, TurnsTheSlashesOfAVaultsPathAlone) {
  AddMail(store_.top().AddFolder("In/box"));
  const std::wstring message = MessagesOf(Write(store_)).at(0);
  std::wstring forward = message;
  for (size_t i = wcslen(kRoot), end = forward.find(L".db"); i < end; ++i)
    if (forward[i] == L'\\') forward[i] = L'/';
  ASSERT_NE(forward, message);
  NewLog();
  Item item(protocol_.Get(), forward);
  EXPECT_EQ(item.result, S_OK);
  const std::string log = NewLog();
  EXPECT_TRUE(HasLine(log, "CHoardexSP::CreateAccessor() - Start, URL is [" + fs::path(forward).string() + "]"));
  EXPECT_TRUE(HasLine(log, "CUrlAccessor::Init() - URL is [" + fs::path(message).string() + "]")) << log;
}

TEST_F(Protocol, ServesManyThreadsAtOnce) {
  auto& folder = store_.top().AddFolder("Inbox");
  for (int i = 0; i < 8; ++i)
    AddMail(folder).Body("Body " + std::to_string(i)).AttachFile("a.txt", std::to_string(i)).Time(0x3008, kTime);
  const auto urls = MessagesOf(Write(store_));
  std::vector<std::vector<Chunk>> expected;
  for (const std::wstring& url : urls) expected.push_back(Read(url));
  std::atomic<int> wrong = 0, attachments = 0;
  std::vector<Thread> threads;
  for (size_t first = 0; first < 4; ++first) {
    threads.emplace_back([&, first] {
      CoInitializeEx(nullptr, COINIT_MULTITHREADED);
      for (size_t n = 0; n < urls.size(); ++n) {
        const size_t i = (first * 2 + n) % urls.size();
        Item item(protocol_.Get(), urls[i]);
        if (item.result != S_OK || item.Bind() != S_OK) {
          ++wrong;
          continue;
        }
        const auto chunks = item.ReadAll();
        wrong += chunks.size() != expected[i].size();
        for (size_t c = 0; c < std::min(chunks.size(), expected[i].size()); ++c)
          wrong += chunks[c].text != expected[i][c].text || chunks[c].number != expected[i][c].number;
        Item attached(protocol_.Get(), chunks.back().text);
        if (attached.result != S_OK || attached.Bind() != S_OK) continue;
        attachments += attached.ReadAll().back().text == std::to_wstring(i);
      }
      CoUninitialize();
    });
  }
  for (Thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(attachments, 4 * 8);
  EXPECT_EQ(TemporaryFiles(), 0u);
}

TEST_F(Containers, ArePlacedByTheirPath) {
  auto& inbox = store_.top().AddFolder("Inbox");
  inbox.AddFolder("a\\b").AddFolder("under it");
  inbox.AddFolder("one/two");
  const std::wstring vault = Write(store_);
  const auto root = Read(kRoot);
  ASSERT_EQ(root.size(), 3u);
  EXPECT_EQ(root[0].text, L"Tessary");
  EXPECT_EQ(root[1].text, L"/");
  EXPECT_EQ(root[2].text, vault + L"/");
  EXPECT_EQ(Links(Read(std::wstring(kRoot, wcslen(kRoot) - 1))), Links(root));
  EXPECT_EQ(Links(Read(vault + L"/")), Links(Read(vault)));
  // Name and path of each container, in the order of a walk.
  std::vector<std::pair<std::wstring, std::wstring>> found;
  std::vector<std::wstring> pending = {vault};
  NewLog();
  while (!pending.empty()) {
    const std::wstring url = pending.back();
    pending.pop_back();
    const auto chunks = Read(url);
    ASSERT_GE(chunks.size(), 2u);
    found.emplace_back(chunks[0].text, chunks[1].text);
    for (const std::wstring& link : Links(chunks)) {
      pending.push_back(link);
      EXPECT_EQ(Links(Read(link.substr(0, link.size() - 1))), Links(Read(link)));
    }
  }
  const auto has = [&](const wchar_t* name, const wchar_t* path) {
    return std::count(found.begin(), found.end(), std::pair<std::wstring, std::wstring>(name, path)) == 1;
  };
  EXPECT_TRUE(has(L"items", L"/Tessary"));
  EXPECT_TRUE(has(L"Inbox", L"/Tessary/items"));
  // What stands before a backslash is taken for the vault's folder.
  EXPECT_TRUE(has(L"b", L"/Tessary"));
  EXPECT_TRUE(has(L"under it", L"/Tessary/b"));
  EXPECT_TRUE(has(L"two", L"/Tessary/items/Inbox/one")) << "there is no escaping";
}

// A root of vault folders has room for 1,024 characters, with or without a terminator in the registry.
TEST_F(Containers, AreLookedForInRootsOfAnyLength) {
  Write(store_);
  for (const size_t length : {1023u, 1024u, 1025u}) {
    for (const size_t terminator : {0u, 1u}) {
      const std::wstring root = L"C:\\" + std::wstring(length - 3, L'r');
      RegSetKeyValueW(HKEY_CURRENT_USER, L"SOFTWARE\\Trelmo\\Zarnak\\Client\\Vault", L"HXRootDirectory", REG_SZ,
                      root.c_str(), static_cast<DWORD>((length + terminator) * sizeof(wchar_t)));
      NewLog();
      Read(kRoot);
      const std::string log = NewLog();
      EXPECT_EQ(log.find("Trying to enumerate for [" + fs::path(root).string() + "\\Vault\\*") != std::string::npos,
                length <= 1024)
          << length;
      EXPECT_TRUE(
          HasLine(log, std::string("CHoardexFilter::EnumAllHXFiles() - Querying for value [HXRootDirectory] in the "
                                   "key [Vault] returned [") +
                           (length <= 1024 ? "0]" : "234]")))
          << length;
    }
  }
}

TEST_F(Containers, OfferAStepUntilItsValueIsTaken) {
  store_.top().AddFolder("Inbox");
  const std::wstring vault = Write(store_);
  for (const std::wstring& url : {std::wstring(kRoot), vault}) {
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.Bind(), S_OK);
    STAT_CHUNK stat = {};
    for (const ULONG fmtid : {kItemName, kMail}) {
      for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(item.filter->GetChunk(&stat), S_OK);
        EXPECT_EQ(stat.attribute.guidPropSet.Data1, fmtid);
        EXPECT_EQ(stat.flags, CHUNK_VALUE);
      }
      TakeText(item.filter.Get());
    }
    // Links go forward by GetChunk; their value may be taken as often as one likes.
    size_t links = 0;
    for (; item.filter->GetChunk(&stat) == S_OK; ++links) {
      EXPECT_EQ(stat.attribute.guidPropSet.Data1, kLink);
      const std::wstring link = TakeText(item.filter.Get());
      EXPECT_TRUE(link.starts_with(kRoot));
      EXPECT_EQ(TakeText(item.filter.Get()), link);
    }
    EXPECT_GE(links, 1u);
    EXPECT_EQ(item.filter->GetChunk(&stat), static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
    EXPECT_EQ(TakeText(item.filter.Get()), L"<empty>") << "behind the links there is nothing";
  }
}

}  // namespace
