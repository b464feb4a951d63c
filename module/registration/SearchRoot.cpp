#include "module/registration/SearchRoot.h"

#include <wrl/client.h>

#include <memory>
#include <string>
#include <vector>

#include "module/core/Steps.h"
#include "module/core/UrlGrammar.h"
#include "module/core/UserSid.h"

namespace {

using Microsoft::WRL::ComPtr;
using steps::Filled;

constexpr wchar_t kLogSource[] = L".\\HoardexPH";

// The catalog's crawl scope, with three lines under the operation's name.
HRESULT OpenCrawlScope(const wchar_t* operation, ComPtr<ISearchCrawlScopeManager>& scope) {
  ComPtr<ISearchManager> manager;
  ComPtr<ISearchCatalogManager> catalog;
  return ZK_STEPS(operation, {{L"ISearchManager interface creation returned with a value of",
                               [&] {
                                 return Filled(CoCreateInstance(CLSID_CSearchManager, nullptr, kIndexContext,
                                                                __uuidof(ISearchManager),
                                                                reinterpret_cast<void**>(manager.GetAddressOf())),
                                               manager);
                               }},
                              {L"Query for an ISearchCatalogManager interface returned with a value of",
                               [&] { return Filled(manager->GetCatalog(kIndexCatalog, &catalog), catalog); }},
                              {L"Query for an ISearchCrawlScopeManager interface returned with a value of",
                               [&] { return Filled(catalog->GetCrawlScopeManager(&scope), scope); }}});
}

using Roots = std::vector<ComPtr<ISearchRoot>>;

// All roots, before anything is done with one: a removal may move an enumerator that shows the living list. An index
// without roots has no enumerator either.
HRESULT Collect(IEnumSearchRoots* enumerator, Roots& roots) {
  while (enumerator) {
    ComPtr<ISearchRoot> root;
    ULONG fetched = 0;
    const HRESULT hr = enumerator->Next(1, &root, &fetched);
    if (FAILED(hr)) return hr;
    if (hr != S_OK) return S_OK;
    if (!root) return E_UNEXPECTED;
    roots.push_back(std::move(root));
  }
  return S_OK;
}

HRESULT UrlOf(ISearchRoot* root, std::wstring& url) {
  wchar_t* text = nullptr;
  const HRESULT hr = root->get_RootURL(&text);
  const std::unique_ptr<wchar_t, decltype(&CoTaskMemFree)> owner(text, &CoTaskMemFree);
  if (SUCCEEDED(hr) && text) url = text;
  return Filled(hr, text);
}

// S_OK when one of the roots has this URL, which is then as the index spells it; S_FALSE when none has.
HRESULT FindSearchRoot(ISearchCrawlScopeManager* scope, std::wstring& url) {
  ComPtr<IEnumSearchRoots> enumerator;
  HRESULT hr = scope->EnumerateRoots(&enumerator);
  if (FAILED(hr)) return hr;
  Roots roots;
  if (FAILED(hr = Collect(enumerator.Get(), roots))) return hr;
  for (const auto& root : roots) {
    std::wstring other;
    if (FAILED(hr = UrlOf(root.Get(), other))) return hr;
    const int order = CompareStringW(LOCALE_INVARIANT, NORM_IGNORECASE, other.c_str(), -1, url.c_str(), -1);
    if (!order) return HRESULT_FROM_WIN32(GetLastError());
    if (order != CSTR_EQUAL) continue;
    url = std::move(other);
    return S_OK;
  }
  return S_FALSE;
}

HRESULT CreateSearchRootAndDefaultScope(ISearchCrawlScopeManager* scope, const std::wstring& url) {
  ComPtr<ISearchRoot> root;
  return ZK_STEPS(
      L"CreateSearchRootAndDefaultScope() - ",
      {{L"Creating a ISearchRoot interface returned",
        [&] {
          return Filled(CoCreateInstance(CLSID_CSearchRoot, nullptr, kIndexContext, __uuidof(ISearchRoot),
                                         reinterpret_cast<void**>(root.GetAddressOf())),
                        root);
        }},
       {L"CoSetProxyBlanket returned",
        [&] {
          return CoSetProxyBlanket(root.Get(), RPC_C_AUTHN_DEFAULT, RPC_C_AUTHZ_DEFAULT, nullptr,
                                   RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
        }},
       {L"For the default URL [" + url + L"], ISearchRoot->put_RootURL returned",
        [&] { return root->put_RootURL(url.c_str()); }},
       {L"ISearchRoot->put_ProvidesNotifications returned", [&] { return root->put_ProvidesNotifications(FALSE); }},
       {L"ISearchRoot->put_IsHierarchical returned", [&] { return root->put_IsHierarchical(TRUE); }},
       {L"ISearchRoot->put_UseNotificationsOnly returned", [&] { return root->put_UseNotificationsOnly(FALSE); }},
       {L"ISearchRoot->put_AuthenticationType returned", [&] { return root->put_AuthenticationType(eAUTH_TYPE_NTLM); }},
       {L"ISearchRoot->put_FollowDirectories returned", [&] { return root->put_FollowDirectories(TRUE); }},
       {L"ISearchCrawlScopeManager->AddRoot returned", [&] { return scope->AddRoot(root.Get()); }},
       {L"ISearchCrawlScopeManager->AddDefaultScopeRule returned",
        [&] { return scope->AddDefaultScopeRule(url.c_str(), TRUE, FF_INDEXCOMPLEXURLS); }},
       {L"ISearchCrawlScopeManager->AddHierarchicalScope returned",
        [&] { return scope->AddHierarchicalScope(url.c_str(), TRUE, TRUE, FALSE); }},
       {L"ISearchCrawlScopeManager->SaveAll returned", [&] { return scope->SaveAll(); }}});
}

// Whether the URL is of the module's scheme: one that merely begins with its name is another's.
bool HasScheme(const std::wstring& url) {
  return url::FindIgnoringCase(url, std::wstring(url::kScheme) + L"://") == 0;
}

HRESULT DeleteAllHoardexSearchRoots(ISearchCrawlScopeManager* scope) {
  constexpr wchar_t kOperation[] = L"DeleteAllHoardexSearchRoots() - ";
  ComPtr<IEnumSearchRoots> enumerator;
  HRESULT hr = ZK_STEPS(kOperation, {{L"Querying for IEnumSearchRoots interface returned with a value of",
                                      [&] { return scope->EnumerateRoots(&enumerator); }}});
  if (FAILED(hr)) return hr;
  Roots roots;
  if (FAILED(hr = Collect(enumerator.Get(), roots))) {
    ZK_LOG(L"DeleteAllHoardexSearchRoots() - IEnumSearchRoots::Next returned [0x%08lX]", hr);
    return hr;
  }
  for (const auto& root : roots) {
    std::wstring url;
    hr = UrlOf(root.Get(), url);
    ZK_LOG(L"DeleteAllHoardexSearchRoots() - ISearchRoot::get_RootURL returned with a code [0x%08lX] and URL [%s]", hr,
           url.c_str());
    if (FAILED(hr)) return hr;
    if (!HasScheme(url)) continue;
    ZK_LOG(L"DeleteAllHoardexSearchRoots() - Queried URL [%s] matched with the Hoardex URL [%s]", url.c_str(),
           url::kScheme);
    hr = ZK_STEPS(kOperation,
                  {{L"ISearchCrawlScopeManager::RemoveRoot returned", [&] { return scope->RemoveRoot(url.c_str()); }},
                   {L"ISearchCrawlScopeManager::SaveAll returned", [&] { return scope->SaveAll(); }}});
    if (FAILED(hr)) return hr;
  }
  return hr;
}

}  // namespace

HRESULT CreateDeleteRegSearchRootAndDefaultScope(bool create) {
  constexpr wchar_t kOperation[] = L"CreateDeleteRegSearchRootAndDefaultScope() - ";
  ZK_LOG(L"CreateDeleteRegSearchRootAndDefaultScope() - Called with a boolean value of %d", create ? 1 : 0);
  ComPtr<ISearchCrawlScopeManager> scope;
  HRESULT hr = OpenCrawlScope(kOperation, scope);
  if (FAILED(hr)) return hr;

  wchar_t sid[kUserSidBuffer];
  if (FAILED(hr = GetUserSIDString(sid, kUserSidBuffer))) {
    ZK_LOG(L"CreateDeleteRegSearchRootAndDefaultScope() - GetUserSIDString returned [0x%08lX]", hr);
    return hr;
  }
  std::wstring url = UserRootUrl(sid);
  ZK_LOG(L"CreateDeleteRegSearchRootAndDefaultScope() - The default URL for this new user [%s]", url.c_str());

  hr = ZK_STEPS(kOperation, {{L"FindSearchRoot returned", [&] { return FindSearchRoot(scope.Get(), url); }}});
  if (FAILED(hr)) return hr;
  const bool present = hr == S_OK;
  if (create && present) {
    ZK_LOG(L"CreateDeleteRegSearchRootAndDefaultScope() - No need to create, search root already present");
    return hr;
  }
  if (create)
    return ZK_STEPS(kOperation,
                    {{L"returned with a value of", [&] { return CreateSearchRootAndDefaultScope(scope.Get(), url); }}});
  if (!present) {
    ZK_LOG(L"CreateDeleteRegSearchRootAndDefaultScope() - No need to delete, search root not present");
    return hr;
  }
  // Without the second step the system keeps the root.
  return ZK_STEPS(kOperation, {{L"Deleting a search root returned", [&] { return scope->RemoveRoot(url.c_str()); }},
                               {L"ISearchCrawlScopeManager->SaveAll returned", [&] { return scope->SaveAll(); }}});
}

HRESULT RemoveAllSearchRoots() {
  ComPtr<ISearchCrawlScopeManager> scope;
  const HRESULT hr = OpenCrawlScope(L"ZKHoardexRemoveAllProtocol() - ", scope);
  return FAILED(hr) ? hr : DeleteAllHoardexSearchRoots(scope.Get());
}
