#include <gtest/gtest.h>

#include <set>

#include "module/core/AppDataFolder.h"
#include "module/core/Text.h"
#include "module/protocol/TemporaryFile.h"

namespace {

TEST(TemporaryFile, MakesHostileNamesSafeAndKeepsTheExtension) {
  struct Case {
    std::wstring in, out;
  };
  const Case cases[] = {
      {L"report.pdf", L"report.pdf"},
      {L"..\\..\\evil.exe", L".._.._evil.exe"},
      {L"/etc/passwd", L"_etc_passwd"},
      {L"a:b*c?d\"e<f>g|h.txt", L"a_b_c_d_e_f_g_h.txt"},
      {L"new\nline\x01.txt", L"new_line_.txt"},
      {L"trailing. . ", L"trailing____"},
      {L"NUL", L"_NUL"},
      {L"com1.txt", L"_com1.txt"},
      {L"aux .log", L"_aux .log"},
      {L"console.txt", L"console.txt"},
      {L"invoice\x202Excod.exe", L"invoice_xcod.exe"},
      {L"\x3b1\x3b2.txt", L"\x3b1\x3b2.txt"},
      {L"", L""},
      {L"...", L"___"},
  };
  for (const Case& c : cases) EXPECT_EQ(SafeFileName(c.in, 100), c.out);
  const std::wstring cut = SafeFileName(std::wstring(300, L'x') + L".docx", 40);
  EXPECT_EQ(cut, std::wstring(35, L'x') + L".docx");
  EXPECT_EQ(SafeFileName(L"a" + std::wstring(50, L'.') + L"\xd83d\xde00" + std::wstring(50, L'b'), 52).size(), 51u);
}

TEST(TemporaryFile, LandsInTheModulesFolderWhateverTheName) {
  const std::wstring folder = AppDataFolder() + L"\\";
  std::set<std::wstring> seen;
  for (const wchar_t* name :
       {L"a.txt", L"a.txt", L"..\\..\\..\\windows\\a.txt", L"C:\\a.txt", L"\\\\host\\share\\a.txt"}) {
    const std::wstring path = TemporaryFilePath(L"80250000", name);
    EXPECT_EQ(path.rfind(folder, 0), 0u);
    EXPECT_EQ(path.find(L'\\', folder.size()), std::wstring::npos);
    EXPECT_TRUE(seen.insert(path).second);
  }
  EXPECT_LT(TemporaryFilePath(std::wstring(500, L'A'), std::wstring(5000, L'n') + L".txt").size(), size_t{MAX_PATH});
}

TEST(UniqueName, HasTheFormThatOldProfilesAreKnownBy) {
  unsigned long a, b, c, d;
  unsigned long long e;
  const std::string name = text::UniqueName();
  EXPECT_EQ(sscanf(name.c_str(), ZK_UNIQUE_NAME_FORMAT, &a, &b, &c, &d, &e), 5) << name;
  EXPECT_EQ(a, GetCurrentThreadId());
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  EXPECT_EQ(b, now.dwHighDateTime);
}

}  // namespace
