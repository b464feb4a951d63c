// The dispatch interface of the main class, as the type library declares it.
#pragma once

#include <windows.h>

#include <oaidl.h>

struct IHoardexSP : IDispatch {};
__CRT_UUID_DECL(IHoardexSP, 0x6E2F0B68, 0x3C41, 0x4D0E, 0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D)
