// The platform's MAPI headers, in the order they need, and what they lack.
#pragma once

#include <windows.h>
#include <objidl.h>

#include <mapix.h>
#include <mapiutil.h>
#include <mapiguid.h>
#include <mapicode.h>
#include <imessage.h>

#include "platform/mapi_extra.h"
