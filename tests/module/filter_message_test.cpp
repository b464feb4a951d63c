// What a message offers when its properties are absent, of another type, or not what the store said; and its text.
#include "tests/module/filter_fixture.h"

#include <algorithm>

#include "platform/mapi_extra.h"

namespace {

using Messages = Filter;
using Key = std::pair<ULONG, ULONG>;

// Runs a filter's whole sequence with a fault that counts from its first chunk on.
std::vector<Chunk> ReadSpoilt(ISearchProtocol* protocol, const std::wstring& url, const HoardexMapiFaultPlan& plan) {
  Item item(protocol, url);
  EXPECT_EQ(item.Bind(), S_OK);
  ProviderFaults::Set(plan);
  const std::vector<Chunk> chunks = item.ReadAll();
  EXPECT_EQ(item.last, static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
  EXPECT_GT(ProviderFaults::FaultsGiven(), 0) << plan.operation;
  ProviderFaults::Clear();
  return chunks;
}

HoardexMapiFaultPlan Spoil(const char* operation, long call, HoardexMapiFault fault, ULONG column) {
  return {operation, call, FALSE, fault, static_cast<HRESULT>(MAPI_E_NOT_FOUND), column, 0};
}

std::vector<Key> KeysOf(const std::vector<Chunk>& chunks) {
  std::vector<Key> keys;
  for (const Chunk& chunk : chunks) keys.emplace_back(chunk.fmtid, chunk.pid);
  return keys;
}

TEST_F(Messages, AreOfTheKindThatTheirWholeClassNames) {
  const struct {
    const char* message_class;
    const wchar_t *kind, *type, *text;
  } kCases[] = {
      {"IPM.Appointment", L"calendar;communication", L"MAPI/ZK.Appointment", L"Tessary Appointment"},
      {"ipm.schedule.MEETING.request", L"calendar;communication", L"MAPI/ZK.Appointment", L"Tessary Appointment"},
      {"IPM.Task", L"task;taskrequest;communication", L"MAPI/ZK.Task", L"Tessary Task"},
      {"IPM.TaskRequest", L"task;taskrequest;communication", L"MAPI/ZK.Task", L"Tessary Task"},
      {"IPM.Contact", L"contact;communication", L"MAPI/ZK.Contact", L"Tessary Contact"},
      {"ipm.stickynote", L"note;stickynote;communication", L"MAPI/ZK.Note", L"Tessary Note"},
      {"IPM.Note", L"email;communication", L"MAPI/ZK.Message", L"Tessary E-Mail Message"},
      {"IPM.Task.Custom", L"email;communication", L"MAPI/ZK.Message", L"Tessary E-Mail Message"},
      {"IPM.Schedule.Meeting.Canceled", L"email;communication", L"MAPI/ZK.Message", L"Tessary E-Mail Message"}};
  auto& folder = store_.top().AddFolder("All");
  for (const auto& expected : kCases) folder.AddMessage(expected.message_class).Subject("Any");
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), std::size(kCases));
  NewLog();
  for (size_t i = 0; i < urls.size(); ++i) {
    const auto chunks = Read(urls[i]);
    EXPECT_EQ(Text(chunks, kKind, 3), kCases[i].kind) << kCases[i].message_class;
    EXPECT_EQ(Text(chunks, kShell, 11), kCases[i].type);
    EXPECT_EQ(Text(chunks, kStorage, 4), kCases[i].text);
    EXPECT_TRUE(HasLine(
        NewLog(), std::string("CHoardexFilter::GetChunk() - PR_MESSAGE_CLASS = [") + kCases[i].message_class + "]"));
  }
  // Without a class, too.
  const auto plan =
      HoardexMapiFaultPlan{"HrGetOneProp", 1, FALSE, kHoardexMapiAnswer, static_cast<HRESULT>(MAPI_E_NOT_FOUND), 0, 0};
  EXPECT_EQ(Text(ReadSpoilt(protocol_.Get(), urls[0], plan), kKind, 3), L"email;communication");
  EXPECT_TRUE(
      HasLine(NewLog(), "CHoardexFilter::GetChunk() - HrGetOneProp for PR_MESSAGE_CLASS failed with [0x8004010F]"));
}

