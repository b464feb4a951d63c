// A message's attachments: their names, and a link for each whose type can be filtered.
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/filter/HoardexFilter.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexFilter";

enum Column : ULONG { kName, kRecordKey, kExtension, kModified, kColumns };

}  // namespace

bool CHoardexFilter::IsFilterAvailable(const wchar_t* extension) const {
  ComPtr<IFilter> filter;
  return site_ && SUCCEEDED(site_->GetFilter(nullptr, nullptr, extension, &filter)) && filter;
}

// Fills the names and the links. True when there is at least one name.
bool CHoardexFilter::ReadAttachmentList() {
  ComPtr<IMAPITable> table;
  HRESULT hr = message_->GetAttachmentTable(0, &table);
  if (FAILED(hr) || !table) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - GetAttachmentTable for message failed with [0x%08lX]", hr);
    return false;
  }
  ULONG count = 0;
  hr = table->GetRowCount(0, &count);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - GetRowCount for attachment table failed with [0x%08lX]", hr);
    return false;
  }
  if (!count) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - Row count for attachment table is zero");
    return false;
  }
  SizedSPropTagArray(kColumns, columns) = {
      kColumns, {PR_DISPLAY_NAME_W, PR_RECORD_KEY, PR_ATTACH_EXTENSION_W, PR_LAST_MODIFICATION_TIME}};
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - SetColumns for attachment table failed with [0x%08lX]", hr);
    return false;
  }
  TidyTableRows rows;
  hr = rows.Query(table.Get(), count);
  if (FAILED(hr) || !rows.rows()) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - QueryRows for attachment table failed with [0x%08lX]", hr);
    return false;
  }
  attachment_names_.clear();
  const auto policy = CurrentGroupPolicy();
  for (ULONG i = 0; i < rows.rows(); ++i) AddAttachmentRow(rows, i, *policy);
  link_index_ = -1;
  if (!attachment_names_.empty()) return true;
  ZK_LOG(L"CHoardexFilter::GetChunk() - No attachment names");
  return false;
}

void CHoardexFilter::AddAttachmentRow(const TidyTableRows& rows, ULONG i, const GroupPolicy& policy) {
  const SPropValue* name = rows.cell(i, kName, PR_DISPLAY_NAME_W);
  if (const SPropValue* cell = rows.cell(i, kExtension, PR_ATTACH_EXTENSION_W)) {
    const std::wstring extension = cell->Value.lpszW;
    const std::wstring excluded = text::Lower(extension + L";");
    if (policy.Excludes(excluded)) {
      ZK_LOG(
          L"CHoardexFilter::GetChunk() - PROP_ATTACHMENT_NAMES - WDS Group policy is set to ignore specific "
          L"attachment of type - %s",
          excluded.c_str());
      return;
    }
    const SPropValue* record_key = rows.cell(i, kRecordKey, PR_RECORD_KEY);
    const wchar_t* undotted = extension.c_str() + (extension.starts_with(L'.') ? 1 : 0);
    if (!IsFilterAvailable(undotted)) {
      ZK_LOG(L"CHoardexFilter::GetChunk() -\tIFilter\tnot found for extension\t[%s]", undotted);
    } else if (!record_key || !record_key->Value.bin.cb) {
      ZK_LOG(L"CHoardexFilter::GetChunk() - Attachment key could not be extracted for row [%ld]", i);
    } else if (name && *name->Value.lpszW) {  // without a name the URL would be a folder's
      std::wstring link =
          url::Child(url::Child(url_, CMapiForWDS::BinaryToText(record_key->Value.bin)), name->Value.lpszW);
      if (const SPropValue* modified = rows.cell(i, kModified, PR_LAST_MODIFICATION_TIME)) {
        child_urls_.push_back(std::move(link));
        child_times_.push_back(modified->Value.ft);
      } else {
        ZK_LOG(L"CHoardexFilter::GetChunk() - Attachment modified time could not be extracted\tfor row\t[%ld]", i);
      }
    }
  } else {
    ZK_LOG(L"CHoardexFilter::GetChunk() - Attachment extension could not be extracted for\trow [%ld]", i);
  }
  if (!name) {
    ZK_LOG(L"CHoardexFilter::GetChunk() - Attachment name could not be extracted for row [%ld]", i);
    return;
  }
  attachment_names_ += name->Value.lpszW;
  if (i + 1 < rows.rows()) attachment_names_ += L';';
}
