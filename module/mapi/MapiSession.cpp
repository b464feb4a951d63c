// Life of a vault session: MAPI initialised, session on a temporary profile, PST service, store; and the way back.
#include <comdef.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "module/core/HoardexURL.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/mapi/MapiForWDS.h"
#include "module/mapi/StoreHeader.h"
#include "platform/critical_section.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";
constexpr HRESULT kPathTooLong = HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
constexpr size_t kMaxVaultPath = 1023;   // what the service's file name property is given room for
constexpr DWORD kLongestLogon = 30'000;  // milliseconds to wait for another process's

using url::kVaultToken;

// Held while a temporary profile exists: the clean-up of one session would delete the profile that another, in this or
// any other process of the logon session, is about to log on to. A process that ended while it held the lock is no
// reason to wait, and one that holds it for too long none to have no session.
class ProfileLock {
 public:
  explicit ProfileLock(CriticalSection& of_process)
      : process_(of_process), mutex_(CreateMutexW(nullptr, FALSE, L"Local\\Hoardex.TemporaryProfiles")) {
    const DWORD waited = mutex_ ? WaitForSingleObject(mutex_, kLongestLogon) : WAIT_FAILED;
    owned_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
    if (!owned_)
      ZK_LOG(L"CMapiForWDS::CreateMapiSession() - Waiting for the sessions of other processes failed [0x%08lX]",
             waited == WAIT_TIMEOUT ? waited : GetLastError());
  }
  ~ProfileLock() {
    if (owned_) ReleaseMutex(mutex_);
    if (mutex_) CloseHandle(mutex_);
  }
  ProfileLock(const ProfileLock&) = delete;
  ProfileLock& operator=(const ProfileLock&) = delete;

 private:
  const CriticalSection::Guard process_;
  const HANDLE mutex_;
  bool owned_ = false;
};

LPTSTR Ansi(const char* text) {
  return reinterpret_cast<LPTSTR>(const_cast<char*>(text));
}

// The path in the ANSI code page: exactly, or not at all.
HRESULT ToCodePage(const std::wstring& path, char (&narrow)[kMaxVaultPath + 1]) {
  const bool exact = GetACP() == CP_UTF8;  // takes neither flag nor answer
  BOOL replaced = FALSE;
  const int length = WideCharToMultiByte(CP_ACP, exact ? 0 : WC_NO_BEST_FIT_CHARS, path.c_str(), -1, narrow,
                                         static_cast<int>(std::size(narrow)), nullptr, exact ? nullptr : &replaced);
  if (!length) return GetLastError() == ERROR_INSUFFICIENT_BUFFER ? kPathTooLong : E_INVALIDARG;
  return replaced ? HRESULT_FROM_WIN32(ERROR_NO_UNICODE_TRANSLATION) : S_OK;
}

// A call that succeeds but hands nothing out has failed.
template <class Pointer>
HRESULT Checked(HRESULT hr, const Pointer& out) {
  return SUCCEEDED(hr) && !out ? E_FAIL : hr;
}

// Logs what a MAPI object says of its last failure.
template <class Interface>
void LogExtendedError(Interface* object, HRESULT failure) {
  LPMAPIERROR raw = nullptr;
  const HRESULT hr = object->GetLastError(failure, MAPI_UNICODE, &raw);
  if (FAILED(hr) || !raw) {
    ZK_LOG(L"GetLastError failed with [0x%08lX]", hr);
    return;
  }
  const auto wide = [](LPTSTR text) { return text ? reinterpret_cast<const wchar_t*>(text) : L""; };
  ZK_LOG(L"GetLastError error is [%s]", wide(raw->lpszError));
  ZK_LOG(L"GetLastError component is [%s]", wide(raw->lpszComponent));
  ZK_LOG(L"GetLastError code is [%ld]", raw->ulLowLevelError);
  mapi::MAPIFreeBuffer(raw);
}

// Whether the name was made by text::UniqueName, by this or any other process.
bool IsTemporaryProfile(const char* name) {
  unsigned long thread, high, low, ticks;
  unsigned long long counter;
  return sscanf(name, ZK_UNIQUE_NAME_FORMAT, &thread, &high, &low, &ticks, &counter) == 5;
}

}  // namespace

CMapiForWDS::~CMapiForWDS() {
  mapi::MAPIFreeBuffer(store_entry_id_);
}

