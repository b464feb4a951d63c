// Real stores against what independent readers found in them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "tests/support/sha256.h"
#include "tests/support/store_walk.h"
#include "vault/store.h"

namespace {

using nlohmann::json;
using vault::Utf8FromUtf16;

std::filesystem::path SampleFolder() {
  const char* const folder = std::getenv("HOARDEX_SAMPLES");
  return folder ? folder : "";
}

json Expectations() {
  std::ifstream file(SampleFolder() / "expected.json");
  if (!file) return json::object();
  return json::parse(file).at("files");
}

json TextOrNull(const std::optional<std::u16string>& text) {
  // The recorded lists have neither empty texts nor closing NULs.
  if (!text || text->empty()) return nullptr;
  auto utf8 = Utf8FromUtf16(*text);
  utf8.erase(utf8.find_last_not_of('\0') + 1);
  return utf8;
}

json TimeOrNull(const std::optional<std::int64_t>& filetime) {
  if (!filetime) return nullptr;
  const std::time_t seconds = *filetime / 10'000'000 - 11'644'473'600;
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&seconds));
  return text;
}

json DescribeAttachment(const vault::Attachment& attachment, const json& wanted) {
  json result{{"name", TextOrNull(attachment.file_name())}, {"method", static_cast<int>(attachment.method())}};
  if (attachment.method() == vault::AttachMethod::kByValue) {
    auto data = attachment.Data();
    test::Sha256 sum;
    for (std::uint64_t at = 0; data && at < data->size();) {
      const auto piece = data->Piece(at);
      sum.Add(piece);
      at += piece.size();
    }
    result["data_bytes"] = data ? data->size() : 0;
    result["sha256"] = sum.Finish();
  }
  if (attachment.method() == vault::AttachMethod::kEmbedded) {
    const vault::Message message = attachment.OpenEmbedded();
    const json& inner = wanted.value("embedded", json::object());
    json embedded{{"class", TextOrNull(message.message_class())}, {"subject", TextOrNull(message.subject())}};
    json attachments = json::array();
    const auto nids = message.AttachmentNids();
    for (std::size_t i = 0; i < nids.size(); ++i) {
      const json& list = inner.value("attachments", json::array());
      attachments.push_back(
          DescribeAttachment(message.OpenAttachment(nids[i]), i < list.size() ? list[i] : json::object()));
    }
    if (inner.contains("attachments")) embedded["attachments"] = attachments;
    result["embedded"] = embedded;
  }
  return result;
}

// The part of `wanted` that `found` describes, so that EXPECT_EQ shows both sides of a difference.
json Common(const json& wanted, const json& found) {
  if (found.is_array() && wanted.is_array()) {
    json result = json::array();
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      result.push_back(i < found.size() ? Common(wanted[i], found[i]) : wanted[i]);
    }
    return result;
  }
  if (!found.is_object() || !wanted.is_object()) return wanted;
  json result = json::object();
  for (const auto& [key, value] : found.items()) {
    // Digests are recorded for the attachments of outer messages only.
    if (key == "sha256" && !wanted.contains(key) && !wanted.contains("mime")) {
      result[key] = value;
      continue;
    }
    const json w = wanted.contains(key) ? wanted[key] : json("(nothing expected)");
    result[key] = Common(w.is_string() && w == "" ? json(nullptr) : w, value);
  }
  return result;
}

json DescribeMessage(const vault::Message& message, const json& wanted) {
  const vault::PropertySet& p = message.properties();
  json result{{"nid", message.nid()},
              {"class", TextOrNull(message.message_class())},
              {"subject", TextOrNull(message.subject())},
              {"message_size", p.Int(vault::prop::kMessageSize).value_or(0)},
              {"sender_name", TextOrNull(p.Text(0x0C1A))},
              {"sender_email", TextOrNull(p.Text(0x0C1F))},
              {"display_to", TextOrNull(p.Text(0x0E04))},
              {"display_cc", TextOrNull(p.Text(0x0E03))},
              {"client_submit_time", TimeOrNull(p.Int(0x0039))},
              {"delivery_time", TimeOrNull(p.Int(0x0E06))}};
  if (const auto body = p.Text(vault::prop::kBody)) {
    std::u32string::size_type points = 0;
    for (const char16_t c : *body) points += c < 0xDC00 || c > 0xDFFF;
    result["plain_body_chars"] = points;
  }
  json attachments = json::array();
  const auto nids = message.AttachmentNids();
  for (std::size_t i = 0; i < nids.size(); ++i) {
    const json& list = wanted.at("attachments");
    attachments.push_back(
        DescribeAttachment(message.OpenAttachment(nids[i]), i < list.size() ? list[i] : json::object()));
  }
  result["attachments"] = attachments;
  return result;
}

