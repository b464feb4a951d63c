// GetValue: the value of the chunk that GetChunk announced last.
#include "module/core/Boundary.h"
#include "module/core/Text.h"
#include "module/filter/HoardexFilter.h"
#include "module/filter/ItemTypes.h"
#include "module/filter/MessageSequence.h"
#include "module/registration/HoardexCommon.h"

#include <filterr.h>

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr int kFirstAttachmentStep = -16;

}  // namespace

// The values of an attachment's own steps; what comes after belongs to the filter of its type.
struct AttachmentSequence {
  static constexpr int kSteps = 14;

  struct Row {
    HRESULT (*make)(CHoardexFilter& filter, PROPVARIANT& value);
    const wchar_t* out_of_memory;  // the line for a string that could not be allocated, null when there is none
  };

  static HRESULT RootName(CHoardexFilter& filter, PROPVARIANT& value) {
    return variant::SetString(value, filter.root_name_);
  }
  static HRESULT Kind(CHoardexFilter& filter, PROPVARIANT& value) {
    return variant::SetString(value, filter.AttachmentKind());
  }
  static HRESULT Type(CHoardexFilter& filter, PROPVARIANT& value) {
    if (!IsKnownWindows()) return S_OK;  // empty there
    return variant::SetString(value, filter.AttachmentItemType());
  }
  static HRESULT FromName(CHoardexFilter& filter, PROPVARIANT& value) {
    return variant::SetString(value, filter.attachment_author_);
  }
  static HRESULT FileName(CHoardexFilter& filter, PROPVARIANT& value) {
    std::wstring name;
    filter.GetAttachmentFileNameFromURL(name);
    return variant::SetString(value, name);
  }
  static HRESULT TypeText(CHoardexFilter& filter, PROPVARIANT& value) {
    std::wstring text;
    filter.GetItemTypeText(text);
    return variant::SetString(value, text);
  }
  static HRESULT True(CHoardexFilter&, PROPVARIANT& value) { return variant::SetBool(value, true); }
  static HRESULT Title(CHoardexFilter& filter, PROPVARIANT& value) {
    return variant::SetString(value, filter.attachment_title_);
  }
  static HRESULT Author(CHoardexFilter& filter, PROPVARIANT& value) {
    std::wstring author;
    const HRESULT hr = filter.GetAttachmentAuthor(author);
    if (FAILED(hr))  // kept from the indexer: an attachment without an author is still worth its other values
      ZK_LOG(L"CHoardexFilter::GetValue() - GetAttachmentAuthor() returned error code [0x%08lx]", hr);
    return variant::SetString(value, author);
  }
  static HRESULT Date(CHoardexFilter& filter, PROPVARIANT& value) {
    return variant::SetTime(value, filter.file_time_);
  }

  static bool IsKnownWindows() { return IsVistaOrLater() || IsServer2008OrLater(); }
  static const Row kRows[kSteps];
};

