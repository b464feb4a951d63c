// Search roots and rules: what is kept, and when.
#include <gmock/gmock.h>

#include <functional>

#include "tests/support/scratch_registry.h"
#include "tests/winindex/index_server.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr wchar_t kAnn[] = L"zkoffline3x://{S-1-5-21-1}/default/";
constexpr wchar_t kBob[] = L"zkoffline3x://{S-1-5-21-2}/default/";

class IndexScope : public testing::Test, protected IndexServer {
 protected:
  // Through a manager of its own, so what is saved.
  std::vector<std::wstring> Roots() const { return RootsOf(Scope().Get()); }
  static std::vector<std::wstring> RootsOf(ISearchCrawlScopeManager* scope) {
    ComPtr<IEnumSearchRoots> roots;
    const HRESULT hr = scope->EnumerateRoots(&roots);
    EXPECT_EQ(hr, roots ? S_OK : S_FALSE);
    std::vector<std::wstring> all;
    ComPtr<ISearchRoot> root;
    while (roots && roots->Next(1, root.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
      LPWSTR url = nullptr;
      BOOL notifies = FALSE;
      EXPECT_EQ(root->get_RootURL(&url), S_OK);
      EXPECT_EQ(root->get_ProvidesNotifications(&notifies), S_OK);
      all.push_back(url + std::wstring(notifies ? L" notifies" : L""));
      CoTaskMemFree(url);
    }
    return all;
  }
  std::vector<std::wstring> Rules() const {
    ComPtr<IEnumSearchScopeRules> rules;
    EXPECT_EQ(Scope()->EnumerateScopeRules(&rules), S_OK);
    std::vector<std::wstring> all;
    ComPtr<ISearchScopeRule> rule;
    while (rules->Next(1, rule.ReleaseAndGetAddressOf(), nullptr) == S_OK) {
      LPWSTR pattern = nullptr;
      BOOL included = FALSE, is_default = FALSE;
      DWORD flags = 0;
      EXPECT_EQ(rule->get_PatternOrURL(&pattern), S_OK);
      EXPECT_EQ(rule->get_IsIncluded(&included), S_OK);
      EXPECT_EQ(rule->get_IsDefault(&is_default), S_OK);
      EXPECT_EQ(rule->get_FollowFlags(&flags), S_OK);
      all.push_back(std::wstring(included ? L"+" : L"-") + (is_default ? L"default " : L"user ") +
                    std::to_wstring(flags) + L" " + pattern);
      CoTaskMemFree(pattern);
    }
    return all;
  }
};

TEST_F(IndexScope, IsSeenByOthersOnceItIsSaved) {
  const auto scope = Scope();
  const auto root = Root(kAnn);
  EXPECT_EQ(root->put_ProvidesNotifications(TRUE), S_OK);
  for (const HRESULT hr : {root->put_IsHierarchical(TRUE), root->put_UseNotificationsOnly(FALSE),
                           root->put_AuthenticationType(eAUTH_TYPE_NTLM), root->put_FollowDirectories(TRUE),
                           root->put_Schedule(L""), root->put_User(L"ann"), root->put_HostDepth(1)})
    EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(scope->AddRoot(root.Get()), S_OK);
  EXPECT_EQ(scope->AddDefaultScopeRule(kAnn, TRUE, FF_INDEXCOMPLEXURLS), S_OK);
  EXPECT_EQ(scope->AddHierarchicalScope(kAnn, TRUE, TRUE, FALSE), S_OK);
  EXPECT_EQ(scope->AddHierarchicalScope((kAnn + std::wstring(L"a\tb\\c\n*")).c_str(), FALSE, FALSE, FALSE), S_OK);
  EXPECT_THAT(RootsOf(scope.Get()), ElementsAre(kAnn + std::wstring(L" notifies")));
  EXPECT_THAT(Roots(), IsEmpty()) << "not saved";
  EXPECT_FALSE(Exists(data() + L"\\Hoardex"));
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kAnn + std::wstring(L" notifies")));
  EXPECT_THAT(Rules(),
              ElementsAre(L"+default 1 " + std::wstring(kAnn), L"-user 1 " + std::wstring(kAnn) + (L"a\tb\\c\n*")));

  std::wstring other_case = kAnn;
  CharUpperBuffW(other_case.data(), 11);
  EXPECT_EQ(scope->AddRoot(Root(other_case.c_str()).Get()), S_OK);
  EXPECT_EQ(scope->AddDefaultScopeRule(other_case.c_str(), TRUE, FF_SUPPRESSINDEXING), S_OK);
  EXPECT_EQ(scope->AddHierarchicalScope(kAnn, TRUE, TRUE, TRUE), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kAnn)) << "there once, with the newer properties";
  EXPECT_EQ(Rules().size(), 2u) << "a default rule overrides no rule of the user";
  EXPECT_EQ(Rules()[0], L"+default 2 " + std::wstring(kAnn));
}

