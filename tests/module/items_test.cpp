// The tables of what items offer, against a listing made without them and against the page that is written from them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "module/filter/ItemSequence.h"
#include "module/filter/MapiProperties.h"
#include "tests/module/items_page.h"

namespace {

// "step key chunk: condition". A condition names a set of properties, the entry's place in it, and the type (four
// digits) or whole tag (eight) that it must have; "rule" stands for one that the table leaves to code.
constexpr const char* kMessage[] = {
    "0 4776CAFA-BCE4-4CB1-A23E-265E76D8EB11/100 value: note 0 0003",
    "1 635E9051-50A5-4BA2-B9DB-4ED056C77296/100 value: contact 0 001F",
    "2 D5CDD502-2E9C-101B-9397-08002B2CF9AE/15 value: contact 1 001F",
    "3 176DC63C-2688-4E89-8143-A347800F25E9/6 value: contact 2 001F",
    "4 F1A24AA7-9CA7-40F6-89EC-97DEF9FFE8DB/100 value: named 0 001E",
    "5 CC6F4F24-6083-4BD4-8754-674D0DE87AB8/100 value: named 1 001E",
    "6 F8FA7FA3-D12B-4785-8A4E-691A94F7A3E7/100 value: named 2 001E",
    "7 D68DBD8A-3374-4B81-9972-3EC30682DB3D/100 value: named 3 001E",
    "8 8589E481-6040-473D-B171-7FA89C2708ED/100 value: contact 3 001F",
    "9 176DC63C-2688-4E89-8143-A347800F25E9/20 value: contact 4 001F",
    "10 9A93244D-A7AD-4FF8-9B99-45EE4CC09AF6/100 value: contact 5 001F",
    "11 176DC63C-2688-4E89-8143-A347800F25E9/35 value: contact 6 001F",
    "12 FC9F7306-FF8F-4D49-9FB6-3FFE5C0951EC/100 value: contact 7 001F",
    "13 176DC63C-2688-4E89-8143-A347800F25E9/7 value: contact 8 001F",
    "14 7268AF55-1CE4-4F6E-A41F-B6E4EF10E4A9/100 value: contact 9 001F",
    "15 D5CDD502-2E9C-101B-9397-08002B2CF9AE/14 value: contact 10 001F",
    "16 CD102C9C-5540-4A88-A6F6-64E4981C8CD1/100 value: contact 11 001F",
    "17 48FD6EC8-8A12-4CDF-A03E-4EC5A511EDDE/100 value: task 0 0040",
    "18 3F8472B5-E0AF-4DB2-8071-C53FE76AE7CE/100 value: task 1 0040",
    "19 315B9C8D-80A9-4EF9-AE16-8E746DA51D70/100 value: task 2 000B",
    "20 A6F360D2-55F9-48DE-B909-620E090A647C/100 value: task 3 000B",
    "21 08C7CC5F-60F2-4494-AD75-55E3E0B5ADD0/100 value: task 4 001E",
    "22 BE1A72C6-9A1D-46B7-AFE7-AFAF8CEF4999/100 value: task 5 0003",
    "23 48FD6EC8-8A12-4CDF-A03E-4EC5A511EDDE/100 value: appointment 0 0040",
    "24 C75FAA05-96FD-49E7-9CB4-9F601082D553/100 value: appointment 1 0040",
    "25 5BF396D4-5EB2-466F-BDE9-2FB3F2361D6E/100 value: appointment 2 0003",
    "26 315B9C8D-80A9-4EF9-AE16-8E746DA51D70/100 value: appointment 3 000B",
    "27 F6272D18-CECC-40B1-B26A-3911717AA7BD/100 value: appointment 4 001E",
    "28 B33AF30B-F552-4584-936C-CB93E5CDA29F/100 value: message 3 0E04001F appointment",
    "29 0BA7D6C3-568D-4159-AB91-781A91FB71E5/100 value: appointment",
    "30 09429607-582D-437F-84C3-DE93A2B24C3C/100 value: message 2 0E03001F appointment",
    "31 D55BAE5A-3892-417A-A649-C6AC5AAAEAB3/100 value: appointment",
    "32 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/7 value: always",
    "33 28636AA6-953D-11D2-B5D6-00C04FD918D0/11 value: always",
    "34 DABD30ED-0043-4789-A7F8-D013A4736622/100 value: always",
    "35 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/6 value: always",
    "36 B725F130-47EF-101A-A5F1-02608C9EEBAC/4 value: always",
    "37 F23F425C-71A1-4FA8-922F-678EA4A60408/100 value: rule",
    "38 6B8DA074-3B5C-43BC-886F-0A2CDCE00B6F/100 value: always",
    "39 F29F85E0-4FF9-1068-AB91-08002B27B3D9/4 value: message 6 0C1A001F",
    "40 F7DB74B4-4287-4103-AFBA-F1B13DCD75CF/100 value: message 0 0E060040",
    "41 B725F130-47EF-101A-A5F1-02608C9EEBAC/2 value: always",
    "42 1E3EE840-BC2B-476C-8237-2ACD1A839B22/3 value: always",
    "43 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/16 value: always",
    "44 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/4 value: always",
    "45 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/2 value: always",
    "46 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/13 value: message 9 0C1F001F",
    "47 0DA41CFA-D224-4A18-AE2F-596158DB4B3A/100 value: message 6 0C1A001F",
    "48 F29F85E0-4FF9-1068-AB91-08002B27B3D9/2 value: always",
    "49 5CDA5FC8-33EE-4FF3-9094-AE7BD8868C4D/100 value: always",
    "50 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/20 value: message 0 0E060040",
    "51 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/3 value: message 1 0E02001F filled",
    "52 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/5 value: message 2 0E03001F filled",
    "53 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/17 value: message 3 0E04001F filled",
    "54 B725F130-47EF-101A-A5F1-02608C9EEBAC/12 value: message 4 0E080003",
    "55 F29F85E0-4FF9-1068-AB91-08002B27B3D9/3 value: always",
    "56 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/14 value: message 6 0C1A001F",
    "57 B725F130-47EF-101A-A5F1-02608C9EEBAC/19 text: rule",
    "58 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/19 value: message 8 00390040",
    "59 0BE1C8E7-1981-4676-AE14-FDD78F05A6E7/100 value: message 9 0C1F001F",
    "60 B725F130-47EF-101A-A5F1-02608C9EEBAC/15 value: message 10 30070040",
    "61 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/10 value: message 11 0E070003",
    "62 5DA84765-E3FF-4278-86B0-A27967FBDD03/100 value: rule",
    "63 DC8F80BD-AF1E-4289-85B6-3DFC1B493992/100 value: message 13 00710102",
    "64 AAA660F9-9865-458E-B484-01BC7FE3973E/100 value: message 14 0042001F",
    "65 744C8242-4DF5-456C-AB9E-014EFB9021E3/100 value: message 15 0065001F appointment",
    "66 560C36C0-503A-11CF-BAA1-00004C752A9A/2 value: always",
    "67 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/21 value: rule",
    "68 9C1FCF74-2D97-41BA-B4AE-CB2E3661A6E4/8 value: rule",
    "69 0B63E343-9CCC-11D0-BCDB-00805FCCCE04/12 value: rule",
};
constexpr const char* kAttachment[] = {
    "0 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/7 value: always",
    "1 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/6 value: always",
    "2 DABD30ED-0043-4789-A7F8-D013A4736622/100 value: always",
    "3 1E3EE840-BC2B-476C-8237-2ACD1A839B22/3 value: always",
    "4 E4F10A3C-49E6-405D-8288-A23BD4EEAA6C/100 value: workstation id",
    "5 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/14 value: always",
    "6 41CF5AE0-F75A-4806-BD87-59C7D9248EB9/100 value: always",
    "7 28636AA6-953D-11D2-B5D6-00C04FD918D0/11 value: always",
    "8 B725F130-47EF-101A-A5F1-02608C9EEBAC/4 value: always",
    "9 F23F425C-71A1-4FA8-922F-678EA4A60408/100 value: always",
    "10 6B8DA074-3B5C-43BC-886F-0A2CDCE00B6F/100 value: always",
    "11 F29F85E0-4FF9-1068-AB91-08002B27B3D9/4 value: always",
    "12 F7DB74B4-4287-4103-AFBA-F1B13DCD75CF/100 value: always",
    "13 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/6 value: always",
};
constexpr const char* kContainers[] = {
    "1 6B8DA074-3B5C-43BC-886F-0A2CDCE00B6F/100 value: until read",
    "2 E3E0584C-B788-4A5A-BB20-7F5A44C9ACDD/7 value: until read",
    "3 0B63E343-9CCC-11D0-BCDB-00805FCCCE04/12 value: rule",
};
// What is read of each item type, in order.
constexpr struct {
  PropertySource source;
  const char* name;
  std::initializer_list<ULONG> tags, ids;
} kRead[] = {
    {PropertySource::kMessage,
     "message",
     {0x0E060040, 0x0E02001F, 0x0E03001F, 0x0E04001F, 0x0E080003, 0x0037001F, 0x0C1A001F, 0x1000001F, 0x00390040,
      0x0C1F001F, 0x30070040, 0x0E070003, 0x10900003, 0x00710102, 0x0042001F, 0x0065001F},
     {}},
    {PropertySource::kContact,
     "contact",
     {0x3001001F, 0x3A16001F, 0x3A17001F, 0x3A57001F, 0x3A09001F, 0x3A2E001F, 0x3A1C001F, 0x3A18001F, 0x3A19001F,
      0x3A46001F, 0x3A4E001F, 0x3A30001F},
     {}},
    {PropertySource::kAppointment, "appointment", {}, {0x820D, 0x820E, 0x8205, 0x8223, 0x8208}},
    {PropertySource::kTask, "task", {}, {0x8104, 0x8105, 0x8126, 0x811C, 0x811F, 0x8101}},
    {PropertySource::kContactNamed, "named", {}, {0x8005, 0x8080, 0x8083, 0x8062}},
    {PropertySource::kNote, "note", {}, {0x8B00, 0x8B02, 0x8B03, 0x8B04, 0x8B05}},
};

std::string Line(int step, const ItemSequence::Row& row) {
  const PROPERTYKEY& key = row.property->key;
  const BYTE* last = key.fmtid.Data4;
  char text[160];
  snprintf(text, sizeof(text), "%d %08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X/%lu %s:", step, key.fmtid.Data1,
           key.fmtid.Data2, key.fmtid.Data3, last[0], last[1], last[2], last[3], last[4], last[5], last[6], last[7],
           key.pid, row.state() == CHUNK_TEXT ? "text" : "value");
  std::string line = text, condition;
  for (const auto& read : kRead) {
    if (read.source != row.source) continue;
    snprintf(text, sizeof(text), row.MatchesTag() ? " %s %lu %08lX" : " %s %lu %04lX", read.name, row.index, row.match);
    condition = text;
  }
  if (row.flags & kIfAppointment) condition += " appointment";
  if (row.flags & kIfNotEmpty) condition += " filled";
  if (row.flags & kWorkstationId) condition += " workstation id";
  if (row.flags & kMovesOnByValue) condition += " until read";
  if (row.rule) condition += " rule";
  return line + (condition.empty() ? " always" : condition);
}

void ExpectRows(CHoardexURL::Kind kind, std::span<const char* const> expected, int step) {
  const ItemSequence& sequence = *ItemSequence::Of(kind);
  ASSERT_EQ(sequence.rows.size(), expected.size()) << sequence.item;
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(Line(step++, sequence.rows[i]), expected[i]);
}

TEST(Items, OfferWhatIsLaidDownInItsOrder) {
  ExpectRows(CHoardexURL::kMessage, kMessage, 0);
  ExpectRows(CHoardexURL::kAttachment, kAttachment, 0);
  for (const auto kind : {CHoardexURL::kRoot, CHoardexURL::kVaultFile, CHoardexURL::kFolder})
    ExpectRows(kind, kContainers, 1);
  EXPECT_EQ(ItemSequence::Of(CHoardexURL::kUnknown), nullptr);
}

TEST(Items, AreReadForWhatTheirRowsName) {
  for (const auto& read : kRead) {
    const auto properties = PropertiesOf(read.source);
    ASSERT_EQ(properties.size(), read.tags.size() + read.ids.size()) << read.name;
    for (size_t i = 0; i < properties.size(); ++i) {
      EXPECT_EQ(properties[i].tag, i < read.tags.size() ? read.tags.begin()[i] : 0) << read.name << ' ' << i;
      EXPECT_EQ(static_cast<ULONG>(properties[i].id), i < read.ids.size() ? read.ids.begin()[i] : 0)
          << read.name << ' ' << i;
    }
  }
  for (const ItemSequence::Row& row : ItemSequence::Of(CHoardexURL::kMessage)->rows) {
    if (row.source == PropertySource::kNone) continue;
    const auto properties = PropertiesOf(row.source);
    ASSERT_LT(row.index, properties.size()) << row.property->name;
    EXPECT_TRUE(!row.MatchesTag() || properties[row.index].tag == row.match) << row.property->name;
  }
}

TEST(Items, AreDescribedByTheirPage) {
  const std::string page = ItemsPage();
  if (getenv("HOARDEX_WRITE_ITEMS")) std::ofstream(ITEMS_PAGE, std::ios::binary) << page;
  std::ifstream file(ITEMS_PAGE, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), page)
      << "run module_items with HOARDEX_WRITE_ITEMS=1 in its environment";
}

}  // namespace
