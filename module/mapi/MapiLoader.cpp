#include "module/mapi/MapiLoader.h"

#include <cstring>
#include <iterator>

#include "module/core/Text.h"

namespace {

constexpr char kMailClientKey[] = "Software\\Clients\\Mail\\Microsoft Outlook";

// The entry points that have a wrapper.
decltype(&mapi::MAPIAllocateBuffer) pfnMAPIAllocateBuffer;
decltype(&mapi::MAPIAllocateMore) pfnMAPIAllocateMore;
decltype(&mapi::MAPIFreeBuffer) pfnMAPIFreeBuffer;
decltype(&mapi::HrGetOneProp) pfnHrGetOneProp;
decltype(&mapi::FreeProws) pfnFreeProws;
decltype(&mapi::OpenIMsgOnIStg) pfnOpenIMsgOnIStg;
decltype(&mapi::MAPIGetDefaultMalloc) pfnMAPIGetDefaultMalloc;
decltype(&mapi::CloseIMsgSession) pfnCloseIMsgSession;
decltype(&mapi::OpenIMsgSession) pfnOpenIMsgSession;
decltype(&mapi::HrQueryAllRows) pfnHrQueryAllRows;
decltype(&mapi::HexFromBin) pfnHexFromBin;
decltype(&mapi::MAPIInitialize) pfnMAPIInitialize;
decltype(&mapi::MAPIUninitialize) pfnMAPIUninitialize;
decltype(&mapi::MAPILogonEx) pfnMAPILogonEx;
decltype(&mapi::MAPIAdminProfiles) pfnMAPIAdminProfiles;

// Those that a provider must export too, although nothing calls them.
FARPROC pfnPpropFindProp, pfnScDupPropset, pfnScCountProps, pfnScCopyProps, pfnHrSetOneProp, pfnFreePadrlist,
    pfnLPropCompareProp, pfnWrapStoreEntryID, pfnCreateIProp, pfnCreateTable, pfnHrValidateParameters,
    pfnBuildDisplayTable, pfnHrValidateIPMSubtree, pfnHrDispatchNotifications, pfnUlRelease, pfnOpenTnefStreamEx,
    pfnOpenStreamOnFile, pfnMAPIOpenFormMgr, pfnRTFSync, pfnWrapCompressedRTFStream, pfnMAPIOpenLocalFormContainer;

struct EntryPoint {
  void* pointer;  // address of the function pointer above
  const char* name;
};

#define ENTRY(name) \
  { &pfn##name, #name }
const EntryPoint kEntryPoints[] = {
    ENTRY(MAPIAllocateBuffer),
    ENTRY(MAPIAllocateMore),
    ENTRY(MAPIFreeBuffer),
    ENTRY(HrGetOneProp),
    ENTRY(FreeProws),
    ENTRY(PpropFindProp),
    ENTRY(ScDupPropset),
    ENTRY(ScCountProps),
    ENTRY(ScCopyProps),
    ENTRY(OpenIMsgOnIStg),
    ENTRY(MAPIGetDefaultMalloc),
    ENTRY(CloseIMsgSession),
    ENTRY(OpenIMsgSession),
    ENTRY(HrQueryAllRows),
    ENTRY(HrSetOneProp),
    ENTRY(FreePadrlist),
    ENTRY(LPropCompareProp),
    ENTRY(WrapStoreEntryID),
    ENTRY(CreateIProp),
    ENTRY(CreateTable),
    ENTRY(HrValidateParameters),
    ENTRY(BuildDisplayTable),
    ENTRY(HrValidateIPMSubtree),
    ENTRY(HrDispatchNotifications),
    ENTRY(UlRelease),
    ENTRY(HexFromBin),
    ENTRY(MAPIInitialize),
    ENTRY(MAPIUninitialize),
    ENTRY(OpenTnefStreamEx),
    ENTRY(OpenStreamOnFile),
    ENTRY(MAPIOpenFormMgr),
    ENTRY(RTFSync),
    ENTRY(WrapCompressedRTFStream),
    ENTRY(MAPILogonEx),
    ENTRY(MAPIAdminProfiles),
    ENTRY(MAPIOpenLocalFormContainer),
};
#undef ENTRY
static_assert(std::size(kEntryPoints) == 36);

// Function pointers of every type have one size and form here, so each is stored as its bytes.
bool IsSet(const EntryPoint& entry) {
  FARPROC value;
  memcpy(&value, entry.pointer, sizeof(value));
  return value != nullptr;
}
void Store(const EntryPoint& entry, FARPROC value) {
  memcpy(entry.pointer, &value, sizeof(value));
}

// The raw bytes of a value of the mail client's key with two NULs behind them, so that whoever reads them as a list of
// strings finds its end; empty when key or value is absent or begins with a NUL.
std::string ReadMailClientValue(const char* name) {
  HKEY key;
  if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kMailClientKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return {};
  std::string data;
  DWORD size = 0;
  if (RegQueryValueExA(key, name, nullptr, nullptr, nullptr, &size) == ERROR_SUCCESS && size) {
    data.resize(size);
    if (RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(data.data()), &size) != ERROR_SUCCESS)
      size = 0;
    data.resize(size);
    if (!*data.c_str()) data.clear();
    if (!data.empty()) data.append(2, '\0');
  }
  RegCloseKey(key);
  return data;
}

HMODULE LoadFromSystemFolder(const wchar_t* file_name) {
  wchar_t path[MAX_PATH];
  const UINT length = GetSystemDirectoryW(path, MAX_PATH);
  if (!length || length + 1 + wcslen(file_name) >= MAX_PATH) return nullptr;
  wcscat(path, L"\\");
  wcscat(path, file_name);
  return LoadLibraryW(path);
}

// Asks the system's MAPI stub where the component of the mail client lies.
std::wstring FindComponent(const std::string& component) {
  HMODULE stub = LoadFromSystemFolder(L"mapi32.dll");
  if (!stub) stub = LoadFromSystemFolder(L"mapistub.dll");
  if (!stub) return {};
  using GetComponentPath = BOOL(STDMETHODCALLTYPE*)(LPSTR, LPSTR, LPSTR, DWORD, BOOL);
  std::wstring path;
  const FARPROC address = GetProcAddress(stub, "FGetComponentPath");
  if (address) {
    GetComponentPath get_path;
    memcpy(&get_path, &address, sizeof(get_path));
    const auto ask = [&](const std::string* qualifier) {
      char buffer[261] = {};
      // Of the qualifier, the look-up reads the strings behind the first one, too.
      std::string id = component, name = qualifier ? *qualifier : std::string();
      if (get_path(id.data(), qualifier ? name.data() : nullptr, buffer, sizeof(buffer), FALSE) == 1) {
        buffer[sizeof(buffer) - 1] = 0;
        path = text::Widen(buffer);
      }
    };
    for (const char* value : {"MSIApplicationLCID", "MSIOfficeLCID"}) {
      const std::string qualifier = ReadMailClientValue(value);
      if (path.empty() && !qualifier.empty()) ask(&qualifier);
    }
    if (path.empty()) ask(nullptr);
  }
  FreeLibrary(stub);
  return path;
}

std::wstring FindProvider() {
  std::wstring path;
  const std::string component = ReadMailClientValue("MSIComponentID");
  if (!component.empty()) path = FindComponent(component);
  if (path.empty()) path = text::Widen(ReadMailClientValue("DLLPathEx").c_str());
  return path;
}

HMODULE LoadProvider() {
  if (HMODULE loaded = GetModuleHandleW(L"olmapi32.dll")) return loaded;
  const std::wstring path = FindProvider();
  return path.empty() ? nullptr : LoadLibraryW(path.c_str());
}

}  // namespace

