// Reads, once per message, every MAPI property that its sequence may offer.
#include "module/core/SCLog.h"
#include "module/filter/MapiProperties.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

constexpr GUID kAppointmentSet = {0x00062002, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kTaskSet = {0x00062003, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kAddressSet = {0x00062004, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kNoteSet = {0x0006200E, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

constexpr size_t kMostProperties = 16;

// The named properties of one item type, and what the log says of reading them.
struct NamedReader {
  PropertySource source;
  const GUID* set;
  logging::Format<HRESULT> names_failed, props_failed, succeeded;
};

constexpr NamedReader kCalendar = {
    PropertySource::kAppointment, &kAppointmentSet,
    L"CHoardexFilter::ReadCalendarProperties() - GetIDsFromNames for message (appointment) failed with [0x%08lX]",
    L"CHoardexFilter::ReadCalendarProperties() - GetProps for message (appointment) failed with [0x%08lX]",
    L"CHoardexFilter::ReadCalendarProperties() - GetProps on Calendar Named Properties succeeded [0x%08lX]"};
constexpr NamedReader kTask = {
    PropertySource::kTask, &kTaskSet,
    L"CHoardexFilter::ReadTaskProperties() - GetIDsFromNames for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadTaskProperties() - GetProps for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadTaskProperties() - GetProps on Task Named Properties succeeded [0x%08lX]"};
constexpr NamedReader kContact = {
    PropertySource::kContactNamed, &kAddressSet,
    // The first line names a task: it has always been written so.
    L"CHoardexFilter::ReadContactProperties() - GetIDsFromNames for message (Task) failed with [0x%08lX]",
    L"CHoardexFilter::ReadContactProperties() - GetProps for message (Contact item) failed with [0x%08lX]",
    L"CHoardexFilter::ReadContactProperties() - GetProps on Contact Named-Properties succeeded [0x%08lX]"};
constexpr NamedReader kStickyNote = {
    PropertySource::kNote, &kNoteSet,
    L"CHoardexFilter::ReadStickyNoteProperties() - GetIDsFromNames for message (StickyNote) failed with [0x%08lX]",
    L"CHoardexFilter::ReadStickyNoteProperties() - GetProps for message (StickyNote item) failed with [0x%08lX]",
    L"CHoardexFilter::ReadStickyNoteProperties() - GetProps on StickyNote Named-Properties succeeded [0x%08lX]"};

HRESULT ReadNamed(IMessage* message, const NamedReader& reader, PropertySet& set) {
  const auto properties = PropertiesOf(reader.source);
  MAPINAMEID names[kMostProperties] = {};
  LPMAPINAMEID pointers[kMostProperties] = {};
  for (size_t i = 0; i < properties.size(); ++i) {
    names[i].lpguid = const_cast<GUID*>(reader.set);
    names[i].ulKind = MNID_ID;
    names[i].Kind.lID = properties[i].id;
    pointers[i] = &names[i];
  }
  TidyPropTags tags;
  HRESULT hr = message->GetIDsFromNames(static_cast<ULONG>(properties.size()), pointers, MAPI_CREATE, &tags);
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

HRESULT CHoardexFilter::ReadTags(PropertySource source) {
  SizedSPropTagArray(kMostProperties, tags) = {};
  for (const MapiProperty& property : PropertiesOf(source)) tags.aulPropTag[tags.cValues++] = property.tag;
  PropertySet& set = props(source);
  set.Release();
  const HRESULT hr = message_->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &set.count, &set.values);
  if (FAILED(hr)) set.Release();
  return hr;
}

HRESULT CHoardexFilter::ReadMessageProperties() {
  const HRESULT hr = ReadTags(PropertySource::kMessage);
  if (FAILED(hr))
    ZK_LOG(L"CHoardexFilter::ReadMessageProperties() - GetProps for message failed with error [0x%08lX]", hr);
  return hr;
}

HRESULT CHoardexFilter::ReadCalendarProperties() {
  return ReadNamed(message_.Get(), kCalendar, props(PropertySource::kAppointment));
}
HRESULT CHoardexFilter::ReadTaskProperties() {
  return ReadNamed(message_.Get(), kTask, props(PropertySource::kTask));
}
HRESULT CHoardexFilter::ReadStickyNoteProperties() {
  return ReadNamed(message_.Get(), kStickyNote, props(PropertySource::kNote));
}

HRESULT CHoardexFilter::ReadContactProperties() {
  const HRESULT hr = ReadTags(PropertySource::kContact);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::ReadContactProperties() - GetProps for (contact) message failed with [0x%08lX]", hr);
    return hr;
  }
  ZK_LOG(L"CHoardexFilter::ReadContactProperties() - GetProps on Contact properties succeeded [0x%08lX]", hr);
  return ReadNamed(message_.Get(), kContact, props(PropertySource::kContactNamed));
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
  TidyTableRows rows;
  hr = rows.Query(table.Get(), count);
  if (FAILED(hr) || !rows.rows()) {
    ZK_LOG(L"CHoardexFilter::GetRecipientInfo() - QueryRows on RecipientTable failed with [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  static constexpr struct {
    LONG type;
    std::wstring CHoardexFilter::*list;
  } kLists[] = {{MAPI_TO, &CHoardexFilter::to_addresses_},
                {MAPI_CC, &CHoardexFilter::cc_addresses_},
                {MAPI_BCC, &CHoardexFilter::bcc_addresses_}};
  for (ULONG i = 0; i < rows.rows(); ++i) {
    const SPropValue* recipient = rows.cell(i, 0, PR_RECIPIENT_TYPE);
    const SPropValue* address = rows.cell(i, 1, PR_SMTP_ADDRESS_W);
    if (!recipient || !address) {
      ZK_LOG(
          L"CHoardexFilter::GetRecipientInfo() - Fail: PropertyTag didn't match with PR_RECIPIENT_TYPE and "
          L"PR_SMTP_ADDRESS_W");
      continue;
    }
    for (const auto& list : kLists)
      if (list.type == recipient->Value.l) (this->*list.list).append(address->Value.lpszW).append(L"; ");
  }
  return S_OK;
}
