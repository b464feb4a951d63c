// What registration writes into a registry that others use too, and that nothing is left of it.
#include <algorithm>

#include "module/registration/Exports.h"
#include "module/shell/GroupPolicy.h"
#include "tests/module/registration_fixture.h"
#include "tests/support/registry_tree.h"

STDAPI DllRegisterServer();
STDAPI DllUnregisterServer();

namespace {

constexpr wchar_t kClass[] = L"{6E2F0B6A-3C41-4D0E-9A57-2B80C164E71D}";
constexpr wchar_t kSearch[] = L"Software\\Microsoft\\Windows Search";
constexpr wchar_t kCurrent[] = L"Software\\Microsoft\\Windows\\CurrentVersion";

// Other products' values and keys at every place that the module shares with them, and some in its own.
void FillWithOthers() {
  const std::wstring search = kSearch, current = kCurrent;
  // clang-format off
  const std::wstring shared[] = {
      L"Software", L"Software\\Microsoft", search, search + L"\\Gather", search + L"\\Gather\\Windows",
       search + L"\\Gather\\Windows\\SystemIndex", search + L"\\Gather\\Windows\\SystemIndex\\Protocols",
       search + L"\\ProtocolHandlers", current, current + L"\\Explorer", current + L"\\Explorer\\Desktop",
       current + L"\\Explorer\\Desktop\\NameSpace", current + L"\\Explorer\\HideDesktopIcons",
       current + L"\\Explorer\\HideDesktopIcons\\NewStartPanel",
       current + L"\\Explorer\\HideDesktopIcons\\ClassicStartMenu", current + L"\\Shell Extensions",
       current + L"\\Shell Extensions\\Approved"
  };
  // clang-format on
  for (const std::wstring& key : shared) {
    ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, key.c_str(), L"other", L"theirs");
    ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, key.c_str(), nullptr, L"their text");
    ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE, (key + L"\\Other").c_str(), L"number", 7);
  }
  for (const wchar_t* key : {L"CLSID", L"TypeLib", L"Interface", L"zkoffline3xtra", L"HoardexPH3x.HoardexSP.2"})
    ScratchRegistry::SetString(HKEY_CLASSES_ROOT, key, L"other", L"theirs");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"CLSID\\{00000000-0000-0000-0000-000000000007}", nullptr, L"Theirs");
  // In keys of the module's own that go only when they are empty.
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"HoardexPH3x.HoardexSP", L"added", L"by another");
  ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE,
                            (search + L"\\Gather\\Windows\\SystemIndex\\Protocols\\zkoffline3x").c_str(), L"added", 1);
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"MAPI/ZK.Task", L"FriendlyTypeName", L"Their own name");
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"MAPI/ZK.Note", L"added", L"by another");
}

class Hive : public RegistrationTest {};

// Filters of other threads go by the old policy until the new one is complete.
TEST_F(Hive, ShowsEachPolicyWholeHoweverItIsReadAgain) {
  const std::wstring policy = L"Software\\Policies\\Microsoft\\Windows\\Windows Search";
  const auto set = [&](DWORD prevent, const wchar_t* types) {
    ScratchRegistry::SetDword(HKEY_LOCAL_MACHINE, policy.c_str(), L"PreventIndexingEmailAttachments", prevent);
    ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, policy.c_str(), L"ExcludedExtensionsMultiline0", types);
  };
  set(1, L"DOC");
  DetectWDSGroupPolicy();
  const auto is = [](bool prevents, const wchar_t* key) {
    return CurrentGroupPolicy()->AttachmentsPrevented() == prevents && CurrentGroupPolicy()->Excludes(key);
  };
  EXPECT_TRUE(is(true, L"doc;"));
  set(0, L"zip");
  int seen = 0, whole = 0;
  {
    const ZK_IMPORT_HOOK(RegQueryValueExW) query([&](auto real, auto... arguments) {
      ++seen, whole += is(true, L"doc;");
      return real(arguments...);
    });
    DetectWDSGroupPolicy();
  }
  EXPECT_GT(seen, 4);
  EXPECT_EQ(whole, seen);
  EXPECT_TRUE(is(false, L"zip;"));
}

TEST_F(Hive, IsWhatItWasAfterRegistrationAndItsRemoval) {
  FillWithOthers();
  const RegistryTree before = ModuleHives();
  ASSERT_EQ(DllRegisterServer(), S_OK);
  const RegistryTree registered = ModuleHives();
  EXPECT_GT(registered.size(), before.size() + 30);
  for (const auto& [name, value] : before) EXPECT_EQ(registered.at(name), value) << name << " is another's";
  ASSERT_EQ(DllRegisterServer(), S_OK);
  EXPECT_EQ(ModuleHives(), registered) << "registering again changes nothing";
  EXPECT_EQ(DllUnregisterServer(), S_OK);
  EXPECT_EQ(ModuleHives(), before);
  EXPECT_EQ(DllUnregisterServer(), S_OK) << "nothing to take away is no failure";
  EXPECT_EQ(ModuleHives(), before);
}

