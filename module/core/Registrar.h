// Runs the module's registration script, a REGISTRY resource in the registrar language of the class library:
//
//   HKCR | HKLM { [ForceRemove | NoRemove] name [= s 'text'] { ... }   val name = s 'text' | d 'number' }
//
// ForceRemove takes a key with everything below it away on unregistration, NoRemove leaves it (its children are still
// visited), and a key without either goes if nothing is left in it. %MODULE% and %CLSID% stand for the module's file
// and its class.
#pragma once

#include <windows.h>

#include <string>

#include "module/core/RegistryUndo.h"

namespace registrar {

// Registers by script `resource` of this module, parents first. The first failure ends it and is returned; what was
// done until then is for `undo` to take back. A script that cannot be read is DISP_E_EXCEPTION.
HRESULT Register(UINT resource, const std::wstring& module_path, RegistryUndo& undo);

// Walks the same script backwards. Goes on after a failure and reports the first; what is gone already is none.
HRESULT Unregister(UINT resource, const std::wstring& module_path);

}  // namespace registrar
