// Items as files that stay.
#include "module/core/Boundary.h"
#include "module/core/HoardexURL.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/OpenedCopy.h"
#include "module/shell/VaultOfItem.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";

HRESULT SaveMessage(const std::wstring& url, LPCWSTR path) {
  HRESULT set_up = S_OK;
  const auto mapi = CMapiForWDS::GetMapiObj(url, &set_up);
  if (!mapi) return FAILED(set_up) ? set_up : E_FAIL;
  ComPtr<IMessage> message;
  const HRESULT hr = mapi->GetMsgFromURL(url::WithoutSize(url), message.GetAddressOf());
  return FAILED(hr) ? hr : CMapiForWDS::SaveToMSG(path, message.Get());
}

// Copied to the temporary folder first, so that a failure leaves no part of it in its place.
HRESULT SaveAttachment(const std::wstring& url, LPCWSTR path) {
  std::wstring copy;
  const HRESULT hr = CopyAttachment(url, copy);
  if (FAILED(hr)) return hr;
  const bool moved = MoveFileExW(copy.c_str(), path, MOVEFILE_REPLACE_EXISTING | MOVEFILE_COPY_ALLOWED);
  const DWORD error = GetLastError();
  if (!moved) DeleteFileW(copy.c_str());
  return moved ? S_OK : HRESULT_FROM_WIN32(error);
}

}  // namespace

STDMETHODIMP CHoardexSP::SaveItem(LPCWSTR url, LPCWSTR path) {
  ZK_GUARD(L"CHoardexSP::SaveItem()", [&]() -> HRESULT {
    if (!url || !path) return E_POINTER;
    ZK_LOG(L"CHoardexSP::SaveItem() - URL is [%s]", url);
    const std::wstring normalised = url::Normalise(url);
    const CHoardexURL item(normalised);
    const bool known = item.IsMessage() || item.IsAttachment();
    const HRESULT hr = !known                           ? E_INVALIDARG
                       : !IsRegisteredVault(normalised) ? E_ACCESSDENIED
                       : item.IsMessage()               ? SaveMessage(normalised, path)
                                                        : SaveAttachment(normalised, path);
    if (FAILED(hr)) ZK_LOG(L"CHoardexSP::SaveItem() - failed with [0x%08lX]", hr);
    return hr;
  });
}
