// From store files to hits, over the built programs.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "tests/e2e/system.h"

namespace {

using e2e::Json;
using e2e::Result;
using e2e::System;
namespace fs = std::filesystem;

class WholePath : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(System::Trouble(), "");
    System::Clear();
  }
};

// Messages of a dump by the node that the last four bytes of their entry id name.
std::map<unsigned, std::vector<Json>> MessagesByNode(const std::vector<Json>& records) {
  std::map<unsigned, std::vector<Json>> messages;
  for (const Json& record : records) {
    if (record["kind"] != "message") continue;
    const std::string url = record["url"];
    const size_t end = std::min(url.find("[["), url.rfind(".zkm"));
    const std::string hex = url.substr(end - 8, 8);
    unsigned node = 0;
    for (int i = 3; i >= 0; --i) node = node << 8 | std::stoul(hex.substr(static_cast<size_t>(2 * i), 2), nullptr, 16);
    messages[node].push_back(record);
  }
  return messages;
}

std::string Property(const Json& record, const char* name) {
  const Json properties = record.value("properties", Json::object());
  const auto found = properties.find(name);
  return found == properties.end() || !found->is_string() ? std::string() : found->get<std::string>();
}

// Words are compared without white space: readers break the lines of a body differently.
std::string Squeezed(std::string text) {
  std::erase_if(text, [](unsigned char c) { return isspace(c); });
  return text;
}

const char* ItemTypeOf(const std::string& message_class) {
  if (message_class == "IPM.Appointment" || message_class == "IPM.Schedule.Meeting.Request")
    return "MAPI/ZK.Appointment";
  if (message_class == "IPM.Task" || message_class == "IPM.TaskRequest") return "MAPI/ZK.Task";
  if (message_class == "IPM.Contact") return "MAPI/ZK.Contact";
  return message_class == "IPM.StickyNote" ? "MAPI/ZK.Note" : "MAPI/ZK.Message";
}

void CompareMessage(const Json& expected, const Json& record) {
  EXPECT_FALSE(record.contains("error")) << record["error"];
  const auto text = [&](const char* key) {
    return expected.value(key, Json()).is_string() ? expected[key].get<std::string>() : "";
  };
  if (!text("subject").empty()) {
    EXPECT_EQ(Property(record, "System.Subject"), text("subject"));
  }
  EXPECT_EQ(Property(record, "System.Message.SenderName"), text("sender_name"));
  EXPECT_EQ(Property(record, "System.ItemType"), ItemTypeOf(text("class")));
  EXPECT_EQ(Property(record, "System.Message.ToName"), text("display_to"));
  EXPECT_EQ(Property(record, "System.Message.CcName"), text("display_cc"));
  if (!expected["message_size"].is_null()) {
    EXPECT_EQ(record["properties"]["System.Size"], expected["message_size"]);
  }
  const std::string address = Property(record, "System.Message.SenderAddress"), stored = text("sender_email");
  EXPECT_TRUE(address.size() >= stored.size() && address.substr(address.size() - stored.size()) == stored) << address;
  const std::pair<const char*, const char*> times[] = {{"System.Message.DateSent", "client_submit_time"},
                                                       {"System.Message.DateReceived", "delivery_time"}};
  for (const auto& [property, key] : times) {
    if (!text(key).empty()) {
      EXPECT_EQ(Property(record, property).substr(0, 19), text(key).substr(0, 19)) << property;
    }
  }
  const std::string body = Squeezed(record.value("text", ""));
  for (const Json& word : expected.value("body_probe", Json::array()))
    EXPECT_NE(body.find(Squeezed(word)), std::string::npos) << word;
  const std::string names = Property(record, "System.Message.AttachmentNames");
  for (const Json& attachment : expected.value("attachments", Json::array()))
    if (attachment["name"].is_string()) {
      EXPECT_NE(names.find(attachment["name"].get<std::string>()), std::string::npos);
    }
}

