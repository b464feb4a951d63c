// From item URLs to messages and attachment content.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "module/core/HoardexURL.h"
#include "module/core/SCLog.h"
#include "module/core/Text.h"
#include "module/mapi/MapiForWDS.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\MapiForWDS";
constexpr size_t kHexBuffer = 1024;
constexpr size_t kMessageSuffixLength = std::size(url::kMessageSuffix) - 1;
constexpr BYTE kNoDigit = 0xFF;

// Indexed by the character minus '0', up to 'f'.
constexpr auto kDigits = [] {
  std::array<BYTE, 'f' - '0' + 1> digits{};
  digits.fill(kNoDigit);
  for (int i = 0; i < 10; ++i) digits[static_cast<size_t>(i)] = static_cast<BYTE>(i);
  for (int i = 0; i < 6; ++i) {
    digits[static_cast<size_t>('A' - '0' + i)] = static_cast<BYTE>(10 + i);
    digits[static_cast<size_t>('a' - '0' + i)] = static_cast<BYTE>(10 + i);
  }
  return digits;
}();
static_assert(kDigits.size() == 55);

// Ignoring case, of every script.
bool SameName(const wchar_t* shown, const std::wstring& wanted) {
  return text::EqualOrdinal(shown, wanted);
}

BYTE Digit(char c) {
  return c >= '0' && c <= 'f' ? kDigits[static_cast<size_t>(c - '0')] : kNoDigit;
}

}  // namespace

BOOL CMapiForWDS::FBinFromHexEx(const char* text, BYTE* bytes) {
  for (; *text; text += 2) {
    const BYTE high = Digit(text[0]);
    if (high == kNoDigit) return FALSE;
    const BYTE low = Digit(text[1]);
    if (low == kNoDigit) return FALSE;
    *bytes++ = static_cast<BYTE>(high * 16 + low);
  }
  return TRUE;
}

SBinary CMapiForWDS::CStringToEntryID(const std::wstring& hex) {
  SBinary id = {static_cast<ULONG>(hex.size() / 2), nullptr};
  LPVOID buffer = nullptr;
  if (FAILED(mapi::MAPIAllocateBuffer(id.cb, &buffer)) || !buffer) {
    ZK_LOG(L"CMapiForWDS::CStringToEntryID() - MapiAllocBuffer failed");
    return id;
  }
  id.lpb = static_cast<BYTE*>(buffer);
  // One byte a character: what lies outside ASCII is no digit and ends the conversion, whatever the code page would
  // make of it.
  char narrow[kHexBuffer];
  const size_t length = std::min(hex.size(), kHexBuffer - 1);
  for (size_t i = 0; i < length; ++i) narrow[i] = hex[i] < 0x80 ? static_cast<char>(hex[i]) : '?';
  narrow[length] = 0;
  if (!FBinFromHexEx(narrow, id.lpb)) ZK_LOG(L"CMapiForWDS::CStringToEntryID() - FBinFromHexEx failed");
  return id;
}

std::wstring CMapiForWDS::BinaryToText(const SBinary& value) {
  char narrow[kHexBuffer] = {};
  const ULONG count = std::min<ULONG>(value.cb, kHexBuffer / 2 - 1);
  if (value.lpb) mapi::HexFromBin(value.lpb, static_cast<int>(count), narrow);
  return std::wstring(narrow, narrow + strlen(narrow));
}

HRESULT CMapiForWDS::GetMsgFromURL(const std::wstring& message_url, LPMESSAGE* message) {
  *message = nullptr;
  const CHoardexURL parsed(message_url);
  if (!parsed.IsMessage()) {
    ZK_LOG(L"CMapiForWDS::GetMsgFromURL() - URL is not a message");
    return E_FAIL;
  }
  std::wstring name = parsed.text().substr(parsed.text().rfind(L'/') + 1);
  name.resize(name.size() - std::min(name.size(), kMessageSuffixLength));
  const SBinary id = CStringToEntryID(name);
  if (!id.lpb) {
    ZK_LOG(L"CMapiForWDS::GetMsgFromURL() - CStringToEntryID failed");
    return E_FAIL;
  }
  ULONG type = MAPI_MESSAGE;  // a provider may leave it
  IUnknown* object = nullptr;
  const HRESULT hr =
      store_ ? store_->OpenEntry(id.cb, reinterpret_cast<LPENTRYID>(id.lpb), nullptr, MAPI_BEST_ACCESS, &type, &object)
             : E_FAIL;
  mapi::MAPIFreeBuffer(id.lpb);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetMsgFromURL() - OpenEntry failed with [0x%08lX]", hr);
    return hr;
  }
  if (!object || type != MAPI_MESSAGE) {
    // A message URL may be forged with a folder's identifier; calling a folder as a message would end the host.
    if (object) object->Release();
    ZK_LOG(L"CMapiForWDS::GetMsgFromURL() - OpenEntry failed with [0x%08lX]", MAPI_E_INVALID_OBJECT);
    return MAPI_E_INVALID_OBJECT;
  }
  *message = static_cast<LPMESSAGE>(object);
  return S_OK;
}