TEST_F(Hive, LosesTheNamesOfTheItemTypesAndTheUsersRootOnRemoval) {
  FillWithOthers();
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"MAPI/ZK.Task", L"FriendlyTypeName", L"Tessary Task");
  RegDeleteKeyW(HKEY_CLASSES_ROOT, L"MAPI/ZK.Task");
  const RegistryTree before = ModuleHives();
  ASSERT_EQ(DllRegisterServer(), S_OK);
  UpdateWDSRegKeyForHX();
  EXPECT_EQ(index().roots, std::vector{Wide(UserRoot())});
  const auto name = [](const wchar_t* type) {
    return ScratchRegistry::GetString(HKEY_CLASSES_ROOT, type, L"FriendlyTypeName");
  };
  EXPECT_EQ(name(L"MAPI/ZK.Message"), L"Tessary E-Mail Message");
  EXPECT_EQ(name(L"MAPI/ZK.Appointment"), L"Tessary Appointment");
  EXPECT_EQ(name(L"MAPI/ZK.Task"), L"Tessary Task");
  EXPECT_EQ(name(L"MAPI/ZK.Contact"), L"Tessary Contact");
  EXPECT_EQ(name(L"MAPI/ZK.Note"), L"Tessary Note");
  // One name is another product's by now, and stays.
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"MAPI/ZK.Contact", L"FriendlyTypeName", L"Theirs");
  EXPECT_EQ(DllUnregisterServer(), S_OK);
  EXPECT_TRUE(index().roots.empty());
  EXPECT_EQ(name(L"MAPI/ZK.Contact"), L"Theirs");
  RegDeleteKeyW(HKEY_CLASSES_ROOT, L"MAPI/ZK.Contact");
  EXPECT_EQ(ModuleHives(), before);
}

TEST_F(Hive, IsUntouchedByARegistrationThatFailsAnywhere) {
  FillWithOthers();
  // An older registration, whose data must come back.
  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, (std::wstring(kSearch) + L"\\ProtocolHandlers").c_str(),
                             L"zkoffline3x", L"Older.Handler");
  ScratchRegistry::SetDword(HKEY_CLASSES_ROOT, (std::wstring(L"CLSID\\") + kClass + L"\\ShellFolder").c_str(),
                            L"Attributes", 5);
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, L"TypeLib\\{6E2F0B69-3C41-4D0E-9A57-2B80C164E71D}\\1.0", nullptr,
                             L"older");
  const RegistryTree before = ModuleHives();
  constexpr DWORD kError = ERROR_NO_SYSTEM_RESOURCES;
  SystemFaults system;
  int nth = 1;
  for (;; ++nth) {
    system.Arm(nth, kError);
    const HRESULT hr = DllRegisterServer();
    system.Disarm();
    if (system.failed().empty()) break;
    SCOPED_TRACE(std::to_string(nth) + " " + system.failed());
    EXPECT_EQ(hr, HRESULT_FROM_WIN32(kError));
    const RegistryTree after = ModuleHives();
    ASSERT_EQ(after, before);
  }
  EXPECT_GT(nth, 60) << "calls";
  EXPECT_NE(ModuleHives(), before);
}

TEST_F(Hive, IsUntouchedWhenTheTypeLibraryIsRefusedAfterItWasWritten) {
  FillWithOthers();
  const RegistryTree before = ModuleHives();
  RegistryTree written;
  {
    ZK_IMPORT_HOOK(LoadTypeLibEx)
    late([&](auto real, LPCOLESTR file, REGKIND kind, ITypeLib** library) -> HRESULT {
      EXPECT_EQ(real(file, kind, library), S_OK);
      if (kind != REGKIND_REGISTER) return S_OK;
      (*library)->Release();
      *library = nullptr;
      written = ModuleHives();
      return TYPE_E_REGISTRYACCESS;
    });
    EXPECT_EQ(DllRegisterServer(), TYPE_E_REGISTRYACCESS);
  }
  EXPECT_TRUE(written.count("HKCR\\TypeLib\\{6E2F0B69-3C41-4D0E-9A57-2B80C164E71D}\\1.0"));
  EXPECT_EQ(ModuleHives(), before);
}

