// Shows one item as the shell does, for the picture in the documentation: its icon, its name, its menu. Stays until it
// is ended.
//   shellpicture URL TITLE
#include <windows.h>

#include <shellapi.h>
#include <shlobj.h>
#include <wrl/client.h>

#include <string>

#include "include/HoardexPH.h"

using Microsoft::WRL::ComPtr;

namespace {

HICON icon;
std::wstring title;
HMENU menu;

LRESULT CALLBACK Procedure(HWND window, UINT message, WPARAM wide, LPARAM data) {
  if (message == WM_PAINT) {
    PAINTSTRUCT paint;
    const HDC device = BeginPaint(window, &paint);
    DrawIconEx(device, 16, 12, icon, 0, 0, 0, nullptr, DI_NORMAL);
    TextOutW(device, 60, 20, title.c_str(), static_cast<int>(title.size()));
    EndPaint(window, &paint);
    return 0;
  }
  if (message == WM_TIMER) {
    KillTimer(window, 1);
    POINT point = {60, 44};
    ClientToScreen(window, &point);
    TrackPopupMenu(menu, TPM_LEFTALIGN, point.x, point.y, 0, window, nullptr);
    return 0;
  }
  return DefWindowProcW(window, message, wide, data);
}

HRESULT Load(wchar_t* url) {
  ComPtr<IShellFolder> folder;
  HRESULT hr = CoCreateInstance(CLSID_HoardexSP, nullptr, CLSCTX_INPROC_SERVER, IID_IShellFolder, &folder);
  if (FAILED(hr)) return hr;
  PIDLIST_RELATIVE id = nullptr;
  hr = folder->ParseDisplayName(nullptr, nullptr, url, nullptr, &id, nullptr);
  if (FAILED(hr)) return hr;
  PCUITEMID_CHILD child = reinterpret_cast<PCUITEMID_CHILD>(id);
  ComPtr<IContextMenu> context;
  hr = folder->GetUIObjectOf(nullptr, 1, &child, IID_IContextMenu, nullptr, &context);
  if (FAILED(hr)) return hr;
  menu = CreatePopupMenu();
  hr = context->QueryContextMenu(menu, 0, 1, 99, CMF_NORMAL);
  if (FAILED(hr)) return hr;
  ComPtr<IExtractIconW> extract;
  hr = folder->GetUIObjectOf(nullptr, 1, &child, IID_IExtractIconW, nullptr, &extract);
  return FAILED(hr) ? hr : extract->Extract(L"", 0, &icon, nullptr, 0);
}

}  // namespace

int main() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (count != 3 || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  title = words[2];
  if (FAILED(Load(words[1]))) return 1;
  WNDCLASSW type = {};
  type.lpfnWndProc = Procedure;
  type.lpszClassName = L"Item";
  type.hbrBackground = reinterpret_cast<HBRUSH>(COLOR_WINDOW + 1);
  RegisterClassW(&type);
  const HWND window = CreateWindowW(L"Item", L"Results", WS_POPUP | WS_BORDER | WS_VISIBLE, 0, 0, 320, 130, nullptr,
                                    nullptr, nullptr, nullptr);
  SetTimer(window, 1, 500, nullptr);
  for (MSG message; GetMessageW(&message, nullptr, 0, 0) > 0;) DispatchMessageW(&message);
}
