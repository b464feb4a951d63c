// The index side of Windows Search: manager, catalog, crawl scope and change sink (the rest of the SDK's searchapi.h,
// which mingw-w64 lacks). Layouts and identifiers are those of the Windows SDK; method order is binary contract.
#pragma once

#include "platform/searchapi.h"

enum SEARCH_KIND_OF_CHANGE : DWORD {
  SEARCH_CHANGE_ADD = 0,
  SEARCH_CHANGE_DELETE = 1,
  SEARCH_CHANGE_MODIFY = 2,
  SEARCH_CHANGE_MOVE_RENAME = 3,
};
enum SEARCH_NOTIFICATION_PRIORITY { SEARCH_NORMAL_PRIORITY = 0, SEARCH_HIGH_PRIORITY = 1 };
enum FOLLOW_FLAGS { FF_INDEXCOMPLEXURLS = 1, FF_SUPPRESSINDEXING = 2 };
enum CLUSION_REASON {
  CLUSIONREASON_UNKNOWNSCOPE = 0,
  CLUSIONREASON_DEFAULT = 1,
  CLUSIONREASON_USER = 2,
  CLUSIONREASON_GROUPPOLICY = 3,
};
enum CatalogStatus : int;
enum CatalogPausedReason : int;

struct SEARCH_ITEM_PERSISTENT_CHANGE {
  SEARCH_KIND_OF_CHANGE Change;
  LPWSTR URL;
  LPWSTR OldURL;
  SEARCH_NOTIFICATION_PRIORITY Priority;
};
static_assert(sizeof(SEARCH_ITEM_PERSISTENT_CHANGE) == 32);

