// The crawl scope manager: edits a copy of the scope until SaveAll.
#pragma once

#include <vector>

#include "platform/critical_section.h"
#include "platform/searchmanager.h"
#include "winindex/ComObject.h"
#include "winindex/Scope.h"

namespace winindex {

// Reads the scope when it is made, and sees its own changes at once; nobody else sees them before SaveAll. SaveAll
// makes them again on what the file holds by then, so that what others have saved meanwhile stays. When it fails
// nothing is saved, and the changes wait for the next one.
class ScopeManager final : public ComObject<ISearchCrawlScopeManager> {
 public:
  ScopeManager();

  STDMETHODIMP AddDefaultScopeRule(LPCWSTR url, BOOL include, DWORD follow_flags) override;
  STDMETHODIMP AddRoot(ISearchRoot* root) override;
  STDMETHODIMP RemoveRoot(LPCWSTR url) override;
  STDMETHODIMP EnumerateRoots(IEnumSearchRoots** roots) override;
  STDMETHODIMP AddHierarchicalScope(LPCWSTR url, BOOL include, BOOL is_default, BOOL override_children) override;
  STDMETHODIMP AddUserScopeRule(LPCWSTR, BOOL, BOOL, DWORD) override { return None("AddUserScopeRule"); }
  STDMETHODIMP RemoveScopeRule(LPCWSTR) override { return None("RemoveScopeRule"); }
  STDMETHODIMP EnumerateScopeRules(IEnumSearchScopeRules** rules) override;
  STDMETHODIMP HasParentScopeRule(LPCWSTR, BOOL*) override { return None("HasParentScopeRule"); }
  STDMETHODIMP HasChildScopeRule(LPCWSTR, BOOL*) override { return None("HasChildScopeRule"); }
  STDMETHODIMP IncludedInCrawlScope(LPCWSTR, BOOL*) override { return None("IncludedInCrawlScope"); }
  STDMETHODIMP IncludedInCrawlScopeEx(LPCWSTR, BOOL*, CLUSION_REASON*) override {
    return None("IncludedInCrawlScopeEx");
  }
  STDMETHODIMP RevertToDefaultScopes() override { return None("RevertToDefaultScopes"); }
  STDMETHODIMP SaveAll() override;
  STDMETHODIMP GetParentScopeVersionId(LPCWSTR, LONG*) override { return None("GetParentScopeVersionId"); }
  STDMETHODIMP RemoveDefaultScopeRule(LPCWSTR) override { return None("RemoveDefaultScopeRule"); }

 private:
  static HRESULT None(const std::string& method) { return NotImplemented("ISearchCrawlScopeManager::" + method); }
  // On the copy now, on the file at SaveAll.
  void Change(ScopeChange change);

  CriticalSection mutex_;
  Scope scope_;
  std::vector<ScopeChange> unsaved_;
};

}  // namespace winindex