HRESULT CMapiForWDS::Setup(const std::wstring& item_url) {
  std::vector<std::wstring> tokens;
  const int count = ExtractURLTokens(item_url, tokens);
  if (count > static_cast<int>(kVaultToken) && tokens[kVaultToken].size() > kMaxVaultPath) {
    // Refused before anything is opened: the service's property has room for no more.
    ZK_LOG(L"CMapiForWDS::Setup() - Vault file path is too long [0x%08lX]", kPathTooLong);
    return kPathTooLong;
  }
  HRESULT hr = EnableMAPI();
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::Setup() - EnableMAPI failed with [0x%08lX]", hr);
    return hr;
  }
  hr = CreateMapiSession();
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::Setup() - CreateMapiSession failed with [0x%08lX]", hr);
    return hr;
  }
  hr = AddService();
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::Setup() - AddService failed with [0x%08lX]", hr);
    return hr;
  }
  if (count <= 0) {
    ZK_LOG(L"CMapiForWDS::Setup() - ExtractURLTokens failed");
    return E_FAIL;
  }
  if (count <= static_cast<int>(kVaultToken)) return S_OK;  // no vault file, no store: lenient on purpose
  hr = OpenPST(tokens[kVaultToken]);
  if (FAILED(hr)) ZK_LOG(L"CMapiForWDS::Setup() - OpenPST failed with [0x%08lX]", hr);
  return FAILED(hr) ? hr : S_OK;
}

HRESULT CMapiForWDS::EnableMAPI() {
  if (mapi_init_count_) return S_OK;
  MAPIINIT_0 init = {MAPI_INIT_VERSION, MAPI_MULTITHREAD_NOTIFICATIONS | MAPI_NO_COINIT};
  const HRESULT hr = mapi::MAPIInitialize(&init);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::EnableMAPI() - MAPIInitialize return value [0x%08lX]", hr);
    return hr;
  }
  ++mapi_init_count_;
  return S_OK;
}

HRESULT CMapiForWDS::CreateMapiSession() {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() - MAPI not initialized");
    return E_FAIL;
  }
  if (session_count_) return S_OK;
  Microsoft::WRL::ComPtr<IProfAdmin> admin;
  HRESULT hr = mapi::MAPIAdminProfiles(0, &admin);
  hr = Checked(hr, admin);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() - MAPIAdminProfiles failed [0x%08lX]", hr);
    return hr;
  }
  const ProfileLock lock(LogonLock());
  ZK_LOG(L"CMapiForWDS::CreateMapiSession() - Calling DeleteOldProfiles");
  hr = DeleteOldProfiles(admin.Get());
  ZK_LOG(L"CMapiForWDS::CreateMapiSession() - Called DeleteOldProfiles");
  if (FAILED(hr)) ZK_LOG(L"CMapiForWDS::CreateMapiSession() - Deletion of old profiles failed [0x%08lX]", hr);

  const std::string name = text::UniqueName();
  admin->DeleteProfile(Ansi(name.c_str()), 0);
  hr = admin->CreateProfile(Ansi(name.c_str()), nullptr, 0, 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() - CreateProfile of [%s] failed with [0x%08lX]",
           text::Widen(name.c_str()).c_str(), hr);
    LogExtendedError(admin.Get(), hr);
    return hr;
  }
  hr = mapi::MAPILogonEx(0, Ansi(name.c_str()), nullptr, MAPI_EXTENDED | MAPI_NEW_SESSION | MAPI_NO_MAIL, &session_);
  hr = Checked(hr, session_);
  // At once, whatever the logon gave: the profile then disappears with the session.
  const HRESULT deleted = admin->DeleteProfile(Ansi(name.c_str()), 0);
  if (FAILED(deleted))
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() - Second DeleteProfile failed with [0x%08lX]", deleted);
  if (FAILED(hr)) {
    session_.Reset();
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() MAPILogonEx failed with [0x%08lX]", hr);
    return hr;
  }
  hr = admin->AdminServices(Ansi(name.c_str()), nullptr, 0, 0, &service_admin_);
  hr = Checked(hr, service_admin_);
  if (FAILED(hr)) {
    service_admin_.Reset();
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() AdminServices failed with [0x%08lX]", hr);
    return hr;
  }
  ++session_count_;
  return S_OK;
}

HRESULT CMapiForWDS::DeleteOldProfiles(IProfAdmin* admin) {
  Microsoft::WRL::ComPtr<IMAPITable> table;
  HRESULT hr = admin->GetProfileTable(0, &table);
  hr = Checked(hr, table);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::CreateMapiSession() - IMAPITable::GetProfileTable failed [0x%08lX]", hr);
    return hr;
  }
  SizedSPropTagArray(1, columns) = {1, {PR_DISPLAY_NAME_A}};
  TidyRowSet rows;
  hr = mapi::HrQueryAllRows(table.Get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 0, &rows);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::DeleteOldProfiles - GetProfileTable QueryRows failed [0x%08lX]", hr);
    return hr;
  }
  for (ULONG i = 0; i < rows.rows(); ++i) {
    const SPropValue* cell = rows.cell(i, 0, PR_DISPLAY_NAME_A);
    if (!cell || !cell->Value.lpszA || !IsTemporaryProfile(cell->Value.lpszA)) continue;
    const std::wstring shown = text::Widen(cell->Value.lpszA);
    ZK_LOG(L"CMapiForWDS::DeleteOldProfiles() - Profile '%s' found ", shown.c_str());
    hr = admin->DeleteProfile(Ansi(cell->Value.lpszA), 0);
    if (FAILED(hr)) {
      ZK_LOG(L"CMapiForWDS::DeleteOldProfiles - DeleteProfile of old '%s' profile failed [0x%08lX]", shown.c_str(), hr);
      return hr;
    }
    ZK_LOG(L"CMapiForWDS::DeleteOldProfiles - PROFILE Deleted '%s'", shown.c_str());
  }
  return S_OK;
}

