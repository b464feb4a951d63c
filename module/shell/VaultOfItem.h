// What the shell may be made to open. Item IDs come back from shortcuts, which anybody can write.
#pragma once

#include <string>

// Whether the URL's vault file lies in one of the folders that the archiving client has registered for this user, so
// that no other file, and no share of another machine, is ever opened for an item ID's sake.
bool IsRegisteredVault(const std::wstring& url);
