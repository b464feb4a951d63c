#include <string>

#include "tools/mkvault/demo.h"

namespace mkvault {
namespace {

using vault::FileTime;
using vault::FolderBuilder;
using vault::MessageBuilder;

constexpr const char kMe[] = "Jane Miller", kMyAddress[] = "jane.miller@example.com";
constexpr std::int64_t kHour = 3600 * 10'000'000LL;

// An item that Jane keeps herself.
MessageBuilder& Add(FolderBuilder& folder, const char* message_class, const char* subject, std::int64_t made) {
  return folder.AddMessage(message_class).Subject(subject).From(kMe, kMyAddress).SubmitTime(made);
}

void AddAppointments(FolderBuilder& folder) {
  struct Appointment {
    const char* subject;
    const char* place;
    std::int64_t start;
    int hours;
    int busy;
    bool recurring;
    const char* body;
  };
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
    const std::int64_t end = a.start + a.hours * kHour;
    Add(folder, "IPM.Appointment", a.subject, a.start - 240 * kHour)
        .Time({vault::kAppointmentSet, 0x820D}, a.start)
        .Time({vault::kAppointmentSet, 0x820E}, end)
        .Int({vault::kAppointmentSet, 0x8205}, a.busy)
        .Bool({vault::kAppointmentSet, 0x8223}, a.recurring)
        .Text({vault::kAppointmentSet, 0x8208}, a.place)
        .Int({vault::kAppointmentSet, 0x8213}, a.hours * 60)
        .Bool({vault::kAppointmentSet, 0x8215}, false)
        .Time({vault::kCommonSet, 0x8516}, a.start)
        .Time({vault::kCommonSet, 0x8517}, end)
        .Time(0x0060, a.start)
        .Time(0x0061, end)
        .To("Peter Smith", "peter.smith@example.com")
        .Body(a.body);
  }
}

void AddTasks(FolderBuilder& folder) {
  struct Task {
    const char* subject;
    std::int64_t start, due;
    int status;  // 0 not started, 1 in progress, 2 complete
    const char* body;
  };
  const Task tasks[] = {
      {"Pay invoice 2024-117", FileTime(2024, 4, 3), FileTime(2024, 5, 2), 2, "Order number 7781.\r\n"},
      {"Prepare the forecast", FileTime(2024, 6, 1), FileTime(2024, 6, 28), 1,
       "Ask Anna for the returns of the spring sale.\r\n"},
      {"Renew the domain example.org", FileTime(2024, 9, 1), FileTime(2024, 9, 30), 0, "Two years, as before.\r\n"},
      {"Заказать бумагу", FileTime(2024, 5, 20), FileTime(2024, 5, 31), 0, "Десять коробок.\r\n"},
  };
  for (const Task& t : tasks) {
    Add(folder, "IPM.Task", t.subject, t.start)
        .Time({vault::kTaskSet, 0x8104}, t.start)
        .Time({vault::kTaskSet, 0x8105}, t.due)
        .Bool({vault::kTaskSet, 0x8126}, false)
        .Bool({vault::kTaskSet, 0x811C}, t.status == 2)
        .Text({vault::kTaskSet, 0x811F}, kMe)
        .Int({vault::kTaskSet, 0x8101}, t.status)
        .Double({vault::kTaskSet, 0x8102}, t.status / 2.0)
        .Body(t.body);
  }
}

void AddContacts(FolderBuilder& folder) {
  struct Contact {
    const char* given;
    const char* surname;
    const char* email;
    const char* company;
    const char* title;
    const char* department;
    const char* mobile;
    const char* profession;
  };
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
    const std::string name = std::string(c.given) + " " + c.surname;
    Add(folder, "IPM.Contact", name.c_str(), FileTime(2023, 11, 6, 9))
        .Text(0x3001, name)
        .Text(0x3A06, c.given)
        .Text(0x3A11, c.surname)
        .Text(0x3A16, c.company)
        .Text(0x3A17, c.title)
        .Text(0x3A18, c.department)
        .Text(0x3A1C, c.mobile)
        .Text(0x3A19, "Building 2")
        .Text(0x3A46, c.profession)
        .Text(0x3A4E, "Margaret Okafor")
        .Text(0x3A30, "Laura Bennett")
        .Text(0x3A2E, "+44 20 7946 0200")
        .Text(0x3A57, "+44 20 7946 0300")
        .Text(0x3A09, "+44 20 7946 0400")
        .Text({vault::kAddressSet, 0x8005}, std::string(c.surname) + ", " + c.given)
        .Text({vault::kAddressSet, 0x8080}, name + " (" + c.email + ")")
        .Text({vault::kAddressSet, 0x8082}, "SMTP")
        .Text({vault::kAddressSet, 0x8083}, c.email)
        .Text({vault::kAddressSet, 0x8084}, c.email)
        .Text({vault::kAddressSet, 0x8062}, std::string("im:") + c.email);
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
    Add(folder, "IPM.StickyNote", text, FileTime(2024, 5, 1, 8, static_cast<unsigned>(color)))
        .Int({vault::kNoteSet, 0x8B00}, color)
        .Int({vault::kNoteSet, 0x8B02}, 200)
        .Int({vault::kNoteSet, 0x8B03}, 166)
        .Int({vault::kNoteSet, 0x8B04}, 80 + 20 * color)
        .Int({vault::kNoteSet, 0x8B05}, 60 + 20 * color)
        .Body(std::string(text) + "\r\n");
  }
}

void AddJournal(FolderBuilder& folder) {
  struct Entry {
    const char* subject;
    const char* type;
    std::int64_t start;
    int minutes;
    const char* body;
  };
  const Entry entries[] = {
      {"Call with Peter Smith", "Phone call", FileTime(2024, 4, 4, 10), 25, "He sends a corrected invoice.\r\n"},
      {"Call with the travel office", "Phone call", FileTime(2024, 6, 19, 15), 10, "Window seat, no breakfast.\r\n"},
      {"Letter to Edith Weatherby", "Letter", FileTime(2024, 7, 8, 11), 40, "Replacement umbrella promised.\r\n"},
  };
  for (const Entry& e : entries) {
    Add(folder, "IPM.Activity", e.subject, e.start)
        .Text({vault::kLogSet, 0x8700}, e.type)
        .Time({vault::kLogSet, 0x8706}, e.start)
        .Int({vault::kLogSet, 0x8707}, e.minutes)
        .Time({vault::kLogSet, 0x8708}, e.start + e.minutes * kHour / 60)
        .Text({vault::kLogSet, 0x8712}, e.type)
        .Body(e.body);
  }
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
