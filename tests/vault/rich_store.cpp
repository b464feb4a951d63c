#include "tests/vault/rich_store.h"

#include <limits>
#include <sstream>

#include "vault/bytes.h"

namespace test {

using vault::AttachMethod;
using vault::FileTime;
using vault::Guid;
using vault::MessageBuilder;
using vault::PropertyMap;
using vault::PropType;
using vault::Source;

std::vector<std::uint8_t> Pattern(std::size_t size, unsigned seed) {
  std::vector<std::uint8_t> bytes(size);
  std::uint32_t state = seed * 2654435761u + 1;
  for (auto& b : bytes) b = static_cast<std::uint8_t>((state = state * 1664525 + 1013904223) >> 24);
  return bytes;
}

namespace {

constexpr Guid kOwnSet = {0x10, 0x32, 0x54, 0x76, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
constexpr char kRich[] = "{\\rtf1\\ansi\\pard Hello, hello, hello; a text of forty-odd characters.\\par}";

// Every type there is, single and multi-valued, under ids and names.
void SetEveryType(MessageBuilder& m) {
  const Guid id = vault::MapiSet(0x12345678);
  const double pi = 3.14159265358979;
  m.Int16(0x6800, -2).Int(0x6801, -70000).Float(0x6802, 1.5f).Double(0x6803, pi).Currency(0x6804, -123'4567);
  m.AppTime(0x6805, 45000.25).Code(0x6806, 0x8004010F).Bool(0x6807, true).Int64(0x6808, -5'000'000'000);
  m.Text8(0x6809, "plain").Text(0x680A, "Ελληνικά").Time(0x680B, FileTime(2001, 9, 9, 1, 46, 40)).ClassId(0x680C, id);
  m.Binary(0x680D, Pattern(777, 5)).Object(0x680E, Pattern(9000, 6)).Binary(0x680F, "").Text(0x6810, "");
  m.Int16s(0x6811, {1, -2, 3}).Ints(0x6812, {-1, 70000}).Floats(0x6813, {0.5f, -0.25f}).Doubles(0x6814, {pi, -pi, 0});
  m.Currencies(0x6815, {1, -1}).AppTimes(0x6816, {1.5}).Int64s(0x6817, {std::numeric_limits<std::int64_t>::min(), 7});
  m.Times(0x6818, {FileTime(1999, 12, 31), FileTime(2000, 1, 1)}).ClassIds(0x6819, {id, kOwnSet});
  m.Texts(0x681A, {"one", "", "drei – три"}).Texts8(0x681B, {"", "b"}).Ints(0x681C, {}).Texts(0x681D, {});
  m.Binaries(0x681E, {{1, 2, 3}, {}, Pattern(10'000, 8)}).Int64s(0x681F, std::vector<std::int64_t>(2000, 42));
  m.Int({kOwnSet, 1}, 11).Text({kOwnSet, "name"}, "by text").Text({kOwnSet, "Name"}, "by another text");
  m.Texts({vault::kPublicStringsSet, "Keywords"}, {"red", "grün"}).Bool({vault::kCommonSet, 0x8506}, true);
}

void AddMail(vault::FolderBuilder& mail) {
  auto& first = mail.AddMessage("IPM.Note").Subject("RE: Quarterly figures").From("Ann Smith", "ann@example.com");
  first.To("Bob", "bob@example.org").To("Żaneta", "zaneta@example.net").Cc("Carl", "carl@example.org");
  first.Bcc("Dan", "dan@example.org").SubmitTime(FileTime(2024, 2, 29, 23, 59, 58));
  first.Body("The figures are attached.\r\n").AttachFile("figures.csv", "a;b\r\n1;2\r\n").MimeType("text/csv");
  first.AttachFile("photo.bin", Pattern(50'000, 3));
  first.AttachFile("empty.bin", "");
  const auto big = Pattern(9'000'000, 4);  // beyond one list of blocks
  first.AttachFile("big.bin",
                   Source::Stream(std::make_shared<std::istringstream>(std::string(big.begin(), big.end()))));
  auto& page = mail.AddMessage("IPM.Note").Subject("Page").Html("<p>hello <img src='cid:x@y'></p>").Body("hello\r\n");
  page.From("Eve", "eve@example.com").To("Bob", "bob@example.org").SubmitTime(FileTime(2024, 3, 1));
  page.Int(vault::prop::kMessageFlags, 0).AttachFile("dot.gif", "GIF89a").MimeType("image/gif").Inline("x@y");
  auto& rich = mail.AddMessage("IPM.Note").Subject("Rich").Rtf(kRich).Body("Hello\r\n").From("Eve", "eve@example.com");
  rich.SubmitTime(FileTime(2024, 3, 2))
      .AddRecipient(1)
      .Text(0x3001, "Own")
      .Text(0x3002, "EX")
      .Text(0x3003, "/o=x/cn=own");
  mail.AddHidden("IPM.Configuration").Subject("hidden").Binary(0x7C08, "<xml/>");
}

void AddAttached(vault::FolderBuilder& folder) {
  auto& outer = folder.AddMessage("IPM.Note").Subject("Outer").Body("outer text\r\n").From("Ann", "ann@example.com");
  outer.SubmitTime(FileTime(2024, 4, 1)).To("Bob", "bob@example.org");
  MessageBuilder* inner = &outer;
  for (int depth = 1; depth <= 4; ++depth) {
    const std::string number = std::to_string(depth);
    inner = &inner->AttachMessage("IPM.Note").Subject("Inner " + number).Body("inner text " + number + "\r\n");
    inner->From("Dora", "dora@example.net").SubmitTime(FileTime(2024, 2, 28)).To("Ann", "ann@example.com");
    inner->AttachFile("deep" + number + ".txt", "deep content " + number);
  }
  auto& links = folder.AddMessage("IPM.Note").Subject("Links").Body("see there\r\n").From("Ann", "ann@example.com");
  links.SubmitTime(FileTime(2024, 4, 2)).To("Bob", "bob@example.org");
  links.AttachReference("plan.doc", "\\\\server\\share\\plan.doc");
  links.AttachReference("only.doc", "C:\\only.doc", AttachMethod::kByReferenceOnly);
  links.AttachReference("web.doc", "https://example.com/web.doc", AttachMethod::kWebReference);
  auto& objects = folder.AddMessage("IPM.Note").Subject("Objects").Body("objects\r\n").From("Ann", "ann@example.com");
  objects.SubmitTime(FileTime(2024, 4, 3)).To("Bob", "bob@example.org");
  objects.AttachOle("sheet.ole", Pattern(20'000, 9));
  objects.AttachOle("flat.ole", Pattern(5'000, 10), true);
}

}  // namespace

vault::StoreBuilder RichStore(vault::Encoding encoding) {
  vault::StoreBuilder store("Rich store", encoding);
  store.Text(0x3004, "with everything").Uid(kOwnSet);
  auto& mail = store.top().AddFolder("Mail");
  mail.Text(0x3004, "a comment").Int({kOwnSet, 2}, 12);
  AddMail(mail);
  auto& below = mail.AddFolder("Ελλάδα").AddFolder("Deeper");
  AddAttached(below);
  auto& types = store.top().AddFolder("Types");
  auto& every = types.AddMessage("IPM.Note").Subject("Every type").Body("types\r\n").From("Ann", "ann@example.com");
  SetEveryType(every.SubmitTime(FileTime(2024, 5, 1)).To("Bob", "bob@example.org"));
  auto& meeting = store.top().AddFolder("Calendar", "IPF.Appointment").AddMessage("IPM.Appointment").Subject("Meeting");
  meeting.Time({vault::kAppointmentSet, 0x820D}, FileTime(2024, 3, 1)).Text({vault::kAppointmentSet, 0x8208}, "Room 5");
  meeting.Time({vault::kAppointmentSet, 0x820E}, FileTime(2024, 3, 2)).Body("agenda");
  store.top().AddFolder("Nothing");
  store.deleted_items().AddMessage("IPM.Note").Subject("Gone").Body("gone\r\n").From("Ann", "ann@example.com");
  return store;
}

namespace {

class Comparison {
 public:
  explicit Comparison(const vault::Store& store) : store_(store) {}

  void Store(const vault::StoreBuilder& wanted) {
    at_ = "store";
    Properties(store_.properties(), wanted.properties());
    const vault::Folder top = store_.OpenFolder(store_.subtree());
    const vault::Table rows = top.Hierarchy();
    for (auto row = rows.Walk(); row.Next();) {
      const vault::Folder folder = store_.OpenFolder(row.row().id());
      if (folder.name() == u"Deleted Items") Folder(folder, wanted.deleted_items(), {});
    }
    Folder(top, wanted.top(), u"Deleted Items");
  }
  std::vector<std::string> lines;

 private:
  void Expect(bool equal, const std::string& what) {
    if (!equal) lines.push_back(at_ + ": " + what);
  }

  // Compares the properties that the builder was given; `but` is one that the writer changes.
  template <typename Set>
  void Properties(const Set& set, const PropertyMap& wanted, std::uint16_t but = 0) {
    for (const auto& [key, data] : wanted) {
      const vault::PropertyName& name = key.name();
      auto id = std::optional(key.id());
      if (!key.id() && name.text.empty()) id = store_.names().FindId(name.set, name.id);
      if (!key.id() && !name.text.empty()) id = store_.names().FindId(name.set, name.text);
      if (id == but) continue;
      const auto value = id ? set.Find(*id) : std::nullopt;
      const std::string what = "property " + std::to_string(id.value_or(0));
      Expect(value && value->type() == data.type, what + " is missing or of another type");
      if (!value) continue;
      if (data.type == PropType::kObject) {
        Expect(value->bytes().size() == 8 && vault::Load32(value->bytes().data() + 4) == data.size(),
               what + " (object)");
        continue;
      }
      auto reader = set.Open(*value);
      if (data.source) {
        std::vector<std::uint8_t> bytes(data.source->size());
        vault::SourceReader(*data.source).Fill(bytes);
        Expect(reader.ReadAll() == bytes, what + " (from a source)");
      } else {
        Expect(reader.ReadAll() == data.bytes, what);
      }
    }
  }

  void Folder(const vault::Folder& folder, const vault::FolderBuilder& wanted, std::u16string_view besides) {
    const std::string above = at_;
    at_ += "/" + vault::Utf8FromUtf16(folder.name());
    Properties(folder.properties(), wanted.properties());
    Items(folder.Contents(), wanted.messages());
    Items(folder.Associated(), wanted.hidden());
    auto child = wanted.folders().begin();
    const vault::Table rows = folder.Hierarchy();
    for (auto row = rows.Walk(); row.Next();) {
      const vault::Folder found = store_.OpenFolder(row.row().id());
      if (!besides.empty() && found.name() == besides) continue;
      Expect(child != wanted.folders().end() && found.parent() == folder.nid(), "a folder too many or elsewhere");
      if (child == wanted.folders().end()) continue;
      Properties(row.row(), rows, child->properties());
      Folder(found, *child++, {});
    }
    Expect(child == wanted.folders().end(), "a folder is missing");
    at_ = above;
  }

  // Cells of a row against the object's own properties, where the table has such a column.
  void Properties(const vault::Table::Row& row, const vault::Table& table, const PropertyMap& wanted) {
    for (const auto& [key, data] : wanted) {
      if (!key.id() || !table.FindColumn(key.id()) || key.id() == vault::prop::kMessageFlags) continue;
      const auto cell = row.Find(key.id());
      Expect(cell && table.Open(*cell).ReadAll() == data.bytes, "cell " + std::to_string(key.id()));
    }
  }

  template <typename Builders>
  void Items(const vault::Table& rows, const Builders& wanted) {
    Expect(rows.row_count() == wanted.size(), "another number of messages");
    std::uint32_t number = 0;
    for (const MessageBuilder& builder : wanted) {
      if (number == rows.row_count()) return;
      const vault::Table::Row row = rows.At(number++);
      Properties(row, rows, builder.properties());
      const vault::Message message = store_.OpenMessage(row.id());
      Message(message, builder);
    }
  }

  void Message(const vault::Message& message, const MessageBuilder& wanted) {
    const std::string above = at_;
    at_ += "/" + vault::Utf8FromUtf16(message.subject());
    Properties(message.properties(), wanted.properties(),
               wanted.attachments().empty() ? 0 : vault::prop::kMessageFlags);
    const vault::Table recipients = message.Recipients();
    Expect(recipients.row_count() == wanted.recipients().size(), "another number of recipients");
    std::uint32_t number = 0;
    for (const auto& recipient : wanted.recipients()) {
      if (number == recipients.row_count()) break;
      Properties(recipients.At(number++), recipients, recipient.properties());
    }
    const auto attachments = message.AttachmentNids();
    Expect(attachments.size() == wanted.attachments().size(), "another number of attachments");
    for (std::size_t i = 0; i < attachments.size() && i < wanted.attachments().size(); ++i) {
      Attachment(message.OpenAttachment(attachments[i]), wanted.attachments()[i]);
    }
    at_ = above;
  }

  void Attachment(const vault::Attachment& attachment, const vault::AttachmentBuilder& wanted) {
    Properties(attachment.properties(), wanted.properties());
    if (wanted.embedded()) {
      Message(attachment.OpenEmbedded(), *wanted.embedded());
      return;
    }
    const auto data = wanted.properties().find(vault::prop::kAttachData);
    auto found = attachment.Data();
    Expect(found.has_value() == (data != wanted.properties().end()), "an attachment with or without content");
    if (found && data != wanted.properties().end() && !data->second.source) {
      Expect(found->ReadAll() == data->second.bytes, "the content of an attachment");
    }
  }

  const vault::Store& store_;
  std::string at_;
};

}  // namespace

std::vector<std::string> Differences(const vault::Store& store, const vault::StoreBuilder& wanted) {
  Comparison comparison(store);
  comparison.Store(wanted);
  return comparison.lines;
}

}  // namespace test
