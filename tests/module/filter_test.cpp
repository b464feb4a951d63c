// What the indexer gets for every kind of item, out of stores that the test writes.
#include "tests/module/filter_fixture.h"

namespace {

namespace fs = std::filesystem;
using Microsoft::WRL::ComPtr;

TEST_F(Filter, EmitsAMailInAnOrderThatStaysTheSame) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox")).Body("The body of the invoice.");
  mail.Binary(0x0071, std::string("\x01\xAB\x00\xFF", 4)).Int(0x1090, 2);
  mail.AttachFile("notes.txt", "text of the notes").Time(0x3008, vault::FileTime(2024, 5, 1));
  mail.AttachFile("photo.xyz", "no filter for this");
  const auto messages = MessagesOf(Write(store_));
  ASSERT_EQ(messages.size(), 1u);
  const std::vector<Chunk> chunks = Read(messages[0]);

  const std::pair<ULONG, ULONG> expected[] = {
      {kMail, 7},        {kShell, 11},      {0xDABD30ED, 100}, {kMail, 6},        {kStorage, 4},   {0xF23F425C, 100},
      {0x6B8DA074, 100}, {kSummary, 4},     {0xF7DB74B4, 100}, {kStorage, 2},     {kKind, 3},      {kMail, 16},
      {kMail, 4},        {kMail, 2},        {kMail, 13},       {0x0DA41CFA, 100}, {kSummary, 2},   {0x5CDA5FC8, 100},
      {kMail, 20},       {kMail, 5},        {kMail, 17},       {kStorage, 12},    {kSummary, 3},   {kMail, 14},
      {kStorage, 19},    {kMail, 19},       {0x0BE1C8E7, 100}, {kStorage, 15},    {kMail, 10},     {0x5DA84765, 100},
      {0xDC8F80BD, 100}, {0xAAA660F9, 100}, {0x560C36C0, 2},   {kMail, 21},       {0x9C1FCF74, 8}, {kLink, 12}};
  ASSERT_EQ(chunks.size(), std::size(expected));
  for (size_t i = 0; i < chunks.size(); ++i) {
    EXPECT_EQ(std::pair(chunks[i].fmtid, chunks[i].pid), expected[i]) << i;
    EXPECT_EQ(chunks[i].id, i + 1) << "ids count up from 1";
    EXPECT_EQ(chunks[i].is_text, expected[i] == std::pair(kStorage, ULONG{19})) << i;
  }
  EXPECT_EQ(Text(chunks, kMail, 7), L"Tessary");
  for (ULONG pid : {2u, 3u}) EXPECT_EQ(Text(chunks, kSummary, pid), L"Invoice 17");
  EXPECT_EQ(Text(chunks, kMail, 16), L"bob@example.org; ");
  EXPECT_EQ(Text(chunks, kMail, 4), L"cy@example.net; ");
  EXPECT_EQ(Text(chunks, kMail, 2), L"");
  EXPECT_EQ(Text(chunks, kMail, 13), L"ann@example.com");
  EXPECT_EQ(Text(chunks, kStorage, 19), L"The body of the invoice.");
  EXPECT_EQ(Text(chunks, 0x560C36C0, 2), L"The body of the invoice....");
  EXPECT_EQ(Text(chunks, 0xDC8F80BD, 100), L"01AB00FF");
  EXPECT_EQ(Text(chunks, kMail, 21), L"notes.txt;photo.xyz");
  EXPECT_EQ(Find(chunks, 0x9C1FCF74, 8)->number, VARIANT_TRUE);
  EXPECT_EQ(Find(chunks, 0x5DA84765, 100)->number, VARIANT_TRUE);
  EXPECT_EQ(Find(chunks, 0xF23F425C, 100)->number, VARIANT_FALSE);
  EXPECT_EQ(Find(chunks, kMail, 19)->number, vault::FileTime(2024, 5, 2, 9, 30));
  EXPECT_EQ(Find(chunks, kStorage, 12)->type, VT_I8);
  EXPECT_EQ(chunks.back().number, vault::FileTime(2024, 5, 1));
  EXPECT_EQ(chunks.back().text.substr(chunks.back().text.rfind(L'/')), L"/notes.txt");
}

TEST_F(Filter, StartsTheMessageAgainWithIdsGoingOn) {
  AddMail(store_.top().AddFolder("Inbox")).Body("Text").AttachFile("a.txt", "x");
  Item item(protocol_.Get(), MessagesOf(Write(store_)).at(0));
  ASSERT_EQ(item.Bind(), S_OK);
  const auto first = item.ReadAll();
  STAT_CHUNK stat = {};
  EXPECT_EQ(item.filter->GetChunk(&stat), static_cast<HRESULT>(FILTER_E_END_OF_CHUNKS));
  const auto second = item.ReadAll();
  ASSERT_EQ(first.size(), second.size());
  for (size_t i = 0; i < first.size(); ++i) {
    EXPECT_EQ(second[i].id, first[i].id + first.size());
    EXPECT_EQ(second[i].text, first[i].text) << i;
  }
}

