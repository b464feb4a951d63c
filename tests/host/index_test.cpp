// What the host tells of the system's index, over the built stand-in.
#include "host/SystemIndex.h"

#include <gtest/gtest.h>

#include "include/HoardexPH.h"
#include "tests/support/module_host.h"
#include "tests/support/scratch_registry.h"
#include "tests/winindex/index_server.h"

namespace {

using host::Json;

// The stand-in's classes for this process, as if they were registered.
class HostIndex : public testing::Test, protected IndexServer {
 protected:
  void SetUp() override {
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
    for (int i = 0; i < 2; ++i) {
      const CLSID& clsid = i ? CLSID_CSearchRoot : CLSID_CSearchManager;
      ASSERT_EQ(ClassObject(clsid, factories_[i]), S_OK);
      ASSERT_EQ(
          CoRegisterClassObject(clsid, factories_[i].Get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookies_[i]),
          S_OK);
    }
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) {
      CoRevokeClassObject(cookies_[i]);
      factories_[i].Reset();
    }
    CoUninitialize();
  }

 private:
  ComPtr<IClassFactory> factories_[2];
  DWORD cookies_[2] = {};
};

TEST_F(HostIndex, TellsRootsAndRulesOfItsSchemeOnly) {
  EXPECT_EQ(host::SystemRoots(), Json::parse(R"({"roots":[],"rules":[]})"));
  ComPtr<IUnknown> queue = Queue();
  ComPtr<IHoardexSave> save;
  EXPECT_EQ(queue->QueryInterface(IID_IHoardexSave, reinterpret_cast<void**>(save.GetAddressOf())), E_NOINTERFACE);
  const auto scope = Scope();
  for (const wchar_t* url : {L"file:///C:\\", L"ZKoffline3x://{S-1}/default/", L"zkoffline3xy://x/"}) {
    EXPECT_EQ(scope->AddRoot(Root(url).Get()), S_OK);
    EXPECT_EQ(scope->AddDefaultScopeRule(url, TRUE, FF_INDEXCOMPLEXURLS), S_OK);
  }
  EXPECT_EQ(scope->AddHierarchicalScope(L"zkoffline3x://{S-1}/default/V:\\no.db", FALSE, FALSE, FALSE), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_EQ(host::SystemRoots(), Json::parse(R"({"roots":["ZKoffline3x://{S-1}/default/"],"rules":[
      {"pattern":"ZKoffline3x://{S-1}/default/","included":true,"default":true,"follow":1},
      {"pattern":"zkoffline3x://{S-1}/default/V:\\no.db","included":false,"default":false,"follow":1}]})"));
  for (const char* step :
       {"ISearchManager::GetCatalog", "ISearchCatalogManager::GetCrawlScopeManager",
        "ISearchCrawlScopeManager::EnumerateRoots", "IEnumSearchRoots::Next", "ISearchRoot::get_RootURL",
        "ISearchCrawlScopeManager::EnumerateScopeRules", "IEnumSearchScopeRules::Next",
        "ISearchScopeRule::get_PatternOrURL", "ISearchScopeRule::get_IsIncluded", "CSearchManager::CreateInstance"}) {
    const std::string name = step;
    Fail((std::wstring(name.begin(), name.end()) + L"=0x80070005").c_str());
    const Json answer = host::SystemRoots();
    EXPECT_TRUE(answer["roots"].empty() && answer["rules"].empty()) << name;
    EXPECT_EQ(answer["error"]["name"], "E_ACCESSDENIED") << name;
  }
}