TEST_F(IndexScope, ARemovedRootTakesItsRulesAndLeavesNothing) {
  auto scope = Scope();
  const std::wstring vault = kAnn + std::wstring(L"V:\\Tessary\\deep.db/");
  for (const wchar_t* url : {kAnn, kBob, vault.c_str()}) {
    EXPECT_EQ(scope->AddRoot(Root(url).Get()), S_OK);
    EXPECT_EQ(scope->AddDefaultScopeRule(url, TRUE, FF_INDEXCOMPLEXURLS), S_OK);
  }
  const std::wstring unclosed(kAnn, wcslen(kAnn) - 1);
  EXPECT_EQ(scope->AddHierarchicalScope((kAnn + std::wstring(L"V:\\*")).c_str(), FALSE, FALSE, FALSE), S_OK);
  EXPECT_EQ(scope->AddHierarchicalScope(unclosed.c_str(), FALSE, FALSE, FALSE), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  scope = Scope();
  EXPECT_EQ(scope->RemoveRoot(L"zkoffline3x://{S-1-5-21-3}/default/"), S_FALSE);
  EXPECT_EQ(scope->RemoveRoot(kAnn), S_OK);
  EXPECT_EQ(scope->RemoveRoot(kAnn), S_FALSE);
  EXPECT_EQ(Roots().size(), 3u) << "not saved";
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kBob, vault));
  EXPECT_THAT(Rules(), ElementsAre(L"+default 1 " + std::wstring(kBob), L"+default 1 " + vault));
  for (const std::wstring& url : {std::wstring(kBob), vault}) EXPECT_EQ(scope->RemoveRoot(url.c_str()), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_FALSE(Exists(data() + L"\\Hoardex"));
}

TEST_F(IndexScope, ARemovedRootLeavesItsRulesWhereThePlanKeepsThem) {
  const auto scope = Scope();
  const auto add = [&] {
    EXPECT_EQ(scope->AddRoot(Root(kAnn).Get()), S_OK);
    EXPECT_EQ(scope->AddDefaultScopeRule(kAnn, TRUE, FF_INDEXCOMPLEXURLS), S_OK);
    EXPECT_EQ(scope->SaveAll(), S_OK);
  };
  add();
  EXPECT_EQ(scope->AddHierarchicalScope((kAnn + std::wstring(L"V:\\*")).c_str(), FALSE, FALSE, FALSE), S_OK);
  Fail(L"ISearchCrawlScopeManager::RemoveRoot=keep-rules");
  EXPECT_EQ(scope->RemoveRoot(kAnn), S_OK);
  Fail(nullptr);
  EXPECT_EQ(scope->SaveAll(), S_OK) << "as it was when the root was removed";
  EXPECT_THAT(Roots(), IsEmpty());
  const auto rules = Rules();
  EXPECT_EQ(rules.size(), 2u);
  add();
  EXPECT_EQ(Rules(), rules);
  EXPECT_EQ(scope->RemoveRoot(kAnn), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_FALSE(Exists(data() + L"\\Hoardex"));
}

TEST_F(IndexScope, TwoManagersKeepEachOthersChanges) {
  const auto first = Scope(), second = Scope();
  EXPECT_EQ(first->AddRoot(Root(kAnn).Get()), S_OK);
  EXPECT_EQ(second->AddRoot(Root(kBob).Get()), S_OK);
  EXPECT_EQ(first->SaveAll(), S_OK);
  EXPECT_EQ(second->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kAnn, kBob));
  EXPECT_EQ(first->SaveAll(), S_OK);
  EXPECT_THAT(RootsOf(first.Get()), ElementsAre(kAnn, kBob)) << "after SaveAll it sees what the others saved";
  EXPECT_EQ(second->RemoveRoot(kAnn), S_OK);
  EXPECT_EQ(second->SaveAll(), S_OK);
  EXPECT_EQ(first->AddDefaultScopeRule(kBob, TRUE, 0), S_OK);
  EXPECT_EQ(first->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kBob)) << "what another removed does not come back";
}

