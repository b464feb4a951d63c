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
  const std::wstring misleading = kRoot + L"C:\\[[2019]].zkm\\v[[1]].zkm.db";
  EXPECT_EQ(url::SizeGroup(misleading), L"");
  EXPECT_EQ(url::MessageOfAttachment(misleading + L"/AB[[7]].zkm/01/b.txt"), misleading + L"/AB[[7]].zkm");
  EXPECT_EQ(url::WithoutSize(misleading + L"/AB[[7]].zkm/01/[[b]].txt"), misleading + L"/AB.zkm/01/[[b]].txt");
  EXPECT_EQ(url::Child(kRoot, L"x"), kRoot + L"x");
  EXPECT_EQ(url::Child(kVault, L"AB"), url::Child(kVault + L"/", L"AB"));
}

// Text over an alphabet of what the grammar gives a meaning, and what it does not expect.
class RandomText {
 public:
  std::wstring operator()(unsigned longest,
                          std::wstring_view alphabet = L"ab.:[]{}\\\x3b1\xd83d\xde00 %?#zkmdb\x1\x7f") {
    std::wstring text;
    for (unsigned n = 1 + Below(longest); n; --n) text += alphabet[Below(static_cast<unsigned>(alphabet.size()))];
    return text;
  }
  std::wstring Hex() { return (*this)(40, L"0123456789ABCDEF"); }
  unsigned Below(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }

 private:
  std::mt19937 random_{7};
};

// build -> classify -> tokenise -> rebuild, for items of every kind.
TEST(ItemUrl, RoundTripsWhatItBuilds) {
  RandomText random;
  for (int round = 0; round < 3000; ++round) {
    const auto kind = static_cast<CHoardexURL::Kind>(1 + round % 5);
    const std::wstring vault = L"C:\\" + random(30) + L".db", name = L"n" + random(20) + L".txt";
    const std::wstring message = random.Hex() + L"[[" + std::to_wstring(random.Below(1u << 31)) + L"]].zkm";
    std::vector<std::wstring> parts = {L"zkoffline3x", L"{S-1-5-" + random(8, L"0123456789-") + L"}", L"default"};
    std::wstring built = url::Root(parts[1].substr(1, parts[1].size() - 2));
    const auto add = [&](const std::wstring& part) {
      parts.push_back(part);
      built = url::Child(built, part);
    };
    if (kind >= CHoardexURL::kVaultFile) add(vault);
    if (kind >= CHoardexURL::kFolder)
      for (unsigned depth = 1 + random.Below(4); depth; --depth) add(random.Hex());
    if (kind >= CHoardexURL::kMessage) add(message);
    const std::wstring message_url = built;
    if (kind == CHoardexURL::kAttachment) add(random.Hex()), add(name);
    ASSERT_EQ(CHoardexURL(built).kind(), kind);

    std::vector<std::wstring> tokens = {L"left over"};
    ASSERT_EQ(ExtractURLTokens(built, tokens), static_cast<int>(parts.size()));
    ASSERT_EQ(tokens, parts);
    std::wstring rebuilt = tokens[0] + L"://" + tokens[1];
    for (size_t i = 2; i < tokens.size(); ++i) rebuilt = url::Child(rebuilt, tokens[i]);
    if (kind == CHoardexURL::kRoot) rebuilt += L"/";
    ASSERT_EQ(rebuilt, built);

    std::wstring attachment_name;
    GetAttachmentNameFromURL(built, attachment_name);
    EXPECT_EQ(attachment_name, kind == CHoardexURL::kAttachment ? name : std::wstring());
    // Nor do brackets and suffixes in the vault's path mislead.
    if (kind == CHoardexURL::kAttachment) {
      EXPECT_EQ(url::MessageOfAttachment(built), message_url);
    }
    if (kind == CHoardexURL::kMessage) {
      EXPECT_EQ(url::WithoutSize(built).size(), built.size() - (message.size() - message.find(L"[[") - 4));
    }
    // The path comes back from outside with other separators.
    std::wstring foreign = built;
    if (url::FindIgnoringCase(vault, L".db") == vault.size() - 3 && kind != CHoardexURL::kRoot) {
      const size_t begin = built.find(vault);
      for (size_t i = begin; i < begin + vault.size(); ++i)
        if (foreign[i] == L'\\') foreign[i] = L'/';
    }
    EXPECT_EQ(url::Normalise(foreign), built);
  }
}

}  // namespace
