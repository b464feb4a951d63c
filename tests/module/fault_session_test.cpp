// Life of a vault session beyond the plain case: who shares it, what it cleans up, where it stops, and how it goes
// down.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "module/core/HoardexPH.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "tests/module/fault_expectations.h"
#include "tests/support/child_process.h"
#include "tests/support/thread.h"

// The one class that may look inside.
struct MapiForWDSTest {
  // Sets an object up and takes it down again. The calls that the way down made, in order.
  static std::vector<std::string> CallsOfTeardown(const std::wstring& url, const char* failing) {
    auto* object = new CMapiForWDS;
    if (failing) ProviderFaults::Fail(failing, 1, E_OUTOFMEMORY);
    EXPECT_EQ(FAILED(object->Setup(url)), failing != nullptr);
    ProviderFaults::Clear();
    object->Teardown();
    delete object;
    std::vector<std::string> calls;
    for (long n = 1; n <= ProviderFaults::CallsEntered(); ++n) calls.push_back(ProviderFaults::CallName(n));
    return calls;
  }
};

namespace faults {
namespace {

namespace fs = std::filesystem;

class Session : public SceneTest {
 protected:
  Session() { url_ = Scene::UrlOf(scene_.store()); }
  static size_t SubFolders(CMapiForWDS* mapi, const std::wstring& url) { return Browse(mapi, url).names.size(); }
  // The store under another name, gone at the end.
  class Copy {
   public:
    explicit Copy(const std::wstring& name) : path(Scene::Get().store().parent_path() / name) {
      CopyFileW(Scene::Get().store().c_str(), path.c_str(), FALSE);
    }
    ~Copy() {
      CMapiForWDS::CleanMapiObjs();
      EXPECT_TRUE(DeleteFileW(path.c_str()));
    }
    const fs::path path;
  };
  static void MakeProfile(const wchar_t* name) {
    HKEY key = nullptr;
    const std::wstring path = std::wstring(L"Software\\Trelmo\\Hoardex\\Profiles\\") + name;
    RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    RegCloseKey(key);
  }
  // Whether it was there; it is not afterwards.
  static bool TakeProfile(const wchar_t* name) {
    const std::wstring path = std::wstring(L"Software\\Trelmo\\Hoardex\\Profiles\\") + name;
    return RegDeleteKeyW(HKEY_CURRENT_USER, path.c_str()) == ERROR_SUCCESS;
  }
};

TEST_F(Session, IsSharedByAllSpellingsOfThePath) {
  std::wstring upper = url_;
  const size_t path = upper.find(L"default/") + 8;
  CharUpperBuffW(upper.data() + path, static_cast<DWORD>(upper.size() - path));
  CMapiForWDS* mapi = SessionOf(url_);
  ASSERT_NE(mapi, nullptr);
  EXPECT_EQ(SessionOf(upper), mapi);
  EXPECT_EQ(SessionOf(url_ + L"/0011AA/"), mapi);
  EXPECT_EQ(ProviderFaults::Count().sessions, before_.sessions + 1);
  CMapiForWDS::CleanMapiObjs();
  EXPECT_NE(SessionOf(upper), nullptr) << "a new one after the old ones are gone";
  EXPECT_EQ(ProviderFaults::Count().sessions, before_.sessions + 1);
}

TEST_F(Session, WorksForEveryThreadThatAsksFirst) {
  for (int round = 0; round < 10; ++round) {
    constexpr size_t kThreads = 8;
    std::shared_ptr<CMapiForWDS> got[kThreads];
    size_t listed[kThreads] = {};
    std::vector<Thread> threads;
    for (size_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        got[i] = CMapiForWDS::GetMapiObj(url_);
        listed[i] = SubFolders(got[i].get(), url_);
      });
    }
    for (Thread& thread : threads) thread.join();
    EXPECT_EQ(std::count(got, got + kThreads, nullptr), 0);
    for (const size_t count : listed) EXPECT_EQ(count, 2u);
    EXPECT_EQ(ProviderFaults::Count().profiles, 0);
    // Those that lost the table's place go with their last user, like the table's own.
    CMapiForWDS::CleanMapiObjs();
    for (auto& session : got) EXPECT_EQ(SubFolders(session.get(), url_), 2u);
    for (auto& session : got) session.reset();
    EXPECT_EQ(ProviderFaults::Count(), before_);
  }
}

// Two protocol objects of one host: the end of one must not take what the other works with.
TEST_F(Session, LastsAsLongAsAnybodyWorksWithIt) {
  const LONG locks = module::LockCount();
  auto used = CMapiForWDS::GetMapiObj(url_);
  ASSERT_NE(used, nullptr);
  EXPECT_EQ(module::LockCount(), locks + 1) << "a session that nobody shuts down must keep the module";
  CMapiForWDS::CleanMapiObjs();
  EXPECT_EQ(module::LockCount(), locks);
  EXPECT_EQ(SubFolders(used.get(), url_), 2u);
  CMapiForWDS* second = SessionOf(url_);
  EXPECT_NE(second, used.get()) << "what the table let go of is not handed out again";
  EXPECT_EQ(ProviderFaults::Count().sessions, before_.sessions + 2);
  used.reset();
  EXPECT_EQ(ProviderFaults::Count().sessions, before_.sessions + 1);
  EXPECT_EQ(SubFolders(second, url_), 2u);
}

