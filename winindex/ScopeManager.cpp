#include "winindex/ScopeManager.h"

#include "winindex/Enumerator.h"
#include "winindex/SearchRoot.h"
#include "winindex/StateFiles.h"

namespace winindex {
namespace {

class ScopeRule final : public ComObject<ISearchScopeRule> {
 public:
  explicit ScopeRule(Rule rule) : rule_(std::move(rule)) {}
  STDMETHODIMP get_PatternOrURL(LPWSTR* pattern) override {
    return Method("ISearchScopeRule::get_PatternOrURL", [&] {
      Require(pattern, E_POINTER);
      *pattern = CopyForCaller(rule_.pattern);
      return S_OK;
    });
  }
  STDMETHODIMP get_IsIncluded(BOOL* included) override {
    return Tell<BOOL>("ISearchScopeRule::get_IsIncluded", included, rule_.included);
  }
  STDMETHODIMP get_IsDefault(BOOL* is_default) override {
    return Tell<BOOL>("ISearchScopeRule::get_IsDefault", is_default, rule_.is_default);
  }
  STDMETHODIMP get_FollowFlags(DWORD* flags) override {
    return Tell<DWORD>("ISearchScopeRule::get_FollowFlags", flags, rule_.follow_flags);
  }

 private:
  template <class Value>
  static HRESULT Tell(std::string_view method, Value* out, Value value) {
    return Method(method, [&] {
      Require(out, E_POINTER);
      *out = value;
      return S_OK;
    });
  }
  const Rule rule_;
};

// A root's URL, read as any caller reads it: the root may be another's object.
Root Describe(ISearchRoot* root) {
  LPWSTR url = nullptr;
  Check(root->get_RootURL(&url));
  Root described;
  if (url) described.url = url;
  CoTaskMemFree(url);
  Require(!described.url.empty(), E_INVALIDARG);
  BOOL notifies = FALSE;
  Check(root->get_ProvidesNotifications(&notifies));
  described.provides_notifications = notifies;
  return described;
}

}  // namespace

ScopeManager::ScopeManager() : scope_((StateLock(), Scope::Load())) {}

void ScopeManager::Change(ScopeChange change) {
  change(scope_);
  unsaved_.push_back(std::move(change));
}

STDMETHODIMP ScopeManager::AddDefaultScopeRule(LPCWSTR url, BOOL include, DWORD follow_flags) {
  return Method("ISearchCrawlScopeManager::AddDefaultScopeRule", [&] {
    Require(url && *url, E_INVALIDARG);
    const Rule rule{url, include != FALSE, true, follow_flags};
    const std::lock_guard guard(mutex_);
    Change([rule](Scope& scope) { scope.SetRule(rule); });
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::AddRoot(ISearchRoot* root) {
  return Method("ISearchCrawlScopeManager::AddRoot", [&] {
    Require(root, E_INVALIDARG);
    const Root described = Describe(root);
    const std::lock_guard guard(mutex_);
    Change([described](Scope& scope) { scope.AddRoot(described); });
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::RemoveRoot(LPCWSTR url) {
  constexpr char kMethod[] = "ISearchCrawlScopeManager::RemoveRoot";
  return Method(kMethod, [&] {
    Require(url && *url, E_INVALIDARG);
    const std::wstring gone = url;
    const bool with_rules = !Planned(kMethod, "keep-rules");
    const std::lock_guard guard(mutex_);
    if (!scope_.RemoveRoot(gone, with_rules)) return S_FALSE;
    unsaved_.push_back([gone, with_rules](Scope& scope) { scope.RemoveRoot(gone, with_rules); });
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::EnumerateRoots(IEnumSearchRoots** roots) {
  return Method("ISearchCrawlScopeManager::EnumerateRoots", [&] {
    Require(roots, E_POINTER);
    std::vector<ComPtr<ISearchRoot>> items;
    const std::lock_guard guard(mutex_);
    for (const Root& root : scope_.roots()) items.emplace_back(Make<SearchRoot>(root));
    *roots = nullptr;
    if (items.empty()) return S_FALSE;
    *roots = Make<Enumerator<IEnumSearchRoots, ISearchRoot>>("IEnumSearchRoots", std::move(items)).Detach();
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::AddHierarchicalScope(LPCWSTR url, BOOL include, BOOL is_default, BOOL override_children) {
  return Method("ISearchCrawlScopeManager::AddHierarchicalScope", [&] {
    Require(url && *url, E_INVALIDARG);
    const Rule rule{url, include != FALSE, is_default != FALSE, FF_INDEXCOMPLEXURLS};
    const std::lock_guard guard(mutex_);
    Change([rule, children = override_children != FALSE](Scope& scope) { scope.SetHierarchy(rule, children); });
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::EnumerateScopeRules(IEnumSearchScopeRules** rules) {
  return Method("ISearchCrawlScopeManager::EnumerateScopeRules", [&] {
    Require(rules, E_POINTER);
    std::vector<ComPtr<ISearchScopeRule>> items;
    const std::lock_guard guard(mutex_);
    for (const Rule& rule : scope_.rules()) items.emplace_back(Make<ScopeRule>(rule));
    *rules =
        Make<Enumerator<IEnumSearchScopeRules, ISearchScopeRule>>("IEnumSearchScopeRules", std::move(items)).Detach();
    return S_OK;
  });
}

STDMETHODIMP ScopeManager::SaveAll() {
  return Method("ISearchCrawlScopeManager::SaveAll", [&] {
    const std::lock_guard guard(mutex_);
    const StateLock lock;
    Scope fresh = Scope::Load();
    for (const ScopeChange& change : unsaved_) change(fresh);
    if (!unsaved_.empty()) fresh.Save();
    scope_ = std::move(fresh);
    unsaved_.clear();
    return S_OK;
  });
}

}  // namespace winindex
