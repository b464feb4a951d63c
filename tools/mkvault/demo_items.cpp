#include <string>

#include "tools/mkvault/demo.h"
#include "tools/mkvault/items.h"

namespace mkvault {
namespace {

using vault::FileTime;
using vault::FolderBuilder;
using vault::MessageBuilder;

constexpr const char kMe[] = "Jane Miller", kMyAddress[] = "jane.miller@example.com";

// An item that Jane keeps herself.
MessageBuilder& Add(FolderBuilder& folder, const char* message_class, std::string_view subject, std::int64_t made) {
  return folder.AddMessage(message_class).Subject(subject).From(kMe, kMyAddress).SubmitTime(made);
}

void AddAppointments(FolderBuilder& folder) {
  const Appointment appointments[] = {
      {"Steering committee", "Room 5", FileTime(2024, 4, 9, 13), 2, 2, true,
       "Agenda: Leeds, label printers, forecast.\r\n"},
      {"Dentist", "12 Mill Lane", FileTime(2024, 4, 17, 7, 30), 1, 3, false, "Bring the insurance card.\r\n"},
      {"Flight to Lisbon", "Gate B12", FileTime(2024, 7, 8, 6, 40), 3, 3, false, "Passport!\r\n"},
      {"Besprechung Büromöbel", "Besprechungsraum Köln", FileTime(2024, 2, 20, 9), 1, 2, false,
       "Farbmuster mitbringen.\r\n"},
      {"Cours de français", "Médiathèque", FileTime(2024, 3, 5, 17), 2, 1, true, "Chapitre huit : le subjonctif.\r\n"},
  };
  for (const Appointment& a : appointments) {
    MessageBuilder& message = Add(folder, "IPM.Appointment", a.subject, a.start - 240 * kHour);
    message.To("Peter Smith", "peter.smith@example.com");
    FillAppointment(message, a);
  }
}

void AddTasks(FolderBuilder& folder) {
  const Task tasks[] = {
      {"Pay invoice 2024-117", FileTime(2024, 4, 3), FileTime(2024, 5, 2), 2, "Order number 7781.\r\n"},
      {"Prepare the forecast", FileTime(2024, 6, 1), FileTime(2024, 6, 28), 1,
       "Ask Anna for the returns of the spring sale.\r\n"},
      {"Renew the domain example.org", FileTime(2024, 9, 1), FileTime(2024, 9, 30), 0, "Two years, as before.\r\n"},
      {"Заказать бумагу", FileTime(2024, 5, 20), FileTime(2024, 5, 31), 0, "Десять коробок.\r\n"},
  };
  for (const Task& t : tasks) FillTask(Add(folder, "IPM.Task", t.subject, t.start), t, kMe);
}

void AddContacts(FolderBuilder& folder) {
  constexpr Contact kContacts[] = {
      {"Peter", "Smith", "peter.smith@example.com", "Smith & Partners", "Partner", "Consulting", "+44 20 7946 0101",
       "Consultant"},
      {"Anna", "Lindqvist", "anna.lindqvist@example.org", "Example Trading", "Analyst", "Finance", "+46 8 5550 1234",
       "Economist"},
      {"Jürgen", "Müller", "juergen.mueller@example.org", "Möbelhaus Müller", "Geschäftsführer", "Leitung",
       "+49 30 23125 001", "Tischler"},
      {"花子", "田中", "hanako.tanaka@example.com", "例株式会社", "課長", "営業部", "+81 3 5550 0100", "営業"},
      {"Layla", "Hassan", "layla.hassan@example.net", "Example Events", "Coordinator", "Planning", "+971 4 555 0199",
       "Event planner"},
      {"Νίκος", "Παπαδόπουλος", "nikos.papadopoulos@example.org", "Παράδειγμα ΑΕ", "Διευθυντής", "Συνέδρια",
       "+30 21 0555 0123", "Μηχανικός"},
  };
  for (const Contact& c : kContacts) {
    const std::string name = std::string(c.given).append(" ").append(c.surname);
    FillContact(Add(folder, "IPM.Contact", name, FileTime(2023, 11, 6, 9)), c);
  }
  Add(folder, "IPM.DistList", "Committee", FileTime(2023, 11, 7, 9))
      .Text(0x3001, "Committee")
      .Text({vault::kAddressSet, 0x8053}, "Committee")
      .Text({vault::kAddressSet, 0x8005}, "Committee");
}

void AddNotes(FolderBuilder& folder) {
  constexpr const char* kNotes[] = {"Coffee beans: the dark ones", "Locker code is on the back of the picture",
                                    "Geburtstagskuchen für Anna: Äpfel, Zimt, Nüsse", "買い物：牛乳、卵、パン"};
  int color = 0;
  for (const char* text : kNotes) {
    ++color;
    FillNote(Add(folder, "IPM.StickyNote", text, FileTime(2024, 5, 1, 8, static_cast<unsigned>(color))), {text, color});
  }
}

void AddJournal(FolderBuilder& folder) {
  const JournalEntry entries[] = {
      {"Call with Peter Smith", "Phone call", FileTime(2024, 4, 4, 10), 25, "He sends a corrected invoice.\r\n"},
      {"Call with the travel office", "Phone call", FileTime(2024, 6, 19, 15), 10, "Window seat, no breakfast.\r\n"},
      {"Letter to Edith Weatherby", "Letter", FileTime(2024, 7, 8, 11), 40, "Replacement umbrella promised.\r\n"},
  };
  for (const JournalEntry& e : entries) FillJournalEntry(Add(folder, "IPM.Activity", e.subject, e.start), e);
}

}  // namespace

void AddItems(vault::StoreBuilder& store) {
  AddAppointments(store.top().AddFolder("Calendar", "IPF.Appointment"));
  AddTasks(store.top().AddFolder("Tasks", "IPF.Task"));
  AddContacts(store.top().AddFolder("Contacts", "IPF.Contact"));
  AddNotes(store.top().AddFolder("Notes", "IPF.StickyNote"));
  AddJournal(store.top().AddFolder("Journal", "IPF.Journal"));
}

}  // namespace mkvault