namespace {

constexpr wchar_t kNoFolder[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment folder";
constexpr wchar_t kNoAuthor[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment author";
constexpr wchar_t kNoType[] = L"CHoardexFilter::GetValue() -\tCoTaskMemAlloc failed for attachment item type";
constexpr wchar_t kNoTypeText[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment item type text";
constexpr wchar_t kNoTitle[] = L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for attachment title";
constexpr wchar_t kNoItemType[] =
    L"CHoardexFilter::GetValue() - [PROP_ATTACH_ITEMTYPE] CoTaskMemAlloc failed for attachment item type text";

}  // namespace

const AttachmentSequence::Row AttachmentSequence::kRows[kSteps] = {
    {RootName, kNoFolder}, {RootName, kNoFolder}, {RootName, kNoFolder},   {Kind, nullptr},         {Type, kNoItemType},
    {FromName, kNoAuthor}, {FileName, kNoType},   {TypeText, kNoTypeText}, {TypeText, kNoTypeText}, {True, nullptr},
    {Title, kNoTitle},     {Author, kNoAuthor},   {Date, nullptr},         {RootName, kNoFolder},
};

STDMETHODIMP_(SCODE) CHoardexFilter::GetValue(PROPVARIANT** value) {
  if (!value) return E_POINTER;
  *value = nullptr;
  variant::Owner owner;
  const HRESULT hr = boundary::Guard(kLogSource, __LINE__, L"CHoardexFilter::GetValue()",
                                     [&] { return MakeValue(owner, value); });
  if (FAILED(hr)) {
    const auto log_failure = [&] {
      if (kind_ != CHoardexURL::kRoot) ZK_LOG(L"CHoardexFilter::GetValue() - Failed with [0x%08lX]", hr);
    };
    // Out of memory is told twice, before and after what was allocated is given back.
    if (hr == E_OUTOFMEMORY) log_failure();
    owner.Reset();
    log_failure();
    return hr;
  }
  if (PROPVARIANT* made = owner.Detach()) *value = made;
  return hr;
}

HRESULT CHoardexFilter::MakeValue(variant::Owner& owner, PROPVARIANT** forwarded) {
  if (kind_ == CHoardexURL::kAttachment) {
    const int step = attach_step_ - kFirstAttachmentStep;
    if (step < 0 || step >= AttachmentSequence::kSteps)
      return inner_filter_ ? inner_filter_->GetValue(forwarded) : FILTER_E_NO_VALUES;
    const AttachmentSequence::Row& row = AttachmentSequence::kRows[step];
    HRESULT hr = owner.Allocate();
    if (SUCCEEDED(hr)) hr = row.make(*this, *owner);
    if (FAILED(hr) && row.out_of_memory) ZK_LOG(L"%s", row.out_of_memory);
    return hr;
  }
  HRESULT hr = owner.Allocate();
  if (kind_ == CHoardexURL::kMessage) {
    if (SUCCEEDED(hr)) hr = MakeMessageValue(*owner);
    if (hr == E_OUTOFMEMORY)
      ZK_LOG(L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for message property no. [%d]", message_step_);
    return hr;
  }
  if (FAILED(hr)) return hr;
  switch (kind_) {
    case CHoardexURL::kRoot: return MakeRootValue(*owner);
    case CHoardexURL::kVaultFile:
    case CHoardexURL::kFolder: return MakeContainerValue(*owner);
    default: return S_OK;
  }
}

ItemKind CHoardexFilter::item_kind() const {
  if (calendar_props_) return ItemKind::kAppointment;
  if (task_props_) return ItemKind::kTask;
  if (contact_props_) return ItemKind::kContact;
  return note_props_ ? ItemKind::kNote : ItemKind::kEmail;
}

HRESULT CHoardexFilter::MakeMessageValue(PROPVARIANT& value) {
  const int step = message_step_ - MessageSequence::kFirstStep;
  const MessageSequence::Row* row =
      step >= 0 && step < MessageSequence::kSteps ? &MessageSequence::At(step) : nullptr;
  const SPropValue* element = nullptr;
  if (!row || !row->make || !MessageSequence::Applies(*row, *this, &element)) {
    ZK_LOG(L"CHoardexFilter::GetValue() - Called with a undefined property!");
    return FILTER_E_NO_VALUES;
  }
  return row->make(*this, element, value);
}

HRESULT CHoardexFilter::MakeLink(PROPVARIANT& value) {
  const size_t index = static_cast<size_t>(link_index_);
  const bool known = link_index_ >= 0 && index < child_urls_.size();
  const HRESULT hr = variant::SetLink(value, known ? std::wstring_view(child_urls_[index]) : std::wstring_view(),
                                      known && index < child_times_.size() ? child_times_[index] : FILETIME{});
  if (FAILED(hr)) ZK_LOG(L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for DirLink");
  return hr;
}

HRESULT CHoardexFilter::MakeRootValue(PROPVARIANT& value) {
  if (root_step_ == 3) return MakeLink(value);
  if (root_step_ != 1 && root_step_ != 2) return S_OK;  // empty
  // S_OK even if the string could not be copied, on purpose.
  variant::SetString(value, root_step_ == 1 ? std::wstring_view(root_name_) : std::wstring_view(L"/"));
  ++root_step_;
  return S_OK;
}

HRESULT CHoardexFilter::MakeContainerValue(PROPVARIANT& value) {
  // Takes the vault file's folder out of the path, which it holds behind "/Tessary/". The stored path is changed.
  const size_t backslash = display_path_.rfind(L'\\');
  const size_t length = root_name_.size();
  if (backslash != std::wstring::npos && backslash > length + 1 && length + 2 <= display_path_.size())
    display_path_.erase(length + 2, backslash - length - 1);
  const size_t slash = display_path_.rfind(L'/');
  if (root_step_ == 3) return MakeLink(value);
  if (root_step_ != 1 && root_step_ != 2) return S_OK;  // empty
  const std::wstring_view path(display_path_);
  const std::wstring_view name = slash == std::wstring::npos ? path : path.substr(slash + 1);
  const std::wstring_view parent = slash == std::wstring::npos ? std::wstring_view() : path.substr(0, slash);
  variant::SetString(value, root_step_ == 1 ? name : parent);
  ++root_step_;
  return S_OK;
}
