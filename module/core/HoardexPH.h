// The module object and what its entry point decides.
#pragma once

#include <windows.h>

namespace module {

// The class of the protocol handler and shell folder, and the one of filters, which only IPersistStream reports.
inline constexpr CLSID kHoardexSPClass = {0x6E2F0B6A, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};
inline constexpr CLSID kHoardexFilterClass = {
    0x6E2F0B6B, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};
inline constexpr GUID kTypeLibrary = {0x6E2F0B69, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

HINSTANCE Instance();
void SetInstance(HINSTANCE instance);

// The module's lock count: every living object and every LockServer holds one.
void Lock();
void Unlock();
LONG LockCount();

}  // namespace module

// Whether the loader has MAPI; logs which.
bool CheckMAPIIsLoaded();
