#include "winindex/SearchManager.h"

#include "winindex/ChangeQueue.h"
#include "winindex/ScopeManager.h"
#include "winindex/Text.h"

namespace winindex {
namespace {

constexpr wchar_t kCatalog[] = L"SystemIndex";
constexpr HRESULT kCatalogNotFound = static_cast<HRESULT>(0x80042103);  // MSS_E_CATALOGNOTFOUND
constexpr HRESULT kSomeRefused = static_cast<HRESULT>(0x80040E21);      // DB_E_ERRORSOCCURRED
// A longer URL no index takes.
constexpr size_t kLongestUrl = 32'767;
// Above the kind a change may carry modifiers: that it is a directory, shallow, or of the security only.
constexpr DWORD kKindMask = 0xFFFF;

bool IsUrl(LPCWSTR url) {
  return url && *url && wcsnlen(url, kLongestUrl + 1) <= kLongestUrl;
}

// Puts every change into the queue before it acknowledges it. The scope that is said to be monitored restricts nothing.
class ChangeSink final : public ComObject<ISearchPersistentItemsChangedSink> {
 public:
  STDMETHODIMP StartedMonitoringScope(LPCWSTR url) override {
    return Take("ISearchPersistentItemsChangedSink::StartedMonitoringScope", url);
  }
  STDMETHODIMP StoppedMonitoringScope(LPCWSTR url) override {
    return Take("ISearchPersistentItemsChangedSink::StoppedMonitoringScope", url);
  }
  STDMETHODIMP OnItemsChanged(DWORD count, SEARCH_ITEM_PERSISTENT_CHANGE changes[], HRESULT codes[]) override {
    return Method("ISearchPersistentItemsChangedSink::OnItemsChanged", [&] {
      if (!count) return S_OK;
      Require(changes, E_INVALIDARG);
      Require(codes, E_POINTER);
      std::vector<Change> taken;
      bool all = true;
      for (DWORD i = 0; i < count; ++i) {
        codes[i] = Translate(changes[i], taken);
        all = all && SUCCEEDED(codes[i]);
      }
      try {
        if (!taken.empty()) QueueChanges(taken);
      } catch (const Failure& failure) {
        for (DWORD i = 0; i < count; ++i)
          if (SUCCEEDED(codes[i])) codes[i] = failure.code;
        throw;
      }
      return all ? S_OK : kSomeRefused;
    });
  }

 private:
  static HRESULT Take(std::string_view method, LPCWSTR url) {
    return Method(method, [&] { return IsUrl(url) ? S_OK : E_INVALIDARG; });
  }
  // A renaming is the end of one item and the beginning of another.
  static HRESULT Translate(const SEARCH_ITEM_PERSISTENT_CHANGE& change, std::vector<Change>& out) {
    const auto kind = static_cast<SEARCH_KIND_OF_CHANGE>(change.Change & kKindMask);
    if (!IsUrl(change.URL) || kind > SEARCH_CHANGE_MOVE_RENAME) return E_INVALIDARG;
    if (kind != SEARCH_CHANGE_MOVE_RENAME) {
      out.push_back({kind, change.URL});
      return S_OK;
    }
    if (!IsUrl(change.OldURL)) return E_INVALIDARG;
    out.push_back({SEARCH_CHANGE_DELETE, change.OldURL});
    out.push_back({SEARCH_CHANGE_ADD, change.URL});
    return S_OK;
  }
};

class CatalogManager final : public ComObject<ISearchCatalogManager> {
 public:
  STDMETHODIMP get_Name(LPWSTR*) override { return None("get_Name"); }
  STDMETHODIMP GetParameter(LPCWSTR, PROPVARIANT**) override { return None("GetParameter"); }
  STDMETHODIMP SetParameter(LPCWSTR, PROPVARIANT*) override { return None("SetParameter"); }
  STDMETHODIMP GetCatalogStatus(CatalogStatus*, CatalogPausedReason*) override { return None("GetCatalogStatus"); }
  STDMETHODIMP Reset() override { return None("Reset"); }
  STDMETHODIMP Reindex() override { return None("Reindex"); }
  STDMETHODIMP ReindexMatchingURLs(LPCWSTR) override { return None("ReindexMatchingURLs"); }
  STDMETHODIMP ReindexSearchRoot(LPCWSTR) override { return None("ReindexSearchRoot"); }
  STDMETHODIMP put_ConnectTimeout(DWORD) override { return None("put_ConnectTimeout"); }
  STDMETHODIMP get_ConnectTimeout(DWORD*) override { return None("get_ConnectTimeout"); }
  STDMETHODIMP put_DataTimeout(DWORD) override { return None("put_DataTimeout"); }
  STDMETHODIMP get_DataTimeout(DWORD*) override { return None("get_DataTimeout"); }
  STDMETHODIMP NumberOfItems(LONG*) override { return None("NumberOfItems"); }
  STDMETHODIMP NumberOfItemsToIndex(LONG*, LONG*, LONG*) override { return None("NumberOfItemsToIndex"); }
  STDMETHODIMP URLBeingIndexed(LPWSTR*) override { return None("URLBeingIndexed"); }
  STDMETHODIMP GetURLIndexingState(LPCWSTR, DWORD*) override { return None("GetURLIndexingState"); }
  STDMETHODIMP GetPersistentItemsChangedSink(ISearchPersistentItemsChangedSink** sink) override {
    return Method("ISearchCatalogManager::GetPersistentItemsChangedSink", [&] {
      Require(sink, E_POINTER);
      *sink = Make<ChangeSink>().Detach();
      return S_OK;
    });
  }
  STDMETHODIMP RegisterViewForNotification(LPCWSTR, ISearchViewChangedSink*, DWORD*) override {
    return None("RegisterViewForNotification");
  }
  STDMETHODIMP GetItemsChangedSink(ISearchNotifyInlineSite*, REFIID, void**, GUID*, GUID*, DWORD*) override {
    return None("GetItemsChangedSink");
  }
  STDMETHODIMP UnregisterViewForNotification(DWORD) override { return None("UnregisterViewForNotification"); }
  STDMETHODIMP SetExtensionClusion(LPCWSTR, BOOL) override { return None("SetExtensionClusion"); }
  STDMETHODIMP EnumerateExcludedExtensions(IEnumString**) override { return None("EnumerateExcludedExtensions"); }
  STDMETHODIMP GetQueryHelper(ISearchQueryHelper**) override { return None("GetQueryHelper"); }
  STDMETHODIMP put_DiacriticSensitivity(BOOL) override { return None("put_DiacriticSensitivity"); }
  STDMETHODIMP get_DiacriticSensitivity(BOOL*) override { return None("get_DiacriticSensitivity"); }
  STDMETHODIMP GetCrawlScopeManager(ISearchCrawlScopeManager** manager) override {
    return Method("ISearchCatalogManager::GetCrawlScopeManager", [&] {
      Require(manager, E_POINTER);
      *manager = Make<ScopeManager>().Detach();
      return S_OK;
    });
  }

