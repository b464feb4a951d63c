// Stores made for the purpose: what the samples do not hold.
#include <functional>

#include "tests/provider/client.h"

namespace test {
namespace {

class WrittenStores : public WrittenStoreTest {
 protected:
  void TearDown() override {
    messages_.clear();
    WrittenStoreTest::TearDown();
  }

  // Writes a store whose top `fill` fills, opens it and all messages of the top in table order.
  void Make(const std::function<void(vault::FolderBuilder&)>& fill) {
    vault::StoreBuilder store("Written");
    fill(store.top());
    Write(store);
    Com<IMAPITable> table;
    ASSERT_EQ(opened_->OpenTop()->GetContentsTable(0, table.Out()), S_OK);
    Rows rows;
    ASSERT_EQ(rows.Query(table.get(), {PR_ENTRYID}), S_OK);
    for (ULONG i = 0; i < rows.size(); ++i) {
      messages_.push_back(opened_->Open<IMessage>(BytesOf(rows.At(i, 0).Value.bin)));
    }
  }
  IMessage* message(std::size_t i) { return messages_.at(i).get(); }

  std::vector<Com<IMessage>> messages_;
};

TEST_F(WrittenStores, BodiesAreSearchableInWhateverFormTheyAre) {
  std::string long_text, long_html = "<html><body>";
  for (int i = 0; i < 20000; ++i) {
    long_text += "line " + std::to_string(i) + " grün\r\n";
    long_html += "<p>line " + std::to_string(i) + " gr&uuml;n</p>\n";
  }
  Make([&](vault::FolderBuilder& folder) {
    folder.AddMessage("IPM.Note").Subject("a").Html("<title>no</title><p>Zürich &amp; Gen\u00E8ve</p><p>two</p>");
    folder.AddMessage("IPM.Note").Subject("b").Rtf("{\\rtf1\\ansi\\ansicpg1252 Z\\'fcrich\\par two}");
    folder.AddMessage("IPM.Note")
        .Subject("c")
        .Rtf(
            "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1{\\*\\htmltag64 <p>}Z\\'fcrich{\\*\\htmltag72 </p>}\\htmlrtf "
            "no\\htmlrtf0 }");
    folder.AddMessage("IPM.Note").Subject("d").Body(long_text);
    folder.AddMessage("IPM.Note").Subject("e").Html(long_html);
    folder.AddMessage("IPM.Note").Subject("f");
    folder.AddMessage("IPM.Note").Subject("g").Binary(0x1013, "\x1B$BEl5~\x1B(B").Int(0x3FDE, 50220);
  });
  ASSERT_EQ(messages_.size(), 7u);
  EXPECT_EQ(BodyOf(message(0)), L"Zürich & Genève\r\ntwo");
  EXPECT_EQ(BodyOf(message(1)), L"Zürich\r\ntwo");
  EXPECT_EQ(BodyOf(message(2)), L"Zürich");
  EXPECT_EQ(BodyOf(message(3)), Wide(long_text));
  EXPECT_EQ(BodyOf(message(4)) + L"\r\n", Wide(long_text));
  Values none;
  EXPECT_EQ(Mapi().GetOneProp(message(5), PR_BODY_W, &none.values), Code(MAPI_E_NOT_FOUND));
  EXPECT_EQ(BodyOf(message(6)), L"東京");

  Com<IStream> narrow;
  ASSERT_EQ(message(4)->OpenProperty(PR_BODY_A, &IID_IStream, 0, 0, narrow.Out<IUnknown>()), S_OK);
  EXPECT_EQ(ReadAll(narrow.get()).size(), BodyOf(message(4)).size());
}

TEST_F(WrittenStores, SubjectsAndRecipientsAreWhatMapiMakesOfThem) {
  Make([](vault::FolderBuilder& folder) {
    auto& message = folder.AddMessage("IPM.Note").Subject("RE: Invoice 17").To("Bob", "bob@example.org");
    message.To("Eve", "eve@example.org").Cc("Carl", "carl@example.org").Bcc("", "dan@example.org");
    message.AddRecipient(1).Text(0x3001, "Exchange").Text(0x3002, "EX").Text(0x3003, "/o=x/cn=y");
  });
  Values values;
  EXPECT_EQ(values.Get(message(0), {PR_SUBJECT_W, PR_NORMALIZED_SUBJECT_W, PR_SUBJECT_PREFIX_W, PR_DISPLAY_TO_W}),
            S_OK);
  EXPECT_STREQ(values[0].Value.lpszW, L"RE: Invoice 17");
  EXPECT_STREQ(values[1].Value.lpszW, L"Invoice 17");
  EXPECT_STREQ(values[2].Value.lpszW, L"RE: ");
  EXPECT_EQ(std::wstring(values[3].Value.lpszW).find(L"Bob; Eve"), 0u);

  Com<IMAPITable> table;
  ASSERT_EQ(message(0)->GetRecipientTable(0, table.Out()), S_OK);
  Rows rows;
  ASSERT_EQ(rows.Query(table.get(), {PR_RECIPIENT_TYPE, PR_SMTP_ADDRESS_W, PR_ROWID}), S_OK);
  ASSERT_EQ(rows.size(), 5u);
  EXPECT_STREQ(rows.At(1, 1).Value.lpszW, L"eve@example.org");
  EXPECT_EQ(rows.At(2, 0).Value.l, MAPI_CC);
  EXPECT_EQ(rows.At(3, 0).Value.l, MAPI_BCC);
  EXPECT_EQ(PROP_TYPE(rows.At(4, 1).ulPropTag), ULONG{PT_ERROR}) << "no address of the internet is known";
}

TEST_F(WrittenStores, OleObjectsOpenAsStreamAndStorage) {
  std::vector<std::uint8_t> document;
  {
    Com<IStorage> storage;
    Com<IStream> stream;
    Com<ILockBytes> memory;
    ASSERT_EQ(CreateILockBytesOnHGlobal(nullptr, TRUE, memory.Out()), S_OK);
    ASSERT_EQ(StgCreateDocfileOnILockBytes(memory.get(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0,
                                           storage.Out()),
              S_OK);
    ASSERT_EQ(storage->CreateStream(L"Contents", STGM_WRITE | STGM_SHARE_EXCLUSIVE, 0, 0, stream.Out()), S_OK);
    ASSERT_EQ(stream->Write("inside", 6, nullptr), S_OK);
    stream.Reset();
    ASSERT_EQ(storage->Commit(STGC_DEFAULT), S_OK);
    STATSTG stat;
    ASSERT_EQ(memory->Stat(&stat, STATFLAG_NONAME), S_OK);
    document.resize(stat.cbSize.QuadPart);
    ULONG read = 0;
    ASSERT_EQ(memory->ReadAt({}, document.data(), static_cast<ULONG>(document.size()), &read), S_OK);
  }
  Make([&](vault::FolderBuilder& folder) {
    auto& message = folder.AddMessage("IPM.Note").Subject("ole");
    message.AttachFile("drawing", document).Int(0x3705, 6);
    message.AttachFile("plain.txt", "text");
  });
  Com<IMAPITable> table;
  ASSERT_EQ(message(0)->GetAttachmentTable(0, table.Out()), S_OK);
  Rows rows;
  ASSERT_EQ(rows.Query(table.get(), {PR_ATTACH_NUM, PR_ATTACH_EXTENSION_W}), S_OK);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(PROP_TYPE(rows.At(0, 1).ulPropTag), ULONG{PT_ERROR}) << "a name without a dot has no extension";
  EXPECT_STREQ(rows.At(1, 1).Value.lpszW, L".txt");

  Com<IAttach> ole, plain;
  ASSERT_EQ(message(0)->OpenAttach(static_cast<ULONG>(rows.At(0, 0).Value.l), nullptr, 0, ole.Out()), S_OK);
  for (const IID* iid : {&IID_IStreamDocfile, &IID_IStream}) {
    Com<IStream> stream;
    ASSERT_EQ(ole->OpenProperty(PR_ATTACH_DATA_OBJ, iid, 0, 0, stream.Out<IUnknown>()), S_OK);
    EXPECT_EQ(ReadAll(stream.get()), document);
  }
  Com<IStorage> storage;
  ASSERT_EQ(ole->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStorage, 0, 0, storage.Out<IUnknown>()), S_OK);
  Com<IStream> contents;
  ASSERT_EQ(storage->OpenStream(L"Contents", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, contents.Out()), S_OK);
  const auto inside = ReadAll(contents.get());
  EXPECT_EQ(std::string(inside.begin(), inside.end()), "inside");
  ASSERT_EQ(message(0)->OpenAttach(static_cast<ULONG>(rows.At(1, 0).Value.l), nullptr, 0, plain.Out()), S_OK);
  EXPECT_EQ(plain->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IStorage, 0, 0, storage.Out<IUnknown>()),
            Code(MAPI_E_INTERFACE_NOT_SUPPORTED));
}

TEST_F(WrittenStores, NamedPropertiesOfEveryTypeKeepTheirOrder) {
  Make([](vault::FolderBuilder& folder) {
    folder.AddMessage("IPM.Task")
        .Subject("task")
        .Time({vault::kTaskSet, 0x8104}, 130000000000000000)
        .Bool({vault::kTaskSet, 0x8126}, true)
        .Text({vault::kTaskSet, 0x811F}, "Ann")
        .Int({vault::kTaskSet, 0x8101}, 2)
        .Texts({vault::kPublicStringsSet, "Keywords"}, {"Green", "Blue"});
  });
  GUID task = {0x00062003, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}},
       strings = {0x00020329, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
  constexpr LONG kIds[] = {0x8104, 0x8105, 0x8126, 0x811C, 0x811F, 0x8101};
  MAPINAMEID names[7];
  LPMAPINAMEID pointers[7];
  for (int i = 0; i < 6; ++i) names[i] = {&task, MNID_ID, {.lID = kIds[i]}};
  names[6].lpguid = &strings;
  names[6].ulKind = MNID_STRING;
  names[6].Kind.lpwstrName = const_cast<LPWSTR>(L"Keywords");
  for (int i = 0; i < 7; ++i) pointers[i] = &names[i];
  LPSPropTagArray tags = nullptr;
  ASSERT_EQ(message(0)->GetIDsFromNames(7, pointers, MAPI_CREATE, &tags), S_OK);
  ASSERT_EQ(tags->cValues, 7u);
  Values values;
  EXPECT_EQ(message(0)->GetProps(tags, 0, &values.count, &values.values), MAPI_W_ERRORS_RETURNED);
  LPMAPINAMEID* back = nullptr;
  ULONG count = 0;
  ASSERT_EQ(message(0)->GetNamesFromIDs(&tags, nullptr, 0, &count, &back), S_OK);
  ASSERT_EQ(count, 7u);
  for (int i = 0; i < 6; ++i) EXPECT_EQ(back[i]->Kind.lID, kIds[i]) << "also of those that the store lacks";
  EXPECT_STREQ(back[6]->Kind.lpwstrName, L"Keywords");
  Mapi().FreeBuffer(back);
  ASSERT_EQ(values.count, 7u);
  constexpr ULONG kTypes[] = {PT_SYSTIME, PT_ERROR, PT_BOOLEAN, PT_ERROR, PT_STRING8, PT_LONG, PT_MV_STRING8};
  for (std::size_t i = 0; i < 7; ++i)
    EXPECT_EQ(values[i].ulPropTag, PROP_TAG(kTypes[i], PROP_ID(tags->aulPropTag[i]))) << i;
  Mapi().FreeBuffer(tags);
  for (const std::size_t absent : {1, 3}) EXPECT_EQ(values[absent].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_STREQ(values[4].Value.lpszA, "Ann");
  EXPECT_EQ(values[5].Value.l, 2);
  ASSERT_EQ(values[6].Value.MVszA.cValues, 2u);
  EXPECT_STREQ(values[6].Value.MVszA.lppszA[1], "Blue");
  names[0].Kind.lID = 0x7ABD;
  EXPECT_EQ(message(0)->GetIDsFromNames(1, pointers, 0, &tags), MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(PROP_TYPE(tags->aulPropTag[0]), ULONG{PT_ERROR});
  Mapi().FreeBuffer(tags);
}

}  // namespace
}  // namespace test