struct ISearchRoot : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE put_Schedule(LPCWSTR schedule) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Schedule(LPWSTR* schedule) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_RootURL(LPCWSTR url) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_RootURL(LPWSTR* url) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_IsHierarchical(BOOL value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsHierarchical(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ProvidesNotifications(BOOL value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ProvidesNotifications(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_UseNotificationsOnly(BOOL value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UseNotificationsOnly(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_EnumerationDepth(DWORD depth) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_EnumerationDepth(DWORD* depth) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_HostDepth(DWORD depth) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_HostDepth(DWORD* depth) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_FollowDirectories(BOOL value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FollowDirectories(BOOL* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AuthenticationType(AUTH_TYPE type) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AuthenticationType(AUTH_TYPE* type) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_User(LPCWSTR user) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_User(LPWSTR* user) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Password(LPCWSTR password) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Password(LPWSTR* password) = 0;
};

struct IEnumSearchRoots : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Next(ULONG count, ISearchRoot** roots, ULONG* fetched) = 0;
  virtual HRESULT STDMETHODCALLTYPE Skip(ULONG count) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE Clone(IEnumSearchRoots** copy) = 0;
};

struct ISearchScopeRule : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE get_PatternOrURL(LPWSTR* pattern) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsIncluded(BOOL* included) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_IsDefault(BOOL* is_default) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_FollowFlags(DWORD* flags) = 0;
};

struct IEnumSearchScopeRules : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Next(ULONG count, ISearchScopeRule** rules, ULONG* fetched) = 0;
  virtual HRESULT STDMETHODCALLTYPE Skip(ULONG count) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE Clone(IEnumSearchScopeRules** copy) = 0;
};

struct ISearchCrawlScopeManager : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE AddDefaultScopeRule(LPCWSTR url, BOOL include, DWORD follow_flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddRoot(ISearchRoot* root) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveRoot(LPCWSTR url) = 0;
  virtual HRESULT STDMETHODCALLTYPE EnumerateRoots(IEnumSearchRoots** roots) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddHierarchicalScope(LPCWSTR url, BOOL include, BOOL is_default,
                                                         BOOL override_children) = 0;
  virtual HRESULT STDMETHODCALLTYPE AddUserScopeRule(LPCWSTR url, BOOL include, BOOL override_children,
                                                     DWORD follow_flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveScopeRule(LPCWSTR rule) = 0;
  virtual HRESULT STDMETHODCALLTYPE EnumerateScopeRules(IEnumSearchScopeRules** rules) = 0;
  virtual HRESULT STDMETHODCALLTYPE HasParentScopeRule(LPCWSTR url, BOOL* has) = 0;
  virtual HRESULT STDMETHODCALLTYPE HasChildScopeRule(LPCWSTR url, BOOL* has) = 0;
  virtual HRESULT STDMETHODCALLTYPE IncludedInCrawlScope(LPCWSTR url, BOOL* included) = 0;
  virtual HRESULT STDMETHODCALLTYPE IncludedInCrawlScopeEx(LPCWSTR url, BOOL* included, CLUSION_REASON* reason) = 0;
  virtual HRESULT STDMETHODCALLTYPE RevertToDefaultScopes() = 0;
  virtual HRESULT STDMETHODCALLTYPE SaveAll() = 0;
  virtual HRESULT STDMETHODCALLTYPE GetParentScopeVersionId(LPCWSTR url, LONG* version) = 0;
  virtual HRESULT STDMETHODCALLTYPE RemoveDefaultScopeRule(LPCWSTR url) = 0;
};

struct ISearchPersistentItemsChangedSink : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE StartedMonitoringScope(LPCWSTR url) = 0;
  virtual HRESULT STDMETHODCALLTYPE StoppedMonitoringScope(LPCWSTR url) = 0;
  virtual HRESULT STDMETHODCALLTYPE OnItemsChanged(DWORD count, SEARCH_ITEM_PERSISTENT_CHANGE changes[],
                                                   HRESULT completion_codes[]) = 0;
};

struct ISearchViewChangedSink;
struct ISearchNotifyInlineSite;
struct ISearchQueryHelper;

struct ISearchCatalogManager : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE get_Name(LPWSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetParameter(LPCWSTR name, PROPVARIANT** value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetParameter(LPCWSTR name, PROPVARIANT* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCatalogStatus(CatalogStatus* status, CatalogPausedReason* reason) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE Reindex() = 0;
  virtual HRESULT STDMETHODCALLTYPE ReindexMatchingURLs(LPCWSTR pattern) = 0;
  virtual HRESULT STDMETHODCALLTYPE ReindexSearchRoot(LPCWSTR url) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_ConnectTimeout(DWORD seconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ConnectTimeout(DWORD* seconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DataTimeout(DWORD seconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DataTimeout(DWORD* seconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE NumberOfItems(LONG* count) = 0;
  virtual HRESULT STDMETHODCALLTYPE NumberOfItemsToIndex(LONG* incremental, LONG* notifications,
                                                         LONG* high_priority) = 0;
  virtual HRESULT STDMETHODCALLTYPE URLBeingIndexed(LPWSTR* url) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetURLIndexingState(LPCWSTR url, DWORD* state) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetPersistentItemsChangedSink(ISearchPersistentItemsChangedSink** sink) = 0;
  virtual HRESULT STDMETHODCALLTYPE RegisterViewForNotification(LPCWSTR view, ISearchViewChangedSink* sink,
                                                                DWORD* cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetItemsChangedSink(ISearchNotifyInlineSite* site, REFIID iid, void** sink,
                                                        GUID* catalog, GUID* reset, DWORD* last) = 0;
  virtual HRESULT STDMETHODCALLTYPE UnregisterViewForNotification(DWORD cookie) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetExtensionClusion(LPCWSTR extension, BOOL exclude) = 0;
  virtual HRESULT STDMETHODCALLTYPE EnumerateExcludedExtensions(IEnumString** extensions) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetQueryHelper(ISearchQueryHelper** helper) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_DiacriticSensitivity(BOOL sensitive) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_DiacriticSensitivity(BOOL* sensitive) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCrawlScopeManager(ISearchCrawlScopeManager** manager) = 0;
};

struct ISearchManager : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetIndexerVersionStr(LPWSTR* version) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetIndexerVersion(DWORD* major, DWORD* minor) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetParameter(LPCWSTR name, PROPVARIANT** value) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetParameter(LPCWSTR name, const PROPVARIANT* value) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_ProxyName(LPWSTR* name) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_BypassList(LPWSTR* list) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetProxy(PROXY_ACCESS access, BOOL local_bypass, DWORD port, LPCWSTR name,
                                             LPCWSTR bypass) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCatalog(LPCWSTR name, ISearchCatalogManager** catalog) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UserAgent(LPWSTR* agent) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_UserAgent(LPCWSTR agent) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UseProxy(PROXY_ACCESS* access) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_LocalBypass(BOOL* bypass) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_PortNumber(DWORD* port) = 0;
};

inline constexpr CLSID CLSID_CSearchManager = {
    0x7D096C5F, 0xAC08, 0x4F1F, {0xBE, 0xB7, 0x5C, 0x22, 0xC5, 0x17, 0xCE, 0x39}};
inline constexpr CLSID CLSID_CSearchRoot = {
    0x30766BD2, 0xEA1C, 0x4F28, {0xBF, 0x27, 0x0B, 0x44, 0xE2, 0xF6, 0x8D, 0xB7}};

// Most identifiers of this family differ in their last byte only.
#define ZK_SEARCH_IID(interface, last) \
  __CRT_UUID_DECL(interface, 0xAB310581, 0xAC80, 0x11D1, 0x8D, 0xF3, 0x00, 0xC0, 0x4F, 0xB6, 0xEF, last)
ZK_SEARCH_IID(ISearchManager, 0x69)
ZK_SEARCH_IID(ISearchCatalogManager, 0x50)
ZK_SEARCH_IID(ISearchCrawlScopeManager, 0x55)
ZK_SEARCH_IID(IEnumSearchRoots, 0x52)
ZK_SEARCH_IID(ISearchScopeRule, 0x53)
ZK_SEARCH_IID(IEnumSearchScopeRules, 0x54)
#undef ZK_SEARCH_IID
__CRT_UUID_DECL(ISearchRoot, 0x04C18CCF, 0x1F57, 0x4CBD, 0x88, 0xCC, 0x39, 0x00, 0xF5, 0x19, 0x5C, 0xE3)
__CRT_UUID_DECL(ISearchPersistentItemsChangedSink, 0xA2FFDF9B, 0x4758, 0x4F84, 0xB7, 0x29, 0xDF, 0x81, 0xA1, 0xA0, 0x61,
                0x2F)
