// Items that are no mail, as a mail client writes them.
#pragma once

#include <cstdint>
#include <string_view>

#include "vault/writer.h"

namespace mkvault {

inline constexpr std::int64_t kMinute = 60 * 10'000'000LL, kHour = 60 * kMinute, kDay = 24 * kHour;  // file time

// Texts are UTF-8 and times file times; all are read during the call only.
struct Appointment {
  std::string_view subject, place;
  std::int64_t start;
  int hours, busy;  // 0 free, 1 tentative, 2 busy, 3 away
  bool recurring;
  std::string_view body;
};
struct Task {
  std::string_view subject;
  std::int64_t start, due;
  int status;  // 0 not started, 1 in progress, 2 complete
  std::string_view body;
};
struct Contact {
  std::string_view given, surname, email, company, title, department, mobile, profession;
};
struct Note {
  std::string_view text;
  int color;
};
struct JournalEntry {
  std::string_view subject, type;
  std::int64_t start;
  int minutes;
  std::string_view body;
};

// Makes `message` (of the class that the function is named after) the item. The caller adds whose and from when it is.
void FillAppointment(vault::MessageBuilder& message, const Appointment& appointment);
void FillTask(vault::MessageBuilder& message, const Task& task, std::string_view owner);
void FillContact(vault::MessageBuilder& message, const Contact& contact);
void FillNote(vault::MessageBuilder& message, const Note& note);
void FillJournalEntry(vault::MessageBuilder& message, const JournalEntry& entry);

}  // namespace mkvault