// A property that is an error, or of another type, or a null pointer, takes away its own steps and no others.
TEST_F(Messages, LoseOnlyTheStepsOfAPropertyThatIsNotThere) {
  using namespace vault;
  auto& folder = store_.top().AddFolder("All");
  const auto time = FileTime(2024, 3, 1, 8);
  auto& mail = AddMail(folder).Bcc("Di", "di@example.com").Body("Text").DeliveryTime(time).Time(0x3007, time);
  mail.Binary(0x0071, std::string("\x01\xAB", 2)).Int(0x1090, 2).Int(0x0E07, 1);
  auto& meeting = folder.AddMessage("IPM.Appointment").Subject("Meeting").From("Ann", "ann@example.com");
  meeting.Time({kAppointmentSet, 0x820D}, time).Time({kAppointmentSet, 0x820E}, time);
  meeting.Int({kAppointmentSet, 0x8205}, 2).Bool({kAppointmentSet, 0x8223}, true);
  meeting.Text({kAppointmentSet, 0x8208}, "Room");
  auto& task = folder.AddMessage("IPM.Task").Time({kTaskSet, 0x8104}, time).Time({kTaskSet, 0x8105}, time);
  task.Bool({kTaskSet, 0x8126}, true).Bool({kTaskSet, 0x811C}, true).Text({kTaskSet, 0x811F}, "Ann");
  task.Int({kTaskSet, 0x8101}, 1);
  auto& card = folder.AddMessage("IPM.Contact");
  for (std::uint16_t id :
       {0x3001, 0x3A16, 0x3A17, 0x3A57, 0x3A09, 0x3A2E, 0x3A1C, 0x3A18, 0x3A19, 0x3A46, 0x3A4E, 0x3A30})
    card.Text(id, "text");
  for (std::uint32_t id : {0x8005, 0x8080, 0x8083, 0x8062}) card.Text({kAddressSet, id}, "text");
  folder.AddMessage("IPM.StickyNote").Int({kNoteSet, 0x8B00}, 3);
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), 5u);

  const struct {
    size_t message;
    long call;  // of GetProps, from the first chunk on
    std::vector<std::vector<Key>> columns;
    // clang-format off
  } kSets[] = {
      {0, 1, {{{0xF7DB74B4, 100}, {kMail, 20}}, {{kMail, 3}}, {{kMail, 5}}, {{kMail, 17}}, {{kStorage, 12}}, {},
       {{kSummary, 4}, {0x0DA41CFA, 100}, {kMail, 14}}, {}, {{kMail, 19}}, {{kMail, 13}, {0x0BE1C8E7, 100}}, {{kStorage,
       15}}, {{kMail, 10}}, {}, {{0xDC8F80BD, 100}}, {{0xAAA660F9, 100}}, {}}},
      {1, 3, {{{0x48FD6EC8, 100}}, {{0xC75FAA05, 100}}, {{0x5BF396D4, 100}}, {{0x315B9C8D, 100}}, {{0xF6272D18, 100}}}},
      {2, 3, {{{0x48FD6EC8, 100}}, {{0x3F8472B5, 100}}, {{0x315B9C8D, 100}}, {{0xA6F360D2, 100}}, {{0x08C7CC5F, 100}},
       {{0xBE1A72C6, 100}}}},
      {3, 3, {{{0x635E9051, 100}}, {{0xD5CDD502, 15}}, {{0x176DC63C, 6}}, {{0x8589E481, 100}}, {{0x176DC63C, 20}},
       {{0x9A93244D, 100}}, {{0x176DC63C, 35}}, {{0xFC9F7306, 100}}, {{0x176DC63C, 7}}, {{0x7268AF55, 100}},
       {{0xD5CDD502, 14}}, {{0xCD102C9C, 100}}}},
      {3, 4, {{{0xF1A24AA7, 100}}, {{0xCC6F4F24, 100}}, {{0xF8FA7FA3, 100}}, {{0xD68DBD8A, 100}}}},
      {4, 3, {{{0x4776CAFA, 100}}}},
  };
  // clang-format on
  for (const auto& set : kSets) {
    const auto whole = KeysOf(Read(urls[set.message]));
    for (ULONG column = 0; column < set.columns.size(); ++column) {
      SCOPED_TRACE("message " + std::to_string(set.message) + ", column " + std::to_string(column));
      std::vector<Key> rest;
      for (const Key& key : set.columns[column])
        EXPECT_TRUE(std::find(whole.begin(), whole.end(), key) != whole.end()) << "the step was never there";
      std::copy_if(whole.begin(), whole.end(), std::back_inserter(rest), [&](const Key& key) {
        return std::find(set.columns[column].begin(), set.columns[column].end(), key) == set.columns[column].end();
      });
      for (const auto fault : {kHoardexMapiErrorCell, kHoardexMapiWrongType}) {
        const auto chunks =
            ReadSpoilt(protocol_.Get(), urls[set.message], Spoil("IMAPIProp::GetProps", set.call, fault, column));
        EXPECT_EQ(KeysOf(chunks), rest);
        if (set.message != 0) continue;
        const bool titled = column != 5, flagged = column != 12;
        for (const Key& key : {Key(kSummary, 2), Key(kSummary, 3), Key(kItemName, 100)})
          EXPECT_EQ(Text(chunks, key.first, key.second), titled ? L"Invoice 17" : L"[No subject]");
        EXPECT_EQ(Find(chunks, 0x5DA84765, 100)->number, flagged ? VARIANT_TRUE : VARIANT_FALSE);
      }
      // What is only a null pointer is there, and empty.
      const auto null = ReadSpoilt(protocol_.Get(), urls[set.message],
                                   Spoil("IMAPIProp::GetProps", set.call, kHoardexMapiNullPointer, column));
      const bool needs_text = set.message == 0 && column >= 1 && column <= 3;
      EXPECT_EQ(KeysOf(null), needs_text ? rest : whole);
    }
  }
  const auto meeting_keys = KeysOf(Read(urls[1]));
  for (const Key& key : {Key(0x0BA7D6C3, 100), Key(0xD55BAE5A, 100), Key(0x744C8242, 100)})
    EXPECT_TRUE(std::find(meeting_keys.begin(), meeting_keys.end(), key) != meeting_keys.end())
        << "of an appointment, with or without recipients";
}

