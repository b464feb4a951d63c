#include "tests/module/shell_fixture.h"

#include <shellapi.h>
#include <shlwapi.h>

#include <cstring>

#include "module/core/HoardexPH.h"
#include "module/core/HoardexURL.h"
#include "module/mapi/MapiForWDS.h"
#include "module/mapi/TidyMapi.h"
#include "module/protocol/HoardexSP.h"
#include "platform/converter.h"
#include "vault/writer.h"

namespace shell {
namespace {

using Microsoft::WRL::ComPtr;

std::vector<std::wstring> boxes;

LRESULT CALLBACK OnWindow(int code, WPARAM window, LPARAM more) {
  const auto handle = reinterpret_cast<HWND>(window);
  wchar_t name[32] = {}, title[128] = {}, text[512] = {};
  // A box that goes may give way to one of another program.
  if (code == HCBT_ACTIVATE && GetWindowThreadProcessId(handle, nullptr) == GetCurrentThreadId() &&
      GetClassNameW(handle, name, 32) && !wcscmp(name, L"#32770")) {
    GetWindowTextW(handle, title, 128);
    if (const HWND label = GetDlgItem(handle, 0xFFFF)) GetWindowTextW(label, text, 512);
    boxes.push_back(std::wstring(title) + L": " + text);
    EndDialog(handle, IDOK);
  }
  return CallNextHookEx(nullptr, code, window, more);
}

// Wine takes the driver of a desktop's windows from here when the desktop is made.
HDESK DesktopWithoutDisplay() {
  constexpr wchar_t kDrivers[] = L"Software\\Wine\\Drivers";
  ScratchRegistry::SetString(HKEY_CURRENT_USER, kDrivers, L"Graphics", L"null");
  const HDESK desktop = CreateDesktopW(L"HoardexTest", nullptr, nullptr, 0, GENERIC_ALL, nullptr);
  SetThreadDesktop(desktop);
  GetDesktopWindow();
  RegDeleteKeyValueW(HKEY_CURRENT_USER, kDrivers, L"Graphics");
  return desktop;
}
// Before anything asks for a window, and before the registry is redirected.
const HDESK desktop = GetEnvironmentVariableW(L"HOARDEX_NO_DESKTOP", nullptr, 0) ? nullptr : DesktopWithoutDisplay();

std::wstring ProgramFolder(int up) {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring folder = path;
  for (int i = 0; i <= up; ++i) folder.resize(folder.rfind(L'\\'));
  return folder;
}

void WriteStore(const std::wstring& path) {
  vault::StoreBuilder store("items");
  auto& mail = store.top().AddFolder("Inbox").AddMessage("IPM.Note").Subject("Quarterly report");
  mail.From("Ann", "ann@example.com")
      .To("Bob", "bob@example.org")
      .SubmitTime(vault::FileTime(2024, 5, 1))
      .Body("Text.");
  mail.AttachFile("report.txt", "content of the report");
  mail.AttachFile("odd.my doc", "an extension with a blank is none");
  mail.AttachMessage("IPM.Note").Subject("v1.2 of the plan").Body("Inside");
  for (const std::string& name : kPrograms) mail.AttachFile(name, "MZ");
  store.Write(path);
}

// The children of a container.
std::vector<std::wstring> Names(CMapiForWDS* mapi, const std::wstring& url) {
  std::wstring path;
  std::vector<std::wstring> names;
  std::vector<FILETIME> times;
  mapi->BrowseFolder(url, path, names, times);
  return names;
}

std::vector<std::wstring> AttachmentUrls(CMapiForWDS* mapi, const std::wstring& message_url) {
  std::vector<std::wstring> urls;
  ComPtr<IMessage> message;
  ComPtr<IMAPITable> table;
  mapi->GetMsgFromURL(message_url, message.GetAddressOf());
  if (!message || FAILED(message->GetAttachmentTable(0, table.GetAddressOf()))) return urls;
  SizedSPropTagArray(2, columns) = {2, {PR_RECORD_KEY, PR_DISPLAY_NAME_W}};
  table->SetColumns(reinterpret_cast<LPSPropTagArray>(&columns), 0);
  TidyRowSet rows;
  table->QueryRows(100, 0, &rows);
  for (ULONG i = 0; i < rows.rows(); ++i) {
    const SPropValue* key = rows.cell(i, 0, PR_RECORD_KEY);
    const SPropValue* name = rows.cell(i, 1, PR_DISPLAY_NAME_W);
    urls.push_back(message_url + L"/" + (key ? CMapiForWDS::BinaryToText(key->Value.bin) : L"") + L"/" +
                   (name ? name->Value.lpszW : L""));
  }
  return urls;
}

}  // namespace

const std::wstring kCannotShow =
    L"Tessary: Could not show this item.\nPlease try again; if it still fails, contact your Zarnak administrator.";
const std::wstring kCannotDelete = L"Tessary: Zarnak items cannot be deleted using Windows Desktop Search";

// A name that ends in dots or blanks is another one on disk.
const std::vector<std::string> kPrograms = {
    "setup.exe", "RUN.BAT",   "invoice.pdf.js", "link.Lnk",
    "page.hta",  "image.iso", "a.b.c.psm1",     "x.{3050F4D8-98B5-11CF-BB82-0}"};

Boxes::Boxes() : hook_(SetWindowsHookExW(WH_CBT, OnWindow, nullptr, GetCurrentThreadId())) {
  Take();
}
Boxes::~Boxes() {
  UnhookWindowsHookEx(hook_);
}
std::vector<std::wstring> Boxes::Take() {
  return std::exchange(boxes, {});
}

Shell::Shell() {
  log_ = std::make_unique<LogLines>();
  module::SetInstance(GetModuleHandleW(nullptr));
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  wchar_t path[MAX_PATH] = {};
  SHGetSpecialFolderPathW(nullptr, path, CSIDL_APPDATA, TRUE);
  roaming_ = path;
  folder_path_ = roaming_.substr(0, roaming_.rfind(L'\\'));
  store_path_ = folder_path_ + L"\\items.db";
  handled_ = folder_path_ + L"\\handled.txt";
  WriteStore(store_path_);
  // The folder of vaults is the root's sub-folder of the key's name.
  const size_t last = folder_path_.rfind(L'\\');
  ScratchRegistry::SetString(HKEY_CURRENT_USER,
                             (L"SOFTWARE\\Trelmo\\Zarnak\\Client" + folder_path_.substr(last)).c_str(),
                             L"HXRootDirectory", folder_path_.substr(0, last));
  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, L"Software\\Clients\\Mail\\Microsoft Outlook", L"DLLPathEx",
                             ProgramFolder(2) + L"\\provider\\HoardexMapiChecked.dll");
  g_MapiLoader.Load();
  HRESULT(STDMETHODCALLTYPE * get)(REFCLSID, REFIID, void**) = nullptr;
  const FARPROC entry = GetProcAddress(GetModuleHandleW(L"HoardexMapiChecked.dll"), "DllGetClassObject");
  memcpy(&get, &entry, sizeof(get));
  ComPtr<IClassFactory> factory;
  get(CLSID_IConverterSession, IID_IClassFactory, reinterpret_cast<void**>(factory.GetAddressOf()));
  CoRegisterClassObject(CLSID_IConverterSession, factory.Get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &converter_);

