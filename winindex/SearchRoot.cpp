#include "winindex/SearchRoot.h"

namespace winindex {

STDMETHODIMP SearchRoot::put_RootURL(LPCWSTR url) {
  return Method("ISearchRoot::put_RootURL", [&] {
    Require(url && *url, E_INVALIDARG);
    const std::lock_guard guard(mutex_);
    root_.url = url;
    return S_OK;
  });
}

STDMETHODIMP SearchRoot::get_RootURL(LPWSTR* url) {
  return Method("ISearchRoot::get_RootURL", [&] {
    Require(url, E_POINTER);
    const std::lock_guard guard(mutex_);
    *url = CopyForCaller(root_.url);
    return S_OK;
  });
}

STDMETHODIMP SearchRoot::put_ProvidesNotifications(BOOL value) {
  return Method("ISearchRoot::put_ProvidesNotifications", [&] {
    const std::lock_guard guard(mutex_);
    root_.provides_notifications = value;
    return S_OK;
  });
}

STDMETHODIMP SearchRoot::get_ProvidesNotifications(BOOL* value) {
  return Method("ISearchRoot::get_ProvidesNotifications", [&] {
    Require(value, E_POINTER);
    const std::lock_guard guard(mutex_);
    *value = root_.provides_notifications;
    return S_OK;
  });
}

STDMETHODIMP SearchRoot::QueryBlanket(IUnknown*, DWORD* authentication, DWORD* authorisation, OLECHAR** principal,
                                      DWORD* level, DWORD* impersonation, void** identity, DWORD* capabilities) {
  return Method("IClientSecurity::QueryBlanket", [&] {
    const std::lock_guard guard(mutex_);
    if (principal) *principal = blanket_.principal.empty() ? nullptr : CopyForCaller(blanket_.principal);
    const auto tell = [](auto* out, auto value) {
      if (out) *out = value;
    };
    tell(authentication, blanket_.authentication);
    tell(authorisation, blanket_.authorisation);
    tell(level, blanket_.level);
    tell(impersonation, blanket_.impersonation);
    tell(identity, blanket_.identity);
    tell(capabilities, blanket_.capabilities);
    return S_OK;
  });
}

STDMETHODIMP SearchRoot::SetBlanket(IUnknown*, DWORD authentication, DWORD authorisation, OLECHAR* principal,
                                    DWORD level, DWORD impersonation, void* identity, DWORD capabilities) {
  return Method("IClientSecurity::SetBlanket", [&] {
    Blanket blanket{authentication, authorisation, level, impersonation, capabilities, {}, identity};
    // COLE_DEFAULT_PRINCIPAL stands for a name without being one.
    if (principal && principal != reinterpret_cast<OLECHAR*>(-1)) blanket.principal = principal;
    const std::lock_guard guard(mutex_);
    blanket_ = std::move(blanket);
    return S_OK;
  });
}

}  // namespace winindex
