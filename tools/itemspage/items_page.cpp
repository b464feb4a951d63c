#include "tools/itemspage/items_page.h"

#include <cstdio>

#include "module/filter/ItemSequence.h"
#include "module/filter/MapiProperties.h"

namespace {

constexpr const char* kIntroduction =
    "# What each item offers\n"
    "\n"
    "The chunks that the filter hands to an indexer, in their order. This page is written from the tables in\n"
    "`module/filter/*Steps.cpp`; a test fails when the two differ, and with `HOARDEX_WRITE_ITEMS=1` in its "
    "environment\n"
    "`module_items` writes the page anew.\n"
    "\n"
    "A step whose condition does not hold is left out. \"of type\" tests only the type of what the store answers, any "
    "other\n"
    "property must carry its whole tag. A chunk of kind value is read with `GetValue`, one of kind text with "
    "`GetText`.\n";

struct SourceWords {
  PropertySource source;
  const char* words;  // of one property of the source
};
constexpr SourceWords kSources[] = {
    {PropertySource::kMessage, ""},
    {PropertySource::kAppointment, "appointment's "},
    {PropertySource::kTask, "task's "},
    {PropertySource::kContact, "contact's "},
    {PropertySource::kContactNamed, "contact's "},
    {PropertySource::kNote, "note's "},
};

struct TypeWords {
  ULONG type;
  const char* words;
};
constexpr TypeWords kTypes[] = {{PT_LONG, "PT_LONG"},
                                {PT_BOOLEAN, "PT_BOOLEAN"},
                                {PT_SYSTIME, "PT_SYSTIME"},
                                {PT_STRING8, "PT_STRING8"},
                                {PT_UNICODE, "PT_UNICODE"}};

template <class... Values>
std::string Print(const char* format, Values... values) {
  char text[256];
  snprintf(text, sizeof(text), format, values...);
  return text;
}

std::string KeyText(const PROPERTYKEY& key) {
  const GUID& id = key.fmtid;
  std::string text = Print("%08lX-%04X-%04X-%02X%02X-", id.Data1, id.Data2, id.Data3, id.Data4[0], id.Data4[1]);
  for (int i = 2; i < 8; ++i) text += Print("%02X", id.Data4[i]);
  return text + Print(" / %lu", key.pid);
}

std::string Condition(const ItemSequence::Row& row) {
  std::string text;
  if (row.source != PropertySource::kNone) {
    const MapiProperty& property = PropertiesOf(row.source)[row.index];
    for (const SourceWords& source : kSources)
      if (source.source == row.source) text = source.words;
    text += property.tag ? "`" + std::string(property.name) + "`" : property.name + Print(" (0x%04lX)", property.id);
    for (const TypeWords& type : kTypes)
      if (!row.MatchesTag() && type.type == row.match) text += std::string(", of type ") + type.words;
    if (row.flags & kIfNotEmpty) text += ", not empty";
  }
  if (row.flags & kIfAppointment) text += text.empty() ? "of an appointment" : ", of an appointment";
  if (row.rule) text += row.rule->words;
  if (text.empty()) text = "always";
  if (row.flags & kWorkstationId) text += "; with a chunk id of its own only on a workstation of Vista or later";
  if (row.flags & kMovesOnByValue) text += ", until its value was taken";
  return text;
}

}  // namespace

std::string ItemsPage() {
  std::string page = kIntroduction;
  for (const auto kind : {CHoardexURL::kRoot, CHoardexURL::kFolder, CHoardexURL::kMessage, CHoardexURL::kAttachment}) {
    const ItemSequence& sequence = *ItemSequence::Of(kind);
    page += std::string("\n## ") + sequence.item +
            "\n\n| Step | Property | Key | Chunk | Condition |\n|---|---|---|---|---|\n";
    int step = sequence.walks ? 0 : 1;
    for (const ItemSequence::Row& row : sequence.rows)
      page += Print("| %d | %s | ", step++, row.property->name) + "`" + KeyText(row.property->key) + "` | " +
              (row.state() == CHUNK_TEXT ? "text" : "value") + " | " + Condition(row) + " |\n";
  }
  return page + "\nBehind an attachment's last step come the chunks of the filter of its own type, where it has one.\n";
}
