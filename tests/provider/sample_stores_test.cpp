// Real stores against what independent readers find in them.
#include <filesystem>
#include <fstream>
#include <map>

#include <nlohmann/json.hpp>

#include "tests/provider/client.h"
#include "tests/support/sha256.h"

namespace test {
namespace {

using nlohmann::json;

const json& Expectations() {
  static const json expected = [] {
    std::ifstream file(std::filesystem::path(Sample(L"expected.json")));
    return file ? json::parse(file).at("files") : json::object();
  }();
  return expected;
}

std::wstring TextOr(const json& object, const char* key) {
  return object.contains(key) && object[key].is_string() ? Wide(object[key].get<std::string>()) : std::wstring();
}

std::wstring TextOf(const SPropValue& value) {
  return PROP_TYPE(value.ulPropTag) == PT_UNICODE ? std::wstring(value.Value.lpszW) : std::wstring();
}

// "2010-03-15T17:12:05Z" of a FILETIME.
std::string TimeOf(const SPropValue& value) {
  SYSTEMTIME time;
  if (PROP_TYPE(value.ulPropTag) != PT_SYSTIME || !FileTimeToSystemTime(&value.Value.ft, &time)) return {};
  char text[32];
  snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02dZ", time.wYear, time.wMonth, time.wDay, time.wHour,
           time.wMinute, time.wSecond);
  return text;
}

void CheckAttachments(IMessage* message, const json& expected);

void CheckEmbedded(IMessage* message, const json& expected) {
  Values values;
  values.Get(message, {PR_MESSAGE_CLASS_W, PR_SUBJECT_W, PR_ENTRYID});
  EXPECT_EQ(TextOf(values[0]), TextOr(expected, "class"));
  EXPECT_EQ(TextOf(values[1]), TextOr(expected, "subject"));
  EXPECT_EQ(PROP_TYPE(values[2].ulPropTag), ULONG{PT_ERROR}) << "an embedded message has no entry id";
  if (expected.contains("attachments")) CheckAttachments(message, expected["attachments"]);
}

void CheckAttachments(IMessage* message, const json& expected) {
  Com<IMAPITable> table;
  ASSERT_EQ(message->GetAttachmentTable(0, table.Out()), S_OK);
  Rows rows;
  ASSERT_EQ(Mapi().QueryAllRows(
                table.get(),
                Tags({PR_ATTACH_NUM, PR_RECORD_KEY, PR_DISPLAY_NAME_W, PR_ATTACH_METHOD, PR_LAST_MODIFICATION_TIME}),
                nullptr, nullptr, 0, &rows.set),
            S_OK);
  ASSERT_EQ(rows.size(), expected.size());
  for (ULONG i = 0; i < rows.size(); ++i) {
    const json& each = expected[i];
    ASSERT_EQ(rows.At(i, 0).ulPropTag, ULONG{PR_ATTACH_NUM});
    ASSERT_EQ(rows.At(i, 1).Value.bin.cb, 4u);
    EXPECT_EQ(memcmp(rows.At(i, 1).Value.bin.lpb, &rows.At(i, 0).Value.l, 4), 0);
    EXPECT_EQ(PROP_TYPE(rows.At(i, 4).ulPropTag), ULONG{PT_SYSTIME})
        << "no link is made to an attachment without a time";
    Com<IAttach> attachment;
    ASSERT_EQ(
        message->OpenAttach(static_cast<ULONG>(rows.At(i, 0).Value.l), nullptr, MAPI_BEST_ACCESS, attachment.Out()),
        S_OK);
    const int method = each["method"].get<int>();
    EXPECT_EQ(rows.At(i, 3).Value.l, method);
    if (each["name"].is_string()) {
      Values names;
      names.Get(attachment.get(), {PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W});
      const std::wstring name = TextOf(names[0]).empty() ? TextOf(names[1]) : TextOf(names[0]);
      EXPECT_EQ(name, TextOr(each, "name"));
      EXPECT_FALSE(TextOf(rows.At(i, 2)).empty());
    }
    if (each.contains("sha256") && each["sha256"].is_string()) {
      Com<IStream> stream;
      ASSERT_EQ(attachment->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, stream.Out<IUnknown>()), S_OK);
      STATSTG stat;
      ASSERT_EQ(stream->Stat(&stat, STATFLAG_NONAME), S_OK);
      EXPECT_EQ(stat.cbSize.QuadPart, each["data_bytes"].get<std::uint64_t>());
      EXPECT_EQ(Sha256Of(ReadAll(stream.get())), each["sha256"].get<std::string>());
    }
    if (each.contains("embedded") && each["embedded"].is_object()) {
      Com<IMessage> embedded;
      ASSERT_EQ(attachment->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0, embedded.Out<IUnknown>()), S_OK);
      CheckEmbedded(embedded.get(), each["embedded"]);
    }
  }
}