HRESULT CMapiForWDS::AddService() {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::AddService() - MAPI not initialized");
    return E_FAIL;
  }
  if (service_count_) return S_OK;
  HRESULT hr = service_admin_->CreateMsgService(Ansi("MSUPST MS"), Ansi("ZK_HX_PH"), 0, 0);
  ZK_LOG(L"CMapiForWDS::AddService() - Unicode CreateMsgService returned with [0x%08lX]", hr);
  if (FAILED(hr)) {
    unicode_store_ = FALSE;
    hr = service_admin_->CreateMsgService(Ansi("MSPST MS"), Ansi("ZK_HX_PH"), 0, 0);
    ZK_LOG(L"CMapiForWDS::AddService() - ANSI CreateMsgService returned with [0x%08lX]", hr);
    if (FAILED(hr)) return hr;
  }
  Microsoft::WRL::ComPtr<IMAPITable> table;
  hr = service_admin_->GetMsgServiceTable(0, &table);
  hr = Checked(hr, table);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::AddService() - GetMsgServiceTable failed with [0x%08lX]", hr);
    return hr;
  }
  SizedSPropTagArray(1, columns) = {1, {PR_SERVICE_UID}};
  TidyRowSet rows;
  hr = mapi::HrQueryAllRows(table.Get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 1, &rows);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::AddService() - GetMsgServiceTable failed with [0x%08lX]", hr);
    return hr;
  }
  // The profile is new and holds only this service, so its one row is ours.
  if (rows.rows() != 1 || rows.row(0).cValues != 1) {
    ZK_LOG(L"CMapiForWDS::AddService() - Number of rows inconsistent with expectations");
    return E_FAIL;
  }
  const SPropValue& uid = rows.row(0).lpProps[0];
  if (PROP_TYPE(uid.ulPropTag) == PT_ERROR) {
    ZK_LOG(L"CMapiForWDS::AddService() - Property tag not correct [0x%08lX]", uid.Value.err);
    return uid.Value.err;
  }
  if (!Carries(uid, PR_SERVICE_UID) || uid.Value.bin.cb < sizeof(service_uid_)) {
    ZK_LOG(L"CMapiForWDS::AddService() - Property tag not as expected");
    return E_FAIL;
  }
  memcpy(&service_uid_, uid.Value.bin.lpb, sizeof(service_uid_));
  ++service_count_;
  return S_OK;
}

HRESULT CMapiForWDS::ConfigurePST(const std::wstring& path) {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::ConfigurePST() - MAPI not initialized");
    return E_FAIL;
  }
  wchar_t wide[kMaxVaultPath + 1] = {};
  char narrow[kMaxVaultPath + 1] = {};
  SPropValue value = {};
  if (unicode_store_) {
    ZK_LOG(L"CMapiForWDS::ConfigurePST() - PR_PST_FILENAME_W");
    wcsncpy(wide, path.c_str(), kMaxVaultPath);
    value.ulPropTag = PR_PST_FILENAME_W;
    value.Value.lpszW = wide;
  } else {
    ZK_LOG(L"CMapiForWDS::ConfigurePST() - PR_PST_FILENAME");
    // What is cut, or replaced by what looks alike, would name another file.
    const HRESULT fits = ToCodePage(path, narrow);
    if (FAILED(fits)) {
      ZK_LOG(L"CMapiForWDS::ConfigurePST() - Vault file path cannot be given in the code page [0x%08lX]", fits);
      return fits;
    }
    value.ulPropTag = PR_PST_FILENAME_A;
    value.Value.lpszA = narrow;
  }
  // The service would make a store of what is none, over the file that is there.
  HRESULT hr = CheckStoreHeader(path);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::ConfigurePST() - ConfigureMsgService failed with [0x%08lX]", hr);
    return hr;
  }
  hr = service_admin_->ConfigureMsgService(&service_uid_, 0, 0, 1, &value);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::ConfigurePST() - ConfigureMsgService failed with [0x%08lX]", hr);
    LogExtendedError(service_admin_.Get(), hr);
  }
  return hr;
}