std::string PathOf(const vault::Store& store, vault::Nid nid) {
  std::string path;
  while (nid != vault::kRootFolderNid) {
    const vault::Folder folder = store.OpenFolder(nid);
    path = Utf8FromUtf16(folder.name()) + (path.empty() ? "" : "\\" + path);
    nid = folder.parent();
  }
  return path;
}

void CheckFolder(const vault::Store& store, const json& wanted) {
  const vault::Folder folder = store.OpenFolder(wanted.at("nid"));
  EXPECT_EQ(PathOf(store, folder.nid()), wanted.at("path"));
  EXPECT_EQ(TextOrNull(folder.container_class()), wanted.at("container_class"));
  EXPECT_EQ(folder.is_search_folder(), wanted.at("kind") == "search folder");
  if (folder.is_search_folder()) return;  // no reader lists what those found
  std::set<vault::Nid> nids;
  const vault::Table rows = folder.Contents();
  for (auto cursor = rows.Walk(); cursor.Next();) {
    ASSERT_FALSE(cursor.error()) << cursor.error()->what();
    nids.insert(cursor.row().id());
    const auto found = rows.FindRow(cursor.row().id());
    ASSERT_TRUE(found);
    EXPECT_EQ(found->id(), cursor.row().id());
  }
  EXPECT_EQ(nids.size(), rows.row_count());
  ASSERT_EQ(nids.size(), wanted.at("message_count").get<std::size_t>());
  for (const json& m : wanted.at("messages")) {
    const vault::Nid nid = m.at("nid");
    SCOPED_TRACE("message " + std::to_string(nid));
    ASSERT_TRUE(nids.count(nid));
    EXPECT_EQ(store.ParentOf(nid), folder.nid());
    const json found = DescribeMessage(store.OpenMessage(nid), m);
    EXPECT_EQ(found, Common(m, found));
  }
}

class Samples : public testing::Test {
 protected:
  void SetUp() override {
    if (expected_.empty()) GTEST_SKIP() << "no sample stores: set HOARDEX_SAMPLES to their folder";
  }
  const json expected_ = Expectations();
};

TEST_F(Samples, HoldWhatOtherReadersFind) {
  std::size_t names = 0;
  for (const auto& [name, wanted] : expected_.items()) {
    SCOPED_TRACE(name);
    const auto path = SampleFolder() / name;
    if (!wanted.at("opens").get<bool>()) {
      try {
        vault::Store::Open(path);
        ADD_FAILURE() << "was opened";
      } catch (const vault::Error& error) {
        EXPECT_EQ(error.code(), vault::ErrorCode::kHeaderChecksum) << error.what();
      }
      continue;
    }
    const auto store = vault::Store::Open(path);
    EXPECT_EQ(store->format() == vault::Format::kUnicode, wanted.at("wVer") == 23);
    EXPECT_EQ(static_cast<int>(store->encoding()), wanted.at("bCryptMethod"));
    EXPECT_EQ(TextOrNull(store->name()), wanted.at("store_name"));
    EXPECT_EQ(store->subtree(), wanted.at("ipm_subtree_nid"));
    EXPECT_EQ(store->ParseEntryId(store->MakeEntryId(store->subtree())), store->subtree());

    std::set<vault::Nid> folders;
    for (auto cursor = store->Nodes(); cursor.Next();) {
      ASSERT_FALSE(cursor.error()) << cursor.error()->what();
      const vault::Nid nid = cursor.node().nid;
      if (vault::TypeOf(nid) == vault::NidType::kFolder && cursor.node().parent) folders.insert(nid);
    }
    for (const json& folder : wanted.at("folders")) {
      SCOPED_TRACE(folder.at("path").get<std::string>());
      CheckFolder(*store, folder);
      folders.erase(folder.at("nid").get<vault::Nid>());
    }
    EXPECT_TRUE(folders.empty()) << "there is a folder that no other reader sees: " << *folders.begin();
    const auto walked = test::WalkStore(*store);
    EXPECT_EQ(walked.errors, std::vector<std::string>());
    EXPECT_GE(walked.messages, wanted.at("totals").at("messages").get<std::uint64_t>());
    for (const auto id : store->names().Ids()) {
      const auto named = store->names().NameOf(id);
      ASSERT_TRUE(named);
      const auto back = std::visit([&](const auto& key) { return store->names().FindId(named->set, key); }, named->id);
      EXPECT_EQ(back, id);
      ++names;
    }
  }
  EXPECT_GT(names, 500u);
}

TEST_F(Samples, AreReadTheSameByManyThreadsAtOnce) {
  const auto store = vault::Store::Open(SampleFolder() / "aspose-Outlook_1.pst");
  const auto alone = test::WalkStore(*store);
  const auto shared = vault::Store::Open(SampleFolder() / "aspose-Outlook_1.pst");
  std::vector<std::string> digests(4);
  std::vector<std::thread> threads;
  for (auto& digest : digests) threads.emplace_back([&] { digest = test::WalkStore(*shared).digest; });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(digests, std::vector(4, alone.digest));
}

}  // namespace
