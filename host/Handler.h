// The protocol handler that is registered for the module's scheme, as a class.
#pragma once

#include <windows.h>

namespace host {

// The class that is registered for the handler's scheme: REGDB_E_CLASSNOTREG without one.
HRESULT HandlerClass(CLSID* clsid);

// Makes an object of this class in this process. A handler adds the user's search root when its class is first asked
// for; a host that reads or examines leaves the index's registration as it finds it, so the index is out of the
// handler's reach during the call. COM must be initialised on the thread.
HRESULT MakeHandler(REFCLSID clsid, REFIID iid, void** object);

}  // namespace host
