// Names of properties, as people and other programs know them.
#pragma once

#include <windows.h>

#include <filter.h>
#include <propsys.h>

#include <string>

#include "host/Text.h"

namespace host {

// The canonical name ("System.Subject") of a property; "{fmtid}/pid" for one without.
std::string PropertyName(const FULLPROPSPEC& property);

}  // namespace host
