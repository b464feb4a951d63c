// The property system, found at run time: without it the module still loads, registers and indexes.
#pragma once

#include <windows.h>

#include <propsys.h>

// PSCreateMemoryPropertyStore, or why there is none.
HRESULT CreateMemoryPropertyStore(IPropertyStore** store);