HRESULT CMapiForWDS::CacheStoreEntryID() {
  Microsoft::WRL::ComPtr<IMAPITable> table;
  HRESULT hr = session_->GetMsgStoresTable(0, &table);
  hr = Checked(hr, table);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - GetMsgStoresTable failed with [0x%08lX]", hr);
    return hr;
  }
  SizedSPropTagArray(1, columns) = {1, {PR_ENTRYID}};
  TidyRowSet rows;
  hr = mapi::HrQueryAllRows(table.Get(), reinterpret_cast<LPSPropTagArray>(&columns), nullptr, nullptr, 1, &rows);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - HrQueryAllRows on MsgStore table failed with [0x%08lX]", hr);
    return hr;
  }
  if (rows.rows() != 1 || rows.row(0).cValues != 1) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - Number of rows and columns in rowset and row are not as expected");
    return E_FAIL;
  }
  const SPropValue& id = rows.row(0).lpProps[0];
  if (PROP_TYPE(id.ulPropTag) == PT_ERROR) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - Property tag not correct, error is [0x%08lX]", id.Value.err);
    return id.Value.err;
  }
  if (!Carries(id, PR_ENTRYID)) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - Property tag not as expected");
    return E_FAIL;
  }
  LPVOID copy = nullptr;
  hr = mapi::MAPIAllocateBuffer(id.Value.bin.cb, &copy);
  hr = Checked(hr, copy);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - MAPIAllocateBuffer for entry ID failed with [0x%08lX]", hr);
    return E_OUTOFMEMORY;
  }
  memcpy(copy, id.Value.bin.lpb, id.Value.bin.cb);
  store_entry_id_ = static_cast<LPENTRYID>(copy);
  store_entry_id_size_ = id.Value.bin.cb;
  return S_OK;
}

HRESULT CMapiForWDS::OpenPST(const std::wstring& path) {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - MAPI not initialized");
    return E_FAIL;
  }
  if (store_count_) return S_OK;
  HRESULT hr = ConfigurePST(path);
  if (FAILED(hr)) return hr;
  if (!store_entry_id_ && !store_entry_id_size_) {
    hr = CacheStoreEntryID();
    if (FAILED(hr)) return hr;
  }
  hr = session_->OpenMsgStore(0, store_entry_id_size_, store_entry_id_, nullptr, MDB_NO_MAIL | MAPI_BEST_ACCESS,
                              &store_);
  hr = Checked(hr, store_);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::OpenPST() - OpenMsgStore failed with [0x%08lX]", hr);
  } else {
    ++store_count_;
  }
  return hr;
}

HRESULT CMapiForWDS::ClosePST() {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::ClosePST() - MAPI not initialized");
    return E_FAIL;
  }
  if (!store_count_) return S_OK;
  HRESULT hr = S_FALSE;
  if (store_) {
    store_.Reset();
    mapi::MAPIFreeBuffer(store_entry_id_);
    store_entry_id_ = nullptr;
    store_entry_id_size_ = 0;
    hr = S_OK;
  }
  --store_count_;
  return hr;
}

HRESULT CMapiForWDS::RemoveService() {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::RemoveService() - MAPI not initialized");
    return E_FAIL;
  }
  if (!service_count_) return S_OK;
  if (!service_admin_) return E_NOINTERFACE;
  const HRESULT hr = service_admin_->DeleteMsgService(&service_uid_);
  service_uid_ = {};
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::RemoveService() - DeleteMsgService failed with [0x%08lX]", hr);
  } else {
    --service_count_;
  }
  return hr;
}

HRESULT CMapiForWDS::CloseMAPISession() {
  if (!mapi_init_count_) {
    ZK_LOG(L"CMapiForWDS::CloseMAPISession() - MAPI not initialized");
    return E_FAIL;
  }
  if (!session_count_ || !session_) return S_OK;
  try {
    const HRESULT hr = session_->Logoff(0, 0, 0);
    session_.Reset();
    service_admin_.Reset();
    --session_count_;
    return hr;
  } catch (const _com_error& error) {
    ZK_LOG(L"CMapiForWDS::CloseMAPISession() - Exception with error [0x%08X]", error.Error());
  } catch (...) {
    ZK_LOG(L"CMapiForWDS::CloseMAPISession() - Exception occurred");
  }
  return E_FAIL;
}

void CMapiForWDS::Teardown() {
  if (store_count_) ClosePST();
  if (service_count_) RemoveService();
  if (session_count_) CloseMAPISession();
  if (!mapi_init_count_) return;
  mapi::MAPIUninitialize();
  --mapi_init_count_;
}
