#include "module/registration/HoardexCommon.h"

#include <windows.h>

#include <atomic>

#include "module/core/SCLog.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexCommon";

// Flags of the process; written once, by whichever thread detects first.
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

}  // namespace

void DetectOSVersion() {
  if (g_detected) return;
  OSVERSIONINFOEXW version = {};
  version.dwOSVersionInfoSize = sizeof(version);
  if (!GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&version))) {
    ZK_LOG(L"DetectOSVersion() - GetVersionEx failed, errorCode: %d", GetLastError());
    return;
  }
  g_detected = true;
  const bool workstation = version.wProductType == VER_NT_WORKSTATION;
  ZK_LOG(L"DetectOSVersion() - MajorVer = %d, MinorVer = %d, Type = %s", version.dwMajorVersion, version.dwMinorVersion,
         workstation ? L"WORKSTATION" : L"SERVER");
  for (const Rule& rule : kRules) {
    const bool major = rule.later_too ? version.dwMajorVersion >= rule.major : version.dwMajorVersion == rule.major;
    const bool minor = rule.minor < 0 || version.dwMinorVersion == static_cast<DWORD>(rule.minor);
    if (!major || !minor || rule.workstation != workstation) continue;
    if (rule.flag) *rule.flag = true;
    ZK_LOG(L"%s", rule.line);
    return;
  }
}

bool IsVistaOrLater() {
  return g_vista;
}
bool IsServer2008OrLater() {
  return g_server2008;
}
