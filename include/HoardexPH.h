/* What the archiving client and its installer may call in HoardexPH.dll. For C++ and C; needs only the Windows SDK.
 *
 * Telling the index of changes:
 *
 *   IHoardexNotify* notify = NULL;
 *   CoCreateInstance(CLSID_HoardexSP, NULL, CLSCTX_INPROC_SERVER, IID_IHoardexNotify, (void**)&notify);
 *   notify->VaultModified(L"C:\\Users\\ann\\AppData\\Local\\Cache\\vault1.db");
 *
 * Every operation returns when the index has taken the change up, not when it has dealt with it. S_OK: taken up. Else
 * the code of the step that failed: CoCreateInstance of the search manager (REGDB_E_CLASSNOTREG where Windows Search is
 * not installed), the user's token, the catalog, its change sink; E_FAIL when the index refuses the change, but
 * DB_E_ERRORSOCCURRED (0x80040E21) when it says so. The log tells which step. Paths are full paths with backslashes of
 * vault files, ending in ".db", as the vault folder lists them; NULL and "" stand for all vaults, as the second three
 * operations do. Any thread that has initialised COM; no state is kept.
 */
#ifndef HOARDEX_PH_H
#define HOARDEX_PH_H

#include <windows.h>

#include <unknwn.h>

/* {6E2F0B6A-3C41-4D0E-9A57-2B80C164E71D}: the protocol handler, which also notifies. In-process, 64-bit, both
 * threading models; ProgID "HoardexPH3x.HoardexSP". */
static const CLSID CLSID_HoardexSP = {0x6E2F0B6A, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};
/* {6E2F0B6C-3C41-4D0E-9A57-2B80C164E71D} */
static const IID IID_IHoardexNotify = {0x6E2F0B6C, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

#undef INTERFACE
#define INTERFACE IHoardexNotify
DECLARE_INTERFACE_(IHoardexNotify, IUnknown) {
  STDMETHOD(QueryInterface)(THIS_ REFIID iid, void** object) PURE;
  STDMETHOD_(ULONG, AddRef)(THIS) PURE;
  STDMETHOD_(ULONG, Release)(THIS) PURE;
  STDMETHOD(VaultDeleted)(THIS_ LPCWSTR path) PURE;
  STDMETHOD(VaultAdded)(THIS_ LPCWSTR path) PURE;
  STDMETHOD(VaultModified)(THIS_ LPCWSTR path) PURE;
  STDMETHOD(AllVaultsDeleted)(THIS) PURE;
  STDMETHOD(AllVaultsAdded)(THIS) PURE;
  STDMETHOD(AllVaultsModified)(THIS) PURE;
};
#undef INTERFACE

/* {6E2F0B6D-3C41-4D0E-9A57-2B80C164E71D}: items as files. The same class offers it. `url` is an item URL, `path` a full
 * path, whose file is replaced. A message becomes a .msg file, an attachment what was attached (a message that was
 * attached: a .msg file). E_INVALIDARG for a URL that names neither, E_ACCESSDENIED for
 * one whose vault lies in no registered vault folder, else the code of the step that failed; then the
 * part that was written may be left. For MIME text bind the item to IStream through IShellFolder. */
static const IID IID_IHoardexSave = {0x6E2F0B6D, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

#define INTERFACE IHoardexSave
DECLARE_INTERFACE_(IHoardexSave, IUnknown) {
  STDMETHOD(QueryInterface)(THIS_ REFIID iid, void** object) PURE;
  STDMETHOD_(ULONG, AddRef)(THIS) PURE;
  STDMETHOD_(ULONG, Release)(THIS) PURE;
  STDMETHOD(SaveItem)(THIS_ LPCWSTR url, LPCWSTR path) PURE;
};
#undef INTERFACE

#if defined(__cplusplus) && defined(__CRT_UUID_DECL)
__CRT_UUID_DECL(IHoardexSave, 0x6E2F0B6D, 0x3C41, 0x4D0E, 0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D)
__CRT_UUID_DECL(IHoardexNotify, 0x6E2F0B6C, 0x3C41, 0x4D0E, 0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D)
#endif

/* Exports, to be had with GetProcAddress or run with rundll32. They take nothing and return nothing; the log says how
 * it went. Not from DllMain: they call COM, which they initialise for themselves where the caller has not;
 * an apartment that the caller has chosen is left as it is. docs/registration.md says what they write where.
 *
 *   ZKHoardexAddProtocol         adds the current user's search root and its scope, unless it is there
 *   ZKHoardexRemoveProtocol      removes the current user's search root
 *   ZKHoardexRemoveAllProtocol   removes the search roots of all users
 *   UpdateWDSRegKeyForHX         refreshes the names of the item types and adds the current user's search root; on
 *                                systems before Windows Vista, the location of Windows Desktop Search instead
 *   DeleteWDSRegKeyForHX         takes away what UpdateWDSRegKeyForHX has put there and is still as it put it
 */
typedef void(STDAPICALLTYPE* HoardexRegistrationExport)(void);

#endif
