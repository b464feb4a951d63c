// Registration on every Windows: the version is emulated for a copy of os_probe under a name of its own.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "tests/support/child_process.h"

namespace {

// A copy of the probe for which Wine shows the version.
class Probe {
 public:
  explicit Probe(const std::wstring& version) {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    const std::wstring folder(path, std::wstring(path).rfind(L'\\') + 1);
    const std::wstring name = L"os_probe_" + (version.empty() ? L"default" : version) + L".exe";
    path_ = folder + name;
    CopyFileW((folder + L"os_probe.exe").c_str(), path_.c_str(), FALSE);
    if (version.empty()) return;
    key_ = L"Software\\Wine\\AppDefaults\\" + name;
    RegSetKeyValueW(HKEY_CURRENT_USER, key_.c_str(), L"Version", REG_SZ, version.c_str(),
                    static_cast<DWORD>((version.size() + 1) * sizeof(wchar_t)));
  }
  ~Probe() {
    DeleteFileW(path_.c_str());
    if (!key_.empty()) RegDeleteTreeW(HKEY_CURRENT_USER, key_.c_str());
  }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  std::string Run(const std::wstring& argument) const {
    const ChildResult result = RunChild(L"\"" + path_ + L"\" \"" + argument + L"\"", 30000);
    EXPECT_TRUE(result.ended);
    EXPECT_EQ(result.code, 0u);
    return result.output;
  }

 private:
  std::wstring path_, key_;
};

constexpr char kLocation[] =
    " location Icon=MSNLExtRes.dll,-160 Indent=0 ItemStore=30000001 Position=3 Separator=0 Title=Tessary Type=0"
    " TypeFilter=10000 Value=under:\"Tessary\" Visible=1\n";

// The older generation has the location and no root, the newer one the other way round.
std::string AfterAttach(bool older) {
  const std::string location = older ? kLocation : " no location\n", roots = older ? "roots: 0" : "roots: 1";
  return "attach again:" + location + "calls of the index: 0\nexport:" + location + roots +
         "\nexport again:" + location + roots + "\nremoval: no location\nroots: 0, other locations: 1\n";
}
std::string Report(const std::string& version_lines, const char* flags, bool older) {
  return "before: Vista 0, Server 2008 0\n" + version_lines + flags +
         "attach:" + (older ? kLocation : " no location\n") + AfterAttach(older);
}

TEST(OsVersion, DecidesWhatRegistrationWrites) {
#define DETECT "HoardexCommon:DetectOSVersion() - "
  constexpr char kNone[] = "Vista 0, Server 2008 0\n", kVista[] = "Vista 1, Server 2008 0\n",
                 kServer[] = "Vista 0, Server 2008 1\n";
  constexpr char kVistaLine[] = DETECT "Windows Vista detected\n",
                 kServerLine[] = DETECT "Windows Server 2008 detected\n";
  struct Case {
    const wchar_t* name;
    const wchar_t* emulated;
    const wchar_t* given;
    std::string numbers, detected;
    const char* flags;
    bool older;
  };
  // Wine 8 takes Windows 7 for its server, knows neither Windows 11 nor a server after 2008, and shows programs without
  // a manifest for them 6.2 from Windows 8.1 on, as Windows does; what hosts with a manifest see is given.
  const Case cases[] = {
      {L"XP", L"winxp", L"", "5, MinorVer = 1, Type = WORKSTATION", DETECT "Windows XP detected\n", kNone, true},
      {L"XP x64", L"winxp64", L"", "5, MinorVer = 2, Type = WORKSTATION", "", kNone, true},
      {L"2003", L"win2003", L"", "5, MinorVer = 2, Type = SERVER", DETECT "Windows Server 2003 detected\n", kNone,
       true},
      {L"Vista", L"vista", L"", "6, MinorVer = 0, Type = WORKSTATION", kVistaLine, kVista, false},
      {L"2008", L"win2008", L"", "6, MinorVer = 0, Type = SERVER", kServerLine, kServer, false},
      {L"7", L"", L"6.1.1", "6, MinorVer = 1, Type = WORKSTATION", kVistaLine, kVista, false},
      {L"10, no manifest", L"win10", L"", "6, MinorVer = 2, Type = WORKSTATION", kVistaLine, kVista, false},
      {L"10 and 11", L"", L"10.0.1", "10, MinorVer = 0, Type = WORKSTATION", kVistaLine, kVista, false},
      {L"2019", L"", L"10.0.3", "10, MinorVer = 0, Type = SERVER", kServerLine, kServer, false},
      {L"2000 domain controller", L"", L"5.0.2", "5, MinorVer = 0, Type = SERVER", "", kNone, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.name);
    EXPECT_EQ(Probe(c.emulated).Run(c.given),
              Report(DETECT "MajorVer = " + c.numbers + "\n" + c.detected, c.flags, c.older));
  }
}

TEST(OsVersion, IsAskedAgainWhenItWasRefused) {
  EXPECT_EQ(Probe(L"winxp").Run(L"refused once"),
            "before: Vista 0, Server 2008 0\n"
            "HoardexCommon:DetectOSVersion() - GetVersionEx failed, errorCode: 87\nVista 0, Server 2008 0\n"
            "attach: no location\n"
            "HoardexCommon:DetectOSVersion() - MajorVer = 5, MinorVer = 1, Type = WORKSTATION\n"
            "HoardexCommon:DetectOSVersion() - Windows XP detected\nVista 0, Server 2008 0\n"
            "next attach:" +
                std::string(kLocation) + AfterAttach(true));
}

// A location is there whole or not at all: the look for it, the key, the count (four locations and their end) and ten
// values can fail.
TEST(OsVersion, LeavesNoHalfLocationWhereTheRegistryRefuses) {
  const std::string output = Probe(L"winxp").Run(L"faults");
  EXPECT_NE(output.find("absent 18, logged 18, half 0, wrong later 0\n"), std::string::npos) << output;
  EXPECT_NE(output.find("removal: more than ten calls 1, wrong later 0\n"), std::string::npos) << output;
}

}  // namespace