TEST_F(Messages, SayWhetherTheyWereReadAndByWhomTheyWereSent) {
  const struct {
    const char *type, *address;
    const wchar_t* expected;
    std::int32_t flags;
    // clang-format off
  } kCases[] = {{"EX", "/O=ORG/CN=ANN", L"EX:/O=ORG/CN=ANN", 0x11},  // MSGFLAG_READ, and that it has an attachment
                {"smtp", "ann@example.com", L"ann@example.com", 0x10},
                {"SMTP", "ann@example.com", L"ann@example.com", 1},
                {"", "somebody", L"somebody", 0}};
  // clang-format on
  auto& folder = store_.top().AddFolder("All");
  for (const char* message_class : {"IPM.Note", "IPM.Appointment"}) {
    for (const auto& sent : kCases) {
      auto& message = folder.AddMessage(message_class).Int(0x0E07, sent.flags);
      message.Text(0x0C1E, sent.type).Text(0x0C1F, sent.address);
      // Whoever it was sent for is shown by the sender's type.
      message.Text(0x0064, "X400").Text(0x0065, sent.address);
    }
  }
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), 2 * std::size(kCases));
  for (size_t i = 0; i < urls.size(); ++i) {
    const auto& sent = kCases[i % std::size(kCases)];
    const bool appointment = i >= std::size(kCases);
    SCOPED_TRACE(sent.type);
    const auto chunks = Read(urls[i]);
    EXPECT_EQ(Find(chunks, kMail, 10)->number, sent.flags & 1 ? VARIANT_TRUE : VARIANT_FALSE);
    EXPECT_EQ(Text(chunks, kMail, 13), sent.expected);
    EXPECT_EQ(Text(chunks, 0x0BE1C8E7, 100), sent.expected);
    EXPECT_EQ(Text(chunks, 0x744C8242, 100), appointment ? sent.expected : L"<absent>") << "organizers alone";
  }
}