CMapiLoader::CMapiLoader() {
  Load();
}

void CMapiLoader::Load() {
  CriticalSection::Guard guard(lock_);
  if (loaded_) return;
  const HMODULE provider = LoadProvider();
  if (!provider) {
    last_error_ = "Unable to acquire MAPI Handle - '" + std::to_string(GetLastError()) + "'";
    return;
  }
  for (const EntryPoint& entry : kEntryPoints) {
    if (IsSet(entry)) continue;
    const FARPROC address = GetProcAddress(provider, entry.name);
    if (!address) {
      last_error_ = std::string("MAPI function '") + entry.name + "' not located\n";
      Reset();
      return;
    }
    Store(entry, address);
  }
  loaded_ = true;
}

void CMapiLoader::Reset() {
  CriticalSection::Guard guard(lock_);
  for (const EntryPoint& entry : kEntryPoints) Store(entry, nullptr);
  loaded_ = false;
}

namespace mapi {

SCODE MAPIAllocateBuffer(ULONG size, LPVOID* buffer) {
  return pfnMAPIAllocateBuffer ? pfnMAPIAllocateBuffer(size, buffer) : E_NOINTERFACE;
}
SCODE MAPIAllocateMore(ULONG size, LPVOID parent, LPVOID* buffer) {
  return pfnMAPIAllocateMore ? pfnMAPIAllocateMore(size, parent, buffer) : E_NOINTERFACE;
}
ULONG MAPIFreeBuffer(LPVOID buffer) {
  return buffer && pfnMAPIFreeBuffer ? pfnMAPIFreeBuffer(buffer) : 0;
}
HRESULT HrGetOneProp(LPMAPIPROP object, ULONG tag, LPSPropValue* value) {
  return pfnHrGetOneProp ? pfnHrGetOneProp(object, tag, value) : E_NOINTERFACE;
}
void FreeProws(LPSRowSet rows) {
  if (pfnFreeProws) pfnFreeProws(rows);
}
SCODE OpenIMsgOnIStg(LPMSGSESS session, LPALLOCATEBUFFER allocate, LPALLOCATEMORE more, LPFREEBUFFER free,
                     LPMALLOC malloc, LPVOID support, LPSTORAGE storage, MSGCALLRELEASE* released, ULONG caller_data,
                     ULONG flags, LPMESSAGE* message) {
  return pfnOpenIMsgOnIStg ? pfnOpenIMsgOnIStg(session, allocate, more, free, malloc, support, storage, released,
                                               caller_data, flags, message)
                           : E_NOINTERFACE;
}
LPMALLOC MAPIGetDefaultMalloc() {
  return pfnMAPIGetDefaultMalloc ? pfnMAPIGetDefaultMalloc() : nullptr;
}
void CloseIMsgSession(LPMSGSESS session) {
  if (pfnCloseIMsgSession) pfnCloseIMsgSession(session);
}
SCODE OpenIMsgSession(LPMALLOC malloc, ULONG flags, LPMSGSESS* session) {
  return pfnOpenIMsgSession ? pfnOpenIMsgSession(malloc, flags, session) : E_NOINTERFACE;
}
HRESULT HrQueryAllRows(LPMAPITABLE table, LPSPropTagArray columns, LPSRestriction restriction, LPSSortOrderSet order,
                       LONG max_rows, LPSRowSet* rows) {
  return pfnHrQueryAllRows ? pfnHrQueryAllRows(table, columns, restriction, order, max_rows, rows) : E_NOINTERFACE;
}
void HexFromBin(LPBYTE bytes, int count, char* text) {
  if (pfnHexFromBin) pfnHexFromBin(bytes, count, text);
}
HRESULT MAPIInitialize(LPVOID init) {
  return pfnMAPIInitialize ? pfnMAPIInitialize(init) : E_NOINTERFACE;
}
void MAPIUninitialize() {
  if (pfnMAPIUninitialize) pfnMAPIUninitialize();
}
HRESULT MAPILogonEx(ULONG_PTR window, LPTSTR profile, LPTSTR password, ULONG flags, LPMAPISESSION* session) {
  return pfnMAPILogonEx ? pfnMAPILogonEx(window, profile, password, flags, session) : E_NOINTERFACE;
}
HRESULT MAPIAdminProfiles(ULONG flags, LPPROFADMIN* admin) {
  return pfnMAPIAdminProfiles ? pfnMAPIAdminProfiles(flags, admin) : E_NOINTERFACE;
}

}  // namespace mapi
