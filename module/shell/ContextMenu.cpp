// The context menu and the icon of an item.
#include <windows.h>

#include <shellapi.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstddef>

#include "module/core/Boundary.h"
#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/OpenedCopy.h"
#include "module/shell/VaultOfItem.h"

using Microsoft::WRL::ComPtr;

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexSP";
constexpr UINT kOpenOffset = 0, kPrintOffset = 1;
constexpr wchar_t kOpenVerb[] = L"open", kPrintVerb[] = L"print", kDeleteVerb[] = L"delete";

struct MenuItem {
  UINT offset, text, state;
};
constexpr MenuItem kItems[] = {{kOpenOffset, IDS_OPEN, MFS_DEFAULT}, {kPrintOffset, IDS_PRINT, 0}};

// The verb of a command: its text, or nothing and the offset of its menu item. A verb is a text when its pointer's
// value is above 0xFFFF.
struct Verb {
  explicit Verb(const CMINVOKECOMMANDINFO& command) {
    const auto* extended = reinterpret_cast<const CMINVOKECOMMANDINFOEX*>(&command);
    // Callers need not give more of the longer structure than they fill.
    constexpr DWORD kReachesVerb = offsetof(CMINVOKECOMMANDINFOEX, lpVerbW) + sizeof(extended->lpVerbW);
    const bool wide = (command.fMask & CMIC_MASK_UNICODE) && command.cbSize >= kReachesVerb;
    const void* pointer = wide ? static_cast<const void*>(extended->lpVerbW) : command.lpVerb;
    is_text = !IS_INTRESOURCE(pointer);
    if (!is_text) {
      offset = static_cast<UINT>(reinterpret_cast<ULONG_PTR>(pointer));
    } else {
      text = wide ? std::wstring(extended->lpVerbW) : text::Widen(command.lpVerb);
    }
  }
  bool is_text;
  UINT offset = 0;
  std::wstring text;
};

void ShowBox(HWND owner, UINT text, UINT type) {
  MessageBoxW(owner, text::Resource(text).c_str(), text::Resource(IDS_TESSARY).c_str(), type);
}

