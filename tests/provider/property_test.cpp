#include "tests/provider/client.h"
#include "tests/support/thread.h"

namespace test {
namespace {

constexpr std::uint32_t kMessage = 0x200024;  // the one message of pstsdk-sample1.pst
constexpr std::uint32_t kAttachment = 0x8025;

class Properties : public ProviderTest {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_SAMPLES();
    ProviderTest::SetUp();
    opened_ = std::make_unique<OpenStore>(Sample(L"pstsdk-sample1.pst"));
    ASSERT_TRUE(opened_->store);
    message_ = opened_->Open<IMessage>(opened_->EntryIdOf(kMessage));
    ASSERT_TRUE(message_);
  }
  void TearDown() override {
    message_.Reset();
    opened_.reset();
    ProviderTest::TearDown();
  }
  IMsgStore* store() { return opened_->store.get(); }

  std::unique_ptr<OpenStore> opened_;
  Com<IMessage> message_;
};

TEST_F(Properties, TakeTheTypeThatIsAskedFor) {
  Values values;
  const ULONG any_subject = PROP_TAG(PT_UNSPECIFIED, PROP_ID(PR_SUBJECT));
  EXPECT_EQ(values.Get(message_.get(), {PR_SUBJECT_A, any_subject}), S_OK);
  EXPECT_STREQ(values[0].Value.lpszA, "Here is a sample message");
  EXPECT_EQ(values[1].ulPropTag, ULONG{PR_SUBJECT_A});
  EXPECT_EQ(values.Get(message_.get(), {any_subject}, MAPI_UNICODE), S_OK);
  EXPECT_EQ(values[0].ulPropTag, ULONG{PR_SUBJECT_W});
  EXPECT_EQ(values.Get(message_.get(),
                       {PROP_TAG(PT_LONG, PROP_ID(PR_SUBJECT)), PROP_TAG(PT_SYSTIME, PROP_ID(PR_MESSAGE_SIZE))}),
            MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(values[0].Value.err, MAPI_E_NOT_FOUND);
  EXPECT_EQ(values[1].Value.err, MAPI_E_NOT_FOUND);
}

TEST_F(Properties, AllAreListedOnceAndReadable) {
  LPSPropTagArray list = nullptr;
  ASSERT_EQ(message_->GetPropList(MAPI_UNICODE, &list), S_OK);
  Values all;
  ASSERT_TRUE(SUCCEEDED(all.Get(message_.get(), {}, MAPI_UNICODE)));
  EXPECT_EQ(all.count, list->cValues);
  EXPECT_GT(list->cValues, 40u);
  std::vector<bool> seen(0x10000);
  for (ULONG i = 0; i < all.count; ++i) {
    EXPECT_FALSE(seen[PROP_ID(all[i].ulPropTag)]) << std::hex << all[i].ulPropTag;
    seen[PROP_ID(all[i].ulPropTag)] = true;
    if (PROP_TYPE(all[i].ulPropTag) == PT_ERROR) {
      EXPECT_EQ(all[i].Value.err, MAPI_E_NOT_ENOUGH_MEMORY) << std::hex << all[i].ulPropTag;
    } else {
      EXPECT_EQ(all[i].ulPropTag, list->aulPropTag[i]);
    }
  }
  LPSPropValue copy = nullptr;
  ASSERT_EQ(Mapi().DupPropset(static_cast<int>(all.count), all.values, Mapi().AllocateBuffer, &copy), S_OK);
  const auto* subject = Mapi().FindProp(copy, all.count, PR_SUBJECT_W);
  ASSERT_NE(subject, nullptr);
  EXPECT_STREQ(subject->Value.lpszW, L"Here is a sample message");
  Mapi().FreeBuffer(copy);
  Mapi().FreeBuffer(list);
}

TEST_F(Properties, AreComputedWhereMapiPromisesThem) {
  Values of_message, of_store;
  ASSERT_EQ(of_message.Get(message_.get(),
                           {PR_ENTRYID, PR_PARENT_ENTRYID, PR_STORE_RECORD_KEY, PR_OBJECT_TYPE, PR_DISPLAY_BCC_W,
                            PR_HASATTACH, PR_NORMALIZED_SUBJECT_W, PR_SUBJECT_PREFIX_W, PR_STORE_ENTRYID}),
            S_OK);
  ASSERT_EQ(of_store.Get(store(), {PR_RECORD_KEY, PR_ENTRYID, PR_OBJECT_TYPE, PR_DISPLAY_NAME_W}), S_OK);
  EXPECT_EQ(BytesOf(of_message[0].Value.bin), opened_->EntryIdOf(kMessage));
  EXPECT_EQ(of_message[1].Value.bin.cb, 24u);
  EXPECT_EQ(BytesOf(of_message[2].Value.bin), BytesOf(of_store[0].Value.bin));
  EXPECT_EQ(of_message[3].Value.l, MAPI_MESSAGE);
  EXPECT_STREQ(of_message[4].Value.lpszW, L"");
  EXPECT_TRUE(of_message[5].Value.b);
  EXPECT_STREQ(of_message[6].Value.lpszW, L"Here is a sample message");
  EXPECT_STREQ(of_message[7].Value.lpszW, L"");
  EXPECT_EQ(BytesOf(of_message[8].Value.bin), BytesOf(of_store[1].Value.bin));
  EXPECT_GT(of_store[1].Value.bin.cb, 40u);
  EXPECT_EQ(of_store[2].Value.l, MAPI_STORE);
  EXPECT_STREQ(of_store[3].Value.lpszW, L"sample1");
}

TEST_F(Properties, LargeValuesComeAsStreams) {
  Com<IAttach> attachment;
  ASSERT_EQ(message_->OpenAttach(kAttachment, nullptr, MAPI_BEST_ACCESS, attachment.Out()), S_OK);
  Values values;
  EXPECT_EQ(values.Get(attachment.get(), {PR_ATTACH_DATA_BIN, PR_ATTACH_EXTENSION_W, PR_DISPLAY_NAME_W}),
            MAPI_W_ERRORS_RETURNED);
  EXPECT_EQ(values[0].Value.err, MAPI_E_NOT_ENOUGH_MEMORY);
  EXPECT_STREQ(values[1].Value.lpszW, L".jpg");
  EXPECT_STREQ(values[2].Value.lpszW, L"leah_thumper.jpg");

  Com<IStream> stream, copy;
  ASSERT_EQ(attachment->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, stream.Out<IUnknown>()), S_OK);
  const auto whole = ReadAll(stream.get());
  ASSERT_EQ(whole.size(), 93142u);
  LARGE_INTEGER move;
  ULARGE_INTEGER at;
  move.QuadPart = -10;
  ASSERT_EQ(stream->Seek(move, STREAM_SEEK_END, &at), S_OK);
  EXPECT_EQ(at.QuadPart, whole.size() - 10);
  EXPECT_EQ(ReadAll(stream.get()), std::vector<std::uint8_t>(whole.end() - 10, whole.end()));
  move.QuadPart = -1;
  EXPECT_TRUE(FAILED(stream->Seek(move, STREAM_SEEK_SET, nullptr)));
  move.QuadPart = 1000;
  ASSERT_EQ(stream->Seek(move, STREAM_SEEK_SET, nullptr), S_OK);
  ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, copy.Out()), S_OK);
  ULARGE_INTEGER size, read, written;
  size.QuadPart = ~0ull;
  ASSERT_EQ(stream->CopyTo(copy.get(), size, &read, &written), S_OK);
  EXPECT_EQ(read.QuadPart, whole.size() - 1000);
  EXPECT_EQ(written.QuadPart, read.QuadPart);
  EXPECT_TRUE(FAILED(stream->Write("x", 1, nullptr)));

  // A stream outlives the objects that it came from.
  attachment.Reset();
  message_.Reset();
  move.QuadPart = 0;
  ASSERT_EQ(stream->Seek(move, STREAM_SEEK_SET, nullptr), S_OK);
  EXPECT_EQ(ReadAll(stream.get()), whole);
}

