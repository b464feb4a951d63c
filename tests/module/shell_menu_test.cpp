// The context menu and its commands, the icon, and the sweep of what commands leave behind.
#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <fstream>
#include <functional>

#include "module/core/AppDataFolder.h"
#include "module/mapi/MapiForWDS.h"
#include "tests/module/shell_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/import_hook.h"

namespace shell {
namespace {

using Microsoft::WRL::ComPtr;

struct MenuHandle {
  ~MenuHandle() { DestroyMenu(handle); }
  HMENU handle = CreatePopupMenu();
};

// "text/id/state" of each item.
std::vector<std::wstring> ItemsOf(HMENU menu) {
  std::vector<std::wstring> items;
  for (int i = 0; i < GetMenuItemCount(menu); ++i) {
    wchar_t text[64] = {};
    MENUITEMINFOW info = {};
    info.cbSize = sizeof(info);
    info.fMask = MIIM_STATE | MIIM_ID | MIIM_TYPE;
    info.dwTypeData = text;
    info.cch = 64;
    GetMenuItemInfoW(menu, static_cast<UINT>(i), TRUE, &info);
    items.push_back(std::wstring(text) + L"/" + std::to_wstring(info.wID) + L"/" + std::to_wstring(info.fState) +
                    (info.fType == MFT_STRING ? L"" : L"/no string"));
  }
  return items;
}

class Menu : public Shell {
 protected:
  std::vector<std::wstring> Show(const std::wstring& url, UINT flags, HRESULT expected = 1) {
    ComPtr<IContextMenu> menu;
    EXPECT_EQ(UIObject(url, IID_IContextMenu, menu), S_OK);
    const MenuHandle popup;
    AppendMenuW(popup.handle, MF_STRING, 7, L"before");
    AppendMenuW(popup.handle, MF_STRING, 8, L"after");
    EXPECT_EQ(menu->QueryContextMenu(popup.handle, 1, 100, 199, flags), expected);
    return ItemsOf(popup.handle);
  }
};

TEST_F(Menu, OpensAboveItPrints) {
  const std::vector<std::wstring> all = {L"before/7/0", L"&Open/100/4096", L"&Print/101/0", L"after/8/0"},
                                  nothing = {L"before/7/0", L"after/8/0"};
  for (const std::wstring& url : {message_, attachments_[kReport]}) {
    EXPECT_EQ(Show(url, CMF_NORMAL), all);
    EXPECT_EQ(Show(url, CMF_DEFAULTONLY), all);
  }
  for (const std::wstring& container : {inbox_, vault_, root_}) {
    EXPECT_EQ(Show(container, CMF_NORMAL), all);
    EXPECT_EQ(Show(container, CMF_DEFAULTONLY | CMF_EXPLORE, 0), nothing);
  }
  EXPECT_EQ(Show(inbox_, CMF_NORMAL), all) << "not remembered";
}

TEST_F(Menu, CommandsReachTheHandlerOfMessages) {
  Handle(L".msg");
  const struct {
    std::function<HRESULT()> invoke;
    const wchar_t* verb;
  } kCommands[] = {{[&] { return Invoke(message_, 0u); }, L"open"},
                   {[&] { return Invoke(message_, 1u); }, L"print"},
                   {[&] { return Invoke(message_, 17u); }, L"open"},
                   {[&] { return Invoke(message_, L"open", false); }, L"open"},
                   {[&] { return Invoke(message_, L"open", true); }, L"open"}};
  std::vector<std::wstring> names;
  for (const auto& command : kCommands) {
    log_->New();
    ASSERT_EQ(command.invoke(), S_OK);
    const auto files = TemporaryFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(Handled(), command.verb + (L" " + files[0]));
    EXPECT_EQ(TextIn(files[0], L"__substg1.0_0037001F"), L"Quarterly report");
    names.push_back(files[0].substr(files[0].rfind(L'\\') + 1));
    EXPECT_TRUE(names.back().starts_with(L"ZK_HX_") && names.back().ends_with(L".msg")) << Narrow(names.back());
    EXPECT_EQ(std::count(names.begin(), names.end(), names.back()), 1);
    unsigned long thread = 0;
    EXPECT_EQ(swscanf(names.back().c_str(), L"ZK_HX_%lx_", &thread), 1);
    EXPECT_EQ(thread, GetCurrentThreadId());
    EXPECT_TRUE(Said({"CHoardexSP::InvokeCommand() - Unique MSG file name " + Narrow(names.back()),
                      "CMapiForWDS::SaveToMSG() - Unicode OpenIMsgOnIStg returned with [0x00000000]"}));
    EmptyTemporaryFolder();
  }
}

TEST_F(Menu, OpensAnAttachmentItself) {
  Handle(L".txt");
  for (const UINT offset : {0u, 1u}) {
    ASSERT_EQ(Invoke(attachments_[kReport], offset), S_OK);
    const auto files = TemporaryFiles();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(files[0].ends_with(L"report.txt"));
    EXPECT_EQ(Handled(), (offset ? L"print " : L"open ") + files[0]);
    std::ifstream file(Narrow(files[0]), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "content of the report");
    file.close();
    EmptyTemporaryFolder();
  }
  Handle(L".msg");
  ASSERT_EQ(Invoke(attachments_[kInner], 0u), S_OK);
  EXPECT_TRUE(Handled().ends_with(L".msg"));
}

TEST_F(Menu, RefusesOtherVerbsBehindTheCopy) {
  Handle(L".msg");
  Boxes shown;
  for (const bool wide : {false, true}) {
    EXPECT_EQ(Invoke(message_, L"delete", wide), E_FAIL);
    EXPECT_EQ(Boxes::Take(), std::vector<std::wstring>{kCannotDelete});
    for (const wchar_t* verb : {L"print", L"properties", L""}) EXPECT_EQ(Invoke(message_, verb, wide), E_FAIL);
    EXPECT_TRUE(Boxes::Take().empty());
  }
  EXPECT_EQ(TemporaryFiles().size(), 8u) << "written before the verb is looked at";
  EXPECT_EQ(Handled(200), L"");
  EXPECT_NE(GetFileAttributesW(store_path_.c_str()), INVALID_FILE_ATTRIBUTES);
  // A type that nothing opens is a failure without a box.
  EXPECT_TRUE(FAILED(Invoke(attachments_[kReport], 0u)));
  EXPECT_TRUE(Boxes::Take().empty());
  // Commands on what is no item.
  for (const std::wstring& url : {inbox_, root_, std::wstring(L"http://example.com/x.zkm")}) {
    log_->New();
    EXPECT_EQ(Invoke(url, 0u), E_FAIL);
    EXPECT_TRUE(InOrder(
        log_->New(), {"CHoardexSP::InvokeCommand() - URL is neither a message or an attachment, URL: " + Narrow(url)}));
  }
  ComPtr<IContextMenu> menu;
  ASSERT_EQ(UIObject(message_, IID_IContextMenu, menu), S_OK);
  EXPECT_EQ(menu->InvokeCommand(nullptr), E_POINTER);
  // The wide verb counts where the structure reaches it: here "delete", and else the narrow one.
  CMINVOKECOMMANDINFOEX command = {};
  command.fMask = CMIC_MASK_UNICODE;
  command.lpVerb = "other";
  command.lpVerbW = L"delete";
  for (const DWORD size : {offsetof(CMINVOKECOMMANDINFOEX, lpParametersW), offsetof(CMINVOKECOMMANDINFOEX, lpVerbW)}) {
    command.cbSize = size;
    EXPECT_EQ(menu->InvokeCommand(reinterpret_cast<CMINVOKECOMMANDINFO*>(&command)), E_FAIL);
    EXPECT_EQ(Boxes::Take().size(), size > offsetof(CMINVOKECOMMANDINFOEX, lpVerbW) ? 1u : 0u) << size;
  }
}

TEST_F(Menu, RunsNoProgram) {
  Boxes shown;
  int executed = 0;
  const ZK_IMPORT_HOOK(ShellExecuteW) execute([&](auto, HWND, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, INT) -> HINSTANCE {
    ++executed;
    return reinterpret_cast<HINSTANCE>(INT_PTR{33});
  });
  for (size_t i = 0; i < kPrograms.size(); ++i) {
    for (const UINT offset : {0u, 1u})
      EXPECT_EQ(Invoke(attachments_[kFirstProgram + i], offset), E_ACCESSDENIED) << kPrograms[i];
    EXPECT_EQ(Boxes::Take(), (std::vector<std::wstring>{kCannotShow, kCannotShow})) << kPrograms[i];
  }
  EXPECT_EQ(executed, 0);
  // A name that ends in dots or blanks is made into one that ends otherwise.
  const std::wstring tool = attachments_[kFirstProgram];
  for (const wchar_t* name : {L"/tool.exe.", L"/tool.exe .", L"/tool.exe.. "}) {
    Invoke(tool.substr(0, tool.rfind(L'/')) + name, 0u);
    for (const std::wstring& file : TemporaryFiles()) EXPECT_TRUE(file.back() != L'.' && file.back() != L' ');
  }
  EXPECT_EQ(Invoke(attachments_[kReport], 0u), S_OK);
  EXPECT_GE(executed, 1) << "the hook counts";
}

TEST_F(Menu, MarksCopiesAsFromOutside) {
  std::vector<std::string> marks;
  const ZK_IMPORT_HOOK(ShellExecuteW)
      execute([&](auto, HWND, LPCWSTR, LPCWSTR file, LPCWSTR, LPCWSTR, INT) -> HINSTANCE {
        std::ifstream mark(Narrow(std::wstring(file) + kMark), std::ios::binary);
        marks.emplace_back(std::istreambuf_iterator<char>(mark), std::istreambuf_iterator<char>());
        return reinterpret_cast<HINSTANCE>(INT_PTR{33});
      });
  EXPECT_EQ(Invoke(message_, 0u), S_OK);
  EXPECT_EQ(Invoke(attachments_[kReport], 1u), S_OK);
  EXPECT_EQ(marks, std::vector<std::string>(2, "[ZoneTransfer]\r\nZoneId=3\r\n")) << "before anything opens them";
}

TEST_F(Menu, SaysWhenAVaultDoesNotOpen) {
  Boxes shown;
  CMapiForWDS::CleanMapiObjs();
  ProviderFaults::Fail("MAPIAdminProfiles", 1, E_ABORT, true);
  const HRESULT hr = Invoke(message_, L"delete", false);
  ProviderFaults::Clear();
  EXPECT_EQ(hr, E_ABORT);
  EXPECT_EQ(Boxes::Take(), std::vector<std::wstring>{kCannotShow});
  EXPECT_TRUE(Said({"CHoardexSP::InvokeCommand() - MAPI setup failed with error [0x80004004]"}));
  EXPECT_TRUE(TemporaryFiles().empty());
  before_.initializations = ProviderFaults::Count().initializations;  // what a failed set-up keeps
}

// Run by itself where no window can be shown.
TEST_F(Menu, DoesNotWaitForABoxThatNobodySees) {
  if (!GetEnvironmentVariableW(L"HOARDEX_NO_DESKTOP", nullptr, 0)) GTEST_SKIP() << "boxes can be seen";
  const DWORD start = GetTickCount();
  EXPECT_EQ(Invoke(message_, L"delete", false), E_FAIL);
  EXPECT_EQ(Invoke(attachments_[kFirstProgram], 0u), E_ACCESSDENIED);
  EXPECT_LT(GetTickCount() - start, 20'000u);
}

// The pixels of an icon, four bytes each.
std::vector<BYTE> PixelsOf(HICON icon, int* size) {
  ICONINFO info = {};
  EXPECT_TRUE(GetIconInfo(icon, &info));
  BITMAP bitmap = {};
  GetObjectW(info.hbmColor, sizeof(bitmap), &bitmap);
  *size = bitmap.bmWidth;
  BITMAPINFO format = {};
  format.bmiHeader = {sizeof(format.bmiHeader), bitmap.bmWidth, -bitmap.bmHeight, 1, 32, BI_RGB, 0, 0, 0, 0, 0};
  std::vector<BYTE> pixels(static_cast<size_t>(bitmap.bmWidth * bitmap.bmHeight * 4));
  const HDC context = CreateCompatibleDC(nullptr);
  GetDIBits(context, info.hbmColor, 0, static_cast<UINT>(bitmap.bmHeight), pixels.data(), &format, DIB_RGB_COLORS);
  DeleteDC(context);
  DeleteObject(info.hbmColor);
  DeleteObject(info.hbmMask);
  return pixels;
}

TEST_F(Menu, ShowsTheItemsIcons) {
  ComPtr<IExtractIconW> icons;
  ASSERT_EQ(UIObject(message_, IID_IExtractIconW, icons), S_OK);
  wchar_t file[MAX_PATH] = {}, own[MAX_PATH] = {};
  int index = 0;
  UINT flags = ~0u;
  GetModuleFileNameW(nullptr, own, MAX_PATH);
  log_->New();
  EXPECT_EQ(icons->GetIconLocation(GIL_FORSHELL, file, MAX_PATH, &index, &flags), S_OK);
  EXPECT_STREQ(file, own);
  EXPECT_EQ(index, 1);
  EXPECT_EQ(flags, 0u);
  EXPECT_FALSE(Said({"CHoardexSP::GetIconLocation()"})) << "a line of the level that is never written";
  wchar_t shorter[9];
  shorter[8] = L'!';
  EXPECT_EQ(icons->GetIconLocation(0, shorter, 8, &index, &flags), S_OK);
  EXPECT_EQ(std::wstring(shorter, 7), std::wstring(own, 7));
  EXPECT_EQ(shorter[7], 0);
  EXPECT_EQ(shorter[8], L'!');

  HICON large_icon = nullptr, small_icon = nullptr;
  EXPECT_EQ(icons->Extract(L"ignored", 99, &large_icon, &small_icon, MAKELONG(300, 1)), S_OK);
  EXPECT_EQ(icons->Extract(nullptr, 0, nullptr, nullptr, 0), S_OK);
  int size = 0;
  const auto large_pixels = PixelsOf(large_icon, &size);
  EXPECT_EQ(size, GetSystemMetrics(SM_CXICON));
  const auto small_pixels = PixelsOf(small_icon, &size);
  EXPECT_EQ(size, GetSystemMetrics(SM_CXSMICON));
  EXPECT_NE(large_pixels, small_pixels);
  DestroyIcon(large_icon);
  DestroyIcon(small_icon);

  // The groups of the built module against the drawings that went in.
  const std::wstring folder = std::wstring(own, wcsrchr(own, L'\\')) + L"\\..\\..\\module\\";
  const HMODULE module = LoadLibraryExW((folder + L"HoardexPH.dll").c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
  ASSERT_NE(module, nullptr);
  std::vector<std::vector<BYTE>> seen;
  for (const auto& [group, drawing] : {std::pair(203, L"item.ico"), std::pair(205, L"item-small.ico")}) {
    for (const int pixels : {16, 32, 48, 256}) {
      const auto built = static_cast<HICON>(LoadImageW(module, MAKEINTRESOURCEW(group), IMAGE_ICON, pixels, pixels, 0));
      const auto source = static_cast<HICON>(
          LoadImageW(nullptr, (folder + drawing).c_str(), IMAGE_ICON, pixels, pixels, LR_LOADFROMFILE));
      ASSERT_TRUE(built && source) << group << " " << pixels;
      int width = 0;
      seen.push_back(PixelsOf(built, &width));
      EXPECT_EQ(width, pixels);
      EXPECT_EQ(seen.back(), PixelsOf(source, &width));
      EXPECT_GT(std::count_if(seen.back().begin(), seen.back().end(), [](BYTE b) { return b != 0; }), pixels);
      DestroyIcon(built);
      DestroyIcon(source);
    }
  }
  EXPECT_EQ(seen[0], seen[4]) << "one drawing for the smallest";
  EXPECT_NE(seen[2], seen[6]);
  FreeLibrary(module);
}

bool Exists(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}
// Runs a program of the system below, which alone can make links here; it has no handle to wait for.
bool Below(const std::wstring& program, const std::vector<std::wstring>& paths, bool there) {
  const auto name = reinterpret_cast<char*(CDECL*)(LPCWSTR)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
  std::wstring line = L"Z:\\bin\\" + program;
  for (const std::wstring& path : paths) {
    char* text = name(path.c_str());
    line += L" \"" + std::wstring(text, text + strlen(text)) + L"\"";
    HeapFree(GetProcessHeap(), 0, text);
  }
  RunChild(line, 1000);
  for (int i = 0; i < 300 && Exists(paths.back()) != there; ++i) Sleep(10);
  return Exists(paths.back()) == there;
}
bool Link(const std::wstring& to, const std::wstring& at) {
  return Below(L"ln -s", {to, at}, true);
}
void Unlink(const std::wstring& path) {
  Below(L"rm", {path}, false);
}

class SweepTest : public Shell {
 protected:
  SweepTest() {
    CreateDirectoryW(outside_.c_str(), nullptr);
    Write(canary_);
    EXPECT_EQ(folder_.As(&protocol_), S_OK);
  }
  ~SweepTest() override {
    EXPECT_NE(GetFileAttributesW(canary_.c_str()), INVALID_FILE_ATTRIBUTES) << "deleted through a link";
    protocol_.Reset();
    DeleteFileW(canary_.c_str());
    RemoveDirectoryW(outside_.c_str());
    RemoveDirectoryW((TemporaryFolder() + L"\\sub").c_str());
  }
  static void Write(const std::wstring& path) {
    CloseHandle(CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
  }
  // What commands leave behind, in two levels.
  void Fill() const {
    CreateDirectoryW(TemporaryFolder().c_str(), nullptr);
    CreateDirectoryW((TemporaryFolder() + L"\\sub").c_str(), nullptr);
    Write(own_);
    Write(deep_);
  }

  const std::wstring outside_ = folder_path_ + L"\\outside", canary_ = outside_ + L"\\canary.txt",
                     own_ = TemporaryFolder() + L"\\own.txt", deep_ = TemporaryFolder() + L"\\sub\\deep.txt";
  ComPtr<ISearchProtocol> protocol_;
};

TEST_F(SweepTest, TakesTheWholeFolder) {
  Fill();
  log_->New();
  protocol_->ShutDown();
  EXPECT_FALSE(Exists(TemporaryFolder()));
  const auto lines = log_->New();
  EXPECT_TRUE(
      InOrder(lines, {"CHoardexSP::DeleteAppDataFolder() - Enter",
                      "CHoardexSP::DeleteAppDataFolder() - Trying to delete folder [" + Narrow(TemporaryFolder()) + "]",
                      "CHoardexSP::DeleteAppDataFolder() - Exit"}));
  EXPECT_FALSE(InOrder(lines, {"CHoardexSP::DeleteAppDataFolder() - Could not delete"}));
  protocol_->ShutDown();
  EXPECT_TRUE(Said({"CHoardexSP::DeleteAppDataFolder() - Could not delete folder [" + Narrow(TemporaryFolder()) +
                    "], error code ["}));
}

TEST_F(SweepTest, NeverFollowsLinks) {
  const std::wstring to_file = TemporaryFolder() + L"\\sub\\link.txt", to_folder = TemporaryFolder() + L"\\sub\\link";
  for (const auto& [target, link] : {std::pair(canary_, to_file), std::pair(outside_, to_folder)}) {
    Fill();
    ASSERT_TRUE(Link(target, link));
    log_->New();
    protocol_->ShutDown();
    EXPECT_TRUE(Exists(canary_));
    // What is the module's goes all the same.
    EXPECT_FALSE(Exists(own_));
    EXPECT_FALSE(Exists(deep_));
    EXPECT_TRUE(!Exists(link) || Said({"CHoardexSP::DeleteAppDataFolder() - Could not delete folder"}));
    Unlink(link);
  }
}

// Where the user may not open the folders above, and where nothing at all can be resolved.
TEST_F(SweepTest, NeedsNoFolderAboveIt) {
  const std::wstring link = TemporaryFolder() + L"\\sub\\link.txt";
  for (const bool all : {false, true}) {
    const ZK_IMPORT_HOOK(CreateFileW) hook([&](auto next, LPCWSTR path, DWORD access, DWORD share, auto* security,
                                               DWORD disposition, DWORD flags, HANDLE file) -> HANDLE {
      const bool above = (roaming_ + L"\\").starts_with(path);
      return above || (all && flags == FILE_FLAG_BACKUP_SEMANTICS)
                 ? INVALID_HANDLE_VALUE
                 : next(path, access, share, security, disposition, flags, file);
    });
    Fill();
    if (!all) {
      ASSERT_TRUE(Link(canary_, link));
      protocol_->ShutDown();
      EXPECT_TRUE(Exists(canary_)) << "held against the folder itself";
      EXPECT_FALSE(Exists(own_) || Exists(deep_));
      Unlink(link);
    }
    protocol_->ShutDown();
    EXPECT_FALSE(Exists(TemporaryFolder()));
  }
}

TEST_F(SweepTest, WorksBelowARoot) {
  std::vector<std::wstring> opened;
  const ZK_IMPORT_HOOK(CreateFileW) hook([&](auto next, LPCWSTR path, DWORD access, DWORD share, auto* security,
                                             DWORD disposition, DWORD flags, HANDLE file) -> HANDLE {
    opened.push_back(path);
    return next(path, access, share, security, disposition, flags, file);
  });
  const std::wstring folder = L"C:\\zkoffline3x";
  for (const wchar_t* root : {L"C:", L"C:\\"}) {
    const ZK_IMPORT_HOOK(SHGetSpecialFolderPathW) roaming([&](auto, HWND, LPWSTR path, int, BOOL) -> BOOL {
      wcscpy(path, root);
      return TRUE;
    });
    CreateDirectoryW(folder.c_str(), nullptr);
    Write(folder + L"\\own.txt");
    protocol_->ShutDown();
    EXPECT_FALSE(Exists(folder));
  }
  // A share without its backslash is no folder.
  opened.clear();
  EXPECT_TRUE(DetachLinks(L"\\\\server\\share\\zkoffline3x"));
  EXPECT_EQ(opened, std::vector<std::wstring>{L"\\\\server\\share\\"});
}

TEST_F(SweepTest, NeverFollowsAFolderThatIsALink) {
  RemoveDirectoryW(TemporaryFolder().c_str());
  ASSERT_TRUE(Link(outside_, TemporaryFolder()));
  protocol_->ShutDown();
  EXPECT_TRUE(Exists(canary_));
  Unlink(TemporaryFolder());
}

}  // namespace
}  // namespace shell
