// The platform's MAPI headers, in the order they need, and what they lack.
#pragma once

#include <objidl.h>
#include <windows.h>

#include <imessage.h>
#include <mapicode.h>
#include <mapiguid.h>
#include <mapiutil.h>
#include <mapix.h>

#include "platform/mapi_extra.h"
