#include "provider/mime/message_reader.h"

#include "provider/memory.h"
#include "provider/strings.h"
#include "vault/text/body.h"

namespace provider::mime {
namespace {

constexpr ULONG kLargest = 1u << 30;

void Check(HRESULT result) {
  if (FAILED(result)) Fail(result);
}

struct Rows {
  ~Rows() {
    for (ULONG i = 0; set && i < set->cRows; ++i) FreeBuffer(set->aRow[i].lpProps);
    FreeBuffer(set);
  }
  LPSRowSet set = nullptr;
};

// Calls `each` with every row of the table, its cells in the order of the tags.
template <size_t Count, class Each>
void ForEachRow(IMAPITable* table, const ULONG (&tags)[Count], Each&& each) {
  SizedSPropTagArray(Count, columns) = {Count, {}};
  std::copy(tags, tags + Count, columns.aulPropTag);
  Check(table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0));
  for (;;) {
    Rows rows;
    Check(table->QueryRows(64, 0, &rows.set));
    if (!rows.set || !rows.set->cRows) return;
    for (ULONG i = 0; i < rows.set->cRows; ++i)
      if (rows.set->aRow[i].cValues >= Count) each(rows.set->aRow[i].lpProps);
  }
}

std::u16string TextOfCell(const SPropValue& cell, ULONG tag) {
  return cell.ulPropTag == tag ? FromCaller(cell.Value.lpszW, MAPI_UNICODE) : std::u16string();
}

// The address that mail goes to: an SMTP one before the directory's own.
std::u16string BestAddress(std::u16string smtp, std::u16string address) {
  return smtp.empty() ? std::move(address) : std::move(smtp);
}

Person Named(const Properties& properties, ULONG name, ULONG address, ULONG smtp) {
  return {properties.Text(name), BestAddress(properties.Text(smtp), properties.Text(address)), 0};
}

}  // namespace

Properties::Properties(IMAPIProp* object, std::initializer_list<ULONG> tags) {
  std::vector<ULONG> array = {static_cast<ULONG>(tags.size())};
  array.insert(array.end(), tags.begin(), tags.end());
  Check(object->GetProps(reinterpret_cast<LPSPropTagArray>(array.data()), MAPI_UNICODE, &count_, &values_));
}

Properties::~Properties() {
  FreeBuffer(values_);
}

const SPropValue* Properties::Find(ULONG tag) const {
  for (ULONG i = 0; i < count_; ++i)
    if (values_[i].ulPropTag == tag) return &values_[i];
  return nullptr;
}

std::u16string Properties::Text(ULONG tag) const {
  const SPropValue* value = Find(tag);
  return value ? FromCaller(value->Value.lpszW, MAPI_UNICODE) : std::u16string();
}

LONG Properties::Long(ULONG tag, LONG otherwise) const {
  const SPropValue* value = Find(tag);
  return value ? value->Value.l : otherwise;
}

std::optional<std::vector<std::uint8_t>> ReadLong(IMAPIProp* object, ULONG tag) {
  Ref<IStream> stream;
  if (FAILED(object->OpenProperty(tag, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(stream.Receive())))) return {};
  STATSTG stat = {};
  Check(stream->Stat(&stat, STATFLAG_NONAME));
  Require(stat.cbSize.QuadPart <= kLargest, MAPI_E_TOO_BIG);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(stat.cbSize.QuadPart));
  ULONG read = 0;
  if (!bytes.empty()) Check(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &read));
  bytes.resize(read);
  return bytes;
}

std::vector<Person> Recipients(IMessage* message) {
  static constexpr ULONG kColumns[] = {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W, PR_SMTP_ADDRESS_W, PR_RECIPIENT_TYPE};
  std::vector<Person> people;
  Ref<IMAPITable> table;
  Check(message->GetRecipientTable(MAPI_UNICODE, table.Receive()));
  ForEachRow(table.get(), kColumns, [&](const SPropValue* cells) {
    const LONG type = cells[3].ulPropTag == PR_RECIPIENT_TYPE ? cells[3].Value.l & 0xF : MAPI_TO;
    people.push_back({TextOfCell(cells[0], kColumns[0]),
                      BestAddress(TextOfCell(cells[2], kColumns[2]), TextOfCell(cells[1], kColumns[1])), type});
  });
  return people;
}

Person Author(const Properties& properties) {
  Person author = Named(properties, PR_SENT_REPRESENTING_NAME_W, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W,
                        PR_SENT_REPRESENTING_SMTP_ADDRESS_W);
  return author.name.empty() && author.address.empty() ? Sender(properties) : author;
}

Person Sender(const Properties& properties) {
  return Named(properties, PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W, PR_SENDER_SMTP_ADDRESS_W);
}

std::u16string PlainBody(IMessage* message) {
  const auto bytes = ReadLong(message, PR_BODY_W);
  return bytes ? Utf16FromLittleEndian(*bytes) : std::u16string();
}

std::u16string HtmlBody(IMessage* message) {
  const auto& pages = PlatformCodePages();
  std::u16string text;
  if (const auto html = ReadLong(message, PR_HTML); html && !html->empty()) {
    const Properties properties(message, {PR_INTERNET_CPID});
    const auto page = static_cast<unsigned>(properties.Long(PR_INTERNET_CPID, 0));
    const unsigned guess =
        vault::text::LooksLikeUtf8(*html) ? vault::text::kCodePageUtf8 : vault::text::kCodePageWestern;
    vault::text::Decode(page ? page : guess, *html, pages, text);
    return text;
  }
  if (const auto html = ReadLong(message, PR_BODY_HTML_W); html && !html->empty()) return Utf16FromLittleEndian(*html);
  if (const auto rtf = ReadLong(message, PR_RTF_COMPRESSED))
    if (auto html = vault::text::HtmlOfCompressedRtf(*rtf, pages)) return std::move(*html);
  return {};
}

std::vector<ULONG> Attachments(IMessage* message) {
  static constexpr ULONG kColumns[] = {PR_ATTACH_NUM};
  std::vector<ULONG> numbers;
  Ref<IMAPITable> table;
  Check(message->GetAttachmentTable(MAPI_UNICODE, table.Receive()));
  ForEachRow(table.get(), kColumns, [&](const SPropValue* cells) {
    if (cells[0].ulPropTag == PR_ATTACH_NUM) numbers.push_back(static_cast<ULONG>(cells[0].Value.l));
  });
  return numbers;
}

}  // namespace provider::mime