TEST_F(Hive, IsClearedOfTheRestWhenOneStepOfRemovalFails) {
  FillWithOthers();
  const RegistryTree before = ModuleHives();
  ASSERT_EQ(DllRegisterServer(), S_OK);
  SystemFaults system;
  system.Arm(1, ERROR_ACCESS_DENIED, "SHDeleteKeyW");  // the namespace's key
  EXPECT_EQ(DllUnregisterServer(), E_ACCESSDENIED);
  system.Disarm();
  const std::string kept = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\Desktop\\NameSpace\\";
  for (const auto& [name, value] : ModuleHives()) EXPECT_TRUE(before.count(name) || name.rfind(kept, 0) == 0) << name;
  // A library that is there and stays is a failure, though not the first when the script had one before.
  using LibraryHook = ZK_IMPORT_HOOK(UnRegisterTypeLib);
  {
    const LibraryHook refuse([](LibraryHook::Real, auto...) -> HRESULT { return TYPE_E_REGISTRYACCESS; });
    ASSERT_EQ(DllRegisterServer(), S_OK);
    EXPECT_EQ(DllUnregisterServer(), TYPE_E_REGISTRYACCESS);
    ASSERT_EQ(DllRegisterServer(), S_OK);
    system.Arm(1, ERROR_ACCESS_DENIED, "RegDeleteValueW");
    EXPECT_EQ(DllUnregisterServer(), E_ACCESSDENIED);
    system.Disarm();
  }
  EXPECT_EQ(DllUnregisterServer(), S_OK);
  EXPECT_EQ(ModuleHives(), before);
}

TEST_F(Hive, RefusesItemTypesOneByOneAndTheLogSaysWhich) {
  SystemFaults system;
  const std::string line = "HoardexCommon:UpdateTYItemTypeInReg() ";
  const auto results = [&] {
    std::vector<std::string> lines = log_.New();
    std::erase_if(lines, [](const std::string& text) { return text.find("returnCode") == std::string::npos; });
    return lines;
  };
  // Neither opened nor made: the row is left out, the next is done.
  log_.New();
  system.Arm(1, ERROR_ACCESS_DENIED, "RegCreateKeyExW");
  UpdateWDSRegKeyForHX();
  system.Disarm();
  std::vector<std::string> lines = log_.New();
  std::erase_if(lines, [](const std::string& text) { return text.rfind("HoardexCommon:UpdateTY", 0) != 0; });
  ASSERT_EQ(lines.size(), 9u);
  EXPECT_EQ(lines[0], line + "- Failed to access MAPI/ZK.Message registry key under HKEY_CLASSES_ROOT, errorCode = 5");
  EXPECT_EQ(lines[1], line + "--- TY ItemType [MAPI/ZK.Appointment] ---");
  EXPECT_EQ(lines[2], line + "Set 'FriendlyTypeName' registry value, returnCode = 0");
  EXPECT_EQ(lines[3], line + "--- TY ItemType [MAPI/ZK.Task] ---");
  EXPECT_EQ(lines[5], line + "--- TY ItemType [MAPI/ZK.Contact] ---");
  EXPECT_EQ(lines[7], line + "--- TY ItemType [MAPI/ZK.Note] ---");
  // A value that cannot be set is only logged. Only what differs is written: here a name of another type, a shorter and
  // a longer one, and one that is not there.
  const auto name = [](const wchar_t* type, const wchar_t* text) {
    ScratchRegistry::SetString(HKEY_CLASSES_ROOT, type, L"FriendlyTypeName", text);
  };
  ScratchRegistry::SetDword(HKEY_CLASSES_ROOT, L"MAPI/ZK.Appointment", L"FriendlyTypeName", 1);
  name(L"MAPI/ZK.Task", L"Tessary Tas");
  name(L"MAPI/ZK.Contact", L"Tessary Contacts");
  system.Arm(2, ERROR_ACCESS_DENIED, "RegSetValueExW");
  UpdateWDSRegKeyForHX();
  system.Disarm();
  EXPECT_EQ(std::count(system.calls().begin(), system.calls().end(), "RegSetValueExW"), 4);
  lines = results();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1], line + "Set 'FriendlyTypeName' registry value, returnCode = 5");
  EXPECT_EQ(lines[2], line + "Set 'FriendlyTypeName' registry value, returnCode = 0");
  // What was refused is made up for, and the log looks the same where everything stands.
  UpdateWDSRegKeyForHX();
  const RegistryTree whole = ModuleHives();
  results();
  system.Arm(1000, ERROR_ACCESS_DENIED);
  UpdateWDSRegKeyForHX();
  system.Disarm();
  EXPECT_EQ(std::count(system.calls().begin(), system.calls().end(), "RegSetValueExW"), 0);
  EXPECT_EQ(results(), std::vector<std::string>(5, line + "Set 'FriendlyTypeName' registry value, returnCode = 0"));
  EXPECT_EQ(ModuleHives(), whole);
}

}  // namespace
