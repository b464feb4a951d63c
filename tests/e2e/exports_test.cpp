// Items that leave as files, or are opened and printed: held against what independent readers find in them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <thread>

#include "tests/e2e/system.h"
#include "tests/support/sha256.h"
#include "vault/writer.h"

namespace {

using e2e::Json;
using e2e::Result;
using e2e::System;
using testing::HasSubstr;
namespace fs = std::filesystem;

class Exports : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(System::Trouble(), "");
    System::Clear();
    fs::remove_all(folder_);
  }

  // Exports in one form; returns {"url","file"} with whole paths.
  Json Export(const std::vector<std::string>& words, const std::string& format) {
    std::vector<std::string> all = {"export", "--json", "--format", format, "--to", (folder_ / format).string()};
    all.insert(all.end(), words.begin(), words.end());
    const Result done = System::Run(all);
    EXPECT_EQ(done.code, 0) << done.errors << done.output.substr(0, 3000);
    Json files = Json::array();
    const Json told = Json::parse(done.output);
    for (const Json& one : told["exported"])
      files.push_back({{"url", one["url"]}, {"file", (folder_ / format / one["file"].get<std::string>()).string()}});
    return files;
  }

  // All messages that the words find, in both forms, and what msgconvert makes of the .msg files, against what is
  // expected. Returns the last line of the comparison, or all it said when there are differences.
  std::string Compare(const std::vector<std::string>& words, const fs::path& expected) {
    Json exported = Export(words, "eml");
    for (const Json& one : Export(words, "msg")) exported.push_back(one);
    return CompareFiles(exported, expected);
  }

  std::string CompareFiles(const Json& exported, const fs::path& expected) {
    std::ofstream(folder_ / "exported.json") << exported;
    const fs::path converted = folder_ / "converted";
    fs::create_directories(converted);
    const std::string said =
        e2e::Output("cd '" + converted.string() + "' && msgconvert '" + (folder_ / "msg").string() + "'/*.msg");
    if (said.starts_with("status")) return said;
    return e2e::Output("/usr/bin/python3 '" SOURCE_FOLDER "/tests/e2e/compare_exports.py' '" + expected.string() +
                       "' '" + (folder_ / "exported.json").string() + "' '" + converted.string() + "'");
  }

  const fs::path folder_ = fs::absolute("e2e-exports");
};

TEST_F(Exports, EqualWhatIndependentReadersFindInRealStores) {
  const char* samples = getenv("HOARDEX_SAMPLES");
  if (!samples || !fs::exists(fs::path(samples) / "expected.json"))
    GTEST_SKIP() << "the real sample stores are not here (HOARDEX_SAMPLES)";
  System::Run({"index", samples});
  EXPECT_EQ(Compare({"vault:*", "-kind:attachment"}, fs::path(samples) / "expected.json"),
            "458 messages of 13 stores compared, 0 differences\n");
}

// Every script at once, in everything that has a name; and mails in mails.
constexpr char kSubject[] = "Встреча 会議について \U0001F4C5 naïve \U0001F468\u200D\U0001F469\u200D\U0001F467";
constexpr char kBody[] = "Добрый день, проба\r\n来週の会議 は東京で。\r\n\U0001F600 Grüße, probe\r\n";
constexpr char kContent[] = "Содержание 内容 \U0001F4CE\r\n";

Json Person(const char* name, const char* email, const char* type) {
  return {{"name", name}, {"email", email}, {"type", type}};
}

Json MessageFact(const Json& attachments) {
  return {
      {"class", "IPM.Note"},
      {"subject", kSubject},
      {"sender_name", "Иван Петров \U0001F58A"},
      {"sender_email", "ivan@example.com"},
      {"client_submit_time", "2023-11-05T06:07:08Z"},
      {"delivery_time", "2023-11-05T06:07:09Z"},
      {"recipients", {Person("山田 太郎", "taro@example.jp", "to"), Person("Zoë \U0001F98A", "zoe@example.org", "cc")}},
      {"body_from", "plain"},
      {"plain_body_chars", 49},
      {"body_probe", {"проба", "来週の会議", "\U0001F600", "probe"}},
      {"attachments", attachments}};
}