TEST_F(WholePath, FindsWhatIndependentReadersFindInRealStores) {
  const char* folder = getenv("HOARDEX_SAMPLES");
  if (!folder || !fs::exists(fs::path(folder) / "expected.json"))
    GTEST_SKIP() << "the real sample stores are not here (HOARDEX_SAMPLES)";
  std::ifstream file(fs::path(folder) / "expected.json");
  const Json files = Json::parse(file)["files"];
  size_t compared = 0;
  for (const auto& [name, expected] : files.items()) {
    if (!expected["opens"].get<bool>()) continue;
    SCOPED_TRACE(name);
    const unsigned top = expected["ipm_subtree_nid"];
    const auto messages = MessagesByNode(System::Dump({fs::path(folder) / name}));
    std::set<unsigned> wanted;
    for (const Json& listed : expected["folders"]) {
      if (listed["kind"] != "folder" || !listed["under_ipm_subtree"].get<bool>() || listed["nid"] == top) continue;
      for (const Json& message : listed["messages"]) {
        const unsigned node = message["nid"];
        SCOPED_TRACE(node);
        wanted.insert(node);
        ASSERT_TRUE(messages.contains(node)) << message["subject"];
        EXPECT_EQ(messages.at(node).size(), 1u);
        CompareMessage(message, messages.at(node).front());
        ++compared;
      }
    }
    EXPECT_EQ(messages.size(), wanted.size()) << "messages that no reader lists";
  }
  EXPECT_EQ(compared, 458u) << "all messages of the samples that browsing reaches";
}

TEST_F(WholePath, IndexesTheDemonstrationAndFindsItsMail) {
  const Result first = System::Run({"index", "--demo"});
  EXPECT_EQ(first.code, 0) << first.output << first.errors;
  const Result found = System::Run({"search", "--json", "invoice from:smith"});
  ASSERT_EQ(found.code, 0) << found.errors;
  EXPECT_NE(found.output.find("Smith"), std::string::npos);
  // Words that stand only in an attachment are found as well.
  const Result inside = System::Run({"search", "--json", "oszilloskop"});
  EXPECT_NE(inside.output.find(".zkm/"), std::string::npos) << inside.output;
  for (const char* kind : {"email", "calendar", "task", "contact", "note"})
    EXPECT_NE(System::Run({"search", "--json", std::string("kind:") + kind}).output.find(".zkm"), std::string::npos)
        << kind;
  const Result again = System::Run({"index"});
  EXPECT_EQ(again.code, 0) << again.errors;
  EXPECT_EQ(System::LeftBehind(), std::vector<std::string>()) << "temporary copies of attachments";
}

