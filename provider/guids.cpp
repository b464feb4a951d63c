// The interface identifiers of the MAPI headers that the provider answers to: their one definition.
#define USES_IID_IAddrBook
#define USES_IID_IAttachment
#define USES_IID_IMAPIContainer
#define USES_IID_IMAPIFolder
#define USES_IID_IMAPIProp
#define USES_IID_IMAPISession
#define USES_IID_IMAPITable
#define USES_IID_IMessage
#define USES_IID_IMsgServiceAdmin
#define USES_IID_IMsgStore
#define USES_IID_IProfAdmin
#define USES_IID_IStreamDocfile
#include <initguid.h>

#include "provider/mapi.h"
