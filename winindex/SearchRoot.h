// CSearchRoot: the properties of a search root.
#pragma once

#include <string>

#include "platform/critical_section.h"
#include "platform/searchmanager.h"
#include "winindex/ComObject.h"
#include "winindex/Scope.h"

namespace winindex {

// Only its URL and whether it notifies have an effect; the other properties are accepted and ignored, as by the index
// of Windows. Answers for IClientSecurity, as every proxy does there: QueryBlanket tells what was set.
class SearchRoot final : public ComObject<ISearchRoot, IClientSecurity> {
 public:
  SearchRoot() = default;
  explicit SearchRoot(Root root) : root_(std::move(root)) {}

  STDMETHODIMP put_Schedule(LPCWSTR) override { return Accept("ISearchRoot::put_Schedule"); }
  STDMETHODIMP get_Schedule(LPWSTR*) override { return NotImplemented("ISearchRoot::get_Schedule"); }
  STDMETHODIMP put_RootURL(LPCWSTR url) override;
  STDMETHODIMP get_RootURL(LPWSTR* url) override;
  STDMETHODIMP put_IsHierarchical(BOOL) override { return Accept("ISearchRoot::put_IsHierarchical"); }
  STDMETHODIMP get_IsHierarchical(BOOL*) override { return NotImplemented("ISearchRoot::get_IsHierarchical"); }
  STDMETHODIMP put_ProvidesNotifications(BOOL value) override;
  STDMETHODIMP get_ProvidesNotifications(BOOL* value) override;
  STDMETHODIMP put_UseNotificationsOnly(BOOL) override { return Accept("ISearchRoot::put_UseNotificationsOnly"); }
  STDMETHODIMP get_UseNotificationsOnly(BOOL*) override {
    return NotImplemented("ISearchRoot::get_UseNotificationsOnly");
  }
  STDMETHODIMP put_EnumerationDepth(DWORD) override { return Accept("ISearchRoot::put_EnumerationDepth"); }
  STDMETHODIMP get_EnumerationDepth(DWORD*) override { return NotImplemented("ISearchRoot::get_EnumerationDepth"); }
  STDMETHODIMP put_HostDepth(DWORD) override { return Accept("ISearchRoot::put_HostDepth"); }
  STDMETHODIMP get_HostDepth(DWORD*) override { return NotImplemented("ISearchRoot::get_HostDepth"); }
  STDMETHODIMP put_FollowDirectories(BOOL) override { return Accept("ISearchRoot::put_FollowDirectories"); }
  STDMETHODIMP get_FollowDirectories(BOOL*) override { return NotImplemented("ISearchRoot::get_FollowDirectories"); }
  STDMETHODIMP put_AuthenticationType(AUTH_TYPE) override { return Accept("ISearchRoot::put_AuthenticationType"); }
  STDMETHODIMP get_AuthenticationType(AUTH_TYPE*) override {
    return NotImplemented("ISearchRoot::get_AuthenticationType");
  }
  STDMETHODIMP put_User(LPCWSTR) override { return Accept("ISearchRoot::put_User"); }
  STDMETHODIMP get_User(LPWSTR*) override { return NotImplemented("ISearchRoot::get_User"); }
  STDMETHODIMP put_Password(LPCWSTR) override { return Accept("ISearchRoot::put_Password"); }
  STDMETHODIMP get_Password(LPWSTR*) override { return NotImplemented("ISearchRoot::get_Password"); }

  STDMETHODIMP QueryBlanket(IUnknown* proxy, DWORD* authentication, DWORD* authorisation, OLECHAR** principal,
                            DWORD* level, DWORD* impersonation, void** identity, DWORD* capabilities) override;
  STDMETHODIMP SetBlanket(IUnknown* proxy, DWORD authentication, DWORD authorisation, OLECHAR* principal, DWORD level,
                          DWORD impersonation, void* identity, DWORD capabilities) override;
  STDMETHODIMP CopyProxy(IUnknown*, IUnknown**) override { return NotImplemented("IClientSecurity::CopyProxy"); }

 private:
  static HRESULT Accept(std::string_view method) {
    return Method(method, [] { return S_OK; });
  }
  struct Blanket {
    DWORD authentication = 0, authorisation = 0, level = 0, impersonation = 0, capabilities = 0;
    std::wstring principal;
    void* identity = nullptr;
  };

  CriticalSection mutex_;
  Root root_;
  Blanket blanket_;
};

}  // namespace winindex