// MAPI's own service makes a store of a path where it finds none, and writes over what it does not know.
TEST_F(Session, LetsNoServiceMakeOrReplaceAFile) {
  ProviderFaults::Behave(kHoardexMapiMakesStores);
  url_ = Scene::UrlOf(path_);
  std::ifstream whole(scene_.store(), std::ios::binary);
  const std::string store(std::istreambuf_iterator<char>(whole), {});
  std::string magic = store, client = store, first_sum = store, second_sum = store;
  ++magic[0], ++client[8], ++first_sum[100], ++second_sum[518];
  const std::pair<const char*, std::string> kFiles[] = {{"of another program", std::string(4096, 'x')},
                                                        {"empty", ""},
                                                        {"cut short", store.substr(0, 400)},
                                                        {"no signature", magic},
                                                        {"of another kind", client},
                                                        {"first checksum", first_sum},
                                                        {"second checksum", second_sum}};
  for (const auto& [what, bytes] : kFiles) {
    SCOPED_TRACE(what);
    std::ofstream(path_, std::ios::binary) << bytes;
    for (const std::wstring& url : {url_, url_ + L"/0011", L"any://name/at all/" + path_.wstring()}) {
      HRESULT set_up = S_OK;
      EXPECT_EQ(CMapiForWDS::GetMapiObj(url, &set_up), nullptr);
      EXPECT_EQ(set_up, static_cast<HRESULT>(MAPI_E_CORRUPT_STORE));
    }
    EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CMapiForWDS::ConfigurePST() - ConfigureMsgService failed with [0x%08lX]",
                        static_cast<HRESULT>(MAPI_E_CORRUPT_STORE)));
    std::ifstream after(path_, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(after), {}), bytes) << "the file was replaced";
  }
  DeleteFileW(path_.c_str());
  HRESULT set_up = S_OK;
  EXPECT_EQ(CMapiForWDS::GetMapiObj(url_, &set_up), nullptr);
  EXPECT_EQ(set_up, static_cast<HRESULT>(MAPI_E_NOT_FOUND));
  EXPECT_EQ(GetFileAttributesW(path_.c_str()), INVALID_FILE_ATTRIBUTES) << "a deleted vault came back";
  EXPECT_EQ(CMapiForWDS::GetMapiObj(L"any://name/at all/" + path_.filename().wstring(), &set_up), nullptr);
  EXPECT_EQ(set_up, static_cast<HRESULT>(MAPI_E_NOT_FOUND)) << "a path that is not whole means any file";
  // One that another program keeps to itself is there all right: MAPI says what it thinks of it.
  std::ofstream(path_, std::ios::binary) << store;
  const HANDLE held = CreateFileW(path_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ProviderFaults::Fail("IMsgServiceAdmin::ConfigureMsgService", 1, MAPI_E_DISK_ERROR);
  EXPECT_EQ(CMapiForWDS::GetMapiObj(url_, &set_up), nullptr);
  EXPECT_EQ(set_up, static_cast<HRESULT>(MAPI_E_DISK_ERROR));
  CloseHandle(held);
  before_ = ProviderFaults::Count();  // a set-up that failed keeps its session
}

// The other side of the next test.
TEST_F(Session, DISABLED_OpensAndGoes) {
  for (int i = 0; i < 40; ++i) {
    ASSERT_NE(SessionOf(url_), nullptr) << "round " << i;
    CMapiForWDS::CleanMapiObjs();
  }
}