  before_ = ProviderFaults::Count();
  root_ = url::Root(L"S-1-5-21-1");
  vault_ = root_ + store_path_;
  CMapiForWDS* mapi = CMapiForWDS::GetMapiObj(vault_).get();
  if (!mapi) throw std::runtime_error("the store does not open");
  for (const std::wstring& name : Names(mapi, vault_)) {
    inbox_ = vault_ + L"/" + name;
    const auto names = Names(mapi, inbox_);
    if (names.empty()) continue;
    message_ = inbox_ + L"/" + names[0];
    break;
  }
  attachments_ = AttachmentUrls(mapi, message_);
  void* made = nullptr;
  CreateHoardexSP(nullptr, IID_IShellFolder, &made);
  *folder_.GetAddressOf() = static_cast<IShellFolder*>(made);
  log_->New();
}

Shell::~Shell() {
  ProviderFaults::Clear();
  folder_.Reset();
  CMapiForWDS::CleanMapiObjs();
  CoRevokeClassObject(converter_);
  EXPECT_EQ(ProviderFaults::Count(), before_);
  EXPECT_EQ(module::LockCount(), 0);
  EmptyTemporaryFolder();
  EXPECT_TRUE(DeleteFileW(store_path_.c_str())) << "somebody holds it";
  DeleteFileW(handled_.c_str());
  CoUninitialize();
}

void Shell::Parse(const std::wstring& url, ItemId& item) {
  std::wstring name = url;
  ASSERT_EQ(folder_->ParseDisplayName(nullptr, nullptr, name.data(), nullptr, &item.list, nullptr), S_OK);
  ASSERT_NE(item.list, nullptr);
}

HRESULT Shell::Bind(const std::wstring& url, REFIID iid, std::string* bytes) {
  ItemId item;
  Parse(url, item);
  ComPtr<IUnknown> object;
  const HRESULT hr = folder_->BindToObject(item.list, nullptr, iid, reinterpret_cast<void**>(object.GetAddressOf()));
  EXPECT_EQ(SUCCEEDED(hr), object != nullptr);
  ComPtr<IStream> stream;
  if (FAILED(hr) || !bytes || FAILED(object.As(&stream))) return hr;
  STATSTG stat = {};
  stream->Stat(&stat, STATFLAG_NONAME);
  stream->Seek({}, STREAM_SEEK_SET, nullptr);
  bytes->resize(static_cast<size_t>(stat.cbSize.QuadPart));
  stream->Read(bytes->data(), static_cast<ULONG>(bytes->size()), nullptr);
  return hr;
}

