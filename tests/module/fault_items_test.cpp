// Messages and attachments by their URLs: what is lenient, what is not, and names that look like parts of a URL.
#include <gtest/gtest.h>
#include <wrl/client.h>

#include "tests/module/fault_expectations.h"
#include "vault/writer.h"

namespace faults {
namespace {

using Microsoft::WRL::ComPtr;

class Items : public SceneTest {
 protected:
  std::vector<std::wstring> Names(const std::wstring& url) {
    const Listing listing = Browse(mapi_, url);
    EXPECT_EQ(listing.result, S_OK);
    return listing.names;
  }
  // Writes the store and opens it; the URL of its first folder, and of that folder's first message.
  void Open(const vault::StoreBuilder& store) {
    store.Write(path_);
    mapi_ = SessionOf(url_);
    ASSERT_NE(mapi_, nullptr);
    for (const std::wstring& folder : Names(url_)) {
      folder_ = url_ + L"/" + folder;
      const auto names = Names(folder_);
      if (names.empty()) continue;
      message_ = folder_ + L"/" + names[0];
      break;
    }
    ASSERT_FALSE(message_.empty());
  }
  HRESULT OpenMessage(const std::wstring& url) {
    ComPtr<IMessage> message;
    const HRESULT result = mapi_->GetMsgFromURL(url, &message);
    EXPECT_EQ(SUCCEEDED(result), message != nullptr);
    return result;
  }
  // What the attachment of that name holds, or the failure.
  std::string Content(const std::wstring& name) {
    ComPtr<IStream> stream;
    const HRESULT result = mapi_->GetStreamFromAttachmentURL(message_ + L"/AB01/" + name, &stream);
    if (FAILED(result)) return "failed: " + std::to_string(static_cast<ULONG>(result));
    char bytes[64];
    ULONG read = 0;
    EXPECT_GE(stream->Read(bytes, sizeof(bytes), &read), S_OK);
    return std::string(bytes, read);
  }

  std::wstring folder_, message_;
  CMapiForWDS* mapi_ = nullptr;
};

TEST_F(Items, EntryIdentifiersAreReadAsFarAsTheyGo) {
  const struct {
    const wchar_t* text;
    ULONG size;
    std::string bytes;
    bool whole;
  } kCases[] = {{L"00aBCdeF", 4, std::string("\0\xAB\xCD\xEF", 4), true},
                {L"", 0, "", true},
                {L"0A0B[[1234]]", 6, "\x0A\x0B", false},
                {L"0A0B0", 2, "\x0A\x0B", false},
                {L"0A\u0660\u0661", 2, "\x0A", false},
                {L"0A:;<=", 3, "\x0A", false},
                {L"0A1:", 2, "\x0A", false},
                {L"0A`0", 2, "\x0A", false},
                {L"0AgG", 2, "\x0A", false}};
  for (const auto& expected : kCases) {
    const SBinary id = CMapiForWDS::CStringToEntryID(expected.text);
    ASSERT_NE(id.lpb, nullptr);
    EXPECT_EQ(id.cb, expected.size);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(id.lpb), expected.bytes.size()), expected.bytes);
    EXPECT_EQ(!HasLine(scene_.NewLogLines(), "CMapiForWDS::CStringToEntryID() - FBinFromHexEx failed", 0),
              expected.whole);
    mapi::MAPIFreeBuffer(id.lpb);
  }
  // Longer than what is converted at once: the rest stays as allocated.
  const SBinary longest = CMapiForWDS::CStringToEntryID(std::wstring(5000, L'F'));
  EXPECT_EQ(longest.cb, 2500u);
  EXPECT_EQ(longest.lpb[510], 0xFF);
  mapi::MAPIFreeBuffer(longest.lpb);
}

TEST_F(Items, MessagesOpenWithTheirSizeAndInEitherCase) {
  vault::StoreBuilder store("objects");
  store.top().AddFolder("Inbox").AddMessage("IPM.Note").Subject("One");
  Open(store);
  EXPECT_EQ(OpenMessage(message_), S_OK);
  const size_t name = message_.rfind(L'/') + 1, size = message_.find(L"[[", name);
  const std::wstring digits = message_.substr(name, size - name), folder = message_.substr(0, name);
  EXPECT_EQ(OpenMessage(folder + digits + L".zkm"), S_OK);
  std::wstring lower = digits;
  CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
  EXPECT_EQ(OpenMessage(folder + lower + L".zkm"), S_OK);

  scene_.NewLogLines();
  const HRESULT cut = OpenMessage(folder + digits.substr(1) + L".zkm");
  EXPECT_EQ(cut, static_cast<HRESULT>(MAPI_E_INVALID_ENTRYID)) << "an odd number of digits is MAPI's to judge";
  const auto lines = scene_.NewLogLines();
  EXPECT_TRUE(HasLine(lines, "CMapiForWDS::CStringToEntryID() - FBinFromHexEx failed", 0));
  EXPECT_TRUE(HasLine(lines, "CMapiForWDS::GetMsgFromURL() - OpenEntry failed with [0x%08lX]", cut));

  EXPECT_EQ(OpenMessage(folder_), E_FAIL);
  EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CMapiForWDS::GetMsgFromURL() - URL is not a message", 0));
  // A folder by a message's URL, and a message by a folder's: calling the one as the other would end the host.
  const std::wstring folder_id = folder_.substr(folder_.rfind(L'/') + 1);
  EXPECT_TRUE(FAILED(OpenMessage(folder + folder_id + L".zkm")));
  EXPECT_TRUE(FAILED(Browse(mapi_, url_ + L"/" + digits).result));
}

