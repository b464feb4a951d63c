// The fault plan: lets whoever tests a client of the index make any one call fail. The environment variable
// HOARDEX_INDEX_FAULTS holds "ISearchManager::GetCatalog=0x80070005;ISearchCrawlScopeManager::SaveAll=0x8000FFFF"; a
// method named there does nothing and returns that code. Read at every call, so it can change while a client runs.
//
// Where the index of Windows may behave in another way, the plan has a word instead of a code:
//   ISearchCrawlScopeManager::RemoveRoot=keep-rules   the root goes, its scope rules stay
#pragma once

#include <windows.h>

#include <optional>
#include <string_view>

namespace winindex {

// The planned result of this method, if there is one.
std::optional<HRESULT> PlannedResult(std::string_view method);
// Whether the plan has this word for the method.
bool Planned(std::string_view method, std::string_view word);

}  // namespace winindex
