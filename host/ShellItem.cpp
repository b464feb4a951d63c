#include "host/ShellItem.h"

#include <windows.h>

#include <shlobj.h>
#include <shlwapi.h>

#include "host/Handler.h"
#include "host/Text.h"
#include "include/HoardexPH.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr UINT kFirst = 100, kLast = 199, kNothing = ~0u;
constexpr char kPrint[] = "print";

// An item ID and its memory.
struct ItemId {
  ~ItemId() { CoTaskMemFree(id); }
  PIDLIST_RELATIVE id = nullptr;
};

struct Menu {
  Menu() : menu(CreatePopupMenu()) {}
  ~Menu() { DestroyMenu(menu); }
  HMENU menu;
};

// A step that failed.
struct Trouble {
  const char* step;
  HRESULT code;
};
void Check(const char* step, HRESULT code) {
  if (FAILED(code)) throw Trouble{step, code};
}

template <class Interface>
ComPtr<Interface> Make() {
  CLSID clsid;
  Check("HandlerClass", HandlerClass(&clsid));
  ComPtr<Interface> object;
  Check("CoCreateInstance", MakeHandler(clsid, __uuidof(Interface), reinterpret_cast<void**>(object.GetAddressOf())));
  return object;
}

void Parse(IShellFolder* folder, const std::string& url, ItemId& item) {
  std::wstring name = FromUtf8(url);
  Check("ParseDisplayName", folder->ParseDisplayName(nullptr, nullptr, name.data(), nullptr, &item.id, nullptr));
}

// The command of the menu that the shell would take for the verb.
UINT Choose(HMENU menu, const std::string& verb) {
  if (verb != kPrint) return GetMenuDefaultItem(menu, FALSE, 0);
  wchar_t text[64] = {};
  for (int i = 0; i < GetMenuItemCount(menu); ++i)
    if (GetMenuStringW(menu, static_cast<UINT>(i), text, 64, MF_BYPOSITION) && !wcscmp(text, L"&Print"))
      return GetMenuItemID(menu, i);
  return kNothing;
}

// Wine hands files to the desktop that it runs in; where there is none, nothing would come of it, and nobody be told.
void RequireDesktop(const std::string& url, const std::string& verb) {
  const std::wstring extension = url.ends_with(".zkm") ? L".msg" : PathFindExtensionW(FromUtf8(url).c_str());
  wchar_t command[1024];
  DWORD size = 1024;
  if (FAILED(AssocQueryStringW(ASSOCF_NONE, ASSOCSTR_COMMAND, extension.c_str(), FromUtf8(verb).c_str(), command,
                               &size)) ||
      !StrStrIW(command, L"winebrowser"))
    return;
  for (const wchar_t* display : {L"DISPLAY", L"WAYLAND_DISPLAY"})
    if (GetEnvironmentVariableW(display, nullptr, 0) > 1) return;
  throw Trouble{"Desktop", HRESULT_FROM_WIN32(ERROR_REQUIRES_INTERACTIVE_WINDOWSTATION)};
}

HRESULT Invoke(const std::string& url, const std::string& verb) {
  RequireDesktop(url, verb);
  const auto folder = Make<IShellFolder>();
  ItemId item;
  Parse(folder.Get(), url, item);
  PCUITEMID_CHILD child = reinterpret_cast<PCUITEMID_CHILD>(item.id);
  ComPtr<IContextMenu> context;
  Check("GetUIObjectOf", folder->GetUIObjectOf(nullptr, 1, &child, IID_IContextMenu, nullptr,
                                               reinterpret_cast<void**>(context.GetAddressOf())));
  const Menu menu;
  Check("QueryContextMenu", context->QueryContextMenu(menu.menu, 0, kFirst, kLast, CMF_NORMAL));
  const UINT chosen = Choose(menu.menu, verb);
  if (chosen < kFirst || chosen > kLast) throw Trouble{"QueryContextMenu", E_NOTIMPL};
  CMINVOKECOMMANDINFO command = {};
  command.cbSize = sizeof(command);
  command.lpVerb = MAKEINTRESOURCEA(chosen - kFirst);
  command.nShow = SW_SHOWNORMAL;
  return context->InvokeCommand(&command);
}

HRESULT SaveStream(const std::string& url, const std::wstring& path) {
  const auto folder = Make<IShellFolder>();
  ItemId item;
  Parse(folder.Get(), url, item);
  ComPtr<IStream> from, to;
  Check("BindToObject",
        folder->BindToObject(item.id, nullptr, IID_IStream, reinterpret_cast<void**>(from.GetAddressOf())));
  Check("Seek", from->Seek({}, STREAM_SEEK_SET, nullptr));
  Check("SHCreateStreamOnFile", SHCreateStreamOnFileW(path.c_str(), STGM_CREATE | STGM_WRITE, to.GetAddressOf()));
  ULARGE_INTEGER all;
  all.QuadPart = ~0ULL;
  Check("CopyTo", from->CopyTo(to.Get(), all, nullptr, nullptr));
  return to->Commit(STGC_DEFAULT);
}

template <class Work>
Json Run(Json answer, Work&& work) {
  try {
    const HRESULT hr = work();
    answer["result"] = CodeText(hr);
    if (const std::string name = CodeName(hr); FAILED(hr) && !name.empty()) answer["name"] = name;
  } catch (const Trouble& trouble) {
    answer["error"] = ErrorOf(trouble.step, trouble.code);
  }
  return answer;
}

}  // namespace

Json OpenItem(const std::string& url, const std::string& verb) {
  return Run({{"open", url}, {"verb", verb}}, [&] { return Invoke(url, verb); });
}

Json SaveItem(const std::string& url, const std::string& path, const std::string& format) {
  return Run({{"save", url}}, [&]() -> HRESULT {
    const std::wstring to = FromUtf8(path);
    // A terminated string would end at a NUL, and name another item or file.
    const bool terminated = url.find('\0') == std::string::npos && path.find('\0') == std::string::npos;
    if (!terminated || to.size() < 4 || to.compare(1, 2, L":\\") != 0) return E_INVALIDARG;
    if (GetFileAttributesW(to.c_str()) != INVALID_FILE_ATTRIBUTES) return HRESULT_FROM_WIN32(ERROR_FILE_EXISTS);
    if (format == "eml") return SaveStream(url, to);
    if (format != "msg" && format != "content") return E_INVALIDARG;
    return Make<IHoardexSave>()->SaveItem(FromUtf8(url).c_str(), to.c_str());
  });
}

}  // namespace host
