#include "module/shell/ChangeNotification.h"

#include <oledberr.h>
#include <wrl/client.h>

#include <algorithm>
#include <string>

#include "module/core/Steps.h"
#include "module/core/UserSid.h"
#include "module/registration/SearchRoot.h"

namespace {

using Microsoft::WRL::ComPtr;
using steps::Filled;

constexpr wchar_t kLogSource[] = L".\\HoardexSP";
constexpr wchar_t kOperation[] = L"CHoardexSP::ProcessHXItem()";

// The whole default scope, or one vault file in it, whose path is one part of the URL.
std::wstring ChangedUrl(const wchar_t* sid, std::wstring path) {
  std::replace(path.begin(), path.end(), L'/', L'\\');
  const std::wstring url = UserRootUrl(sid) + path;
  ZK_LOG(L"CHoardexSP::ProcessHXItem() - URL to be deleted is [%s]", url.c_str());
  ZK_LOG(L"CHoardexSP::ProcessHXItem() - URL to be processed is [%s]", url.c_str());
  return url;
}

// Hands the one change over. What the index made of it is in the log only: the result is that of the call.
HRESULT ReportChange(ISearchPersistentItemsChangedSink* sink, SEARCH_ITEM_PERSISTENT_CHANGE change) {
  HRESULT completion[1] = {S_OK};
  const HRESULT hr = sink->OnItemsChanged(1, &change, completion);
  ZK_LOG(
      L"CHoardexSP::ProcessHXItem() - ISearchPersistentItemsChangedSink interface call of OnItemsChanged returned with "
      L"a value of [0x%08lX]",
      hr);
  ZK_LOG(
      L"CHoardexSP::ProcessHXItem() - ISearchPersistentItemsChangedSink interface call of OnItemsChanged returned "
      L"hrCompletionCodes[0] as [0x%08lX]",
      completion[0]);
  return SUCCEEDED(hr) || hr == DB_E_ERRORSOCCURRED ? hr : E_FAIL;
}

}  // namespace

HRESULT ProcessHXItem(const wchar_t* path, SEARCH_KIND_OF_CHANGE change, SEARCH_NOTIFICATION_PRIORITY priority) {
  const std::wstring file = path ? path : L"";
  if (change != SEARCH_CHANGE_ADD && change != SEARCH_CHANGE_DELETE && change != SEARCH_CHANGE_MODIFY) {
    ZK_LOG(
        L"CHoardexSP::ProcessHXItem() - Hoardex file [%s] was called to be processed for change type [%d]. This is "
        L"neither for addition, deletion or modification an hoardex file",
        file.c_str(), change);
    return E_INVALIDARG;
  }
  ComPtr<ISearchManager> manager;
  HRESULT hr =
      ZK_STEPS(kOperation, {{L" - ISearchManager interface creation returned with a value of", [&] {
                               return Filled(CoCreateInstance(CLSID_CSearchManager, nullptr, kIndexContext,
                                                              __uuidof(ISearchManager),
                                                              reinterpret_cast<void**>(manager.GetAddressOf())),
                                             manager);
                             }}});
  if (FAILED(hr)) return hr;

  wchar_t sid[kUserSidBuffer];
  hr = GetUserSIDString(sid, kUserSidBuffer);
  ZK_LOG(
      L"CHoardexSP::ProcessHXItem() - GetUserSIDString interface creation returned with a value of [0x%08lX]. User SID "
      L"is [%s]",
      hr, sid);
  if (FAILED(hr)) return hr;
  std::wstring url = ChangedUrl(sid, file);

  ComPtr<ISearchCatalogManager> catalog;
  ComPtr<ISearchPersistentItemsChangedSink> sink;
  hr = ZK_STEPS(
      kOperation,
      {{L" - ISearchManager interface query for the SystemIndex returned with a value of",
        [&] { return Filled(manager->GetCatalog(kIndexCatalog, &catalog), catalog); }},
       {L" - ISearchCatalogManager interface call of GetPersistentItemsChangedSink returned with a value of",
        [&] { return Filled(catalog->GetPersistentItemsChangedSink(&sink), sink); }},
       {L" - ISearchPersistentItemsChangedSink interface call of StartedMonitoringScope returned with a value of",
        [&] { return sink->StartedMonitoringScope(url.c_str()); }}});
  if (FAILED(hr)) return hr;
  if (FAILED(hr = ReportChange(sink.Get(), {change, url.data(), url.data(), priority}))) return hr;
  return ZK_STEPS(
      kOperation,
      {{L"- ISearchPersistentItemsChangedSink interface call of StoppedMonitoringScope returned with a value of",
        [&] { return sink->StoppedMonitoringScope(url.c_str()); }}});
}
