// GetValue: the value of the chunk that GetChunk announced last.
#include "module/core/Boundary.h"
#include "module/filter/ItemSequence.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

}  // namespace

STDMETHODIMP_(SCODE) CHoardexFilter::GetValue(PROPVARIANT** value) {
  if (!value) return E_POINTER;
  *value = nullptr;
  variant::Owner owner;
  const HRESULT hr =
      boundary::Guard(kLogSource, __LINE__, L"CHoardexFilter::GetValue()", [&] { return MakeValue(owner, value); });
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
  const ItemSequence* sequence = ItemSequence::Of(kind_);
  if (!sequence) return owner.Allocate();
  int& position = this->*sequence->counter;
  const ItemSequence::Row* row = sequence->At(position);
  const SPropValue* element = nullptr;
  const bool known = row && row->make && row->Applies(*this, &element);
  if (!known && sequence->beyond) return sequence->beyond(*this, forwarded);

  HRESULT hr = owner.Allocate();
  if (SUCCEEDED(hr)) {
    if (sequence->before_value) sequence->before_value(*this);
    if (known) hr = row->make(*this, element, *owner);
    if (known && (row->flags & kMovesOnByValue)) {
      ++position;
      hr = S_OK;  // even if the string could not be copied, on purpose
    }
  }
  if (hr != E_OUTOFMEMORY) return hr;
  if (sequence->traces)
    ZK_LOG(L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for message property no. [%d]", position);
  if (known && row->out_of_memory) ZK_LOG(L"%s", row->out_of_memory);
  return hr;
}

ItemKind CHoardexFilter::item_kind() const {
  if (props(PropertySource::kAppointment)) return ItemKind::kAppointment;
  if (props(PropertySource::kTask)) return ItemKind::kTask;
  if (props(PropertySource::kContact)) return ItemKind::kContact;
  return props(PropertySource::kNote) ? ItemKind::kNote : ItemKind::kEmail;
}

HRESULT CHoardexFilter::MakeLink(PROPVARIANT& value) {
  const size_t index = static_cast<size_t>(link_index_);
  const bool known = link_index_ >= 0 && index < child_urls_.size();
  const HRESULT hr = variant::SetLink(value, known ? std::wstring_view(child_urls_[index]) : std::wstring_view(),
                                      known && index < child_times_.size() ? child_times_[index] : FILETIME{});
  if (FAILED(hr)) ZK_LOG(L"CHoardexFilter::GetValue() - CoTaskMemAlloc failed for DirLink");
  return hr;
}