void Fill(vault::MessageBuilder& message, const std::string& subject) {
  message.Subject(subject)
      .From("Иван Петров \U0001F58A", "ivan@example.com")
      .To("山田 太郎", "taro@example.jp")
      .Cc("Zoë \U0001F98A", "zoe@example.org")
      .SubmitTime(vault::FileTime(2023, 11, 5, 6, 7, 8))
      .DeliveryTime(vault::FileTime(2023, 11, 5, 6, 7, 9))
      .Body(kBody);
}

TEST_F(Exports, KeepEveryScriptAndMailsInMails) {
  const std::vector<std::string> names = {"отчёт за март.txt", "会議メモ.txt", "\U0001F4F7 Foto übersicht.txt",
                                          "a;b=c.txt"};
  const std::string digest = test::Sha256Of({reinterpret_cast<const std::uint8_t*>(kContent), sizeof kContent - 1});
  vault::StoreBuilder store("Sprachen");
  auto& inbox = store.top().AddFolder("Входящие 受信");
  auto& message = inbox.AddMessage("IPM.Note");
  Fill(message, kSubject);
  Json files = Json::array(), nested;
  for (const std::string& name : names) {
    message.AttachFile(name, kContent);
    files.push_back({{"name", name}, {"data_bytes", sizeof kContent - 1}, {"sha256", digest}});
  }
  // Four levels, with a file in the innermost.
  auto& outer = inbox.AddMessage("IPM.Note");
  Fill(outer, kSubject);
  vault::MessageBuilder* level = &outer;
  for (int depth = 1; depth <= 4; ++depth) {
    level = &level->AttachMessage("IPM.Note");
    Fill(*level, "Уровень " + std::to_string(depth) + " 段階");
  }
  level->AttachFile(names[1], kContent);
  Json inside = {files[1]};
  for (int depth = 4; depth >= 1; --depth)
    inside = Json::array(
        {{{"embedded",
           {{"subject", "Уровень " + std::to_string(depth) + " 段階"}, {"body_chars", 49}, {"attachments", inside}}}}});
  store.Write(System::home() / "tongues.pst");
  ASSERT_EQ(System::Run({"index", System::home() / "tongues.pst"}).code, 0);

  Json facts = Json::array();
  const Json hits = Json::parse(System::Run({"search", "--json", "-kind:attachment vault:*"}).output)["hits"];
  for (const Json& hit : hits) {
    const std::string url = hit["url"];
    const size_t end = url.find("[[");
    unsigned node = 0;
    for (size_t i = 4; i-- > 0;) node = node << 8 | std::stoul(url.substr(end - 8 + 2 * i, 2), nullptr, 16);
    const bool is_outer = hit["properties"]["System.Message.AttachmentNames"] == Json() ||
                          hit["properties"].dump().find("メモ") == std::string::npos;
    Json fact = MessageFact(is_outer ? inside : files);
    fact["nid"] = node;
    facts.push_back(fact);
  }
  ASSERT_EQ(facts.size(), 2u);
  const fs::path expected = System::home() / "expected.json";
  std::ofstream(expected) << Json{{"files", {{"tongues.pst", {{"folders", {{{"messages", facts}}}}}}}}};
  EXPECT_EQ(Compare({"vault:*", "-kind:attachment"}, expected), "2 messages of 1 stores compared, 0 differences\n");

  // The attachments under their own names, with the mail's date.
  const Json attached = Export({"kind:attachment"}, "eml");
  std::set<std::string> found;
  for (const Json& one : attached) {
    const fs::path file = one["file"].get<std::string>();
    if (file.extension() != ".txt") continue;
    found.insert(file.filename());
    EXPECT_EQ(e2e::ReadFile(file), kContent) << file;
    const auto age = std::chrono::file_clock::to_sys(fs::last_write_time(file)).time_since_epoch();
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::seconds>(age).count(), 1699164429) << file;
  }
  EXPECT_EQ(found, std::set<std::string>(names.begin(), names.end()));
}

