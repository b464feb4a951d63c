#include "tools/mkvault/generate.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "tools/mkvault/items.h"
#include "tools/mkvault/random_text.h"
#include "vault/store_stream.h"

namespace mkvault {
namespace {

using vault::FileTime;
using vault::FolderStream;
using vault::MessageBuilder;

const std::int64_t kFirst = FileTime(2006, 1, 2), kLast = FileTime(2025, 6, 27);
constexpr char kMe[] = "Jane Miller", kMyAddress[] = "jane.miller@example.com";

class Office {
 public:
  Office(const GenerateOptions& options, vault::StoreStream& store)
      : options_(options), random_(options.seed), language_(options.seed), store_(store) {}

  void Fill() {
    const std::uint32_t count =
        options_.folders ? options_.folders
                         : static_cast<std::uint32_t>(std::clamp<std::uint64_t>(options_.messages / 1500, 3, 200));
    mail_.push_back(&store_.top().OpenFolder("Inbox"));
    if (count > 1) mail_.push_back(&store_.top().OpenFolder("Sent Items"));
    // Projects lie in one another now and then.
    for (std::uint32_t i = 2; i < count; ++i) {
      FolderStream& parent = i > 2 && random_.Percent(30) ? *mail_[2 + random_.Below(i - 2)] : store_.top();
      mail_.push_back(&parent.OpenFolder("Project " + std::to_string(i - 1) + " " + language_.Word(random_)));
    }
    const Zipf folder(mail_.size());
    for (done_ = 0; done_ < options_.messages; ++done_) {
      const std::uint32_t kind = random_.Below(1000);
      if (kind < 900) {
        mail_[folder(random_)]->AddMessage(Mail(0));
      } else if (kind < 945) {
        Items("Calendar", "IPF.Appointment", calendar_).AddMessage(AppointmentItem());
      } else if (kind < 970) {
        Items("Contacts", "IPF.Contact", contacts_).AddMessage(ContactItem());
      } else if (kind < 985) {
        Items("Tasks", "IPF.Task", tasks_).AddMessage(TaskItem());
      } else if (kind < 993) {
        Items("Notes", "IPF.StickyNote", notes_).AddMessage(NoteItem());
      } else {
        Items("Journal", "IPF.Journal", journal_).AddMessage(JournalItem());
      }
    }
  }

 private:
  FolderStream& Items(const char* name, const char* container_class, FolderStream*& folder) {
    if (!folder) folder = &store_.top().OpenFolder(name, container_class);
    return *folder;
  }

  // Later messages are younger, most of them from working hours.
  std::int64_t Now() {
    const auto days = static_cast<std::uint64_t>((kLast - kFirst) / kDay);
    const std::uint64_t total = std::max<std::uint64_t>(options_.messages, 1);
    std::int64_t day = static_cast<std::int64_t>(days * done_ / total);
    if (day % 7 >= 5 && !random_.Percent(15)) day -= 2;  // kFirst is a Monday
    return kFirst + day * kDay + 7 * kHour + random_.Between(0, 11 * 60) * kMinute +
           random_.Between(0, 59) * kMinute / 60;
  }

  std::string Subject() {
    if (topics_.size() >= 50 && random_.Percent(45)) {
      const std::string& topic = random_.Of(topics_);
      return (random_.Percent(75) ? "RE: " : "FW: ") + topic;
    }
    std::string topic = language_.Title(random_);
    if (topics_.size() < 400) {
      topics_.push_back(topic);
    } else {
      topics_[random_.Below(400)] = topic;
    }
    return topic;
  }

  MessageBuilder Mail(int depth) {
    MessageBuilder message("IPM.Note");
    FillMail(message, depth);
    return message;
  }

  void FillMail(MessageBuilder& message, int depth) {
    const Person& author = language_.Somebody(random_);
    const std::int64_t sent = Now();
    message.Subject(Subject()).From(author.name, author.email).To(kMe, kMyAddress).SubmitTime(sent);
    message.DeliveryTime(sent + random_.Between(1, 300) * (kMinute / 60));
    for (std::uint32_t more = random_.Percent(35) ? 1 + random_.Below(random_.Percent(5) ? 40 : 4) : 0; more; --more) {
      const Person& other = language_.Somebody(random_);
      random_.Percent(60) ? message.Cc(other.name, other.email) : message.To(other.name, other.email);
    }
    message.Text(0x1035, "<" + std::to_string(random_.Next()) + "@" + "mail.example.com>");
    if (random_.Percent(6)) message.Int(0x0017, 2);
    if (random_.Percent(10)) message.Int(0x0E07, 0);
    if (random_.Percent(8)) message.Texts({vault::kPublicStringsSet, "Keywords"}, {language_.Word(random_)});
    AddBody(message, "Dear " + std::string("Jane,\r\n\r\n") + language_.Text(random_, Language::Length(random_)) +
                         "\r\nKind regards\r\n" + author.name + "\r\n");
    if (random_.Below(10'000) < options_.attachments)
      for (std::uint32_t more = 1 + (random_.Percent(30) ? random_.Below(4) : 0); more; --more) Attach(message, depth);
  }

  void AddBody(MessageBuilder& message, const std::string& text) {
    const std::uint32_t form = random_.Below(100);
    if (form < 62 || form >= 97) message.Body(text);
    if (form >= 62 && form < 97) {
      std::string html = "<html><body><p>";
      for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 4, "\r\n\r\n") == 0) {
          html += "</p>\r\n<p>";
          i += 3;
        } else {
          html += text[i];
        }
      }
      message.Html(html + "</p></body></html>\r\n");
      if (form < 90) message.Body(text);
    }
    if (form >= 97) {
      std::string rtf = "{\\rtf1\\ansi\\ansicpg1252\\deff0{\\fonttbl{\\f0 Arial;}}\\pard ";
      for (const char c : text) {
        if (c == '\n') {
          rtf += "\\par ";
        } else if (static_cast<unsigned char>(c) < 0x80 && c != '\r') {
          rtf += c;
        }
      }
      message.Rtf(rtf + "}");
    }
  }