HRESULT Execute(HWND owner, const wchar_t* verb, const std::wstring& path) {
  // A file that Windows would run is never handed over, whatever it is called with.
  if (IsExecutableType(path)) {
    ShowBox(owner, IDS_CANNOT_SHOW, MB_OK);
    return E_ACCESSDENIED;
  }
  SetLastError(ERROR_SUCCESS);
  const auto result =
      reinterpret_cast<INT_PTR>(ShellExecuteW(owner, verb, path.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
  if (result > 32) return S_OK;
  const DWORD error = GetLastError();
  return error ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

}  // namespace

STDMETHODIMP CHoardexSP::QueryContextMenu(HMENU menu, UINT index, UINT first, UINT, UINT flags) {
  ZK_GUARD(L"CHoardexSP::QueryContextMenu()", [&]() -> HRESULT {
    // Nothing opens a container, so the shell finds no default verb on it and browses.
    const CHoardexURL item(url::Normalise(MsgURL()));
    m_no_menu = (flags & CMF_DEFAULTONLY) && !item.IsMessage() && !item.IsAttachment() ? 1 : 0;
    if (m_no_menu == 1) return 0;
    // "At the end" would put the second item at the top.
    index = (std::min)(index, static_cast<UINT>((std::max)(GetMenuItemCount(menu), 0)));
    for (const MenuItem& entry : kItems) {
      std::wstring text = text::Resource(entry.text);
      MENUITEMINFOW info = {};
      info.cbSize = sizeof(info);
      info.fMask = MIIM_STATE | MIIM_ID | MIIM_TYPE;
      info.fType = MFT_STRING;
      info.fState = entry.state;
      info.wID = first + entry.offset;
      info.dwTypeData = text.data();
      InsertMenuItemW(menu, index + entry.offset, TRUE, &info);
    }
    return 1;  // not the number of items, deliberately
  });
}

STDMETHODIMP CHoardexSP::InvokeCommand(CMINVOKECOMMANDINFO* command) {
  ZK_GUARD(L"CHoardexSP::InvokeCommand()", [&]() -> HRESULT {
    if (!command) return E_POINTER;
    const std::wstring kept = MsgURL(), url = url::Normalise(kept);
    const CHoardexURL item(url);
    if (!item.IsMessage() && !item.IsAttachment()) {
      ZK_LOG(L"CHoardexSP::InvokeCommand() - URL is neither a message or an attachment, URL: %s", kept.c_str());
      return E_FAIL;
    }
    HRESULT set_up = S_OK;
    const bool allowed = IsRegisteredVault(url);
    const auto mapi = allowed ? CMapiForWDS::GetMapiObj(url, &set_up) : nullptr;
    if (!mapi && SUCCEEDED(set_up)) {
      ZK_LOG(L"CHoardexSP::InvokeCommand() - Cannot allocate MAPI helper object");
      ShowBox(command->hwnd, IDS_CANNOT_SHOW, MB_OK);
      return allowed ? E_OUTOFMEMORY : E_ACCESSDENIED;
    }
    if (!mapi) {
      ZK_LOG(L"CHoardexSP::InvokeCommand() - MAPI setup failed with error [0x%08lX]", set_up);
      ShowBox(command->hwnd, IDS_CANNOT_SHOW, MB_OK);
      return set_up;
    }
    ComPtr<IMessage> message;
    HRESULT hr = mapi->GetMsgFromURL(url::WithoutSize(url::MessageOfAttachment(url)), message.GetAddressOf());
    if (FAILED(hr)) {
      ZK_LOG(L"CHoardexSP::InvokeCommand() - GetMsgFromURL failed with [0x%08lX]", hr);
      return hr;
    }
    std::wstring path;
    hr = item.IsMessage() ? CopyMessageForShell(message.Get(), path) : CopyAttachmentForShell(url, path);
    if (FAILED(hr)) return hr;
    const Verb verb(*command);
    if (!verb.is_text) return Execute(command->hwnd, verb.offset == kPrintOffset ? kPrintVerb : kOpenVerb, path);
    if (url::EqualIgnoringCase(verb.text, kOpenVerb)) return Execute(command->hwnd, kOpenVerb, path);
    if (url::EqualIgnoringCase(verb.text, kDeleteVerb)) ShowBox(command->hwnd, IDS_CANNOT_DELETE, MB_ICONEXCLAMATION);
    return E_FAIL;
  });
}

STDMETHODIMP CHoardexSP::GetIconLocation(UINT, LPWSTR file, UINT size, int* index, UINT* flags) {
  if (!file || !index || !flags) return E_POINTER;
  if (!GetModuleFileNameW(module::Instance(), file, size) && size) *file = 0;
  if (size) file[size - 1] = 0;  // a path that was cut has no end on the oldest systems
  ZK_LOG_DETAIL(L"CHoardexSP::GetIconLocation() - Icon file name [%s]", size ? file : L"");
  *index = 1;
  *flags = 0;
  return S_OK;
}

STDMETHODIMP CHoardexSP::Extract(LPCWSTR, UINT, HICON* large_icon, HICON* small_icon, UINT) {
  // Copies that the shell destroys; the sizes of this display.
  const auto load = [](UINT id, int width, int height) {
    return static_cast<HICON>(LoadImageW(module::Instance(), MAKEINTRESOURCEW(id), IMAGE_ICON, GetSystemMetrics(width),
                                         GetSystemMetrics(height), LR_DEFAULTCOLOR));
  };
  HRESULT hr = S_OK;
  if (large_icon && !(*large_icon = load(IDI_ITEM_LARGE, SM_CXICON, SM_CYICON))) {
    ZK_LOG(L"CHoardexSP::Extract() - Could not large icon");
    hr = S_FALSE;
  }
  if (small_icon && !(*small_icon = load(IDI_ITEM_SMALL, SM_CXSMICON, SM_CYSMICON))) {
    ZK_LOG(L"CHoardexSP::Extract() - Could not small icon");
    hr = S_FALSE;
  }
  return hr;
}