// Waits until a program that was started has written the file.
fs::path Arrived(const fs::path& folder) {
  for (int i = 0; i < 200; ++i) {
    if (fs::exists(folder))
      for (const auto& entry : fs::directory_iterator(folder)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        return entry.path();
      }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return {};
}

TEST_F(Exports, OpenAndPrintHandTheRightFileOver) {
  ASSERT_EQ(System::Run({"index", "--demo"}).code, 0);
  const auto found = [](const std::string& query) {
    return Json::parse(System::Run({"search", "--json", query}).output)["hits"];
  };
  const Json hits = found("subject:harbour -kind:attachment");
  ASSERT_EQ(hits.size(), 1u);
  const std::string url = hits[0]["url"];

  // Without a desktop and without a program it is said, and nothing hangs.
  const auto forget = [] {
    for (const char* key : {"HKCR\\.msg", "HKCR\\Hoardex.Mail", "HKCR\\Test.Mail"})
      System::Wine({"reg", "delete", key, "/f"});
  };
  forget();
  // With the converter gone, mails do not leave as MIME; the repair brings it and the type of mail files.
  ASSERT_EQ(System::Wine({"regsvr32", "/s", "/u", System::provider()}).code, 0);
  const Result no_converter = System::Run({"export", url, "--to", folder_ / "none"});
  EXPECT_EQ(no_converter.code, 1);
  EXPECT_THAT(no_converter.errors, HasSubstr("No MIME converter is registered"));
  EXPECT_THAT(System::Run({"doctor"}).output, HasSubstr("no MIME converter is registered"));
  EXPECT_EQ(System::Run({"doctor", "--fix"}).code, 0);
  const Result no_desktop = System::Run({"open", url}), no_program = System::Run({"print", url});
  EXPECT_EQ(no_desktop.code, 1);
  EXPECT_THAT(no_desktop.errors, HasSubstr("There is no desktop here"));
  EXPECT_EQ(no_program.code, 1);
  EXPECT_THAT(no_program.errors, HasSubstr("No program is registered that prints"));

  // Programs that take a copy of what they are given.
  const fs::path opened = folder_ / "opened", printed = folder_ / "printed";
  // A folder that is there: xcopy would ask.
  for (const fs::path& folder : {opened, printed}) fs::create_directories(folder);
  for (const auto& [verb, folder] : {std::pair("open", opened), std::pair("print", printed)})
    System::Wine({"reg", "add", std::string("HKCR\\Test.Mail\\shell\\") + verb + "\\command", "/ve", "/d",
                  "xcopy /y \"%1\" \"" + e2e::WindowsPath(folder) + "\"", "/f"});
  ASSERT_EQ(System::Wine({"reg", "add", "HKCR\\.msg", "/ve", "/d", "Test.Mail", "/f"}).code, 0);
  fs::create_directories(folder_ / "msg");
  for (const char* verb : {"open", "print"}) {
    const Result done = System::Run({verb, url});
    EXPECT_EQ(done.code, 0) << verb << done.errors;
  }
  for (const fs::path& folder : {opened, printed}) {
    const fs::path file = Arrived(folder);
    ASSERT_FALSE(file.empty()) << folder;
    EXPECT_EQ(file.extension(), ".msg");
    fs::copy_file(file, folder_ / "msg/it.msg", fs::copy_options::overwrite_existing);
    const std::string converted = e2e::Output("cd '" + folder_.string() + "' && msgconvert --outfile - msg/it.msg");
    EXPECT_THAT(converted, HasSubstr("Subject: " + hits[0]["subject"].get<std::string>())) << converted;
  }
  // An attachment opens itself; a query with one hit names it.
  const Json attached = found("oszilloskop kind:attachment");
  ASSERT_EQ(attached.size(), 1u);
  fs::remove(Arrived(opened));
  const std::string name = attached[0]["subject"], type = "HKCR\\" + fs::path(name).extension().string();
  ASSERT_EQ(System::Wine({"reg", "add", type, "/ve", "/d", "Test.Mail", "/f"}).code, 0);
  const Result done = System::Run({"open", "oszilloskop", "kind:attachment"});
  EXPECT_EQ(done.code, 0) << done.errors;
  const fs::path file = Arrived(opened);
  ASSERT_FALSE(file.empty());
  EXPECT_THAT(e2e::ReadFile(file), HasSubstr("szilloskop"));

  EXPECT_THAT(System::Run({"open", "kind:email"}).errors, HasSubstr("name the one that is meant"));
  const Result container = System::Run({"open", url.substr(0, url.rfind('/') + 1)});
  EXPECT_EQ(container.code, 2);
  std::string gone = url;
  gone.replace(gone.find("[[") - 6, 2, "7F");
  EXPECT_THAT(System::Run({"open", gone}).errors, HasSubstr("not in its vault"));
  System::Wine({"reg", "delete", type, "/f"});
  forget();
}

}  // namespace