  void Attach(MessageBuilder& message, int depth) {
    if (depth < 2 && random_.Percent(4)) return FillMail(message.AttachMessage("IPM.Note"), depth + 1);
    struct Form {
      const char* extension;
      const char* type;
      std::uint32_t percent;
      bool text;
    };
    constexpr Form kForms[] = {
        {".pdf", "application/pdf", 24, false},
        {".docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document", 20, false},
        {".jpg", "image/jpeg", 16, false},
        {".xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet", 12, false},
        {".txt", "text/plain", 12, true},
        {".csv", "text/csv", 6, true},
        {".html", "text/html", 5, true},
        {".zip", "application/zip", 5, false}};
    std::uint32_t drawn = random_.Below(100);
    const Form* form = kForms;
    for (; drawn >= form->percent; ++form) drawn -= form->percent;
    std::string name = language_.Word(random_);
    for (std::uint32_t more = random_.Below(3); more; --more) name += " " + language_.Word(random_);
    name += form->extension;
    if (form->text) {
      message.AttachFile(name, language_.Text(random_, 4 * Language::Length(random_))).MimeType(form->type);
      return;
    }
    // Most are some ten kilobytes, a few a megabyte.
    constexpr std::uint32_t kQuarters[] = {1'000, 8'000, 30'000, 90'000, 500'000};
    const std::uint32_t quarter = random_.Below(4);
    std::vector<std::uint8_t> bytes(
        static_cast<std::size_t>(random_.Between(kQuarters[quarter], kQuarters[quarter + 1])));
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
      const std::uint64_t word = random_.Next();
      for (std::size_t n = 0; n < 8 && i + n < bytes.size(); ++n)
        bytes[i + n] = static_cast<std::uint8_t>(word >> 8 * n);
    }
    message.AttachFile(name, std::span<const std::uint8_t>(bytes)).MimeType(form->type);
  }

  MessageBuilder Own(const char* message_class, std::string_view subject) {
    MessageBuilder message(message_class);
    message.Subject(subject).From(kMe, kMyAddress).SubmitTime(Now());
    return message;
  }

  MessageBuilder AppointmentItem() {
    const std::string subject = language_.Title(random_), place = "Room " + std::to_string(1 + random_.Below(40)),
                      body = language_.Text(random_, Language::Length(random_) / 2);
    MessageBuilder message = Own("IPM.Appointment", subject);
    for (std::uint32_t more = random_.Below(6); more; --more) {
      const Person& guest = language_.Somebody(random_);
      message.To(guest.name, guest.email);
    }
    FillAppointment(message,
                    {subject, place, Now() + random_.Between(0, 60) * kDay, static_cast<int>(1 + random_.Below(4)),
                     static_cast<int>(random_.Below(4)), random_.Percent(15), body});
    return message;
  }
  MessageBuilder ContactItem() {
    const Person& person = language_.Somebody(random_);
    const std::string company = language_.Title(random_),
                      phone = "+44 20 7946 " + std::to_string(1000 + random_.Below(9000));
    MessageBuilder message = Own("IPM.Contact", person.name);
    FillContact(message, {person.given, person.surname, person.email, company, "Manager", "Sales", phone, "Engineer"});
    return message;
  }
  MessageBuilder TaskItem() {
    const std::string subject = language_.Title(random_), body = language_.Text(random_, Language::Length(random_) / 3);
    MessageBuilder message = Own("IPM.Task", subject);
    const std::int64_t start = Now();
    FillTask(message, {subject, start, start + random_.Between(1, 40) * kDay, static_cast<int>(random_.Below(3)), body},
             kMe);
    return message;
  }
  MessageBuilder NoteItem() {
    const std::string text = language_.Sentence(random_);
    MessageBuilder message = Own("IPM.StickyNote", text);
    FillNote(message, {text, static_cast<int>(random_.Below(5))});
    return message;
  }
  MessageBuilder JournalItem() {
    const std::string subject = "Call with " + language_.Somebody(random_).name,
                      body = language_.Text(random_, Language::Length(random_) / 4);
    MessageBuilder message = Own("IPM.Activity", subject);
    FillJournalEntry(message, {subject, "Phone call", Now(), static_cast<int>(1 + random_.Below(90)), body});
    return message;
  }

  const GenerateOptions& options_;
  Random random_;
  Language language_;
  vault::StoreStream& store_;
  std::vector<FolderStream*> mail_;
  FolderStream *calendar_ = nullptr, *contacts_ = nullptr, *tasks_ = nullptr, *notes_ = nullptr, *journal_ = nullptr;
  std::vector<std::string> topics_;
  std::uint64_t done_ = 0;
};

}  // namespace

void Generate(const std::filesystem::path& path, const GenerateOptions& options) {
  vault::StoreStream store(path, "Archive " + std::to_string(options.seed), options.encoding);
  Office(options, store).Fill();
  store.Finish();
}

}  // namespace mkvault