TEST_F(WholePath, FollowsMailThatLiesInFiles) {
  const fs::path source = System::home() / "mail source";
  fs::remove_all(source);
  const auto put = [&](const std::string& name, const std::string& subject) {
    fs::create_directories((source / name).parent_path());
    std::ofstream(source / name) << "From: Otter <otter@example.com>\nDate: Tue, 5 Mar 2019 08:30:00 +0100\nSubject: "
                                 << subject << "\n\nabout " << subject << "\n";
  };
  put("cur/1:2,S", "pangolins");
  put(".Zoo/cur/1:2,S", "aardvarks");
  fs::create_directories(source / "new");
  fs::create_directories(source / ".Zoo/new");
  const auto hits = [](const std::string& query) {
    const Result found = System::Run({"search", "--json", query});
    return found.code == 0 ? Json::parse(found.output)["hits"].size() : 0;
  };
  Result run = System::Run({"index", source});
  EXPECT_EQ(run.code, 0) << run.output << run.errors;
  EXPECT_EQ(hits("pangolins from:otter"), 1u);
  EXPECT_EQ(hits("aardvarks folder:zoo"), 1u);
  // It changes, also by what is no mail; later calls need not name it.
  fs::remove(source / "cur/1:2,S");
  put("new/2", "wombats");
  std::ofstream(source / "new/3") << "";
  run = System::Run({"index"});
  EXPECT_EQ(run.code, 3) << run.output << run.errors;
  EXPECT_NE(run.output.find("left out"), std::string::npos) << run.output;
  EXPECT_EQ(hits("pangolins"), 0u);
  EXPECT_EQ(hits("wombats"), 1u);
  EXPECT_EQ(hits("aardvarks"), 1u);
  // What another process left, or put in the place of the store, does not last.
  const fs::path store = System::home() / "imported/mail source.db",
                 notes = System::home() / "imported/mail source.json";
  ASSERT_TRUE(fs::exists(store)) << "the store has its source's name";
  fs::copy_file(store, System::home() / "imported/.converting-1");
  std::ofstream(store, std::ios::trunc) << "another store";
  run = System::Run({"index"});
  EXPECT_EQ(run.code, 3) << run.output << run.errors;
  EXPECT_FALSE(fs::exists(System::home() / "imported/.converting-1"));
  EXPECT_EQ(hits("wombats"), 1u);
  std::ofstream(notes, std::ios::trunc) << "{\"source\": 5";
  run = System::Run({"index"});
  EXPECT_EQ(run.code, 3) << run.output << run.errors;
  EXPECT_NE(run.output.find("name the mail again"), std::string::npos) << run.output;
  EXPECT_EQ(System::Run({"index", source}).code, 3);
  EXPECT_EQ(hits("wombats"), 1u);
  // Gone for a while: what was indexed stays.
  fs::rename(source, source.string() + ".away");
  run = System::Run({"index"});
  EXPECT_EQ(run.code, 3) << run.output << run.errors;
  EXPECT_EQ(hits("wombats"), 1u);
  fs::remove_all(source.string() + ".away");
  EXPECT_EQ(System::Run({"vaults", "remove", "mail source"}).code, 0);
  EXPECT_EQ(hits("wombats"), 0u);
  EXPECT_TRUE(fs::is_empty(System::home() / "imported"));
}

TEST_F(WholePath, NamesWhatItRefusesAndOddUrlsFailCleanly) {
  const fs::path bad = System::home() / "bad.pst";
  std::ofstream(bad) << std::string(4096, 'x');
  const Result refused = System::Run({"index", "--demo", bad});
  EXPECT_EQ(refused.code, 3) << refused.output << refused.errors;
  EXPECT_NE((refused.output + refused.errors).find("bad.pst"), std::string::npos);
  EXPECT_FALSE(fs::exists(System::home() / "vaults/Tessary/bad.db"));

  const std::vector<Json> records = System::Dump({});
  const auto vault = std::find_if(records.begin(), records.end(), [](const Json& r) { return r["kind"] == "vault"; });
  const auto message =
      std::find_if(records.begin(), records.end(), [](const Json& r) { return r["kind"] == "message"; });
  ASSERT_TRUE(vault != records.end() && message != records.end());
  const std::string root = vault->at("url").get<std::string>(), mail = message->at("url");
  const std::string folder = mail.substr(0, mail.rfind('/')), id = mail.substr(mail.rfind('/') + 1);
  const std::string odd[] = {
      "zkoffline3x://{S-1}/default/V:\\Tessary\\absent.db/",
      "zkoffline3x://nonsense",
      "http://example.com/",
      folder.substr(0, folder.rfind('/')) + "/00",
      folder + ".zkm",                  // a folder's identifier as a message
      folder + "/" + id.substr(0, 48),  // a message's identifier as a folder
      folder + "/" + id.substr(0, 47) + ".zkm",
      folder + "/" + std::string(6000, 'A') + ".zkm",
      mail + "/00000000/none.txt",
      mail + "/zz/" + std::string(3000, 'n') + ".txt",
  };
  for (const std::string& url : odd) {
    const Result shown = System::Run({"show", url});
    EXPECT_TRUE(shown.code == 1 || shown.code == 2) << url.substr(0, 200) << shown.output;
    EXPECT_FALSE(shown.errors.empty());
  }
  EXPECT_EQ(System::Run({"show", mail}).code, 0) << "the system must stand after all that";
}

}  // namespace