TEST_F(Messages, GiveTheirBodyInEachOfItsOutcomes) {
  AddMail(store_.top().AddFolder("Inbox")).Body("The body.");
  const std::wstring url = MessagesOf(Write(store_)).at(0);
  {
    Item item(protocol_.Get(), url);
    ASSERT_EQ(item.Bind(), S_OK);
    ProviderFaults::Clear();  // counts from here
    const auto whole = item.ReadAll();
    EXPECT_EQ(Text(whole, kStorage, 19), L"The body.");
    EXPECT_EQ(Text(whole, kAutoSummary, 2), L"The body....");
  }
  long body_call = 0;
  for (long n = 1, one = 0; n <= ProviderFaults::CallsEntered() && one < 3; ++n)
    if (!strcmp(ProviderFaults::CallName(n), "HrGetOneProp") && ++one == 3) body_call = n;
  ASSERT_GT(body_call, 0);
  const auto answer = [](const char* operation, long call, HRESULT code, BOOL on) {
    return HoardexMapiFaultPlan{operation, call, on, kHoardexMapiAnswer, code, 0, 0};
  };
  const struct {
    HoardexMapiFaultPlan plan;
    const wchar_t *text, *summary;
    const char* line;
  } kCases[] = {
      {answer("HrGetOneProp", 3, E_OUTOFMEMORY, FALSE), L"The body.", L"The body....", nullptr},
      {answer(nullptr, body_call, E_OUTOFMEMORY, TRUE), L"<absent>", L"...",
       "CHoardexFilter::GetChunk() -\tOpenProperty for body failed with [0x8007000E]"},
      {Spoil("IMAPIProp::GetProps", 4, kHoardexMapiWrongType, 0), L"<absent>", L"...",
       "CHoardexFilter::GetChunk() - HrGetOneProp could not get PR_BODY, hr = [0x00000000]"},
      {answer("HrGetOneProp", 3, static_cast<HRESULT>(MAPI_E_NOT_FOUND), FALSE), L"<absent>", L"...", nullptr},
      {answer("HrGetOneProp", 3, static_cast<HRESULT>(MAPI_E_NETWORK_ERROR), FALSE), L"<absent>", L"...",
       "CHoardexFilter::GetChunk() -\tBody is\tNULL"},
      {Spoil("IMAPIProp::GetProps", 4, kHoardexMapiNullPointer, 0), L"<absent>", L"...",
       "CHoardexFilter::GetChunk() -\tBody is\tNULL"},
  };
  for (size_t i = 0; i < std::size(kCases); ++i) {
    SCOPED_TRACE(i);
    NewLog();
    const auto chunks = ReadSpoilt(protocol_.Get(), url, kCases[i].plan);
    EXPECT_EQ(Text(chunks, kStorage, 19), kCases[i].text);
    EXPECT_EQ(Text(chunks, kAutoSummary, 2), kCases[i].summary);
    const std::string log = NewLog();
    EXPECT_TRUE(!kCases[i].line || HasLine(log, kCases[i].line)) << log;
  }
}

