// The user whom the process runs as, as item URLs name him.
#pragma once

#include <windows.h>

#include <string>

// Enough for every SID's text.
inline constexpr DWORD kUserSidBuffer = 2048;

// Writes the SID of the process's user, in braces, into `buffer` of `count` characters. The buffer holds an empty text
// after a failure, whose code is returned.
HRESULT GetUserSIDString(wchar_t* buffer, DWORD count);

// The root URL of the user whose SID GetUserSIDString gave.
std::wstring UserRootUrl(const wchar_t* braced_sid);
