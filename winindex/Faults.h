// The fault plan: lets whoever tests a client of the index make any one call fail. The environment variable
// HOARDEX_INDEX_FAULTS holds "ISearchManager::GetCatalog=0x80070005;ISearchCrawlScopeManager::SaveAll=0x8000FFFF"; a
// method named there does nothing and returns that code. Read at every call, so it can change while a client runs.
#pragma once

#include <windows.h>

#include <optional>
#include <string_view>

namespace winindex {

// The planned result of this method, if there is one.
std::optional<HRESULT> PlannedResult(std::string_view method);

}  // namespace winindex
