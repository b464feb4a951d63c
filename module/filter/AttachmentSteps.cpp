// The fourteen steps of an attachment. What comes after them belongs to the filter of its type.
#include <filterr.h>

#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/filter/ItemSteps.h"
#include "module/registration/HoardexCommon.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

using enum PropertySource;

constexpr wchar_t kNoFolder[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment folder";
constexpr wchar_t kNoAuthor[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment author";
constexpr wchar_t kNoName[] = L"CHoardexFilter::GetValue() -\tCoTaskMemAlloc failed for attachment item type";
constexpr wchar_t kNoTypeText[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment item type text";
constexpr wchar_t kNoTitle[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment title";
constexpr wchar_t kNoType[] =
    L"CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] CoTaskMemAlloc failed for attachment item type text";

}  // namespace

constinit const ItemSequence::Row ItemSteps::kAttachmentRows[14] = {
    /*  0 */ {kNone, 0, 0, 0, &key::ItemPathDisplay, Member<&CHoardexFilter::root_name_>, nullptr, kNoFolder},
    /*  1 */ {kNone, 0, 0, 0, &key::ItemFolderPathDisplay, Member<&CHoardexFilter::root_name_>, nullptr, kNoFolder},
    /*  2 */
    {kNone, 0, 0, 0, &key::ItemFolderPathDisplayNarrow, Member<&CHoardexFilter::root_name_>, nullptr, kNoFolder},
    /*  3 */ {kNone, 0, 0, 0, &key::Kind, AttachedKind},
    /*  4 */ {kNone, 0, 0, kWorkstationId, &key::FileExtension, AttachedType, nullptr, kNoType},
    /*  5 */ {kNone, 0, 0, 0, &key::FromName, Member<&CHoardexFilter::attachment_author_>, nullptr, kNoAuthor},
    /*  6 */ {kNone, 0, 0, 0, &key::FileName, AttachedName, nullptr, kNoName},
    /*  7 */ {kNone, 0, 0, 0, &key::ItemType, TypeText, nullptr, kNoTypeText},
    /*  8 */ {kNone, 0, 0, 0, &key::ItemTypeText, TypeText, nullptr, kNoTypeText},
    /*  9 */ {kNone, 0, 0, 0, &key::IsAttachment, Always<true>},
    /* 10 */ {kNone, 0, 0, 0, &key::ItemName, Member<&CHoardexFilter::attachment_title_>, nullptr, kNoTitle},
    /* 11 */ {kNone, 0, 0, 0, &key::Author, AttachedAuthor, nullptr, kNoAuthor},
    /* 12 */ {kNone, 0, 0, 0, &key::ItemDate, AttachedDate},
    /* 13 */ {kNone, 0, 0, 0, &key::ItemFolderPathDisplay, Member<&CHoardexFilter::root_name_>, nullptr, kNoFolder},
};

constinit const ItemSequence ItemSteps::kOfAttachment = {.item = "Attachment",
                                                         .rows = kAttachmentRows,
                                                         .counter = &CHoardexFilter::attach_step_,
                                                         .first = -16,
                                                         .walks = true,
                                                         .traces = false,
                                                         .enter = EnterAttachment,
                                                         .leave = LeaveAttachment,
                                                         .beyond = Forward,
                                                         .before_value = nullptr};

ItemSequence::Outcome ItemSteps::EnterAttachment(CHoardexFilter& filter) {
  const auto policy = CurrentGroupPolicy();
  if (policy->AttachmentsPrevented()) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore all email attachments");
    return Outcome::kUntouched;
  }
  const std::wstring extension = text::Lower(filter.url_.substr(filter.url_.rfind(L'.') + 1));
  if (!policy->Excludes(extension)) return Outcome::kGive;
  ZK_LOG(
      L"CHoardexFilter::GetChunk() - URL_IS_ATTACHMENT - WDS Group policy is set to ignore specific attachment of "
      L"type - %s",
      extension.c_str());
  return Outcome::kUntouched;
}

HRESULT ItemSteps::LeaveAttachment(CHoardexFilter& filter, STAT_CHUNK* stat) {
  return filter.inner_filter_ ? filter.inner_filter_->GetChunk(stat) : FILTER_E_END_OF_CHUNKS;
}

HRESULT ItemSteps::Forward(CHoardexFilter& filter, PROPVARIANT** value) {
  return filter.inner_filter_ ? filter.inner_filter_->GetValue(value) : FILTER_E_NO_VALUES;
}

HRESULT ItemSteps::AttachedKind(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetString(value, filter.AttachmentKind());
}

HRESULT ItemSteps::AttachedType(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  if (!IsVistaOrLater() && !IsServer2008OrLater()) return S_OK;  // empty there
  return variant::SetString(value, filter.AttachmentItemType());
}

HRESULT ItemSteps::AttachedName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  std::wstring name;
  filter.GetAttachmentFileNameFromURL(name);
  return variant::SetString(value, name);
}

HRESULT ItemSteps::AttachedAuthor(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  std::wstring author;
  const HRESULT hr = filter.GetAttachmentAuthor(author);
  if (FAILED(hr))  // kept from the indexer: an attachment without an author is still worth its other values
    ZK_LOG(L"CHoardexFilter::GetValue() - GetAttachmentAuthor() returned error code [0x%08lx]", hr);
  return variant::SetString(value, author);
}

HRESULT ItemSteps::AttachedDate(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
  return variant::SetTime(value, filter.file_time_);
}
