// Whether a file is a personal-folder store, told by its header ([MS-PST] 2.2.2.6).
//
// The mail client's service makes a new store of the path that it is given when there is no file, or one that it does
// not recognise, even over that file. A path is therefore shown to the service only after this check.
#pragma once

#include <windows.h>

#include <string>

// S_OK: the file has the header of a store of any version, or is kept from being read by whoever has it open, which
// the service reports itself. MAPI_E_NOT_FOUND: no full path, or no file that can be opened. MAPI_E_CORRUPT_STORE: a
// file that is no store, or whose header is damaged. Needs no session; any thread.
HRESULT CheckStoreHeader(const std::wstring& path);