// The pieces of a text, and that not one character is written beyond its end, or beyond its terminator.
void ExpectPieces(IFilter* filter, const std::wstring& body, ULONG room, bool stream) {
  constexpr wchar_t kGuard = 0xCCCC;
  std::wstring text;
  for (;;) {
    std::vector<wchar_t> buffer(room + 2, kGuard);
    ULONG count = room;
    const HRESULT hr = filter->GetText(&count, buffer.data());
    ASSERT_TRUE(SUCCEEDED(hr));
    ASSERT_LE(count, room);
    text.append(buffer.data(), count);
    EXPECT_EQ(buffer[count], stream ? kGuard : L'\0');
    EXPECT_EQ(buffer[count + 1], kGuard);
    const bool last = stream ? count < room : text.size() == body.size();
    ASSERT_EQ(hr, last ? FILTER_S_LAST_TEXT : S_OK) << text.size();
    if (last) break;
  }
  EXPECT_TRUE(text == body);
  ULONG count = room;
  std::vector<wchar_t> buffer(room + 1);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(filter->GetText(&count, buffer.data()), static_cast<HRESULT>(FILTER_E_NO_MORE_TEXT));
}

TEST_F(Messages, HandTheirTextOutInPiecesOfAnySize) {
  auto& folder = store_.top().AddFolder("Inbox");
  const std::pair<std::string, std::wstring> kBodies[] = {
      {"x", L"x"},
      {"a\xF0\x9F\x98\x80\xF0\x9F\x98\x80z", L"a\xD83D\xDE00\xD83D\xDE00z"},
      {std::string(24, 'y'), std::wstring(24, L'y')}};
  for (const auto& body : kBodies) AddMail(folder).Body(body.first);
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), std::size(kBodies));
  for (size_t i = 0; i < urls.size(); ++i) {
    for (const bool stream : {false, true}) {
      for (ULONG room = 1; room <= kBodies[i].second.size() + 1; ++room) {
        SCOPED_TRACE(std::to_string(i) + (stream ? " streamed by " : " by ") + std::to_string(room));
        Item item(protocol_.Get(), urls[i]);
        ASSERT_EQ(item.Bind(), S_OK);
        if (stream) ProviderFaults::Fail("HrGetOneProp", 3, E_OUTOFMEMORY);
        ASSERT_TRUE(ToText(item.filter.Get()));
        ProviderFaults::Clear();
        ExpectPieces(item.filter.Get(), kBodies[i].second, room, stream);
      }
    }
  }
  Item item(protocol_.Get(), urls[0]);
  ASSERT_EQ(item.Bind(), S_OK);
  ULONG count = 0;
  wchar_t buffer[2];
  NewLog();
  EXPECT_EQ(item.filter->GetText(nullptr, buffer), E_POINTER);
  EXPECT_EQ(item.filter->GetText(&count, nullptr), E_POINTER);
  EXPECT_TRUE(HasLine(NewLog(), "CHoardexFilter::GetText() - NULL input"));
  EXPECT_EQ(item.filter->GetText(&count, buffer), E_INVALIDARG);
  EXPECT_TRUE(HasLine(NewLog(), "CHoardexFilter::GetText() - Empty buffer input"));
}

TEST_F(Messages, EndTheirTextWhereTheStreamFails) {
  AddMail(store_.top().AddFolder("Inbox")).Body(std::string(100, 'x'));
  Item item(protocol_.Get(), MessagesOf(Write(store_)).at(0));
  ASSERT_EQ(item.Bind(), S_OK);
  ProviderFaults::Fail("HrGetOneProp", 3, E_OUTOFMEMORY);
  ASSERT_TRUE(ToText(item.filter.Get()));
  wchar_t buffer[41];
  ULONG count = 40;
  EXPECT_EQ(item.filter->GetText(&count, buffer), S_OK);
  ProviderFaults::Fail("IStream::Read", 1, E_FAIL);
  NewLog();
  EXPECT_EQ(item.filter->GetText(&count, buffer), static_cast<HRESULT>(FILTER_E_NO_MORE_TEXT));
  EXPECT_TRUE(HasLine(NewLog(), "CHoardexFilter::GetText() - Stream Read failed with [0x80004005]"));
  ProviderFaults::Clear();
  EXPECT_EQ(item.filter->GetText(&count, buffer), static_cast<HRESULT>(FILTER_E_NO_MORE_TEXT));
}

