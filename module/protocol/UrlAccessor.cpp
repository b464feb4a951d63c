#include "module/protocol/UrlAccessor.h"

#include <cstring>
#include <new>

#include "module/core/Boundary.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/filter/HoardexFilter.h"
#include "module/mapi/TidyMapi.h"
#include "module/protocol/TemporaryFile.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\UrlAccessor";

}  // namespace

HRESULT CUrlAccessor::Init(LPCWSTR url, AUTHENTICATION_INFO* authentication, INCREMENTAL_ACCESS_INFO* incremental,
                           ITEM_INFO* item, IProtocolHandlerSite* site) {
  if (!url || !authentication || !incremental || !item) return E_POINTER;
  const HRESULT hr = boundary::Guard(kLogSource, __LINE__, L"CUrlAccessor::Init()", [&] { return Prepare(url, site); });
  // Without an accessor the host closes nothing: a copy that was begun would lie until the next sweep.
  if (FAILED(hr) && !temporary_file_.empty()) DeleteFileW(temporary_file_.c_str());
  return hr;
}

HRESULT CUrlAccessor::Prepare(LPCWSTR url, IProtocolHandlerSite* site) {
  ZK_LOG(L"CUrlAccessor::Init() - URL is [%s]", url);
  url_ = url;
  site_ = site;
  kind_ = CHoardexURL(url_).kind();
  if (kind_ != CHoardexURL::kRoot) {
    mapi_ = CMapiForWDS::GetMapiObj(url_);
    if (!mapi_) {
      ZK_LOG(L"CUrlAccessor::Init() - Cannot allocate MAPI helper object");
      return E_OUTOFMEMORY;
    }
  }
  if (kind_ == CHoardexURL::kMessage) return PrepareMessage();
  if (kind_ == CHoardexURL::kAttachment) return PrepareAttachment();
  return S_OK;
}

HRESULT CUrlAccessor::PrepareMessage() {
  const std::wstring message_url = url::WithoutSize(url_);
  ZK_LOG(L"CUrlAccessor::Init() - URL after the size extracted from it %s", message_url.c_str());
  ComPtr<IMessage> message;
  HRESULT hr = mapi_->GetMsgFromURL(message_url, &message);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetMsgFromURL failed hr=%08X", hr);
    return hr;
  }
  SizedSPropTagArray(2, tags) = {2, {PR_LAST_MODIFICATION_TIME, PR_MESSAGE_SIZE}};
  ULONG count = 0;
  TidyPropValues values;
  hr = message->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetProps failed with [0x%08lX]", hr);
    return hr;
  }
  if (const SPropValue* modified = FindProp(values, count, 0, PR_LAST_MODIFICATION_TIME)) {
    last_modified_ = modified->Value.ft;
    has_last_modified_ = true;
  }
  return S_OK;
}

HRESULT CUrlAccessor::PrepareAttachment() {
  has_temporary_file_ = true;
  const std::wstring message_url = url::MessageOfAttachment(url_);
  std::vector<std::wstring> tokens;
  // An attachment has a record key before its name; anything shorter names none.
  if (ExtractURLTokens(url_, tokens) < 2) {
    ZK_LOG(L"CUrlAccessor::Init() - ExtractURLTokens failed");
    return E_FAIL;
  }
  const std::wstring& display_name = tokens.back();
  const std::wstring& record_key = tokens[tokens.size() - 2];

  ComPtr<IMessage> message;
  HRESULT hr = mapi_->GetMsgFromURL(message_url, &message);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetMsgFromURL failed with [0x%08lX]", hr);
    return hr;
  }
  hr = ReadParent(message.Get(), display_name);
  if (FAILED(hr)) return hr;
  ULONG number = 0;
  hr = FindAttachment(message.Get(), record_key, &number);
  if (FAILED(hr)) return hr;
  ComPtr<IAttach> attachment;
  hr = message->OpenAttach(number, nullptr, MAPI_BEST_ACCESS, &attachment);
  if (FAILED(hr) || !attachment) {
    ZK_LOG(L"CUrlAccessor::Init() - OpenAttach failed with [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  SizedSPropTagArray(2, tags) = {2, {PR_ATTACH_METHOD, PR_LAST_MODIFICATION_TIME}};
  ULONG count = 0;
  TidyPropValues values;
  hr = attachment->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetProps on attachment failed with [0x%08lX]", hr);
    return hr;
  }
  if (const SPropValue* modified = FindProp(values, count, 1, PR_LAST_MODIFICATION_TIME)) {
    last_modified_ = modified->Value.ft;
    has_last_modified_ = true;
  }
  temporary_file_ = TemporaryFilePath(record_key, display_name);
  if (temporary_file_.empty()) {
    ZK_LOG(L"CUrlAccessor::Init() - There is no roaming application-data folder for the attachment's copy");
    return E_FAIL;
  }
  const SPropValue* method = FindProp(values, count, 0, PR_ATTACH_METHOD);
  return CopyAttachment(attachment.Get(), method ? method->Value.l : ATTACH_BY_VALUE);
}

HRESULT CUrlAccessor::ReadParent(IMessage* message, const std::wstring& display_name) {
  SizedSPropTagArray(3, tags) = {3, {PR_SUBJECT_W, PR_MESSAGE_DELIVERY_TIME, PR_SENDER_NAME_W}};
  ULONG count = 0;
  TidyPropValues values;
  const HRESULT hr = message->GetProps(reinterpret_cast<LPSPropTagArray>(&tags), 0, &count, &values);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetProps failed with [0x%08lX]", hr);
    return hr;
  }
  attachment_title_ = FindProp(values, count, 0, PR_SUBJECT_W) ? display_name : text::Resource(IDS_ATTACHED_NO_SUBJECT);
  if (const SPropValue* delivered = FindProp(values, count, 1, PR_MESSAGE_DELIVERY_TIME))
    parent_delivery_time_ = delivered->Value.ft;
  const SPropValue* sender = FindProp(values, count, 2, PR_SENDER_NAME_W);
  parent_sender_ = sender ? sender->Value.lpszW : L"<unknown>";
  return S_OK;
}

