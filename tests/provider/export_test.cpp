// Messages on their way out of the provider: as files of the IMsg kind and as MIME. What independent readers find in
// both is the business of other tests; here are the forms that real stores do not have, and what goes wrong.
#include "tests/provider/client.h"

#include <functional>
#include <map>

#include "platform/converter.h"
#include "provider/mime/encoding.h"

namespace test {
namespace {

constexpr vault::Guid kSet = {0x29, 3, 2, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr vault::Guid kOtherSet = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

template <class Function>
Function* Export(const char* name) {
  const FARPROC address = GetProcAddress(Mapi().module, name);
  EXPECT_NE(address, nullptr) << name;
  Function* function = nullptr;
  memcpy(&function, &address, sizeof(function));
  return function;
}

// A storage in memory, and a message on it.
struct File {
  HRESULT Open(ULONG flags) {
    CreateILockBytesOnHGlobal(nullptr, TRUE, bytes.Out());
    StgCreateDocfileOnILockBytes(bytes.get(), STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE, 0, storage.Out());
    const HRESULT hr = Export<SCODE WINAPI(LPMALLOC, ULONG, LPMSGSESS*)>("OpenIMsgSession")(nullptr, 0, &session);
    if (FAILED(hr)) return hr;
    return Export<SCODE WINAPI(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, LPVOID, LPSTORAGE,
                               MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE*)>("OpenIMsgOnIStg")(
        session, nullptr, nullptr, nullptr, nullptr, nullptr, storage.get(), nullptr, 0, flags, message.Out());
  }
  ~File() {
    message.Reset();
    if (session) Export<void WINAPI(LPMSGSESS)>("CloseIMsgSession")(session);
  }
  // The stream's bytes; nothing when there is none.
  std::string Read(const std::vector<const wchar_t*>& path) {
    std::vector<Com<IStorage>> open;  // a storage that is let go takes what is open in it along
    IStorage* at = storage.get();
    for (std::size_t i = 0; i + 1 < path.size(); ++i) {
      Com<IStorage> next;
      if (FAILED(at->OpenStorage(path[i], nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0, next.Out())))
        return "<no storage>";
      at = next.get();
      open.push_back(std::move(next));
    }
    Com<IStream> stream;
    if (FAILED(at->OpenStream(path.back(), nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, stream.Out())))
      return "<no stream>";
    const auto read = ReadAll(stream.get());
    return {read.begin(), read.end()};
  }
  Com<ILockBytes> bytes;
  Com<IStorage> storage;
  LPMSGSESS session = nullptr;
  Com<IMessage> message;
};

std::string Wide16(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * 2};
}
std::string Number(std::uint32_t number) {
  return {reinterpret_cast<const char*>(&number), sizeof(number)};
}

HRESULT CopyAndSave(IMessage* from, File& file, std::vector<ULONG> excluded = {}) {
  Tags tags(excluded);
  HRESULT hr = from->CopyTo(0, nullptr, excluded.empty() ? nullptr : static_cast<LPSPropTagArray>(tags), 0, nullptr,
                            &IID_IMessage, file.message.get(), 0, nullptr);
  if (SUCCEEDED(hr)) hr = file.message->SaveChanges(KEEP_OPEN_READWRITE);
  return hr;
}

// The entry of a property, as the stream lists it.
std::string Entry(const std::string& stream, std::size_t header, ULONG tag) {
  for (std::size_t at = header; at + 16 <= stream.size(); at += 16)
    if (stream.compare(at, 4, Number(tag)) == 0) return stream.substr(at + 8, 8);
  return "<none>";
}

class Exports : public WrittenStoreTest {
 protected:
  void TearDown() override {
    message_.Reset();
    WrittenStoreTest::TearDown();
  }
  IMessage* Make(const std::function<void(vault::MessageBuilder&)>& fill) {
    vault::StoreBuilder store("Exports");
    fill(store.top().AddMessage("IPM.Note"));
    Write(store);
    Com<IMAPITable> table;
    EXPECT_EQ(opened_->OpenTop()->GetContentsTable(0, table.Out()), S_OK);
    Rows rows;
    EXPECT_EQ(rows.Query(table.get(), {PR_ENTRYID}), S_OK);
    EXPECT_EQ(rows.size(), 1u);
    message_ = opened_->Open<IMessage>(BytesOf(rows.At(0, 0).Value.bin));
    return message_.get();
  }