TEST_F(IndexScope, ASaveThatFailsCanBeRepeated) {
  const auto scope = Scope();
  EXPECT_EQ(scope->AddRoot(Root(kAnn).Get()), S_OK);
  const std::wstring obstacle = data() + L"\\Hoardex";
  CloseHandle(CreateFileW(obstacle.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  EXPECT_HRESULT_FAILED(scope->SaveAll());
  EXPECT_TRUE(DeleteFileW(obstacle.c_str()));
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_THAT(Roots(), ElementsAre(kAnn));
}

TEST_F(IndexScope, RefusesWhatMakesNoSense) {
  ComPtr<ISearchManager> manager;
  ComPtr<ISearchCatalogManager> catalog;
  ASSERT_EQ(Create(CLSID_CSearchManager, manager), S_OK);
  EXPECT_EQ(manager->GetCatalog(L"Other", &catalog), static_cast<HRESULT>(0x80042103));
  EXPECT_EQ(manager->GetCatalog(nullptr, &catalog), E_INVALIDARG);
  EXPECT_EQ(manager->GetCatalog(L"SystemIndex", nullptr), E_POINTER);
  EXPECT_EQ(catalog.Get(), nullptr);
  const auto scope = Scope();
  ComPtr<ISearchRoot> nameless;
  ASSERT_EQ(Create(CLSID_CSearchRoot, nameless), S_OK);
  EXPECT_EQ(scope->AddRoot(nameless.Get()), E_INVALIDARG);
  EXPECT_EQ(scope->AddRoot(nullptr), E_INVALIDARG);
  EXPECT_EQ(scope->AddDefaultScopeRule(L"", TRUE, 0), E_INVALIDARG);
  EXPECT_EQ(scope->RevertToDefaultScopes(), E_NOTIMPL);
  EXPECT_EQ(Catalog()->Reindex(), E_NOTIMPL);
}

TEST_F(IndexScope, ARootTakesAProxyBlanketAsAProxyDoes) {
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  {
    const auto root = Root(kAnn);
    EXPECT_EQ(CoSetProxyBlanket(root.Get(), RPC_C_AUTHN_DEFAULT, RPC_C_AUTHZ_DEFAULT, nullptr,
                                RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE),
              S_OK);
    DWORD authentication = 0, authorisation = 0, impersonation = 0;
    EXPECT_EQ(CoQueryProxyBlanket(root.Get(), &authentication, &authorisation, nullptr, nullptr, &impersonation,
                                  nullptr, nullptr),
              S_OK);
    EXPECT_EQ(authentication, DWORD{RPC_C_AUTHN_DEFAULT});
    EXPECT_EQ(authorisation, DWORD{RPC_C_AUTHZ_DEFAULT});
    EXPECT_EQ(impersonation, DWORD{RPC_C_IMP_LEVEL_IMPERSONATE});
  }
  CoUninitialize();
}

// The planned code comes back, the next call without a plan works, and nothing was done in between.
TEST_F(IndexScope, AnyMethodCanBeMadeToFail) {
  const auto scope = Scope();
  const auto root = Root(kAnn);
  ComPtr<ISearchRoot> another;
  ComPtr<IClientSecurity> security;
  root.As(&security);
  const std::pair<const wchar_t*, std::function<HRESULT()>> calls[] = {
      {L"CSearchRoot::CreateInstance", [&] { return Create(CLSID_CSearchRoot, another); }},
      {L"ISearchRoot::put_AuthenticationType", [&] { return root->put_AuthenticationType(eAUTH_TYPE_NTLM); }},
      {L"IClientSecurity::SetBlanket",
       [&] { return security->SetBlanket(root.Get(), 0, 0, nullptr, 0, 0, nullptr, 0); }},
      {L"ISearchCatalogManager::Reset", [catalog = Catalog()] { return catalog->Reset(); }},
      {L"ISearchCrawlScopeManager::AddRoot", [&] { return scope->AddRoot(root.Get()); }},
      {L"ISearchCrawlScopeManager::SaveAll", [&] { return scope->SaveAll(); }},
  };
  for (const auto& [name, call] : calls) {
    Fail((L"Other::Method=0x80004005;" + std::wstring(name) + L"=0x8007054F;X::Y=1").c_str());
    EXPECT_EQ(call(), static_cast<HRESULT>(0x8007054F)) << name;
    EXPECT_FALSE(Exists(File(L"scope.txt"))) << "done in spite of the plan";
    Fail(nullptr);
    const HRESULT hr = call();
    EXPECT_TRUE(hr == S_OK || hr == E_NOTIMPL) << name << " " << std::hex << hr;
  }
  EXPECT_TRUE(Exists(File(L"scope.txt")));
}

TEST_F(IndexScope, RegistersUnlessTheMachineHasAnIndex) {
  const ScratchRegistry registry;
  constexpr wchar_t kManager[] = L"CLSID\\{7D096C5F-AC08-4F1F-BEB7-5C22C517CE39}";
  constexpr wchar_t kRoot[] = L"CLSID\\{30766BD2-EA1C-4F28-BF27-0B44E2F68DB7}";
  const auto server = [](const std::wstring& key, const wchar_t* name) {
    return ScratchRegistry::GetString(HKEY_CLASSES_ROOT, (key + L"\\InprocServer32").c_str(), name);
  };
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(Call("DllRegisterServer"), S_OK);
    for (const wchar_t* key : {kManager, kRoot}) {
      EXPECT_EQ(_wcsicmp(server(key, nullptr).c_str(), DllPath().c_str()), 0);
      EXPECT_EQ(server(key, L"ThreadingModel"), L"Both");
    }
  }
  const auto scope = Scope();
  EXPECT_EQ(scope->AddRoot(Root(kAnn).Get()), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_EQ(Notify(SEARCH_CHANGE_ADD, kAnn), S_OK);
  EXPECT_EQ(Call("DllUnregisterServer"), S_OK);
  for (const wchar_t* key : {kManager, kRoot}) EXPECT_FALSE(ScratchRegistry::Exists(HKEY_CLASSES_ROOT, key));
  EXPECT_EQ(Queued().size(), 1u) << "the root is still there";
  EXPECT_EQ(scope->RemoveRoot(kAnn), S_OK);
  EXPECT_EQ(scope->SaveAll(), S_OK);
  EXPECT_EQ(Call("DllUnregisterServer"), S_OK);
  EXPECT_FALSE(Exists(data() + L"\\Hoardex"));

  // What is left of a registration of ours, or of nobody's, is made whole again.
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, kRoot, L"added", L"");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, kManager, nullptr, L"Hoardex system index: search manager");
  const std::wstring manager_server = kManager + std::wstring(L"\\InprocServer32");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, manager_server.c_str(), nullptr, L"Z:\\elsewhere.dll");
  EXPECT_EQ(Call("DllRegisterServer"), S_OK);
  for (const wchar_t* key : {kManager, kRoot}) EXPECT_EQ(_wcsicmp(server(key, nullptr).c_str(), DllPath().c_str()), 0);
  EXPECT_EQ(Call("DllUnregisterServer"), S_OK);

  // The index of Windows is a service.
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, kManager, L"AppID", L"{9E175B9C-F52A-11D8-B9A5-505054503030}");
  EXPECT_EQ(Call("DllRegisterServer"), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
  RegDeleteKeyW(HKEY_CLASSES_ROOT, kManager);
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, (kRoot + std::wstring(L"\\LocalServer32")).c_str(), nullptr,
                             L"C:\\Windows\\System32\\SearchIndexer.exe");
  EXPECT_EQ(Call("DllRegisterServer"), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
  EXPECT_FALSE(ScratchRegistry::Exists(HKEY_CLASSES_ROOT, kManager));
  EXPECT_EQ(Call("DllUnregisterServer"), S_OK);
  EXPECT_TRUE(ScratchRegistry::Exists(HKEY_CLASSES_ROOT, kRoot)) << "another's class";
}

}  // namespace
