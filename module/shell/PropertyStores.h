// The property system, found at run time: without it the module still loads, registers and indexes.
#pragma once

#include <windows.h>

#include <propsys.h>

// The property system's library, counted: the one that the process has loaded already, else the system's; the one
// beside the module where the stores of those have no serialised form. Null when there is none.
HMODULE LoadPropertySystem();

// PSCreateMemoryPropertyStore, or why there is none. The library is chosen by the process's first call.
HRESULT CreateMemoryPropertyStore(IPropertyStore** store);
