#include "index/text.h"

#include <gtest/gtest.h>

#include "index/record.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

TEST(Text, TerminalControlsAndMalformedBytesDoNotPass) {
  EXPECT_EQ(OneLine("a\x1b[31mred\x1b]0;title\x07 b"), "a[31mred]0;title b");
  EXPECT_EQ(OneLine("c1\xC2\x9B"
                    "2J next\xC2\x85line"),
            "c12J next line");
  EXPECT_EQ(OneLine("\xE2\x80\xAE"
                    "evil\xE2\x80\xAC gnp\x7f"),
            "evil gnp");
  EXPECT_EQ(OneLine("  two\r\n\tlines \n"), "two lines");
  EXPECT_EQ(OneLine("bad \xFF\xC0\x80 \xED\xA0\x80 cut \xE6\x9D"),
            "bad \uFFFD\uFFFD\uFFFD \uFFFD\uFFFD\uFFFD cut \uFFFD\uFFFD");
  EXPECT_EQ(OneLine(std::string_view("nul\0byte", 8)), "nulbyte");
  EXPECT_EQ(PrintableText("a\r\nb\rc\td\x1b[0m\n"), "a\nb\nc\td[0m\n");
}

TEST(Text, WidthsCountWideAndCombiningCharacters) {
  EXPECT_EQ(DisplayWidth("東京abc"), 7u);
  EXPECT_EQ(DisplayWidth("e\u0301"), 1u);
  EXPECT_EQ(Shorten("東京の会議", 7), "東京の…");
  EXPECT_EQ(Shorten("short", 5), "short");
  EXPECT_EQ(Grouped(1234567), "1,234,567");
  EXPECT_EQ(Grouped(-1000), "-1,000");
  EXPECT_EQ(Grouped(12), "12");
}

TEST(Urls, KindFollowsFromThePlace) {
  const std::string root = "zkoffline3x://{S-1-5-21-1}/default/", vault = root + "V:\\Tessary\\mail 2.db/";
  EXPECT_EQ(KindOfUrl(root), ItemKind::kRoot);
  EXPECT_EQ(KindOfUrl(vault), ItemKind::kVault);
  EXPECT_EQ(KindOfUrl(vault + "00AA/"), ItemKind::kFolder);
  EXPECT_EQ(KindOfUrl(vault + "00AA/BB[[12]].zkm"), ItemKind::kMessage);
  EXPECT_EQ(KindOfUrl(vault + "00AA/BB[[12]].zkm/CC/readme"), ItemKind::kAttachment);
  EXPECT_EQ(KindOfUrl(root + "V:\\Tessary\\mail.pst"), ItemKind::kUnknown);
  EXPECT_EQ(KindOfUrl("http://example.org/"), ItemKind::kUnknown);
  EXPECT_EQ(ChildKind(ItemKind::kMessage, vault + "00AA/BB[[12]].zkm/CC/inner.zkm"), ItemKind::kAttachment);
  EXPECT_EQ(VaultOfUrl(vault + "00AA/BB[[12]].zkm"), "mail 2");
  EXPECT_EQ(VaultOfUrl(root), "");
}

TEST(VaultNames, AreTokensAndWindowsFileNames) {
  EXPECT_EQ(SafeVaultName("Archive 2019"), "Archive 2019");
  EXPECT_EQ(SafeVaultName("a/b\\c:d*e?f\"g<h>i|j[k]"), "a_b_c_d_e_f_g_h_i_j_k_");
  EXPECT_EQ(SafeVaultName("old.DB.copy.zkm"), "old_db.copy_zkm");
  EXPECT_EQ(SafeVaultName("日本語の倉庫"), "日本語の倉庫");
  EXPECT_EQ(SafeVaultName("bad\xFF"), "bad_");
  EXPECT_EQ(SafeVaultName("dots... "), "dots");
  EXPECT_EQ(SafeVaultName("~dump-1-1"), "dump-1-1");
  EXPECT_EQ(SafeVaultName("CON"), "CON_");
  EXPECT_EQ(SafeVaultName("..."), "vault");
  EXPECT_LE(SafeVaultName(std::string(500, 'x')).size(), 100u);
}

TEST(Records, AttachmentsInheritFromTheirMailAndAreNoMails) {
  Record record = Record::FromJson({{"url", "u"},
                                    {"properties",
                                     {{"System.FileName", "plan.doc"},
                                      {"System.Kind", {"document", "email", "communication"}},
                                      {"System.Document.Manager", "Grace"}}},
                                    {"text", "body"}});
  const Document document = MakeDocument(
      record, ItemKind::kAttachment, {ItemKind::kMessage, "Inbox", "Subject", "Ann", "Bob", "2019-03-02T00:00:00Z"});
  EXPECT_EQ(document.title, "plan.doc");
  EXPECT_EQ(document.sender, "Ann");
  EXPECT_EQ(document.recipients, "Bob");
  EXPECT_EQ(document.path, "Inbox");
  EXPECT_EQ(document.date, "2019-03-02T00:00:00Z");
  EXPECT_EQ(document.kinds, ";attachment;document;");
  EXPECT_EQ(document.details, "Grace");
}

TEST(Records, AnItemWithoutAnythingIsAFailure) {
  EXPECT_TRUE(Record::FromJson({{"url", "u"}, {"kind", "message"}}).error);
  EXPECT_FALSE(Record::FromJson({{"url", "u"}, {"properties", {{"System.Size", 1}}}}).error);
  const Record record =
      Record::FromJson({{"url", "u"},
                        {"error", {{"step", "BindToFilter"}, {"code", "0x80004005"}, {"name", "E_FAIL"}}},
                        {"links", {1, {{"url", 2}}, {{"url", "x"}}}},
                        {"size", "big"},
                        {"text", 7}});
  EXPECT_EQ(record.error->Describe(), "BindToFilter: E_FAIL (0x80004005)");
  EXPECT_EQ(record.links.size(), 1u);
  EXPECT_FALSE(record.size);
}

}  // namespace
}  // namespace hoardex
