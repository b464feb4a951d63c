// Prints what registration makes of the Windows that it runs on. Started by os_version_test.cpp under names for which
// Wine shows this program other versions; those that it cannot show are given as "major.minor.type".
#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>

#include "module/core/HoardexPH.h"
#include "module/registration/DesktopSearch.h"
#include "module/registration/Exports.h"
#include "module/registration/HoardexCommon.h"
#include "tests/support/fake_index.h"
#include "tests/support/import_hook.h"
#include "tests/support/log_lines.h"
#include "tests/support/registry_tree.h"
#include "tests/support/scratch_registry.h"
#include "tests/support/system_faults.h"

namespace {

constexpr wchar_t kLocations[] = L"Software\\Microsoft\\Windows Desktop Search\\DS\\Views\\Locations\\";

void PrintLocation(const char* when) {
  RegistryTree tree;
  HKEY key;
  const std::wstring path = std::wstring(kLocations) + L"Tessary";
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    printf("%s: no location\n", when);
    return;
  }
  ReadRegistryTree(key, L"", tree);
  RegCloseKey(key);
  printf("%s: location", when);
  for (const auto& [name, value] : tree) {
    const std::string text = name.substr(2);
    const std::wstring wide(text.begin(), text.end());
    DWORD number = 0, size = sizeof(number);
    if (value[0] == '4') {
      RegGetValueW(HKEY_LOCAL_MACHINE, path.c_str(), wide.c_str(), RRF_RT_REG_DWORD, nullptr, &number, &size);
      printf(" %s=%lx", text.c_str(), number);
    } else {
      printf(" %s=%ls", text.c_str(),
             ScratchRegistry::GetString(HKEY_LOCAL_MACHINE, path.c_str(), wide.c_str()).c_str());
    }
  }
  puts("");
}

// Fails each registry call of an update and of a removal: what is then there of the location, and what is left when the
// same is done once more undisturbed.
void PrintFaults(LogLines& log) {
  constexpr DWORD kError = ERROR_NO_SYSTEM_RESOURCES;
  SystemFaults system;
  const RegistryTree before = ModuleHives();
  UpdateWDSRegKeyForHX();
  const RegistryTree updated = ModuleHives();
  int whole = 0, absent = 0, logged = 0, half = 0, wrong = 0;
  const auto fail = [&](int nth, void(STDAPICALLTYPE * run)()) {
    log.New();
    system.Arm(nth, kError, "Reg");
    run();
    system.Disarm();
    return !system.failed().empty();
  };
  const auto count_values = [](const RegistryTree& tree) {
    int count = 0;
    for (const auto& [name, value] : tree) count += name.find("Locations\\Tessary") != std::string::npos;
    return count;
  };
  for (int nth = 1;; ++nth) {
    DeleteWDSRegKeyForHX();
    if (!fail(nth, UpdateWDSRegKeyForHX)) break;
    const int values = count_values(ModuleHives());
    ++(values == 11 ? whole : values ? half : absent);
    for (const std::string& line : log.New())
      logged += line ==
                "HoardexPH:UpdateWDSRegKeyForHX() - Adding the registry key HKLM\\Software\\Microsoft\\Windows Desktop "
                "Search\\DS\\Views\\Locations\\Tessary failed, errorCode = 1450";
    UpdateWDSRegKeyForHX();
    wrong += ModuleHives() != updated;
  }
  printf("update: whole %d, absent %d, logged %d, half %d, wrong later %d\n", whole, absent, logged, half, wrong);
  int removals = 0;
  for (wrong = 0;; ++removals) {
    UpdateWDSRegKeyForHX();
    const bool failed = fail(removals + 1, DeleteWDSRegKeyForHX);
    DeleteWDSRegKeyForHX();
    wrong += ModuleHives() != before;
    if (!failed) break;
  }
  printf("removal: more than ten calls %d, wrong later %d\n", removals > 10, wrong);
}

void PrintSystem(LogLines& log) {
  for (const std::string& line : log.New())
    if (line.find("DetectOSVersion") != std::string::npos) puts(line.c_str());
  printf("Vista %d, Server 2008 %d\n", IsVistaOrLater(), IsServer2008OrLater());
}

}  // namespace

int main(int count, char** arguments) {
  using VersionHook = ZK_IMPORT_HOOK(GetVersionExW);
  std::optional<VersionHook> version;
  unsigned long major = 0, minor = 0;
  int type = 0, refusals = 0;
  if (count > 1 && sscanf(arguments[1], "%lu.%lu.%d", &major, &minor, &type) == 3)
    version.emplace([&](VersionHook::Real real, LPOSVERSIONINFOW info) -> BOOL {
      real(info);
      info->dwMajorVersion = major;
      info->dwMinorVersion = minor;
      reinterpret_cast<OSVERSIONINFOEXW*>(info)->wProductType = static_cast<BYTE>(type);
      return TRUE;
    });
  if (count > 1 && std::string(arguments[1]) == "refused once")
    version.emplace([&](VersionHook::Real real, LPOSVERSIONINFOW info) -> BOOL {
      if (refusals++) return real(info);
      SetLastError(ERROR_INVALID_PARAMETER);
      return FALSE;
    });

  const ScratchRegistry registry;
  module::SetInstance(GetModuleHandleW(nullptr));
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  {
    FakeIndex index;
    LogLines log;
    for (const wchar_t* other : {L"A", L"B", L"C"})
      ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE, (std::wstring(kLocations) + other).c_str(), L"Type", 9);
    if (count > 1 && std::string(arguments[1]) == "faults") {
      PrintFaults(log);
      return 0;
    }
    printf("before: Vista %d, Server 2008 %d\n", IsVistaOrLater(), IsServer2008OrLater());
    UpdateRegistryOnAttach();
    PrintSystem(log);
    PrintLocation("attach");
    if (refusals) {
      UpdateRegistryOnAttach();
      PrintSystem(log);
      PrintLocation("next attach");
    }
    // What was taken away meanwhile is there again after the next attach.
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kLocations) + L"Tessary").c_str());
    UpdateRegistryOnAttach();
    PrintLocation("attach again");
    printf("calls of the index: %zu\n", index.calls.size());
    UpdateWDSRegKeyForHX();
    PrintLocation("export");
    printf("roots: %zu\n", index.roots.size());
    ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE, (std::wstring(kLocations) + L"D").c_str(), L"Type", 9);
    UpdateWDSRegKeyForHX();
    PrintLocation("export again");
    printf("roots: %zu\n", index.roots.size());
    DeleteWDSRegKeyForHX();
    PrintLocation("removal");
    printf("roots: %zu, other locations: %d\n", index.roots.size(),
           ScratchRegistry::Exists(HKEY_LOCAL_MACHINE, (std::wstring(kLocations) + L"A").c_str()));
  }
  CoUninitialize();
}
