#include "module/registration/HoardexCommon.h"

#include <windows.h>

#include <atomic>

#include "module/core/RegistryKey.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/resource.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexCommon";

// Flags of the process; every thread that detects finds the same.
std::atomic<bool> g_detected = false;
std::atomic<bool> g_vista = false;
std::atomic<bool> g_server2008 = false;

struct Rule {
  DWORD major;
  int minor;  // -1 any
  bool later_too;
  bool workstation;
  std::atomic<bool>* flag;
  const wchar_t* line;
};
constexpr Rule kRules[] = {
    {6, -1, true, true, &g_vista, L"DetectOSVersion() - Windows Vista detected"},
    {6, -1, true, false, &g_server2008, L"DetectOSVersion() - Windows Server 2008 detected"},
    {5, 1, false, true, nullptr, L"DetectOSVersion() - Windows XP detected"},
    {5, 2, false, false, nullptr, L"DetectOSVersion() - Windows Server 2003 detected"},
};

struct ItemType {
  const wchar_t* name;  // the key
  UINT display_name;    // the string resource
};
constexpr ItemType kItemTypes[] = {
    {L"MAPI/ZK.Message", IDS_TYPE_MESSAGE}, {L"MAPI/ZK.Appointment", IDS_TYPE_APPOINTMENT},
    {L"MAPI/ZK.Task", IDS_TYPE_TASK},       {L"MAPI/ZK.Contact", IDS_TYPE_CONTACT},
    {L"MAPI/ZK.Note", IDS_TYPE_NOTE},
};
constexpr wchar_t kFriendlyName[] = L"FriendlyTypeName";

}  // namespace

bool DetectOSVersion() {
  if (g_detected) return true;
  OSVERSIONINFOEXW version = {};
  version.dwOSVersionInfoSize = sizeof(version);
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version))) {
    ZK_LOG(L"DetectOSVersion() - GetVersionEx failed, errorCode: %d", GetLastError());
    return false;
  }
  const bool workstation = version.wProductType == VER_NT_WORKSTATION;
  const Rule* detected = nullptr;
  for (const Rule& rule : kRules) {
    const bool major = rule.later_too ? version.dwMajorVersion >= rule.major : version.dwMajorVersion == rule.major;
    const bool minor = rule.minor < 0 || version.dwMinorVersion == static_cast<DWORD>(rule.minor);
    if (!detected && major && minor && rule.workstation == workstation) detected = &rule;
  }
  if (detected && detected->flag) *detected->flag = true;
  // After the flags: whoever finds it set finds them. Of threads that come here together one logs; none waits, since
  // the loader's lock may be held.
  if (g_detected.exchange(true)) return true;
  ZK_LOG(L"DetectOSVersion() - MajorVer = %d, MinorVer = %d, Type = %s", version.dwMajorVersion, version.dwMinorVersion,
         workstation ? L"WORKSTATION" : L"SERVER");
  if (detected) ZK_LOG(L"%s", detected->line);
  return true;
}

bool IsVistaOrLater() {
  return g_vista;
}
bool IsServer2008OrLater() {
  return g_server2008;
}

void UpdateTYItemTypeInReg() {
  for (const ItemType& type : kItemTypes) {
    const std::wstring display_name = text::Resource(type.display_name);
    RegistryKey key;
    LONG error = key.Open(HKEY_CLASSES_ROOT, type.name, KEY_READ | KEY_WRITE);
    if (error != ERROR_SUCCESS) error = key.Create(HKEY_CLASSES_ROOT, type.name);
    if (error != ERROR_SUCCESS) {
      ZK_LOG(L"UpdateTYItemTypeInReg() - Failed to access %s registry key under HKEY_CLASSES_ROOT, errorCode = %ld",
             type.name, error);
      continue;
    }
    ZK_LOG(L"UpdateTYItemTypeInReg() --- TY ItemType [%s] ---", type.name);
    if (display_name.empty()) continue;
    error = key.EnsureString(kFriendlyName, display_name);
    ZK_LOG(L"UpdateTYItemTypeInReg() Set '%s' registry value, returnCode = %ld", kFriendlyName, error);
  }
}

void RemoveTYItemTypeFromReg() {
  for (const ItemType& type : kItemTypes) {
    RegistryKey key;
    LONG error = key.Open(HKEY_CLASSES_ROOT, type.name, KEY_READ | KEY_WRITE);
    if (error == ERROR_FILE_NOT_FOUND) continue;
    wchar_t name[256] = {};
    // A name that another product has put there stays.
    if (error == ERROR_SUCCESS && key.ReadString(kFriendlyName, name) == ERROR_SUCCESS &&
        text::Resource(type.display_name) == name)
      error = RegDeleteValueW(key.get(), kFriendlyName);
    if (error == ERROR_SUCCESS && key.IsEmpty()) error = RegDeleteKeyW(HKEY_CLASSES_ROOT, type.name);
    if (error != ERROR_SUCCESS)
      ZK_LOG(L"DeleteWDSRegKeyForHX() - Failed to clear %s registry key under HKEY_CLASSES_ROOT, errorCode = %ld",
             type.name, error);
  }
}
