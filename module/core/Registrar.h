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

namespace registrar {

enum class Action { kRegister, kUnregister };

// Runs script `resource` of this module. Stops at the first failure of a registration; unregistration goes on and
// reports the first failure. A script that cannot be read is DISP_E_EXCEPTION.
HRESULT Run(Action action, UINT resource, const std::wstring& module_path);

}  // namespace registrar