TEST_F(Properties, OpenPropertyRefusesWhatIsNotThere) {
  Com<IUnknown> object;
  EXPECT_EQ(message_->OpenProperty(PR_HTML, &IID_IMessage, 0, 0, object.Out()), Code(MAPI_E_INTERFACE_NOT_SUPPORTED));
  EXPECT_EQ(message_->OpenProperty(PROP_TAG(PT_BINARY, 0x6FFF), &IID_IStream, 0, 0, object.Out()),
            Code(MAPI_E_NOT_FOUND));
  EXPECT_EQ(message_->OpenProperty(PR_BODY_W, &IID_IStream, 0, MAPI_MODIFY, object.Out()), Code(MAPI_E_NO_ACCESS));
  Com<IAttach> attachment;
  ASSERT_EQ(message_->OpenAttach(kAttachment, nullptr, 0, attachment.Out()), S_OK);
  EXPECT_EQ(attachment->OpenProperty(PR_ATTACH_DATA_OBJ, &IID_IMessage, 0, 0, object.Out()),
            Code(MAPI_E_INTERFACE_NOT_SUPPORTED));
  EXPECT_EQ(message_->OpenAttach(0, nullptr, 0, attachment.Out()), Code(MAPI_E_NOT_FOUND));
  SPropValue subject{};
  subject.ulPropTag = PR_SUBJECT_W;
  subject.Value.lpszW = const_cast<LPWSTR>(L"changed");
  EXPECT_EQ(message_->SetProps(1, &subject, nullptr), Code(MAPI_E_NO_ACCESS));
}