TEST_F(Messages, KeepASummaryOfTheFirstPiece) {
  auto& folder = store_.top().AddFolder("Inbox");
  const size_t kLengths[] = {0, 1, 1018, 1019, 1020, 1021, 1023, 1024, 1025, 5000, 300'000};
  std::vector<std::wstring> bodies;
  for (const size_t length : kLengths) {
    std::string body;
    while (body.size() < length) body += static_cast<char>('a' + body.size() % 23);
    auto& mail = AddMail(folder);
    if (length) mail.Body(body);
    bodies.emplace_back(body.begin(), body.end());
  }
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), bodies.size());
  for (size_t i = 0; i < urls.size(); ++i) {
    for (const ULONG room : {5u, 1018u, 1019u, 1020u, 1021u, 1024u, 2000u, 6000u}) {
      if (room < 1000 && bodies[i].size() > 10'000) continue;
      SCOPED_TRACE(std::to_string(bodies[i].size()) + " by " + std::to_string(room));
      const auto chunks = Read(urls[i], room);
      const size_t first = std::min<size_t>(room, bodies[i].size());
      EXPECT_TRUE(Text(chunks, kAutoSummary, 2) == bodies[i].substr(0, first < 1020 ? first : 1019) + L"...");
      EXPECT_TRUE(Text(chunks, kStorage, 19) == (bodies[i].empty() ? L"<absent>" : bodies[i]));
    }
  }
}

TEST_F(Messages, HoldTheStepOfTheirLinksForAsLongAsValuesAreTaken) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox")).Body("Body");
  for (const char* name : {"a.txt", "b.txt", "c.txt"})
    mail.AttachFile(name, name).Time(0x3008, vault::FileTime(2024, 5, 1));
  Item item(protocol_.Get(), MessagesOf(Write(store_)).at(0));
  ASSERT_EQ(item.Bind(), S_OK);
  STAT_CHUNK stat = {};
  const auto to_first_link = [&] {
    HRESULT hr = S_OK;
    while ((hr = item.filter->GetChunk(&stat)) == S_OK && stat.attribute.guidPropSet.Data1 != kLink) {
    }
    return hr;
  };
  const auto link = [&] {
    const std::wstring url = TakeText(item.filter.Get());
    return url.substr(url.rfind(L'/'));
  };
  // GetChunk alone goes forward: the links end behind the first, and the next run begins.
  ASSERT_EQ(to_first_link(), S_OK);
  EXPECT_EQ(item.filter->GetChunk(&stat), static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
  const ULONG ids = stat.idChunk;
  // With their values, all come; one that is not taken ends them.
  ASSERT_EQ(to_first_link(), S_OK);
  EXPECT_GT(stat.idChunk, ids);
  EXPECT_EQ(link(), L"/a.txt");
  EXPECT_EQ(item.filter->GetChunk(&stat), S_OK);
  EXPECT_EQ(link(), L"/b.txt");
  EXPECT_EQ(item.filter->GetChunk(&stat), S_OK);
  EXPECT_EQ(item.filter->GetChunk(&stat), static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));

  // A value may be taken again; text has none.
  STAT_CHUNK first = {};
  ASSERT_EQ(item.filter->GetChunk(&first), S_OK);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(TakeText(item.filter.Get()), L"Tessary");
  ASSERT_TRUE(ToText(item.filter.Get()));
  PROPVARIANT* none = nullptr;
  NewLog();
  EXPECT_TRUE(FAILED(item.filter->GetValue(&none)));
  EXPECT_EQ(none, nullptr);
  EXPECT_TRUE(HasLine(NewLog(), "CHoardexFilter::GetValue() - Called with a undefined property!"));
  EXPECT_EQ(item.filter->GetValue(nullptr), E_POINTER);
  EXPECT_EQ(item.filter->GetChunk(nullptr), E_POINTER);
}

}  // namespace
