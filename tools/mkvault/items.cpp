#include "tools/mkvault/items.h"

#include <string>

namespace mkvault {

using vault::MessageBuilder;

void FillAppointment(MessageBuilder& message, const Appointment& a) {
  const std::int64_t end = a.start + a.hours * kHour;
  message.Time({vault::kAppointmentSet, 0x820D}, a.start)
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
      .Body(a.body);
}

void FillTask(MessageBuilder& message, const Task& t, std::string_view owner) {
  message.Time({vault::kTaskSet, 0x8104}, t.start)
      .Time({vault::kTaskSet, 0x8105}, t.due)
      .Bool({vault::kTaskSet, 0x8126}, false)
      .Bool({vault::kTaskSet, 0x811C}, t.status == 2)
      .Text({vault::kTaskSet, 0x811F}, owner)
      .Int({vault::kTaskSet, 0x8101}, t.status)
      .Double({vault::kTaskSet, 0x8102}, t.status / 2.0)
      .Body(t.body);
}

void FillContact(MessageBuilder& message, const Contact& c) {
  const std::string name = std::string(c.given).append(" ").append(c.surname), email(c.email);
  message.Text(0x3001, name)
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
      .Text({vault::kAddressSet, 0x8005}, std::string(c.surname).append(", ").append(c.given))
      .Text({vault::kAddressSet, 0x8080}, name + " (" + email + ")")
      .Text({vault::kAddressSet, 0x8082}, "SMTP")
      .Text({vault::kAddressSet, 0x8083}, email)
      .Text({vault::kAddressSet, 0x8084}, email)
      .Text({vault::kAddressSet, 0x8062}, "im:" + email);
}

void FillNote(MessageBuilder& message, const Note& n) {
  message.Int({vault::kNoteSet, 0x8B00}, n.color)
      .Int({vault::kNoteSet, 0x8B02}, 200)
      .Int({vault::kNoteSet, 0x8B03}, 166)
      .Int({vault::kNoteSet, 0x8B04}, 80 + 20 * n.color)
      .Int({vault::kNoteSet, 0x8B05}, 60 + 20 * n.color)
      .Body(std::string(n.text) + "\r\n");
}

void FillJournalEntry(MessageBuilder& message, const JournalEntry& e) {
  message.Text({vault::kLogSet, 0x8700}, e.type)
      .Time({vault::kLogSet, 0x8706}, e.start)
      .Int({vault::kLogSet, 0x8707}, e.minutes)
      .Time({vault::kLogSet, 0x8708}, e.start + e.minutes * kMinute)
      .Text({vault::kLogSet, 0x8712}, e.type)
      .Body(e.body);
}

}  // namespace mkvault