TEST_F(Filter, GivesEveryItemTypeItsOwnSteps) {
  using namespace vault;
  auto& folder = store_.top().AddFolder("All");
  const auto start = FileTime(2024, 3, 1, 8), end = FileTime(2024, 3, 1, 9);
  folder.AddMessage("IPM.Appointment")
      .Subject("Meeting")
      .To("Bob", "bob@example.org")
      .Time({kAppointmentSet, 0x820D}, start)
      .Time({kAppointmentSet, 0x820E}, end)
      .Int({kAppointmentSet, 0x8205}, 2)
      .Bool({kAppointmentSet, 0x8223}, true)
      .Text({kAppointmentSet, 0x8208}, "Room 5");
  folder.AddMessage("IPM.Task")
      .Subject("Task")
      .Time({kTaskSet, 0x8104}, start)
      .Time({kTaskSet, 0x8105}, end)
      .Bool({kTaskSet, 0x811C}, true)
      .Text({kTaskSet, 0x811F}, "Ann")
      .Int({kTaskSet, 0x8101}, 1);
  folder.AddMessage("IPM.Contact")
      .Subject("Card")
      .Text(0x3001, "Ann Smith")
      .Text(0x3A16, "Example Ltd")
      .Text({kAddressSet, 0x8083}, "ann@example.com")
      .Text(0x3A1C, "+44 1");
  folder.AddMessage("IPM.StickyNote").Subject("Note").Int({kNoteSet, 0x8B00}, 3);
  const auto urls = MessagesOf(Write(store_));
  ASSERT_EQ(urls.size(), 4u);

  const auto appointment = Read(urls[0]);
  EXPECT_EQ(Find(appointment, 0x48FD6EC8, 100)->number, start);
  EXPECT_EQ(Find(appointment, 0xC75FAA05, 100)->number, end);
  EXPECT_EQ(Find(appointment, 0x5BF396D4, 100)->number, 2);
  EXPECT_EQ(Find(appointment, 0x315B9C8D, 100)->number, VARIANT_TRUE);
  EXPECT_EQ(Text(appointment, 0xF6272D18, 100), L"Room 5");
  EXPECT_EQ(Text(appointment, 0xB33AF30B, 100), L"Bob");
  EXPECT_EQ(Text(appointment, 0x0BA7D6C3, 100), L"bob@example.org; ");

  const auto task = Read(urls[1]);
  EXPECT_EQ(Find(task, 0x3F8472B5, 100)->number, end);
  EXPECT_EQ(Find(task, 0xA6F360D2, 100)->number, VARIANT_TRUE);
  EXPECT_EQ(Text(task, 0x08C7CC5F, 100), L"Ann");
  EXPECT_EQ(Find(task, 0xBE1A72C6, 100)->type, VT_UI2);
  EXPECT_EQ(Find(task, 0x315B9C8D, 100), nullptr) << "a property that the task lacks has no step";

  const auto contact = Read(urls[2]);
  EXPECT_EQ(Text(contact, 0x635E9051, 100), L"Ann Smith");
  EXPECT_EQ(Text(contact, 0xD5CDD502, 15), L"Example Ltd");
  EXPECT_EQ(Text(contact, 0xF8FA7FA3, 100), L"ann@example.com");
  EXPECT_EQ(Text(contact, 0x176DC63C, 35), L"+44 1");

  const auto note = Read(urls[3]);
  EXPECT_EQ(Find(note, 0x4776CAFA, 100)->number, 3);
}

TEST_F(Filter, HandsAnAttachmentToTheFilterOfItsTypeAndCleansUp) {
  auto& mail = AddMail(store_.top().AddFolder("Inbox"));
  const auto time = vault::FileTime(2024, 5, 1);
  mail.AttachFile("..\\..\\evil name.txt", "words of the attachment").Time(0x3008, time);
  mail.AttachFile("plain.txt", "second").Time(0x3008, time);
  const auto messages = MessagesOf(Write(store_));
  const auto links = Links(Read(messages.at(0)));
  ASSERT_EQ(links.size(), 2u);
  {
    Item item(protocol_.Get(), links[0]);
    ASSERT_EQ(item.result, S_OK);
    ULONGLONG size = 0;
    EXPECT_EQ(item.accessor->GetSize(&size), S_OK);
    EXPECT_EQ(size, 23u);
    EXPECT_EQ(item.accessor->IsDirectory(), S_FALSE);
    EXPECT_EQ(std::distance(fs::directory_iterator(TemporaryFolder()), {}), 1);
    ASSERT_EQ(item.Bind(), S_OK);
    const auto chunks = item.ReadAll();
    ASSERT_EQ(chunks.size(), 15u) << "fourteen of its own, then those of its type";
    EXPECT_EQ(chunks[14].text, L"words of the attachment");
    EXPECT_EQ(chunks[10].text, L"..\\..\\evil name.txt");
    EXPECT_EQ(chunks[5].text, L"Ann Smith");
    EXPECT_EQ(chunks[9].number, VARIANT_TRUE);
    item.Close();
    EXPECT_EQ(std::distance(fs::directory_iterator(TemporaryFolder()), {}), 0);
  }
  EXPECT_EQ(protocol_->ShutDown(), S_OK);
  EXPECT_FALSE(fs::exists(TemporaryFolder()));
}

}  // namespace
