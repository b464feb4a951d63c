// The MAPI interface identifiers that the module asks for.
#define INITGUID
#define USES_IID_IMessage
#define USES_IID_IStreamDocfile
#include <windows.h>

#include <objbase.h>

#include <mapidefs.h>

#include <mapiguid.h>
