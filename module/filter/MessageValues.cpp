// How the values of a message's steps are made.
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/ItemSteps.h"
#include "module/filter/ItemTypes.h"

namespace {

std::wstring_view View(const wchar_t* text) {
  return text ? std::wstring_view(text) : std::wstring_view();
}

}  // namespace

HRESULT ItemSteps::Text(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetString(value, View(element->Value.lpszW));
}

HRESULT ItemSteps::NarrowText(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetString(value, text::Widen(element->Value.lpszA));
}

HRESULT ItemSteps::Time(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetTime(value, element->Value.ft);
}

HRESULT ItemSteps::Truth(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetBool(value, element->Value.b != 0);
}

HRESULT ItemSteps::Short(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetUI2(value, element->Value.l);
}

HRESULT ItemSteps::Long(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetI8(value, static_cast<ULONG>(element->Value.l));
}

HRESULT ItemSteps::Read(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetBool(value, element->Value.l & MSGFLAG_READ);
}

HRESULT ItemSteps::Hexadecimal(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value) {
  return variant::SetString(value, CMapiForWDS::BinaryToText(element->Value.bin));
}

// An address of another type than SMTP says which; without a type it stands as it is.
HRESULT ItemSteps::Address(CHoardexFilter& filter, const SPropValue* element, PROPVARIANT& value) {
  const std::wstring_view address = View(element->Value.lpszW);
  const std::wstring& type = filter.sender_addr_type_;
  if (type.empty() || url::EqualIgnoringCase(type, L"SMTP")) return variant::SetString(value, address);
  return variant::SetString(value, (type + L":").append(address));
}

HRESULT ItemSteps::Subject(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  const SPropValue* subject = filter.props(PropertySource::kMessage).at(5);
  if (subject && subject->ulPropTag == PR_SUBJECT_W) return variant::SetString(value, View(subject->Value.lpszW));
  return variant::SetString(value, text::Resource(IDS_NO_SUBJECT));
}

HRESULT ItemSteps::KindText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetString(value, TypeOf(filter.item_kind()).windows_kind);
}

HRESULT ItemSteps::TypeName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetString(value, TypeOf(filter.item_kind()).name);
}

HRESULT ItemSteps::TypeText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  std::wstring text;
  filter.GetItemTypeText(text);
  return variant::SetString(value, text);
}

HRESULT ItemSteps::Flagged(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetBool(value, filter.is_flagged_);
}

HRESULT ItemSteps::HasNames(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetBool(value, !filter.attachment_names_.empty());
}

HRESULT ItemSteps::NextLink(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  // GetChunk comes back to this step for as long as values are taken.
  --filter.message_step_;
  return filter.MakeLink(value);
}