HRESULT Shell::Call(IContextMenu* menu, const void* verb, bool wide) {
  CMINVOKECOMMANDINFOEX command = {};
  command.cbSize = sizeof(command);
  command.nShow = SW_SHOWNORMAL;
  // The other width says something else.
  command.lpVerb = wide ? "delete" : static_cast<LPCSTR>(verb);
  command.lpVerbW = wide ? static_cast<LPCWSTR>(verb) : L"delete";
  if (wide) command.fMask = CMIC_MASK_UNICODE;
  return menu->InvokeCommand(reinterpret_cast<CMINVOKECOMMANDINFO*>(&command));
}

HRESULT Shell::Invoke(const std::wstring& url, UINT offset) {
  ComPtr<IContextMenu> menu;
  EXPECT_EQ(UIObject(url, IID_IContextMenu, menu), S_OK);
  return Call(menu.Get(), MAKEINTRESOURCEA(offset), false);
}

HRESULT Shell::Invoke(const std::wstring& url, const wchar_t* verb, bool wide) {
  ComPtr<IContextMenu> menu;
  EXPECT_EQ(UIObject(url, IID_IContextMenu, menu), S_OK);
  const std::wstring text = verb;
  const std::string narrow(text.begin(), text.end());
  return wide ? Call(menu.Get(), verb, true) : Call(menu.Get(), narrow.c_str(), false);
}

void Shell::Handle(const wchar_t* extension) {
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, extension, nullptr, L"HoardexTest.File");
  for (const std::wstring verb : {L"open", L"print"})
    ScratchRegistry::SetString(
        HKEY_CLASSES_ROOT, (L"HoardexTest.File\\shell\\" + verb + L"\\command").c_str(), nullptr,
        L"\"" + ProgramFolder(0) + L"\\shell_recorder.exe\" \"" + handled_ + L"\" " + verb + L" \"%1\"");
}

std::wstring Shell::Handled(DWORD milliseconds) {
  const DWORD start = GetTickCount();
  std::string bytes;
  while (bytes.empty()) {
    if (GetTickCount() - start > milliseconds) return {};
    Sleep(10);
    std::ifstream file(std::string(handled_.begin(), handled_.end()), std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
  }
  DeleteFileW(handled_.c_str());
  std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
  memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
  for (wchar_t& c : text)
    if (c == L'\n') c = L' ';
  if (!text.empty()) text.pop_back();
  return text;
}

std::vector<std::wstring> Shell::TemporaryFiles() const {
  std::vector<std::wstring> files;
  WIN32_FIND_DATAW data;
  const HANDLE search = FindFirstFileW((TemporaryFolder() + L"\\*").c_str(), &data);
  if (search == INVALID_HANDLE_VALUE) return files;
  do {
    if (data.cFileName[0] != L'.' && !wcschr(data.cFileName, L':'))
      files.push_back(TemporaryFolder() + L"\\" + data.cFileName);
  } while (FindNextFileW(search, &data));
  FindClose(search);
  return files;
}

void Shell::EmptyTemporaryFolder() const {
  for (const std::wstring& file : TemporaryFiles()) {
    DeleteFileW((file + kMark).c_str());
    EXPECT_TRUE(DeleteFileW(file.c_str())) << "somebody holds it";
  }
}

testing::AssertionResult Shell::InOrder(const std::vector<std::string>& lines, const std::vector<std::string>& parts) {
  size_t found = 0;
  std::string all;
  for (const std::string& line : lines) {
    all += "\n" + line;
    if (found < parts.size() && line.find(":" + parts[found]) != std::string::npos) ++found;
  }
  if (found == parts.size()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "missing, or not in order: " << parts[found] << "\nin" << all;
}

std::wstring Shell::TextIn(const std::wstring& file, const wchar_t* name) {
  ComPtr<IStorage> storage;
  ComPtr<IStream> stream;
  constexpr DWORD kMode = STGM_READ | STGM_SHARE_EXCLUSIVE;
  if (FAILED(StgOpenStorage(file.c_str(), nullptr, kMode, nullptr, 0, storage.GetAddressOf()))) return L"<no storage>";
  if (FAILED(storage->OpenStream(name, nullptr, kMode, 0, stream.GetAddressOf()))) return L"<no stream>";
  wchar_t text[256] = {};
  ULONG read = 0;
  stream->Read(text, sizeof(text) - sizeof(wchar_t), &read);
  return std::wstring(text, read / sizeof(wchar_t));
}

}  // namespace shell
