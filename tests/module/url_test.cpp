#include <gtest/gtest.h>

#include <random>

#include "module/core/HoardexURL.h"

namespace {

const std::wstring kRoot = L"zkoffline3x://{S-1-5-21-1-2-3-1001}/default/";
const std::wstring kVault = kRoot + L"C:\\Users\\ann\\vault1.db";

TEST(ItemUrl, IsClassifiedByItsTokens) {
  struct Case {
    std::wstring url;
    CHoardexURL::Kind kind;
  };
  const Case cases[] = {
      {L"ZKOFFLINE3X://S-1-5-21-1-2-3-4/DEFAULT/", CHoardexURL::kRoot},
      {L"zkoffline3x://S-1/default", CHoardexURL::kRoot},
      {L"zkoffline3x://S-1//default//", CHoardexURL::kRoot},
      {L" \t" + kRoot + L"\r\n ", CHoardexURL::kRoot},
      {L"zkoffline3x://S-1/other/x.db", CHoardexURL::kUnknown},
      {L"zkoffline3x://S-1/default/x.pst", CHoardexURL::kUnknown},
      {L"file://S-1/default/x.db", CHoardexURL::kUnknown},
      {L"zkoffline3x:S-1/default/x.db", CHoardexURL::kUnknown},
      {L"", CHoardexURL::kUnknown},
      {L"://", CHoardexURL::kUnknown},
      {kVault, CHoardexURL::kVaultFile},
      {kVault + L"/", CHoardexURL::kVaultFile},
      {kRoot + L"C:\\V.DB", CHoardexURL::kVaultFile},
      {kVault + L"/ABCD", CHoardexURL::kFolder},
      {kVault + L"/ABCD/", CHoardexURL::kFolder},
      {kVault + L"/ABCD[[12]].zkm", CHoardexURL::kMessage},
      {kVault + L"/AB/ABCD[[12]].ZKM", CHoardexURL::kMessage},
      // The name alone decides: without a dot it reads as a folder, in ".zkm" as a message.
      {kVault + L"/ABCD[[12]].zkm/0011/readme", CHoardexURL::kFolder},
      {kVault + L"/ABCD[[12]].zkm/0011/notes.txt", CHoardexURL::kAttachment},
      {kVault + L"/ABCD[[12]].zkm/0011/copy.zkm", CHoardexURL::kMessage},
  };
  for (const Case& c : cases) EXPECT_EQ(CHoardexURL(c.url).kind(), c.kind) << std::string(c.url.begin(), c.url.end());
}

TEST(ItemUrl, GivesTheNameOfAttachmentsOnly) {
  std::wstring name = L"left over";
  GetAttachmentNameFromURL(kVault + L"/ABCD[[12]].zkm/0011/Ünï code.txt", name);
  EXPECT_EQ(name, L"Ünï code.txt");
  for (const std::wstring& other : {kVault + L"/ABCD[[12]].zkm", kVault, kRoot, std::wstring()}) {
    name = L"left over";
    GetAttachmentNameFromURL(other, name);
    EXPECT_EQ(name, L"");
  }
}

TEST(ItemUrl, NormalisesTheVaultPathAndNothingElse) {
  struct Case {
    std::wstring in, out;
  };
  const Case cases[] = {
      {kRoot + L"C:/Users/ann/x.db/AB/CD.zkm/01/a.txt", kRoot + L"C:\\Users\\ann\\x.db/AB/CD.zkm/01/a.txt"},
      {L"zkoffline3x://S/DEFAULT/C:/a/X.DB/AB", L"zkoffline3x://S/DEFAULT/C:\\a\\X.DB/AB"},
      {kRoot + L"C:/no/vault", kRoot + L"C:/no/vault"},
      {kVault + L"/AB", kVault + L"/AB"},
      {L"", L""},
      {L"default/", L"default/"},
  };
  for (const Case& c : cases) EXPECT_EQ(url::Normalise(c.in), c.out);
}

TEST(ItemUrl, TakesTheSizeOutAndFindsAnAttachmentsMessage) {
  EXPECT_EQ(url::WithoutSize(kVault + L"/AB[[4096]].zkm"), kVault + L"/AB.zkm");
  EXPECT_EQ(url::WithoutSize(kVault + L"/AB[[4096.zkm"), kVault + L"/AB[[4096.zkm");
  EXPECT_EQ(url::MessageOfAttachment(kVault + L"/AB[[1]].zkm/01/b.zkm.txt"), kVault + L"/AB[[1]].zkm");
  EXPECT_EQ(url::Child(kRoot, L"x"), kRoot + L"x");
  EXPECT_EQ(url::Child(kVault, L"AB"), url::Child(kVault + L"/", L"AB"));
}

// What is built from parts splits into the same parts, and normalising is idempotent, whatever characters come.
TEST(ItemUrl, RoundTripsWhatItBuilds) {
  std::mt19937 random(7);
  const std::wstring alphabet = L"ab.:[]{}\\\x3b1\xd83d\xde00 %?#zkmdb";
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::wstring> parts;
    std::wstring built = kVault;
    for (unsigned i = random() % 5; i; --i) {
      std::wstring part;
      for (unsigned n = 1 + random() % 12; n; --n) part += alphabet[random() % alphabet.size()];
      parts.push_back(part);
      built = url::Child(built, part);
    }
    std::vector<std::wstring> tokens;
    ASSERT_EQ(ExtractURLTokens(built, tokens), static_cast<int>(4 + parts.size()));
    EXPECT_TRUE(std::equal(parts.begin(), parts.end(), tokens.begin() + 4));
    const std::wstring once = url::Normalise(built);
    EXPECT_EQ(url::Normalise(once), once);
    EXPECT_NE(CHoardexURL(built).kind(), CHoardexURL::kUnknown);
  }
}

}  // namespace