void CheckMessage(IMessage* message, const json& expected) {
  Values values;
  ASSERT_TRUE(SUCCEEDED(values.Get(
      message, {PR_MESSAGE_CLASS_W, PR_SUBJECT_W, PR_MESSAGE_SIZE, PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W,
                PR_DISPLAY_TO_W, PR_DISPLAY_CC_W, PR_CLIENT_SUBMIT_TIME, PR_MESSAGE_DELIVERY_TIME, PR_DISPLAY_BCC_W})));
  EXPECT_EQ(TextOf(values[0]), TextOr(expected, "class"));
  EXPECT_EQ(TextOf(values[1]), TextOr(expected, "subject"));
  if (expected["message_size"].is_number()) {
    EXPECT_EQ(values[2].Value.l, expected["message_size"].get<LONG>());
  }
  EXPECT_EQ(TextOf(values[3]), TextOr(expected, "sender_name"));
  EXPECT_EQ(TextOf(values[4]), TextOr(expected, "sender_email"));
  for (const std::size_t display : {5u, 6u, 9u}) EXPECT_EQ(PROP_TYPE(values[display].ulPropTag), ULONG{PT_UNICODE});
  EXPECT_EQ(TextOf(values[5]), TextOr(expected, "display_to"));
  EXPECT_EQ(TextOf(values[6]), TextOr(expected, "display_cc"));
  if (expected["client_submit_time"].is_string()) {
    EXPECT_EQ(TimeOf(values[7]), expected["client_submit_time"]);
  }
  if (expected["delivery_time"].is_string()) {
    EXPECT_EQ(TimeOf(values[8]), expected["delivery_time"]);
  }

  if (expected["body_probe"].is_array() && !expected["body_probe"].empty()) {
    const std::wstring body = BodyOf(message);
    for (const json& word : expected["body_probe"])
      EXPECT_NE(body.find(Wide(word.get<std::string>())), std::wstring::npos) << word << " of the body is missing";
  }
  CheckAttachments(message, expected["attachments"]);

  Com<IMAPITable> recipients;
  ASSERT_EQ(message->GetRecipientTable(0, recipients.Out()), S_OK);
  ULONG count = 0;
  ASSERT_EQ(recipients->GetRowCount(0, &count), S_OK);
  if (expected["recipients"].is_array()) {
    EXPECT_EQ(count, expected["recipients"].size());
  }
}

std::uint32_t NidOf(const SBinary& entry_id) {
  std::uint32_t nid = 0;
  memcpy(&nid, entry_id.lpb + 20, 4);
  return nid;
}

class SampleStores : public ProviderTest {};

TEST_F(SampleStores, ShowEveryItemThatIndependentReadersFind) {
  SKIP_WITHOUT_SAMPLES();
  int stores = 0, messages = 0;
  for (const auto& [name, expected] : Expectations().items()) {
    if (!expected["opens"].get<bool>()) continue;
    SCOPED_TRACE(name);
    ++stores;
    OpenStore opened(Sample(Wide(name)));
    ASSERT_TRUE(opened.store);
    Values top;
    ASSERT_EQ(top.Get(opened.store.get(), {PR_IPM_SUBTREE_ENTRYID}), S_OK);
    EXPECT_EQ(NidOf(top[0].Value.bin), expected["ipm_subtree_nid"].get<std::uint32_t>());

    for (const json& folder_expected : expected["folders"]) {
      SCOPED_TRACE(folder_expected["path"].get<std::string>());
      const auto folder = opened.Open<IMAPIFolder>(opened.EntryIdOf(folder_expected["nid"].get<std::uint32_t>()));
      ASSERT_TRUE(folder);
      if (folder_expected["kind"] == "search folder") continue;
      Com<IMAPITable> contents;
      ASSERT_EQ(folder->GetContentsTable(0, contents.Out()), S_OK);
      Rows rows;
      ASSERT_EQ(Mapi().QueryAllRows(contents.get(), Tags({PR_ENTRYID, PR_SUBJECT_W, PR_MESSAGE_SIZE}), nullptr, nullptr,
                                    0, &rows.set),
                S_OK);
      std::map<std::uint32_t, ULONG> listed;
      for (ULONG i = 0; i < rows.size(); ++i) listed[NidOf(rows.At(i, 0).Value.bin)] = i;
      EXPECT_EQ(rows.size(), folder_expected["messages"].size());
      for (const json& each : folder_expected["messages"]) {
        const auto nid = each["nid"].get<std::uint32_t>();
        SCOPED_TRACE("message " + std::to_string(nid));
        ASSERT_TRUE(listed.contains(nid));
        EXPECT_EQ(TextOf(rows.At(listed[nid], 1)), TextOr(each, "subject"));
        const auto message = opened.Open<IMessage>(opened.EntryIdOf(nid));
        ASSERT_TRUE(message);
        CheckMessage(message.get(), each);
        ++messages;
      }
    }
  }
  EXPECT_GE(stores, 10);
  EXPECT_GE(messages, 300);
}

}  // namespace
}  // namespace test