// A session's clean-up deletes every temporary profile there is, and one that another process has just made with them.
TEST_F(Session, LeavesTheFreshProfilesOfOtherProcessesAlone) {
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, L"Local\\Hoardex.TemporaryProfiles");
  ASSERT_EQ(WaitForSingleObject(mutex, 60'000), WAIT_OBJECT_0);
  std::shared_ptr<CMapiForWDS> session;
  {
    Thread asks([&] { session = CMapiForWDS::GetMapiObj(url_); });
    Sleep(300);
    EXPECT_EQ(session, nullptr) << "another process is logging on";
    ReleaseMutex(mutex);
  }
  EXPECT_NE(session, nullptr);
  session.reset();
  CMapiForWDS::CleanMapiObjs();
  Thread([&] { WaitForSingleObject(mutex, 60'000); }).join();  // ends without giving it back
  EXPECT_NE(SessionOf(url_), nullptr);
  CMapiForWDS::CleanMapiObjs();
  CloseHandle(mutex);

  wchar_t program[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  const std::wstring command = L"\"" + std::wstring(program) +
                               L"\" --gtest_also_run_disabled_tests --gtest_filter=Session.DISABLED_OpensAndGoes";
  ChildResult results[2];
  {
    Thread first([&] { results[0] = RunChild(command, 100'000); });
    results[1] = RunChild(command, 100'000);
  }
  for (const ChildResult& result : results) {
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.code, 0u) << result.output;
  }
}

TEST_F(Session, DeletesOnlyProfilesThatItsLikesMade) {
  const std::pair<const wchar_t*, bool> kProfiles[] = {{L"ZK_HX_10_1_2_3_4", false},
                                                       {L"ZK_HX_1a2c_1cb8f4e_8d3e1f20_5f3a12_9c2e0b1d4", false},
                                                       {L"ZK_HX_PH", true},
                                                       {L"ZK_HX_x", true},
                                                       {L"ZK_HX_10_1_2_3", true},
                                                       {L"ZK_HX_10_1_2_3_", true},
                                                       {L"Outlook", true}};
  for (const auto& [name, kept] : kProfiles) MakeProfile(name);
  EXPECT_EQ(SubFolders(SessionOf(url_), url_), 2u);
  for (const auto& [name, kept] : kProfiles) EXPECT_EQ(TakeProfile(name), kept) << text::Narrow(name);
  EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CMapiForWDS::DeleteOldProfiles - PROFILE Deleted 'ZK_HX_10_1_2_3_4'", 0));
}

TEST_F(Session, TakesPathsOutsideTheCodePage) {
  if (GetACP() == CP_UTF8) GTEST_SKIP() << "every path is in this code page";
  constexpr HRESULT kNoTranslation = static_cast<HRESULT>(0x80070459);
  const Copy plain(L"a.db");
  // The second looks like the first to whoever wants the code page at any price.
  for (const wchar_t* name : {L"\u65E5\u672C \u0416.db", L"\uFF41.db"}) {
    const Copy copy(name);
    const std::wstring url = Scene::UrlOf(copy.path);
    EXPECT_EQ(SubFolders(SessionOf(url), url), 2u);
    CMapiForWDS::CleanMapiObjs();
    scene_.NewLogLines();
    ProviderFaults::Fail("IMsgServiceAdmin::CreateMsgService", 1, E_FAIL);
    EXPECT_EQ(SessionOf(url), nullptr);
    const auto lines = scene_.NewLogLines();
    EXPECT_TRUE(HasLine(lines,
                        "CMapiForWDS::ConfigurePST() - Vault file path cannot be given in the code page [0x%08lX]",
                        kNoTranslation));
    EXPECT_TRUE(HasLine(lines, "CMapiForWDS::Setup() - OpenPST failed with [0x%08lX]", kNoTranslation));
  }
  before_ = ProviderFaults::Count();  // a set-up that failed keeps its session
}

TEST_F(Session, RefusesAPathThatHasNoRoom) {
  const auto url_of_length = [](size_t length) {
    std::wstring path = L"C:\\";
    return Scene::UrlOf(path.append(length - 6, L'x') + L".db");
  };
  EXPECT_EQ(SessionOf(url_of_length(1024)), nullptr);
  EXPECT_EQ(ProviderFaults::CallsEntered(), 0) << "nothing is opened first";
  EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CMapiForWDS::Setup() - Vault file path is too long [0x%08lX]",
                      static_cast<HRESULT>(0x800700CE)));
  EXPECT_EQ(SessionOf(url_of_length(1023)), nullptr) << "there is no such file";
  EXPECT_GT(ProviderFaults::CallsEntered(), 0);
  before_ = ProviderFaults::Count();
}

TEST_F(Session, GoesDownInTheOrderThatItCameUp) {
  using Calls = std::vector<std::string>;
  const std::string free = "MAPIFreeBuffer", remove = "IMsgServiceAdmin::DeleteMsgService",
                    logoff = "IMAPISession::Logoff", end = "MAPIUninitialize";
  const std::pair<const char*, Calls> kStops[] = {
      {"MAPIInitialize", {}},
      {"MAPIAdminProfiles", {end}},
      {"MAPILogonEx", {end}},
      {"IProfAdmin::AdminServices", {end}},
      {"IMsgServiceAdmin::GetMsgServiceTable", {logoff, end}},
      {"IMsgServiceAdmin::ConfigureMsgService", {remove, logoff, end}},
      {"IMAPISession::GetMsgStoresTable", {remove, logoff, end}},
      {"IMAPISession::OpenMsgStore", {remove, logoff, end, free}},
      {nullptr, {free, remove, logoff, end}},
  };
  for (const auto& [failing, calls] : kStops) {
    SCOPED_TRACE(failing ? failing : "no failure");
    EXPECT_EQ(MapiForWDSTest::CallsOfTeardown(url_, failing), calls);
    EXPECT_EQ(ProviderFaults::Count(), before_);
  }
}

}  // namespace
}  // namespace faults