TEST_F(HostIndex, TellsChangesUntilTheyAreDone) {
  EXPECT_EQ(host::SystemChanges(), Json::parse(R"({"changes":[],"more":false})"));
  std::vector<SEARCH_ITEM_PERSISTENT_CHANGE> changes;
  wchar_t url[] = L"zkoffline3x://x/";
  for (int i = 0; i < 1002; ++i)
    changes.push_back({static_cast<SEARCH_KIND_OF_CHANGE>(i % 3), url, nullptr, SEARCH_NORMAL_PRIORITY});
  std::vector<HRESULT> codes(changes.size());
  ASSERT_EQ(Sink()->OnItemsChanged(1002, changes.data(), codes.data()), S_OK);
  const Json first = host::SystemChanges();
  ASSERT_EQ(first["changes"].size(), 1000u);
  EXPECT_EQ(first["more"], true);
  EXPECT_EQ(first, host::SystemChanges()) << "telling takes nothing away";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(first["changes"][i]["change"], (std::vector<std::string>{"add", "delete", "modify"}[i]));
    EXPECT_EQ(first["changes"][i]["url"], "zkoffline3x://x/");
  }
  const uint64_t last = first["changes"].back()["id"];
  Fail(L"IHoardexChangeQueue::TakeAway=0x80004005");
  EXPECT_EQ(host::ChangesDone(last)["error"]["step"], "TakeAway");
  Fail(nullptr);
  EXPECT_EQ(host::ChangesDone(last), Json({{"done", last}}));
  EXPECT_EQ(host::SystemChanges()["changes"].size(), 2u);
  EXPECT_EQ(host::SystemChanges()["more"], false);
  EXPECT_EQ(host::ChangesDone(~0ULL), Json({{"done", ~0ULL}}));
  Fail(L"IHoardexChangeQueue::Read=0x80004005");
  EXPECT_EQ(host::SystemChanges()["error"]["name"], "E_FAIL");
}

// The built module's registration over the built stand-in.
TEST_F(HostIndex, ShowsWhatTheModuleHasRegisteredEvenWhereRulesStay) {
  const ModuleHost module;
  ASSERT_TRUE(module.loaded());
  const auto shown = [&](const char* operation) {
    module.Call(operation);
    const Json answer = host::SystemRoots();
    EXPECT_FALSE(answer.contains("error")) << operation;
    return std::pair(answer["roots"].size(), answer["rules"].size());
  };
  using Counts = std::pair<size_t, size_t>;
  Fail(L"ISearchCrawlScopeManager::RemoveRoot=keep-rules");
  EXPECT_EQ(shown("ZKHoardexRemoveProtocol"), Counts(0, 0)) << "there is none yet";
  EXPECT_EQ(shown("ZKHoardexRemoveAllProtocol"), Counts(0, 0));
  for (const char* removal : {"ZKHoardexRemoveProtocol", "ZKHoardexRemoveAllProtocol"}) {
    EXPECT_EQ(shown("ZKHoardexAddProtocol"), Counts(1, 1));
    EXPECT_EQ(host::SystemRoots()["rules"][0]["pattern"], host::SystemRoots()["roots"][0]);
    EXPECT_EQ(shown(removal), Counts(0, 1)) << removal;
  }
  EXPECT_EQ(shown("ZKHoardexAddProtocol"), Counts(1, 1));
  Fail(nullptr);
  EXPECT_EQ(shown("ZKHoardexRemoveProtocol"), Counts(0, 0));
  // Any client of the class brings the root with it.
  ComPtr<IClassFactory> handler;
  EXPECT_EQ(module.GetClassObject(CLSID_HoardexSP, IID_IClassFactory, &handler), S_OK);
  EXPECT_EQ(host::SystemRoots()["roots"].size(), 1u);
  handler.Reset();
}

TEST_F(HostIndex, ReportsNothingWithoutAHandler) {
  const ScratchRegistry registry;
  EXPECT_TRUE(host::IsChange("add") && host::IsChange("delete") && host::IsChange("modify"));
  EXPECT_FALSE(host::IsChange("move") || host::IsChange(""));
  EXPECT_EQ(host::Notify("modify", "V:\\x.db"),
            Json::parse(R"({"notify":"modify","result":"0x80040154","name":"REGDB_E_CLASSNOTREG"})"));
  EXPECT_EQ(host::Notify("modify", std::string("a\0b", 3))["name"], "E_INVALIDARG");
  EXPECT_TRUE(Queued().empty());
}

}  // namespace