TEST_F(Items, AttachmentsAreFoundByName) {
  vault::StoreBuilder store("objects");
  auto& mail = store.top().AddFolder("Inbox").AddMessage("IPM.Note").Subject("Many");
  const std::pair<const char*, const wchar_t*> kNames[] = {{"a [[12]] b.txt", L"a [[12]] b.txt"},
                                                           {"closing ]].txt", L"closing ]].txt"},
                                                           {"x.zkm.txt", L"x.zkm.txt"},
                                                           {"100% of it.txt", L"100% OF IT.txt"},
                                                           {"%20.txt", L"%20.TXT"},
                                                           {"two  blanks.doc", L"two  blanks.doc"},
                                                           {"\xC3\x84pfel.txt", L"\u00E4pfel.txt"}};
  for (const auto& [name, asked] : kNames) mail.AttachFile(name, std::string("in ") + name);
  mail.AttachFile("report.pdf", "first of its name");
  mail.AttachFile("REPORT.PDF", "second of its name");
  Open(store);
  for (const auto& [name, asked] : kNames) EXPECT_EQ(Content(asked), std::string("in ") + name);
  EXPECT_EQ(Content(L"Report.PDF"), "first of its name");
  EXPECT_EQ(Content(L"absent.txt"), "failed: " + std::to_string(static_cast<ULONG>(E_FAIL)));

  // What is none, or reads as something else.
  ComPtr<IStream> stream;
  scene_.NewLogLines();
  EXPECT_EQ(mapi_->GetStreamFromAttachmentURL(L"", &stream), E_INVALIDARG);
  EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CMapiForWDS::GetStreamFromAttachmentURL() - Invalid URL provided", 0));
  for (const wchar_t* tail : {L"", L"/AB01/mail.zkm", L"/AB01/no dot"}) {
    EXPECT_EQ(mapi_->GetStreamFromAttachmentURL(message_ + tail, &stream), E_INVALIDARG);
    EXPECT_TRUE(HasLine(scene_.NewLogLines(),
                        "CMapiForWDS::GetStreamFromAttachmentURL() - URL is not a valid attachment url - %s", 0));
  }
}

// A provider may hand out fewer rows than it is asked for, and leave the type of what it opened.
TEST_F(Items, AreTheSameFromACarelessProvider) {
  vault::StoreBuilder store("objects");
  auto& inbox = store.top().AddFolder("Inbox");
  for (int i = 0; i < 5; ++i) inbox.AddMessage("IPM.Note").Subject("Mail").AttachFile("a.txt", "a");
  auto& many = inbox.AddMessage("IPM.Note").Subject("Attachments");
  for (int i = 0; i < 5; ++i) many.AttachFile(std::to_string(i) + ".txt", std::to_string(i));
  for (int i = 0; i < 3; ++i) inbox.AddFolder("Deeper " + std::to_string(i));
  Open(store);
  const Listing plain = Browse(mapi_, folder_);
  EXPECT_EQ(plain.names.size(), 9u);
  ProviderFaults::Behave(kHoardexMapiGivesFewRows | kHoardexMapiLeavesTypes);
  const Listing careless = Browse(mapi_, folder_);
  EXPECT_EQ(careless.result, S_OK);
  EXPECT_EQ(careless.names, plain.names);
  EXPECT_EQ(careless.path, plain.path);
  message_ = folder_ + L"/" + plain.names[5];
  EXPECT_EQ(Content(L"4.txt"), "4");
  // A count without bytes is no identifier.
  EXPECT_EQ(CMapiForWDS::BinaryToText({4, nullptr}), L"");
}

TEST_F(Items, AMessageWithoutAttachmentsHasNoRows) {
  vault::StoreBuilder store("objects");
  store.top().AddFolder("Inbox").AddMessage("IPM.Note").Subject("None");
  Open(store);
  scene_.NewLogLines();
  EXPECT_EQ(Content(L"any.txt"), "failed: " + std::to_string(static_cast<ULONG>(E_FAIL)));
  EXPECT_TRUE(HasLine(scene_.NewLogLines(),
                      "CMapiForWDS::GetStreamFromAttachmentURL() - Row count for attachment table is zero", 0));
}

}  // namespace
}  // namespace faults
