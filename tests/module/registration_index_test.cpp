// The user's search root in the index: what is called in which order with what, what the log says, and what happens
// when any of it fails.

#include "module/core/UserSid.h"
#include "module/registration/Exports.h"
#include "tests/module/registration_fixture.h"
#include "tests/support/thread.h"

namespace {

using testing::Contains;
using testing::ElementsAre;

#define CREATE_DELETE "HoardexPH:CreateDeleteRegSearchRootAndDefaultScope() - "
#define CREATE "HoardexPH:CreateSearchRootAndDefaultScope() - "
#define ALL "HoardexPH:ZKHoardexRemoveAllProtocol() - "
#define DELETE_ALL "HoardexPH:DeleteAllHoardexSearchRoots() - "

using Steps = std::vector<ChainStep>;

Steps OpeningSteps(const char* start, const char* called) {
  return {
      {nullptr, nullptr, start},
      {nullptr, nullptr, called},
      {"CSearchManager::CreateInstance", "CSearchManager::CreateInstance()",
       CREATE_DELETE "ISearchManager interface creation returned with a value of [0x%R]"},
      {"ISearchManager::GetCatalog", "ISearchManager::GetCatalog(SystemIndex)",
       CREATE_DELETE "Query for an ISearchCatalogManager interface returned with a value of [0x%R]"},
      {"ISearchCatalogManager::GetCrawlScopeManager", "ISearchCatalogManager::GetCrawlScopeManager()",
       CREATE_DELETE "Query for an ISearchCrawlScopeManager interface returned with a value of [0x%R]"},
      {nullptr, nullptr, CREATE_DELETE "The default URL for this new user [%U]"},
  };
}
Steps operator+(Steps first, const Steps& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

const Steps kAdding = OpeningSteps(
    "HoardexPH:ZKHoardexAddProtocol() - Start the process of registering Hoardex's protocol handler for WDS 3.x",
    CREATE_DELETE "Called with a boolean value of 1");
const Steps kRemoving = OpeningSteps(
    "HoardexPH:ZKHoardexRemoveProtocol() - Start the process of de-registering Hoardex's protocol handler for WDS 3.x",
    CREATE_DELETE "Called with a boolean value of 0");
// The look-up, with no root and with the user's as the only one.
const Steps kNothingFound = {{"ISearchCrawlScopeManager::EnumerateRoots", "ISearchCrawlScopeManager::EnumerateRoots()",
                              CREATE_DELETE "FindSearchRoot returned [0x%R]", "00000001"}};
const Steps kFound = {
    {"ISearchCrawlScopeManager::EnumerateRoots", "ISearchCrawlScopeManager::EnumerateRoots()", nullptr, "",
     CREATE_DELETE "FindSearchRoot returned [0x%R]"},
    {"IEnumSearchRoots::Next", "IEnumSearchRoots::Next(1)", nullptr, "",
     CREATE_DELETE "FindSearchRoot returned [0x%R]"},
    {nullptr, "IEnumSearchRoots::Next(1)"},
    {"ISearchRoot::get_RootURL", "ISearchRoot::get_RootURL()", CREATE_DELETE "FindSearchRoot returned [0x%R]"}};
const Steps kCreating = {
    {"CSearchRoot::CreateInstance", "CSearchRoot::CreateInstance()",
     CREATE "Creating a ISearchRoot interface returned [0x%R]"},
    // Default services and level, impersonation, no principal, identity or capabilities.
    {"IClientSecurity::SetBlanket", "IClientSecurity::SetBlanket(-1, -1, <null>, 0, 3, <null>, 0)",
     CREATE "CoSetProxyBlanket returned [0x%R]"},
    {"ISearchRoot::put_RootURL", "ISearchRoot::put_RootURL(%U)",
     CREATE "For the default URL [%U], ISearchRoot->put_RootURL returned [0x%R]"},
    {"ISearchRoot::put_ProvidesNotifications", "ISearchRoot::put_ProvidesNotifications(0)",
     CREATE "ISearchRoot->put_ProvidesNotifications returned [0x%R]"},
    {"ISearchRoot::put_IsHierarchical", "ISearchRoot::put_IsHierarchical(1)",
     CREATE "ISearchRoot->put_IsHierarchical returned [0x%R]"},
    {"ISearchRoot::put_UseNotificationsOnly", "ISearchRoot::put_UseNotificationsOnly(0)",
     CREATE "ISearchRoot->put_UseNotificationsOnly returned [0x%R]"},
    {"ISearchRoot::put_AuthenticationType", "ISearchRoot::put_AuthenticationType(1)",
     CREATE "ISearchRoot->put_AuthenticationType returned [0x%R]"},
    {"ISearchRoot::put_FollowDirectories", "ISearchRoot::put_FollowDirectories(1)",
     CREATE "ISearchRoot->put_FollowDirectories returned [0x%R]"},
    {"ISearchCrawlScopeManager::AddRoot", "ISearchCrawlScopeManager::AddRoot()",
     CREATE "ISearchCrawlScopeManager->AddRoot returned [0x%R]"},
    {"ISearchCrawlScopeManager::AddDefaultScopeRule", "ISearchCrawlScopeManager::AddDefaultScopeRule(%U, 1, 1)",
     CREATE "ISearchCrawlScopeManager->AddDefaultScopeRule returned [0x%R]"},
    {"ISearchCrawlScopeManager::AddHierarchicalScope", "ISearchCrawlScopeManager::AddHierarchicalScope(%U, 1, 1, 0)",
     CREATE "ISearchCrawlScopeManager->AddHierarchicalScope returned [0x%R]"},
    {"ISearchCrawlScopeManager::SaveAll", "ISearchCrawlScopeManager::SaveAll()",
     CREATE "ISearchCrawlScopeManager->SaveAll returned [0x%R]"},
};

std::string Registered(const std::string& result) {
  return "HoardexPH:ZKHoardexAddProtocol() - Registering Hoardex's protocol handler for WDS 3.x returned with a value "
         "of [0x" +
         result + "]";
}
std::string Deregistered(const std::string& result) {
  return "HoardexPH:ZKHoardexRemoveProtocol() - De-registering Hoardex's protocol handler for WDS 3.x returned with a "
         "value of [0x" +
         result + "]";
}

class SearchRoot : public RegistrationTest {};

TEST_F(SearchRoot, IsAddedStepByStepAndTheFirstFailureEndsIt) {
  const size_t before = (kAdding + kNothingFound).size();
  Walk(kAdding + kNothingFound + kCreating, ZKHoardexAddProtocol, [&](size_t last, const std::string& result) {
    std::vector<std::string> lines;
    if (last >= before) lines.push_back(CREATE_DELETE "returned with a value of [0x" + result + "]");
    lines.push_back(Registered(result));
    return lines;
  });
}

TEST_F(SearchRoot, IsRemovedAndSavedAndTheFirstFailureEndsIt) {
  const Steps removal = {{"ISearchCrawlScopeManager::RemoveRoot", "ISearchCrawlScopeManager::RemoveRoot(%U)",
                          CREATE_DELETE "Deleting a search root returned [0x%R]"},
                         {"ISearchCrawlScopeManager::SaveAll", "ISearchCrawlScopeManager::SaveAll()",
                          CREATE_DELETE "ISearchCrawlScopeManager->SaveAll returned [0x%R]"}};
  Walk(
      kRemoving + kFound + removal, ZKHoardexRemoveProtocol,
      [](size_t, const std::string& result) { return std::vector{Deregistered(result)}; },
      [&] { index().roots = {Wide(UserRoot())}; });
}

TEST_F(SearchRoot, IsNeitherAddedNorRemovedTwice) {
  index().roots = {L"file:///C:\\", L"zkoffline3x://{S-1-5-21-9-9-9-9}/default/"};
  const auto others = index().roots;
  ZKHoardexAddProtocol();
  ASSERT_EQ(index().roots.size(), 3u);
  // The system may hand the URL back in another case.
  index().roots.back()[0] = L'Z';
  index().calls.clear();
  log_.New();
  ZKHoardexAddProtocol();
  EXPECT_EQ(index().roots.size(), 3u);
  EXPECT_THAT(index().calls, testing::Not(Contains("ISearchCrawlScopeManager::SaveAll()")));
  std::vector<std::string> lines = log_.New();
  ASSERT_GE(lines.size(), 3u);
  lines.erase(lines.begin(), lines.end() - 3);
  EXPECT_THAT(lines,
              ElementsAre(CREATE_DELETE "FindSearchRoot returned [0x00000000]",
                          CREATE_DELETE "No need to create, search root already present", Registered("00000000")));

  // It is removed as the index spells it.
  ZKHoardexRemoveProtocol();
  EXPECT_EQ(index().roots, others);
  index().calls.clear();
  log_.New();
  ZKHoardexRemoveProtocol();
  EXPECT_EQ(index().roots, others);
  EXPECT_THAT(index().calls, testing::Not(Contains("ISearchCrawlScopeManager::SaveAll()")));
  lines = log_.New();
  ASSERT_GE(lines.size(), 3u);
  lines.erase(lines.begin(), lines.end() - 3);
  EXPECT_THAT(lines, ElementsAre(CREATE_DELETE "FindSearchRoot returned [0x00000001]",
                                 CREATE_DELETE "No need to delete, search root not present", Deregistered("00000001")));
  // An index without any root has no enumerator.
  index().roots.clear();
  index().calls.clear();
  ZKHoardexRemoveProtocol();
  EXPECT_EQ(log_.New().back(), Deregistered("00000001"));
  ZKHoardexRemoveAllProtocol();
  EXPECT_EQ(log_.New().back(),
            DELETE_ALL "Querying for IEnumSearchRoots interface returned with a value of [0x00000001]");
  EXPECT_THAT(index().calls, testing::Not(Contains("ISearchCrawlScopeManager::SaveAll()")));
}

TEST_F(SearchRoot, OfEveryUserGoesWithTheSchemeAndNoOther) {
  const std::vector<std::wstring> foreign = {L"file:///C:\\", L"zkoffline3xtra://{S-1}/default/", L"zkoffline3x:/odd",
                                             L"other://zkoffline3x://"};
  const std::vector<std::wstring> ours = {L"zkoffline3x://{S-1-5-21-1}/default/",
                                          L"zkoffline3x://{S-1-5-21-2}/default/",
                                          L"ZKOFFLINE3X://{S-1-5-21-3}/DEFAULT/"};
  index().roots = {foreign[0], ours[0], ours[1], foreign[1], ours[2], foreign[2], foreign[3]};
  ZKHoardexRemoveAllProtocol();
  EXPECT_EQ(index().roots, foreign);
  index().calls.clear();
  ZKHoardexRemoveAllProtocol();
  EXPECT_EQ(index().roots, foreign);
  EXPECT_THAT(index().calls, testing::Not(Contains("ISearchCrawlScopeManager::SaveAll()")));
}

TEST_F(SearchRoot, RemovalOfAllStopsAtTheFirstFailure) {
  const Steps steps = {
      {"CSearchManager::CreateInstance", "CSearchManager::CreateInstance()",
       ALL "ISearchManager interface creation returned with a value of [0x%R]"},
      {"ISearchManager::GetCatalog", "ISearchManager::GetCatalog(SystemIndex)",
       ALL "Query for an ISearchCatalogManager interface returned with a value of [0x%R]"},
      {"ISearchCatalogManager::GetCrawlScopeManager", "ISearchCatalogManager::GetCrawlScopeManager()",
       ALL "Query for an ISearchCrawlScopeManager interface returned with a value of [0x%R]"},
      {"ISearchCrawlScopeManager::EnumerateRoots", "ISearchCrawlScopeManager::EnumerateRoots()",
       DELETE_ALL "Querying for IEnumSearchRoots interface returned with a value of [0x%R]"},
      {"IEnumSearchRoots::Next", "IEnumSearchRoots::Next(1)", nullptr, "",
       DELETE_ALL "IEnumSearchRoots::Next returned [0x%R]"},
      {nullptr, "IEnumSearchRoots::Next(1)"},
      {nullptr, "IEnumSearchRoots::Next(1)"},
      {"ISearchRoot::get_RootURL", "ISearchRoot::get_RootURL()",
       DELETE_ALL "ISearchRoot::get_RootURL returned with a code [0x%R] and URL [%U]", "00000000",
       DELETE_ALL "ISearchRoot::get_RootURL returned with a code [0x%R] and URL []"},
      {nullptr, nullptr, DELETE_ALL "Queried URL [%U] matched with the Hoardex URL [zkoffline3x]"},
      {"ISearchCrawlScopeManager::RemoveRoot", "ISearchCrawlScopeManager::RemoveRoot(%U)",
       DELETE_ALL "ISearchCrawlScopeManager::RemoveRoot returned [0x%R]"},
      {"ISearchCrawlScopeManager::SaveAll", "ISearchCrawlScopeManager::SaveAll()",
       DELETE_ALL "ISearchCrawlScopeManager::SaveAll returned [0x%R]"},
      {nullptr, "ISearchRoot::get_RootURL()",
       DELETE_ALL "ISearchRoot::get_RootURL returned with a code [0x%R] and URL [file:///C:\\]"},
  };
  Walk(
      steps, ZKHoardexRemoveAllProtocol, [](size_t, const std::string&) { return std::vector<std::string>(); },
      [&] {
        index().roots = {Wide(UserRoot()), L"file:///C:\\"};
      });
}

TEST_F(SearchRoot, NeedsTheUsersTokenAndReportsWhatRefusesIt) {
  struct Case {
    const char* function;
    int nth;
    DWORD error;
    const char* result;
  };
  const Case cases[] = {
      {"OpenProcessToken", 1, ERROR_ACCESS_DENIED, "80070005"},
      {"GetTokenInformation", 1, ERROR_INVALID_HANDLE, "80070006"},
      {"GetTokenInformation", 2, ERROR_NO_SYSTEM_RESOURCES, "800705AA"},
      {"ConvertSidToStringSidW", 1, ERROR_INVALID_SID, "80070539"},
      {"CompareStringW", 1, ERROR_INVALID_FLAGS, "800703EC"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.function);
    SystemFaults system;
    index().roots = {L"zkoffline3x://{S-1}/default/"};
    index().calls.clear();
    log_.New();
    system.Arm(c.nth, c.error, c.function);
    ZKHoardexAddProtocol();
    system.Disarm();
    EXPECT_EQ(system.failed(), c.function);
    const bool token = std::string(c.function) != "CompareStringW";
    const std::vector<std::string> lines = log_.New();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.back(), Registered(c.result));
    EXPECT_EQ(lines[lines.size() - 2], std::string(CREATE_DELETE) +
                                           (token ? "GetUserSIDString returned [0x" : "FindSearchRoot returned [0x") +
                                           c.result + "]");
    EXPECT_EQ(index().roots.size(), 1u);
    EXPECT_EQ(index().calls.size(), token ? 3u : 7u) << "went on after the failure";
  }
  // A size that is told at once, and a buffer that is too small.
  {
    ZK_IMPORT_HOOK(GetTokenInformation)
    told([](auto, HANDLE, TOKEN_INFORMATION_CLASS, LPVOID, DWORD, DWORD*) { return TRUE; });
    wchar_t sid[kUserSidBuffer] = L"?";
    EXPECT_EQ(GetUserSIDString(sid, kUserSidBuffer), E_UNEXPECTED);
    EXPECT_STREQ(sid, L"");
  }
  wchar_t small[12] = L"?";
  EXPECT_EQ(GetUserSIDString(small, 12), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_STREQ(small, L"");
}

// COM's state on this thread, as its own calls show it: S_OK none, S_FALSE this apartment, RPC_E_CHANGED_MODE another.
HRESULT Entering(DWORD apartment) {
  const HRESULT hr = CoInitializeEx(nullptr, apartment);
  if (SUCCEEDED(hr)) CoUninitialize();
  return hr;
}

TEST_F(SearchRoot, IsAddedFromAThreadInAnyApartmentWhichKeepsIt) {
  Thread([&] {
    EXPECT_EQ(Entering(COINIT_APARTMENTTHREADED), S_OK);
    ZKHoardexAddProtocol();
    EXPECT_EQ(Entering(COINIT_APARTMENTTHREADED), S_OK) << "COM was left behind on the caller's thread";
  }).join();
  EXPECT_THAT(index().roots, ElementsAre(Wide(UserRoot())));

  Thread([&] {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    {
      FakeIndex own;  // class objects belong to an apartment
      ZKHoardexAddProtocol();
      EXPECT_THAT(own.roots, ElementsAre(Wide(UserRoot())));
    }
    EXPECT_EQ(Entering(COINIT_APARTMENTTHREADED), S_FALSE) << "the caller's apartment was left";
    EXPECT_EQ(Entering(COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
    CoUninitialize();
  }).join();
}

}  // namespace
