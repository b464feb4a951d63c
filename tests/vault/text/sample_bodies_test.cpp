// Messages of real stores that hold their body in two forms: the plain one judges what is made of the other.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "tests/support/iconv_code_pages.h"
#include "vault/store.h"
#include "vault/text/body.h"

namespace vault::text {
namespace {

std::set<std::u16string> WordsOf(std::u16string_view text) {
  std::set<std::u16string> words;
  std::u16string word;
  const auto end = [&] {
    if (word.size() >= 3) words.insert(word);
    word.clear();
  };
  for (const char16_t c : text) {
    const bool letter = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c >= 0xC0;
    const bool punctuation = c >= 0x2000 && c < 0x2070;
    if (letter && !punctuation) {
      word += c;
    } else {
      end();
    }
  }
  end();
  return words;
}

struct Tally {
  int html = 0, rtf = 0;
  std::size_t words = 0, missing = 0;
  void Judge(const std::set<std::u16string>& expected, std::u16string_view made, const std::string& what) {
    const auto found = WordsOf(made);
    std::size_t absent = 0;
    std::string sample;
    for (const auto& word : expected) {
      if (found.contains(word)) continue;
      ++absent;
      if (sample.size() < 200) sample += Utf8FromUtf16(word) + " ";
    }
    words += expected.size();
    missing += absent;
    // A link's address stands in the plain form only.
    EXPECT_LE(absent, expected.size() / 3 + 4) << what << " lacks: " << sample;
  }
};

void JudgeMessage(const Message& message, const std::string& name, Tally& tally) {
  const test::IconvCodePages pages;
  const PropertySet& properties = message.properties();
  const auto plain = properties.Text(prop::kBody);
  const std::string what = name + " message " + std::to_string(message.nid());
  const auto expected = plain ? WordsOf(*plain) : std::set<std::u16string>();
  if (const auto html = properties.Binary(0x1013)) {
    const auto page = properties.Int(prop::kInternetCodepage).value_or(0);
    const auto text = TextOfHtml(*html, static_cast<unsigned>(page), pages);
    EXPECT_EQ(text.find(u"<html"), std::u16string::npos) << what;
    if (!expected.empty()) ++tally.html, tally.Judge(expected, text, what + " HTML");
  }
  if (const auto rtf = properties.Binary(0x1009)) {
    const auto text = TextOfCompressedRtf(*rtf, pages);
    ASSERT_TRUE(text.has_value()) << what;
    EXPECT_EQ(text->find(u"\\par"), std::u16string::npos) << what;
    if (!expected.empty()) ++tally.rtf, tally.Judge(expected, *text, what + " RTF");
  }
  for (const Nid nid : message.AttachmentNids()) {
    const Attachment attachment = message.OpenAttachment(nid);
    if (attachment.method() == AttachMethod::kEmbedded)
      JudgeMessage(attachment.OpenEmbedded(), name + " embedded", tally);
  }
}

TEST(SampleBodies, MadeTextHasTheWordsOfThePlainBody) {
  const char* folder = std::getenv("HOARDEX_SAMPLES");
  if (!folder || !std::filesystem::exists(folder)) GTEST_SKIP() << "no sample stores (HOARDEX_SAMPLES)";
  Tally tally;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (entry.path().extension() != ".pst" || name == "bad-header.pst") continue;
    const auto store = Store::Open(entry.path());
    for (auto cursor = store->Nodes(); cursor.Next();) {
      if (!cursor.error() && TypeOf(cursor.node().nid) == NidType::kMessage && cursor.node().data) {
        JudgeMessage(store->OpenMessage(cursor.node().nid), name, tally);
      }
    }
  }
  EXPECT_GT(tally.html, 20);
  EXPECT_GT(tally.rtf, 100);
  EXPECT_LT(tally.missing * 50, tally.words) << tally.missing << " of " << tally.words;
  RecordProperty("html", tally.html);
  RecordProperty("rtf", tally.rtf);
}

}  // namespace
}  // namespace vault::text