HRESULT CUrlAccessor::FindAttachment(IMessage* message, const std::wstring& record_key, ULONG* number) {
  ComPtr<IMAPITable> table;
  HRESULT hr = message->GetAttachmentTable(0, &table);
  if (FAILED(hr) || !table) {
    ZK_LOG(L"CUrlAccessor::Init() - GetAttachmentTable failed with [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  SizedSPropTagArray(3, columns) = {3, {PR_ATTACH_NUM, PR_RECORD_KEY, PR_ATTACH_EXTENSION_W}};
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - SetColumns for attachment table failed with [0x%08lX]", hr);
    return hr;
  }
  SPropValue key = {};
  key.ulPropTag = PR_RECORD_KEY;
  key.Value.bin = CMapiForWDS::CStringToEntryID(record_key);
  const TidyMAPIBuffer<BYTE*> key_owner(key.Value.bin.lpb);
  if (!key.Value.bin.lpb) {
    ZK_LOG(L"CUrlAccessor::Init() - CStringToEntryID failed");
    return E_FAIL;
  }
  SRestriction restriction = {};
  restriction.rt = RES_PROPERTY;
  restriction.res.resProperty.relop = RELOP_EQ;
  restriction.res.resProperty.ulPropTag = PR_RECORD_KEY;
  restriction.res.resProperty.lpProp = &key;
  hr = table->Restrict(&restriction, 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - Restrict for attachment table failed with [0x%08lX]", hr);
    return hr;
  }
  ULONG count = 0;
  hr = table->GetRowCount(0, &count);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - GetRowCount for attachment table failed with [0x%08lX]", hr);
    return hr;
  }
  if (count != 1) {
    ZK_LOG(L"CUrlAccessor::Init() - RowCount for attachment table not correct [%ld]", count);
    return E_FAIL;
  }
  TidyTableRows rows;
  hr = rows.Query(table.Get(), count);
  if (FAILED(hr)) {
    ZK_LOG(L"CUrlAccessor::Init() - QueryRows for attachment table failed with [0x%08lX]", hr);
    return hr;
  }
  const SPropValue* cell = rows.rows() ? rows.cell(0, 0, PR_ATTACH_NUM) : nullptr;
  if (!cell) {
    ZK_LOG(L"CUrlAccessor::Init() - Could not extract for attachment number");
    return E_FAIL;
  }
  *number = static_cast<ULONG>(cell->Value.l);
  return S_OK;
}

HRESULT CUrlAccessor::BindToFilter(IFilter** filter) {
  ZK_GUARD(L"CUrlAccessor::BindToFilter()", [&]() -> HRESULT {
    if (!filter) return E_POINTER;
    *filter = nullptr;
    ComPtr<CHoardexFilter> made = Adopt(new (std::nothrow) CHoardexFilter);
    if (!made) {
      ZK_LOG(L"CUrlAccessor::BindToFilter() - There's so much memory in the world and here I am running out of it");
      return E_OUTOFMEMORY;
    }
    const HRESULT hr = made->SetUp(url_, mapi_, temporary_file_, attachment_title_, parent_delivery_time_,
                                   parent_sender_, site_.Get());
    if (FAILED(hr)) {
      ZK_LOG(L"CUrlAccessor::BindToFilter() - Could not init IFilter");
      return hr;
    }
    *filter = made.Detach();
    return S_OK;
  });
}

STDMETHODIMP CUrlAccessor::IsDirectory() {
  return kind_ == CHoardexURL::kRoot || kind_ == CHoardexURL::kVaultFile || kind_ == CHoardexURL::kFolder ? S_OK
                                                                                                          : S_FALSE;
}

STDMETHODIMP CUrlAccessor::GetSize(ULONGLONG* size) {
  if (!size) return E_POINTER;
  *size = 0;
  ZK_GUARD(L"CUrlAccessor::GetSize()", [&]() -> HRESULT {
    if (kind_ == CHoardexURL::kAttachment) {
      *size = item_size_;
    } else if (kind_ == CHoardexURL::kMessage) {
      // The size as the item was listed with; the URL keeps none afterwards, so a second call reports 0.
      const std::wstring_view group = url::SizeGroup(url_);
      if (group.size() > 4 && group[2] >= L'0' && group[2] <= L'9') *size = _wcstoui64(group.data() + 2, nullptr, 10);
      url_ = url::WithoutSize(url_);
    }
    return S_OK;
  });
}

STDMETHODIMP CUrlAccessor::GetLastModified(FILETIME* time) {
  if (!time) return E_POINTER;
  *time = {};
  HRESULT hr = E_NOTIMPL;
  wchar_t shown[64] = L"n/a";
  if (has_last_modified_) {
    *time = last_modified_;
    hr = S_OK;
    SYSTEMTIME utc = {};
    FileTimeToSystemTime(&last_modified_, &utc);
    _snwprintf(shown, std::size(shown) - 1, L"%04d/%02d/%02d %02d:%02d:%02d", utc.wYear, utc.wMonth, utc.wDay,
                 utc.wHour, utc.wMinute, utc.wSecond);
  }
  ZK_LOG(L"CUrlAccessor::GetLastModified() -  %s hr=[0x%08X]", shown, hr);
  return hr;
}
