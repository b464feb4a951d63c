// The body text, and the summary kept from its beginning.
#include <filterr.h>

#include <algorithm>

#include "module/core/Boundary.h"
#include "module/filter/HoardexFilter.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";
constexpr size_t kSummaryBuffer = 1024;
constexpr ULONG kSummaryWhole = 1020;  // below this the text is taken whole, from it on one character less is

}  // namespace

STDMETHODIMP_(SCODE) CHoardexFilter::GetText(ULONG* count, WCHAR* buffer) {
  if (!count || !buffer) {
    ZK_LOG(L"CHoardexFilter::GetText() - NULL input");
    return E_POINTER;
  }
  if (!*count) {
    ZK_LOG(L"CHoardexFilter::GetText() - Empty buffer input");
    return E_INVALIDARG;
  }
  // What the attachment's own filter answers is returned as it stands; what it throws ends the text.
  HRESULT inner = S_OK;
  const bool forwards = kind_ == CHoardexURL::kAttachment && inner_filter_;
  const HRESULT hr = boundary::Guard(kLogSource, __LINE__, L"CHoardexFilter::GetText()", [&]() -> HRESULT {
    if (!forwards) return NextText(count, buffer);
    inner = inner_filter_->GetText(count, buffer);
    return S_OK;
  });
  if (SUCCEEDED(hr)) return forwards ? inner : hr;
  // Every failure ends the text; nothing is tried again.
  body_stream_.Reset();
  return FILTER_E_NO_MORE_TEXT;
}

HRESULT CHoardexFilter::NextText(ULONG* count, WCHAR* buffer) {
  if (text_done_) {
    body_stream_.Reset();
    return FILTER_E_NO_MORE_TEXT;
  }
  const ULONG capacity = *count;
  HRESULT hr = S_OK;
  ULONG given = 0;
  if (body_result_ == E_OUTOFMEMORY) {
    if (!body_stream_) return FILTER_E_NO_MORE_TEXT;
    ULONG read = 0;
    const ULONG asked = std::min<ULONG>(capacity, ULONG_MAX / sizeof(WCHAR));
    const HRESULT result = body_stream_->Read(buffer, asked * sizeof(WCHAR), &read);
    if (FAILED(result)) {
      ZK_LOG(L"CHoardexFilter::GetText() - Stream Read failed with [0x%08lX]", result);
      return FILTER_E_NO_MORE_TEXT;
    }
    given = read / sizeof(WCHAR);
    if (given < asked) {
      hr = FILTER_S_LAST_TEXT;
      text_done_ = true;
    }
  } else {
    const size_t left = body_text_.size() - body_given_;
    given = static_cast<ULONG>(std::min<size_t>(capacity, left));
    body_text_.copy(buffer, given, body_given_);
    buffer[given] = 0;  // deliberately also one place past the caller's count
    body_given_ += given;
    if (capacity >= left) {
      hr = FILTER_S_LAST_TEXT;
      text_done_ = true;
    }
  }
  *count = given;
  if (!summary_done_) KeepSummary(buffer, given);
  return hr;
}

void CHoardexFilter::KeepSummary(const WCHAR* text, ULONG count) {
  WCHAR start[kSummaryBuffer] = {};
  std::copy_n(text, count < kSummaryWhole ? count : kSummaryWhole - 1, start);
  summary_text_.assign(start).append(L"...");
  summary_done_ = true;
}