HRESULT CMapiForWDS::GetStreamFromAttachmentURL(const std::wstring& attachment_url, IStream** stream) {
  *stream = nullptr;
  if (attachment_url.empty()) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - Invalid URL provided");
    return E_INVALIDARG;
  }
  if (!CHoardexURL(attachment_url).IsAttachment()) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - URL is not a valid attachment url - %s",
           attachment_url.c_str());
    return E_INVALIDARG;
  }
  std::wstring name;
  GetAttachmentNameFromURL(attachment_url, name);
  if (name.empty()) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - Failed to get attachment name from URL - %s",
           attachment_url.c_str());
    return E_FAIL;
  }
  ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - Attachment Name - %s", name.c_str());
  const std::wstring message_url = url::MessageOfAttachment(attachment_url);
  ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - MessageUrl - %s", message_url.c_str());

  ComPtr<IMessage> message;
  HRESULT hr = GetMsgFromURL(message_url, &message);
  if (FAILED(hr) || !message) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() : hr = 0x%08lX, Failed to create IMessage object for url - %s",
           hr, attachment_url.c_str());
    return FAILED(hr) ? hr : E_FAIL;
  }
  ComPtr<IMAPITable> table;
  hr = message->GetAttachmentTable(0, &table);
  if (FAILED(hr) || !table) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - IMessage::GetAttachmentTable failed with error [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  ULONG count = 0;
  hr = table->GetRowCount(0, &count);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - MapiTable::GetRowCount failed with error [0x%08lX]", hr);
    return hr;
  }
  if (!count) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - Row count for attachment table is zero");
    return E_FAIL;
  }
  SizedSPropTagArray(2, columns) = {2, {PR_DISPLAY_NAME_W, PR_ATTACH_NUM}};
  hr = table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - SetColumns for attachment table failed with error [0x%08lX]",
           hr);
    return hr;
  }
  TidyTableRows rows;
  hr = rows.Query(table.Get(), count);
  if (FAILED(hr)) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - QueryRows for attachment table failed with [0x%08lX]", hr);
    return hr;
  }
  const SPropValue* number = nullptr;
  for (ULONG i = 0; i < rows.rows() && !number; ++i) {
    const SPropValue* shown = rows.cell(i, 0, PR_DISPLAY_NAME_W);
    if (shown && *shown->Value.lpszW && SameName(shown->Value.lpszW, name)) number = rows.cell(i, 1, PR_ATTACH_NUM);
  }
  if (!number) return E_FAIL;
  ComPtr<IAttach> attachment;
  hr = message->OpenAttach(static_cast<ULONG>(number->Value.l), nullptr, MAPI_BEST_ACCESS, &attachment);
  if (FAILED(hr) || !attachment) {
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - pMessage->OpenAttach failed with error [0x%08lX]", hr);
    return FAILED(hr) ? hr : E_FAIL;
  }
  hr = attachment->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, reinterpret_cast<LPUNKNOWN*>(stream));
  if (SUCCEEDED(hr) && !*stream) hr = E_FAIL;
  if (FAILED(hr)) {
    *stream = nullptr;
    ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - pAttach->OpenProperty failure returned [0x%08lX]", hr);
    return hr;
  }
  ZK_LOG(L"CMapiForWDS::GetStreamFromAttachmentURL() - Success in getting IStream from url");
  return S_OK;
}

BOOL CMapiForWDS::GetLastModifiedFileTime(const std::wstring& path, FILETIME* time) {
  if (!time) {
    ZK_LOG(L"CMapiForWDS::GetLastModifiedFileTime() - %s file time cannot be calculated as the object is NULL",
           path.c_str());
    return FALSE;
  }
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) {
    ZK_LOG(L"CMapiForWDS::GetLastModifiedFileTime() - GetFileAttributesEx failed. GetLastError() code:[0x%08lX]",
           GetLastError());
    return FALSE;
  }
  *time = data.ftLastWriteTime;
  SYSTEMTIME utc, local = {};
  if (FileTimeToSystemTime(time, &utc)) SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
  ZK_LOG(
      L"CMapiForWDS::GetLastModifiedFileTime() - File %s last modified date time is, Day:%d Month:%d Year:%d Hour:%d "
      L"Min:%d",
      path.c_str(), local.wDay, local.wMonth, local.wYear, local.wHour, local.wMinute);
  return TRUE;
}