TEST_F(Properties, EntryIdsNameItemsWhateverFollowsThem) {
  auto id = opened_->EntryIdOf(kMessage);
  const auto exact = id;
  id.insert(id.end(), {0xDB, 0xDB, 0xDB, 0xDB});  // what is left in a caller's longer buffer
  EXPECT_TRUE(opened_->Open<IMessage>(id));
  ULONG same = 0;
  EXPECT_EQ(store()->CompareEntryIDs(28, OpenStore::Entry(id), 24, OpenStore::Entry(exact), 0, &same), S_OK);
  EXPECT_TRUE(same);
  const auto other = opened_->EntryIdOf(0x8022);
  EXPECT_EQ(store()->CompareEntryIDs(24, OpenStore::Entry(other), 24, OpenStore::Entry(exact), 0, &same), S_OK);
  EXPECT_FALSE(same);

  const auto open = [&](std::vector<std::uint8_t> bytes, LPCIID iid = nullptr) {
    ULONG type = 0;
    Com<IUnknown> object;
    return store()->OpenEntry(static_cast<ULONG>(bytes.size()), OpenStore::Entry(bytes), iid, MAPI_BEST_ACCESS, &type,
                              object.Out());
  };
  EXPECT_EQ(open({exact.begin(), exact.end() - 1}), Code(MAPI_E_INVALID_ENTRYID));
  auto foreign = exact;
  foreign[7] ^= 1;
  EXPECT_EQ(open(foreign), Code(MAPI_E_UNKNOWN_ENTRYID));
  EXPECT_EQ(open(opened_->EntryIdOf(0x7FFF004)), Code(MAPI_E_NOT_FOUND));
  EXPECT_EQ(open(exact, &IID_IMAPIFolder), Code(MAPI_E_INTERFACE_NOT_SUPPORTED));
  EXPECT_EQ(open(exact, &IID_IMessage), S_OK);

  ULONG type = 0;
  Com<IMAPIFolder> root;
  ASSERT_EQ(store()->OpenEntry(0, nullptr, nullptr, 0, &type, root.Out<IUnknown>()), S_OK);
  Values values;
  ASSERT_EQ(values.Get(root.get(), {PR_FOLDER_TYPE}), S_OK);
  EXPECT_EQ(values[0].Value.l, FOLDER_ROOT);
  Com<IMessage> through_session;
  EXPECT_EQ(
      opened_->session->OpenEntry(24, OpenStore::Entry(exact), nullptr, 0, &type, through_session.Out<IUnknown>()),
      S_OK);
}

TEST_F(Properties, ManyThreadsReadOneMessage) {
  std::vector<Thread> threads;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        Values values;
        if (values.Get(message_.get(), {PR_SUBJECT_W, PR_DISPLAY_TO_W}) != S_OK ||
            std::wstring(values[0].Value.lpszW) != L"Here is a sample message") {
          ++wrong;
        }
        Com<IAttach> attachment;
        Com<IStream> stream;
        if (message_->OpenAttach(kAttachment, nullptr, 0, attachment.Out()) != S_OK ||
            attachment->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, stream.Out<IUnknown>()) != S_OK ||
            ReadAll(stream.get()).size() != 93142) {
          ++wrong;
        }
      }
    });
  }
  for (Thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(ProviderTest, BuffersHangTogether) {
  void *root = nullptr, *part = nullptr, *deeper = nullptr;
  const long before = ProviderFaults::Count().buffers;
  ASSERT_EQ(Mapi().AllocateBuffer(100, &root), S_OK);
  ASSERT_EQ(Mapi().AllocateMore(1 << 20, root, &part), S_OK);
  ASSERT_EQ(Mapi().AllocateMore(0, part, &deeper), S_OK);
  memset(part, 0xAA, 1 << 20);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(part) % 16, 0u);
  EXPECT_NE(Mapi().FreeBuffer(part), ULONG{S_OK}) << "a part is freed with its parent only";
  EXPECT_EQ(Mapi().FreeBuffer(root), ULONG{S_OK});
  EXPECT_EQ(Mapi().FreeBuffer(nullptr), ULONG{S_OK});
  EXPECT_EQ(ProviderFaults::Count().buffers, before);
  char hex[9];
  BYTE bytes[] = {0x00, 0xAB, 0x7F, 0xF0};
  Mapi().HexFromBin(bytes, 4, hex);
  EXPECT_STREQ(hex, "00AB7FF0");
}

}  // namespace
}  // namespace test