 private:
  static HRESULT None(const std::string& method) { return NotImplemented("ISearchCatalogManager::" + method); }
};

class SearchManager final : public ComObject<ISearchManager, IHoardexChangeQueue> {
 public:
  STDMETHODIMP GetIndexerVersionStr(LPWSTR*) override { return None("GetIndexerVersionStr"); }
  STDMETHODIMP GetIndexerVersion(DWORD*, DWORD*) override { return None("GetIndexerVersion"); }
  STDMETHODIMP GetParameter(LPCWSTR, PROPVARIANT**) override { return None("GetParameter"); }
  STDMETHODIMP SetParameter(LPCWSTR, const PROPVARIANT*) override { return None("SetParameter"); }
  STDMETHODIMP get_ProxyName(LPWSTR*) override { return None("get_ProxyName"); }
  STDMETHODIMP get_BypassList(LPWSTR*) override { return None("get_BypassList"); }
  STDMETHODIMP SetProxy(PROXY_ACCESS, BOOL, DWORD, LPCWSTR, LPCWSTR) override { return None("SetProxy"); }
  STDMETHODIMP GetCatalog(LPCWSTR name, ISearchCatalogManager** catalog) override {
    return Method("ISearchManager::GetCatalog", [&] {
      Require(catalog, E_POINTER);
      *catalog = nullptr;
      Require(name, E_INVALIDARG);
      Require(SameText(name, kCatalog), kCatalogNotFound);
      *catalog = Make<CatalogManager>().Detach();
      return S_OK;
    });
  }
  STDMETHODIMP get_UserAgent(LPWSTR*) override { return None("get_UserAgent"); }
  STDMETHODIMP put_UserAgent(LPCWSTR) override { return None("put_UserAgent"); }
  STDMETHODIMP get_UseProxy(PROXY_ACCESS*) override { return None("get_UseProxy"); }
  STDMETHODIMP get_LocalBypass(BOOL*) override { return None("get_LocalBypass"); }
  STDMETHODIMP get_PortNumber(DWORD*) override { return None("get_PortNumber"); }

  STDMETHODIMP Read(ULONG most, QUEUED_CHANGE** changes, ULONG* count, BOOL* more) override {
    return Method("IHoardexChangeQueue::Read", [&] {
      Require(changes && count && more, E_POINTER);
      *changes = nullptr;
      *count = 0;
      const std::vector<NumberedChange> all = QueuedChanges();
      const size_t given = std::min<size_t>(most, all.size());
      *more = given < all.size();
      if (!given) return S_OK;
      auto* list = static_cast<QUEUED_CHANGE*>(CoTaskMemAlloc(given * sizeof(QUEUED_CHANGE)));
      Require(list, E_OUTOFMEMORY);
      ULONG made = 0;
      try {
        for (; made < given; ++made) list[made] = {all[made].id, all[made].kind, CopyForCaller(all[made].url)};
      } catch (...) {
        while (made > 0) CoTaskMemFree(list[--made].url);
        CoTaskMemFree(list);
        throw;
      }
      *changes = list;
      *count = made;
      return S_OK;
    });
  }
  STDMETHODIMP TakeAway(ULONGLONG last) override {
    return Method("IHoardexChangeQueue::TakeAway", [&] { return TakeChangesAway(last) ? S_OK : S_FALSE; });
  }

 private:
  static HRESULT None(const std::string& method) { return NotImplemented("ISearchManager::" + method); }
};

}  // namespace

ComPtr<ISearchManager> MakeSearchManager() {
  return Make<SearchManager>();
}

}  // namespace winindex