 private:
  Com<IMessage> message_;
};

void Rich(vault::MessageBuilder& message) {
  message.Subject("RE: Entwürfe").From("Ann", "ann@example.org").To("Bob", "bob@example.org").Body("two\r\nlines");
  message.Text(vault::PropertyKey(kSet, "Keywords"), "named by text");
  message.Int(vault::PropertyKey(kOtherSet, 0x8205), 7);
  message.AttachFile("a.txt", "content");
  vault::MessageBuilder& inner = message.AttachMessage("IPM.Note");
  inner.Subject("inner").Body("inside").Int(vault::PropertyKey(kOtherSet, 0x8205), 8);
}

TEST_F(Exports, AFileHasOneTableOfNamesAndStringsOfOneKind) {
  IMessage* message = Make(Rich);
  File file;
  ASSERT_EQ(file.Open(MAPI_UNICODE), S_OK);
  ASSERT_EQ(CopyAndSave(message, file), S_OK);
  EXPECT_EQ(file.Read({L"__substg1.0_0037001F"}), Wide16(u"RE: Entwürfe"));
  const std::string names = file.Read({L"__nameid_version1.0", L"__substg1.0_00030102"});
  ASSERT_EQ(names.size(), 16u);
  const std::string sets = file.Read({L"__nameid_version1.0", L"__substg1.0_00020102"});
  EXPECT_EQ(sets, std::string(reinterpret_cast<const char*>(kOtherSet.data()), 16)) << "the known set is not listed";
  EXPECT_EQ(file.Read({L"__nameid_version1.0", L"__substg1.0_00040102"}), Number(16) + Wide16(u"Keywords"));
  // The embedded message uses the same number for the same name.
  std::map<std::string, std::string> places;
  for (std::size_t at = 0; at < names.size(); at += 8) places[names.substr(at, 4)] = names.substr(at + 6, 2);
  const std::string index = places[Number(0x8205)];
  ASSERT_EQ(index.size(), 2u);
  const ULONG tag = PROP_TAG(PT_LONG, 0x8000u + static_cast<unsigned char>(index[0]));
  const std::string outer = file.Read({L"__properties_version1.0"});
  EXPECT_EQ(Entry(outer, 32, tag).substr(0, 4), Number(7));
  const wchar_t* attachment = L"__attach_version1.0_#00000001";
  const std::string inner = file.Read({attachment, L"__substg1.0_3701000D", L"__properties_version1.0"});
  EXPECT_EQ(Entry(inner, 24, tag).substr(0, 4), Number(8));
  EXPECT_EQ(file.Read({attachment, L"__substg1.0_3701000D", L"__nameid_version1.0", L"__substg1.0_00030102"}),
            "<no storage>")
      << "only the root has names";
  EXPECT_EQ(Entry(file.Read({attachment, L"__properties_version1.0"}), 8, PR_ATTACH_DATA_OBJ), Number(~0u) + Number(1));

  File ansi;
  ASSERT_EQ(ansi.Open(0), S_OK);
  ASSERT_EQ(CopyAndSave(message, ansi, {PR_BODY_W, PR_MESSAGE_ATTACHMENTS}), S_OK);
  EXPECT_EQ(ansi.Read({L"__substg1.0_0037001E"}), "RE: Entw\xFCrfe");
  EXPECT_EQ(ansi.Read({L"__substg1.0_0037001F"}), "<no stream>");
  EXPECT_EQ(ansi.Read({L"__substg1.0_1000001E"}), "two\r\nlines") << "left out of the copy, made again when saved";
  EXPECT_EQ(Entry(ansi.Read({L"__properties_version1.0"}), 32, PR_BODY_A).substr(0, 4), Number(11));
  EXPECT_EQ(ansi.Read({attachment, L"__properties_version1.0"}), "<no storage>");
}

TEST_F(Exports, ValuesOfEveryShapeAreStoredAsReadersExpect) {
  Make([](vault::MessageBuilder& message) { message.Subject("x"); });
  File file;
  ASSERT_EQ(file.Open(MAPI_UNICODE), S_OK);
  const wchar_t* const texts[] = {L"one", L""};
  std::uint8_t bytes[] = {1, 2, 3};
  SBinary binaries[] = {{3, bytes}, {0, nullptr}};
  LONG longs[] = {5, 6};
  SPropValue values[5] = {};
  values[0].ulPropTag = PROP_TAG(PT_MV_UNICODE, 0x6001);
  values[0].Value.MVszW = {2, const_cast<LPWSTR*>(texts)};
  values[1].ulPropTag = PROP_TAG(PT_MV_BINARY, 0x6002);
  values[1].Value.MVbin = {2, binaries};
  values[2].ulPropTag = PROP_TAG(PT_MV_LONG, 0x6003);
  values[2].Value.MVl = {2, longs};
  values[3].ulPropTag = PR_SUBJECT_W;
  values[3].Value.lpszW = const_cast<LPWSTR>(L"");
  values[4].ulPropTag = PROP_TAG(PT_OBJECT, 0x6004);
  // What an id had before goes, with all its streams.
  SPropValue before[] = {values[1], values[0]};
  before[0].ulPropTag = PROP_TAG(PT_MV_BINARY, 0x6001);
  before[1].ulPropTag = PROP_TAG(PT_MV_UNICODE, PROP_ID(PR_SUBJECT_W));
  EXPECT_EQ(file.message->SetProps(2, before, nullptr), S_OK);
  LPSPropProblemArray problems = nullptr;
  EXPECT_EQ(file.message->SetProps(5, values, &problems), S_OK);
  ASSERT_NE(problems, nullptr);
  EXPECT_EQ(problems->cProblem, 1u);
  EXPECT_EQ(problems->aProblem[0].ulIndex, 4u);
  Mapi().FreeBuffer(problems);
  ASSERT_EQ(file.message->SaveChanges(0), S_OK);
  EXPECT_EQ(file.Read({L"__substg1.0_6001101F"}), Number(8) + Number(2));
  EXPECT_EQ(file.Read({L"__substg1.0_6001101F-00000000"}), Wide16(std::u16string_view(u"one\0", 4)));
  EXPECT_EQ(file.Read({L"__substg1.0_60021102"}), Number(3) + Number(0) + Number(0) + Number(0));
  EXPECT_EQ(file.Read({L"__substg1.0_60021102-00000000"}), "\x01\x02\x03");
  EXPECT_EQ(file.Read({L"__substg1.0_60031003"}), Number(5) + Number(6));
  EXPECT_EQ(Entry(file.Read({L"__properties_version1.0"}), 32, PR_SUBJECT_W), "<none>")
      << "an empty string is left out";
  EXPECT_EQ(file.Read({L"__substg1.0_60011102"}) + file.Read({L"__substg1.0_60011102-00000000"}) +
                file.Read({L"__substg1.0_0037101F-00000001"}),
            "<no stream><no stream><no stream>");
  File again;
  again.bytes = std::move(file.bytes);
  LPMESSAGE twice = nullptr;
  EXPECT_EQ(
      Export<SCODE WINAPI(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, LPVOID, LPSTORAGE,
                          MSGCALLRELEASE*, ULONG, ULONG, LPMESSAGE*)>("OpenIMsgOnIStg")(
          nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, file.storage.get(), nullptr, 0, MAPI_UNICODE, &twice),
      static_cast<HRESULT>(MAPI_E_NO_SUPPORT))
      << "a file with a message in it is not written over";
}

HRESULT Converter(Com<IConverterSession>& converter) {
  Com<IClassFactory> factory;
  EXPECT_EQ(Export<HRESULT WINAPI(REFCLSID, REFIID, void**)>("DllGetClassObject")(
                CLSID_IConverterSession, IID_IClassFactory, factory.Out<void>()),
            S_OK);
  return factory->CreateInstance(nullptr, __uuidof(IConverterSession), converter.Out<void>());
}

HRESULT ToMime(IMessage* message, std::string& text, ENCODINGTYPE encoding = IET_BASE64, ULONG flags = CCSF_SMTP) {
  Com<IConverterSession> converter;
  HRESULT hr = Converter(converter);
  if (FAILED(hr)) return hr;
  Com<IStream> stream;
  CreateStreamOnHGlobal(nullptr, TRUE, stream.Out());
  hr = converter->SetEncoding(encoding);
  if (SUCCEEDED(hr)) hr = converter->MAPIToMIMEStm(message, stream.get(), flags);
  stream->Seek({}, STREAM_SEEK_SET, nullptr);
  const auto bytes = ReadAll(stream.get());
  text.assign(bytes.begin(), bytes.end());
  return hr;
}

TEST_F(Exports, NothingInAMailEndsAHeaderOrABodyEarly) {
  IMessage* message = Make([](vault::MessageBuilder& made) {
    made.Subject("a\r\nBcc: victim@example.org\r\n\r\nbody").Body("--=_hoardex_1--\r\n.\r\nFrom here").Html("<p>x</p>");
    made.From("Eve\r\nX-Evil: 1", "eve@example.org\r\nX-Evil: 2").To("Bob\"\\", "bob@example.org");
    made.Bcc("Hidden", "hidden@example.org");
    made.Text(0x1035, "<a\r\nX-Evil: 3@b>");
    made.AttachFile("x\r\nX-Evil: 4.txt", "1").MimeType("text/plain\r\nX-Evil: 5");
    made.AttachFile("mail.eml", "From: x").MimeType("message/rfc822");
    made.AttachFile("long.bin", "2").MimeType("text/" + std::string(3000, 'x'));
    made.Text(0x1042, "answered@example.org");
  });
  std::string mime;
  ASSERT_EQ(ToMime(message, mime, IET_QP), S_OK);
  EXPECT_EQ(mime.find("\nX-Evil"), std::string::npos) << mime;
  EXPECT_EQ(mime.find("\nBcc"), std::string::npos);
  EXPECT_EQ(mime.find("hidden@example.org"), std::string::npos);
  EXPECT_NE(mime.find("To: \"Bob\\\"\\\\\" <bob@example.org>\r\n"), std::string::npos) << mime;
  EXPECT_EQ(mime.find("\n--=_hoardex_1--\r\n.\r\n"), std::string::npos) << "the body's line would end the message";
  EXPECT_NE(mime.find("\r\nIn-Reply-To: <answered@example.org>\r\n"), std::string::npos);
  for (std::size_t at = 0, end; (end = mime.find("\r\n", at)) != std::string::npos; at = end + 2)
    EXPECT_LE(end - at, 998u);
  EXPECT_EQ(mime.find("Content-Type: message/rfc822"), std::string::npos) << "a message is never encoded";
  std::string shown;
  ASSERT_EQ(ToMime(message, shown, IET_BASE64, CCSF_SMTP | CCSF_INCLUDE_BCC | CCSF_PLAIN_TEXT_ONLY), S_OK);
  EXPECT_NE(shown.find("\r\nBcc: Hidden <hidden@example.org>\r\n"), std::string::npos);
  EXPECT_EQ(shown.find("text/html"), std::string::npos);
  std::string refused;
  EXPECT_EQ(ToMime(message, refused, IET_BASE64, 0), E_INVALIDARG);
}

TEST(Mime, HeadersHoldEveryText) {
  using namespace provider::mime;
  const std::u16string long_name(300, u'\x65E5');
  const std::string folded = Header("Subject", EncodeText(long_name + u"\xD83D\xDE00\xD83D"));
  for (std::size_t begin = 0; begin < folded.size();) {
    const std::size_t end = folded.find("\r\n", begin);
    ASSERT_NE(end, std::string::npos);
    EXPECT_LE(end - begin, 76u);
    begin = end + 2;
  }
  EXPECT_EQ(EncodeText(u"plain words"), "plain words");
  EXPECT_EQ(EncodeText(u"=?utf-8?Q?x?="), "=?utf-8?B?PT91dGYtOD9RP3g/PQ==?=") << "would be read as encoded";
  EXPECT_EQ(EncodeText(u"\xD83D\xDE00\xDE00"), "=?utf-8?B?8J+YgO+/vQ==?=");
  EXPECT_EQ(Parameter("filename", u"a\"b.txt"), ";\r\n filename=\"a\\\"b.txt\"");
  EXPECT_EQ(Parameter("filename", u"\x44F.txt"), ";\r\n filename*=utf-8''%D1%8F.txt");
  const std::string parts = Parameter("filename", long_name);
  EXPECT_NE(parts.find("\r\n filename*0*=utf-8''%E6"), std::string::npos);
  EXPECT_NE(parts.find("\r\n filename*44*="), std::string::npos) << parts.size();
  EXPECT_EQ(Mailbox(u"Ann", u"/O=ORG/CN=ANN"), "Ann:;") << "no address that mail could go to";
  EXPECT_EQ(Mailbox(u"", u"a@b.example"), "<a@b.example>");
  EXPECT_EQ(Mailbox(u"x", u"a@b>\r\nC: d"), "x:;");
  EXPECT_EQ(Mailbox(u"J", u"\"john \\\"doe\"@example.com"), "J <\"john \\\"doe\"@example.com>");
  EXPECT_EQ(Mailbox(u"J", u"\"john\"doe\"@example.com"), "J:;");
  EXPECT_EQ(Mailbox(u"Zoe", u"\x7528@example.com"), "=?utf-8?B?Wm9lICjnlKhAZXhhbXBsZS5jb20p?=:;");
  EXPECT_EQ(Mailbox(u" \x7F\r\n", u""), "?:;");
  EXPECT_EQ(Date(0), "Mon, 01 Jan 1601 00:00:00 +0000");
  EXPECT_EQ(Date(125'963'423'990'000'000), "Tue, 29 Feb 2000 23:59:59 +0000");
  EXPECT_EQ(Date(133'800'768'010'000'000), "Tue, 31 Dec 2024 00:00:01 +0000");
  EXPECT_EQ(QuotedPrintable("a=b \r\n\xC3\xA4 "), "a=3Db=20\r\n=C3=A4=20");
  Base64Lines lines;
  std::string out;
  const std::vector<std::uint8_t> bytes(58, 0);
  lines.Add({bytes.data(), 1}, out);
  EXPECT_EQ(out, "");
  lines.Add({bytes.data(), 57}, out);
  lines.Finish(out);
  EXPECT_EQ(out, std::string(76, 'A') + "\r\nAA==\r\n");
}

}  // namespace
}  // namespace test
