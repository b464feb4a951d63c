// Reads, once per message, every MAPI property that its sequence may offer.
#include "module/core/SCLog.h"
#include "module/filter/HoardexFilter.h"
#include "platform/mapi_extra.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

constexpr GUID kAppointmentSet = {0x00062002, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kTaskSet = {0x00062003, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kAddressSet = {0x00062004, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kNoteSet = {0x0006200E, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

constexpr size_t kMostNames = 6;

// The named properties of one item type, and what the log says of reading them.
struct NamedReader {
  const GUID* set;
  ULONG count;
  LONG ids[kMostNames];
  logging::Format<HRESULT> names_failed, props_failed, succeeded;
};

constexpr NamedReader kCalendar = {
    &kAppointmentSet,
    5,
    {0x820D, 0x820E, 0x8205, 0x8223, 0x8208},  // start, end, busy status, recurring, location
    L"CHoardexFilter::ReadCalendarProperties() - GetIDsFromNames for message (appointment) failed with [0x%08lX]",
    L"CHoardexFilter::ReadCalendarProperties() - GetProps for message (appointment) failed with [0x%08lX]",
    L"CHoardexFilter::ReadCalendarProperties() - GetProps on Calendar Named Properties succeeded [0x%08lX]"};
constexpr NamedReader kTask = {
    &kTaskSet,
    6,
    {0x8104, 0x8105, 0x8126, 0x811C, 0x811F, 0x8101},  // start, due, recurring, complete, owner, status
    L"CHoardexFilter::ReadTaskProperties() - GetIDsFromNames for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadTaskProperties() - GetProps for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadTaskProperties() - GetProps on Task Named Properties succeeded [0x%08lX]"};
constexpr NamedReader kContact = {
    &kAddressSet,
    4,
    {0x8005, 0x8080, 0x8083, 0x8062},  // file-under, e-mail 1 display name and address, instant messaging
    // The first line names a task: it has always been written so.
    L"CHoardexFilter::ReadContactProperties() - GetIDsFromNames for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadContactProperties() - GetProps for message (Contact item) failed with [0x%08lX]",
    L"CHoardexFilter::ReadContactProperties() - GetProps on Contact Named-Properties succeeded [0x%08lX]"};
constexpr NamedReader kStickyNote = {
    &kNoteSet,
    5,
    {0x8B00, 0x8B02, 0x8B03, 0x8B04, 0x8B05},  // colour, width, height, left, top
    L"CHoardexFilter::ReadStickyNoteProperties() - GetIDsFromNames for message (StickyNote) failed with [0x%08lX]",
    L"CHoardexFilter::ReadStickyNoteProperties() - GetProps for message (StickyNote item) failed with [0x%08lX]",
    L"CHoardexFilter::ReadStickyNoteProperties() - GetProps on StickyNote Named-Properties succeeded [0x%08lX]"};

HRESULT ReadNamed(IMessage* message, const NamedReader& reader, PropertySet& set) {
  MAPINAMEID names[kMostNames] = {};
  LPMAPINAMEID pointers[kMostNames] = {};
  for (ULONG i = 0; i < reader.count; ++i) {
    names[i].lpguid = const_cast<GUID*>(reader.set);
    names[i].ulKind = MNID_ID;
    names[i].Kind.lID = reader.ids[i];
    pointers[i] = &names[i];
  }
  TidyPropTags tags;
  HRESULT hr = message->GetIDsFromNames(reader.count, pointers, MAPI_CREATE, &tags);
  if (FAILED(hr) || !tags) {
    ZK_LOG(reader.names_failed, hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  set.Release();
  hr = message->GetProps(tags.get(), 0, &set.count, &set.values);
  if (FAILED(hr)) {
    set.Release();
    ZK_LOG(reader.props_failed, hr);
    return hr;
  }
  ZK_LOG(reader.succeeded, hr);
  return hr;
}

}  // namespace

HRESULT CHoardexFilter::ReadMessageProperties() {
  SizedSPropTagArray(16, tags) = {
      16,
      {PR_MESSAGE_DELIVERY_TIME, PR_DISPLAY_BCC_W, PR_DISPLAY_CC_W, PR_DISPLAY_TO_W, PR_MESSAGE_SIZE, PR_SUBJECT_W,
       PR_SENDER_NAME_W, PR_BODY_W, PR_CLIENT_SUBMIT_TIME, PR_SENDER_EMAIL_ADDRESS_W, PR_CREATION_TIME,
       PR_MESSAGE_FLAGS, PR_FLAG_STATUS, PR_CONVERSATION_INDEX, PR_SENT_REPRESENTING_NAME_W,
       PR_SENT_REPRESENTING_EMAIL_ADDRESS_W}};
  message_props_.Release();
  const HRESULT hr = message_->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &message_props_.count,
                                        &message_props_.values);
  if (FAILED(hr)) {
    message_props_.Release();
    ZK_LOG(L"CHoardexFilter::ReadMessageProperties() - GetProps for message failed with error [0x%08lX]", hr);
  }
  return hr;
}

HRESULT CHoardexFilter::ReadCalendarProperties() { return ReadNamed(message_.Get(), kCalendar, calendar_props_); }
HRESULT CHoardexFilter::ReadTaskProperties() { return ReadNamed(message_.Get(), kTask, task_props_); }
HRESULT CHoardexFilter::ReadStickyNoteProperties() { return ReadNamed(message_.Get(), kStickyNote, note_props_); }

HRESULT CHoardexFilter::ReadContactProperties() {
  SizedSPropTagArray(12, tags) = {
      12,
      {PR_DISPLAY_NAME_W, PR_COMPANY_NAME_W, PR_TITLE_W, PR_COMPANY_MAIN_PHONE_NUMBER_W, PR_HOME_TELEPHONE_NUMBER_W,
       PR_ASSISTANT_TELEPHONE_NUMBER_W, PR_MOBILE_TELEPHONE_NUMBER_W, PR_DEPARTMENT_NAME_W, PR_OFFICE_LOCATION_W,
       PR_PROFESSION_W, PR_MANAGER_NAME_W, PR_ASSISTANT_W}};
  contact_props_.Release();
  const HRESULT hr = message_->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &contact_props_.count,
                                        &contact_props_.values);
  if (FAILED(hr)) {
    contact_props_.Release();
    ZK_LOG(L"CHoardexFilter::ReadContactProperties() - GetProps for (contact) message failed with [0x%08lX]", hr);
    return hr;
  }
  ZK_LOG(L"CHoardexFilter::ReadContactProperties() - GetProps on Contact properties succeeded [0x%08lX]", hr);
  return ReadNamed(message_.Get(), kContact, contact_named_props_);
}

HRESULT CHoardexFilter::GetRecipientInfo() {
  sender_addr_type_.clear();
  TidyPropValues type;
  HRESULT hr = mapi::HrGetOneProp(message_.Get(), PR_SENDER_ADDRTYPE_W, &type);
  if (FAILED(hr) || !type || !Carries(*type.get(), PR_SENDER_ADDRTYPE_W)) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - HrGetOneProp for PR_SENDER_ADDRTYPE failed with [0x%08lX]", hr);
  } else {
    sender_addr_type_ = type->Value.lpszW;
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - Sender email address type is [%s]", sender_addr_type_.c_str());
  }
  to_addresses_.clear();
  cc_addresses_.clear();
  bcc_addresses_.clear();

  ComPtr<IMAPITable> table;
  hr = message_->GetRecipientTable(0, &table);
  if (hr == MAPI_E_NO_RECIPIENTS) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - GetRecipientTable is empty, hr = [0x%08lX]", hr);
    return hr;
  }
  if (FAILED(hr) || !table) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - GetRecipientTable for message failed with [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  ULONG count = 0;
  hr = table->GetRowCount(0, &count);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - GetRowCount on RecipientTable failed with [0x%08lX]", hr);
    return hr;
  }
  ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - GetRowCount on RecipientTable returned %ld rows", count);
  if (!count) return S_OK;
  SizedSPropTagArray(2, columns) = {2, {PR_RECIPIENT_TYPE, PR_SMTP_ADDRESS_W}};
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - SetColumns on RecipientTable failed with [0x%08lX]", hr);
    return hr;
  }
  TidyRowSet rows;
  hr = table->QueryRows(static_cast<LONG>(count), 0, &rows);
  if (FAILED(hr) || !rows.rows()) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - QueryRows on RecipientTable failed with [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  static constexpr struct {
    LONG type;
    std::wstring CHoardexFilter::* list;
  } kLists[] = {{MAPI_TO, &CHoardexFilter::to_addresses_},
                {MAPI_CC, &CHoardexFilter::cc_addresses_},
                {MAPI_BCC, &CHoardexFilter::bcc_addresses_}};
  for (ULONG i = 0; i < rows.rows(); ++i) {
    const SPropValue* recipient = rows.cell(i, 0, PR_RECIPIENT_TYPE);
    const SPropValue* address = rows.cell(i, 1, PR_SMTP_ADDRESS_W);
    if (!recipient || !address) {
      ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - Fail: PropertyTag didn't match with PR_RECIPIENT_TYPE and "
             L"PR_SMTP_ADDRESS_W");
      continue;
    }
    for (const auto& list : kLists)
      if (list.type == recipient->Value.l) (this->*list.list).append(address->Value.lpszW).append(L"; ");
  }
  return S_OK;
}
