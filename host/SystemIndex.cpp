#include "host/SystemIndex.h"

#include <windows.h>

#include <wrl/client.h>

#include "host/Handler.h"
#include "host/Session.h"
#include "host/Text.h"
#include "include/HoardexPH.h"
#include "platform/changequeue.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr char kSchemePrefix[] = "zkoffline3x://";
constexpr ULONG kMostChanges = 1000;
// An enumerator that never ends is let go after so many.
constexpr size_t kMostScopes = 100'000;

struct StepFailed {
  const char* step;
  HRESULT code;
};
void Check(const char* step, HRESULT code) {
  if (FAILED(code)) throw StepFailed{step, code};
}

std::string TakeText(LPWSTR text) {
  std::string taken = text ? ToUtf8(text) : std::string();
  CoTaskMemFree(text);
  return taken;
}

bool HasScheme(const std::string& url) {
  return _strnicmp(url.c_str(), kSchemePrefix, sizeof(kSchemePrefix) - 1) == 0;
}

ComPtr<ISearchManager> Manager() {
  ComPtr<ISearchManager> manager;
  Check("CoCreateInstance", CoCreateInstance(CLSID_CSearchManager, nullptr, CLSCTX_SERVER, __uuidof(ISearchManager),
                                             reinterpret_cast<void**>(manager.GetAddressOf())));
  return manager;
}

ComPtr<IHoardexChangeQueue> Queue() {
  ComPtr<IHoardexChangeQueue> queue;
  Check("QueryInterface",
        Manager()->QueryInterface(__uuidof(IHoardexChangeQueue), reinterpret_cast<void**>(queue.GetAddressOf())));
  return queue;
}

Json ReadRoots(ISearchCrawlScopeManager* scope) {
  Json all = Json::array();
  ComPtr<IEnumSearchRoots> roots;
  Check("EnumerateRoots", scope->EnumerateRoots(&roots));
  // An index without roots has no enumerator either.
  for (size_t count = 0; roots && count < kMostScopes; ++count) {
    ComPtr<ISearchRoot> root;
    const HRESULT hr = roots->Next(1, &root, nullptr);
    Check("IEnumSearchRoots::Next", hr);
    if (hr != S_OK || !root) break;
    LPWSTR url = nullptr;
    Check("get_RootURL", root->get_RootURL(&url));
    if (std::string text = TakeText(url); HasScheme(text)) all.push_back(std::move(text));
  }
  return all;
}

Json ReadRules(ISearchCrawlScopeManager* scope) {
  Json all = Json::array();
  ComPtr<IEnumSearchScopeRules> rules;
  Check("EnumerateScopeRules", scope->EnumerateScopeRules(&rules));
  for (size_t count = 0; rules && count < kMostScopes; ++count) {
    ComPtr<ISearchScopeRule> rule;
    const HRESULT hr = rules->Next(1, &rule, nullptr);
    Check("IEnumSearchScopeRules::Next", hr);
    if (hr != S_OK || !rule) break;
    LPWSTR pattern = nullptr;
    Check("get_PatternOrURL", rule->get_PatternOrURL(&pattern));
    std::string text = TakeText(pattern);
    if (!HasScheme(text)) continue;
    BOOL included = FALSE, is_default = FALSE;
    DWORD follow = 0;
    Check("get_IsIncluded", rule->get_IsIncluded(&included));
    Check("get_IsDefault", rule->get_IsDefault(&is_default));
    Check("get_FollowFlags", rule->get_FollowFlags(&follow));
    all.push_back({{"pattern", std::move(text)},
                   {"included", included != FALSE},
                   {"default", is_default != FALSE},
                   {"follow", follow}});
  }
  return all;
}

using NotifyOne = HRESULT (STDMETHODCALLTYPE IHoardexNotify::*)(LPCWSTR);
using NotifyAll = HRESULT (STDMETHODCALLTYPE IHoardexNotify::*)();

struct ChangeRow {
  const char* name;
  SEARCH_KIND_OF_CHANGE kind;
  NotifyOne one;
  NotifyAll all;
};
constexpr ChangeRow kChanges[] = {
    {"add", SEARCH_CHANGE_ADD, &IHoardexNotify::VaultAdded, &IHoardexNotify::AllVaultsAdded},
    {"delete", SEARCH_CHANGE_DELETE, &IHoardexNotify::VaultDeleted, &IHoardexNotify::AllVaultsDeleted},
    {"modify", SEARCH_CHANGE_MODIFY, &IHoardexNotify::VaultModified, &IHoardexNotify::AllVaultsModified},
};

const ChangeRow* FindChange(const std::string& name) {
  for (const ChangeRow& row : kChanges)
    if (name == row.name) return &row;
  return nullptr;
}

}  // namespace

Json SystemRoots() {
  try {
    ComPtr<ISearchCatalogManager> catalog;
    Check("GetCatalog", Manager()->GetCatalog(L"SystemIndex", &catalog));
    ComPtr<ISearchCrawlScopeManager> scope;
    Check("GetCrawlScopeManager", catalog->GetCrawlScopeManager(&scope));
    Json roots = ReadRoots(scope.Get());
    return {{"roots", std::move(roots)}, {"rules", ReadRules(scope.Get())}};
  } catch (const StepFailed& failed) {
    return {{"roots", Json::array()}, {"rules", Json::array()}, {"error", ErrorOf(failed.step, failed.code)}};
  }
}

Json SystemChanges() {
  Json answer = {{"changes", Json::array()}, {"more", false}};
  try {
    QUEUED_CHANGE* changes = nullptr;
    ULONG count = 0;
    BOOL more = FALSE;
    Check("Read", Queue()->Read(kMostChanges, &changes, &count, &more));
    for (ULONG i = 0; i < count; ++i) {
      const std::string url = TakeText(changes[i].url);
      for (const ChangeRow& row : kChanges)
        if (row.kind == changes[i].change)
          answer["changes"].push_back({{"id", changes[i].id}, {"change", row.name}, {"url", url}});
    }
    CoTaskMemFree(changes);
    answer["more"] = more != FALSE;
  } catch (const StepFailed& failed) {
    answer["error"] = ErrorOf(failed.step, failed.code);
  }
  return answer;
}

Json ChangesDone(uint64_t id) {
  Json answer = {{"done", id}};
  try {
    Check("TakeAway", Queue()->TakeAway(id));
  } catch (const StepFailed& failed) {
    answer["error"] = ErrorOf(failed.step, failed.code);
  }
  return answer;
}

bool IsChange(const std::string& change) {
  return FindChange(change) != nullptr;
}

Json Notify(const std::string& change, const std::string& path) {
  const ChangeRow* const row = FindChange(change);
  HRESULT hr = row && path.find('\0') == std::string::npos ? S_OK : E_INVALIDARG;
  CLSID clsid = {};
  if (SUCCEEDED(hr)) hr = HandlerClass(&clsid);
  ComPtr<IHoardexNotify> notify;
  if (SUCCEEDED(hr)) hr = MakeHandler(clsid, IID_IHoardexNotify, reinterpret_cast<void**>(notify.GetAddressOf()));
  if (SUCCEEDED(hr))
    hr = path.empty() ? (notify.Get()->*row->all)() : (notify.Get()->*row->one)(FromUtf8(path).c_str());
  Json answer = {{"notify", change}, {"result", CodeText(hr)}};
  if (const std::string name = CodeName(hr); !name.empty()) answer["name"] = name;
  return answer;
}

}  // namespace host
