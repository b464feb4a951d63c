// Finds the MAPI library of the installed mail client, loads it once, and forwards to it.
//
// The module links to no MAPI library. Loading happens while static objects are constructed, so later readers of the
// entry points need no lock. MAPI stays loaded until the process ends.
#pragma once

#include "platform/mapi_extra.h"

#include <mapiutil.h>

#include <imessage.h>

#include <string>

#include "platform/critical_section.h"

class CMapiLoader {
 public:
  CMapiLoader();  // loads; MAPI itself is never unloaded
  CMapiLoader(const CMapiLoader&) = delete;
  CMapiLoader& operator=(const CMapiLoader&) = delete;

  // Resolves the whole table or nothing. After a failure LastError says what was missing. Idempotent once loaded.
  void Load();
  // Forgets every entry point.
  void Reset();
  bool IsLoaded() const { return loaded_; }
  const std::string& LastError() const { return last_error_; }

 private:
  CriticalSection lock_;
  bool loaded_ = false;
  std::string last_error_;
};

extern CMapiLoader g_MapiLoader;

// The MAPI functions that the module calls, with MAPI's own signatures. Without MAPI each answers with a fixed value:
// E_NOINTERFACE, null, 0 or nothing.
namespace mapi {

SCODE MAPIAllocateBuffer(ULONG size, LPVOID* buffer);
SCODE MAPIAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer);
ULONG MAPIFreeBuffer(LPVOID buffer);  // null is 0 at once
HRESULT HrGetOneProp(LPMAPIPROP object, ULONG tag, LPSPropValue* value);
void FreeProws(LPSRowSet rows);
SCODE OpenIMsgOnIStg(LPMSGSESS session, LPALLOCATEBUFFER allocate, LPALLOCATEMORE more, LPFREEBUFFER free,
                     LPMALLOC malloc, LPVOID support, LPSTORAGE storage, MSGCALLRELEASE* released, ULONG caller_data,
                     ULONG flags, LPMESSAGE* message);
LPMALLOC MAPIGetDefaultMalloc();
void CloseIMsgSession(LPMSGSESS session);
SCODE OpenIMsgSession(LPMALLOC malloc, ULONG flags, LPMSGSESS* session);
HRESULT HrQueryAllRows(LPMAPITABLE table, LPSPropTagArray columns, LPSRestriction restriction, LPSSortOrderSet order,
                       LONG max_rows, LPSRowSet* rows);
void HexFromBin(LPBYTE bytes, int count, char* text);  // 2 x count upper-case digits and a NUL
HRESULT MAPIInitialize(LPVOID init);
void MAPIUninitialize();
HRESULT MAPILogonEx(ULONG_PTR window, LPTSTR profile, LPTSTR password, ULONG flags, LPMAPISESSION* session);
HRESULT MAPIAdminProfiles(ULONG flags, LPPROFADMIN* admin);

}  // namespace mapi
