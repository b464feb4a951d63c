// Tells the system's index of changed vault files.
#pragma once

#include "platform/searchmanager.h"

// Reports the change (addition, deletion, modification; any other is E_INVALIDARG) of the vault file at `path`, or of
// all the current user's vaults when it is null or empty, through the catalog's persistent change sink. Returns when
// the index has taken it up: S_OK, or the code of the step that failed, where E_FAIL stands for a change that was
// refused unless the index says DB_E_ERRORSOCCURRED. Any thread that has initialised COM.
HRESULT ProcessHXItem(const wchar_t* path, SEARCH_KIND_OF_CHANGE change, SEARCH_NOTIFICATION_PRIORITY priority);
