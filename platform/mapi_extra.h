// MAPI flags, tags and types that the toolchain's headers lack (values of the public MAPI headers).
#pragma once

#include <windows.h>

#include <mapidefs.h>

#include <mapicode.h>
#include <mapitags.h>
#include <mapix.h>

#ifndef MAPI_NO_COINIT
#define MAPI_NO_COINIT 0x00000008  // MAPIINIT_0 flag
#endif
#ifndef PR_FLAG_STATUS
#define PR_FLAG_STATUS PROP_TAG(PT_LONG, 0x1090)
#endif
#ifndef PR_SMTP_ADDRESS_W
#define PR_SMTP_ADDRESS_W PROP_TAG(PT_UNICODE, 0x39FE)
#endif
#ifndef PR_PST_FILENAME_W
#define PR_PST_FILENAME_W PROP_TAG(PT_UNICODE, 0x6700)  // where the PST service finds its file
#define PR_PST_FILENAME PROP_TAG(PT_STRING8, 0x6700)
#endif
