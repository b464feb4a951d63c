// The folders of vaults that the archiving client has registered for this user.
#pragma once

#include <functional>
#include <string>

// Calls `visit` with each folder, a backslash at its end, in the registry's order. `level`: that of the lines which log
// the steps of the walk as those of the filter's enumeration.
void ForEachVaultFolder(int level, const std::function<void(const std::wstring& folder)>& visit);
