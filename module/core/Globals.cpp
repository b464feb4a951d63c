// The module's static objects, in the order in which they must be made: the logger first, so that everything after it
// can log, then MAPI. Both run under the loader lock: no COM call, no thread, no wait for one.
#include "module/core/SCLog.h"
#include "module/mapi/MapiLoader.h"

SCLog g_Log(L"HoardexPH.log");
CMapiLoader g_MapiLoader;
