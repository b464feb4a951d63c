// The module's static objects, in the order in which they must be made: the logger first, so that everything after it
// can log, then MAPI. Both run under the loader lock: no COM call, no thread, no wait for one.
#include "module/core/SCLog.h"
#include "module/mapi/MapiLoader.h"

namespace __gnu_cxx {
void __freeres();
}

namespace {

// The C++ runtime, a part of this DLL, keeps a reserve for exceptions (about 70 KB) until the process ends. A host that
// loads and unloads the module would lose as much each time. Made first, so that it goes last.
struct ExceptionReserve {
  ~ExceptionReserve() { __gnu_cxx::__freeres(); }
};
const ExceptionReserve g_ExceptionReserve;

}  // namespace

SCLog g_Log(L"HoardexPH.log");
CMapiLoader g_MapiLoader;
