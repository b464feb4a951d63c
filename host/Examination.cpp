#include "host/Examination.h"

#include <windows.h>

#include <sddl.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <utility>

#include "host/BuiltInFilter.h"
#include "host/Handler.h"
#include "host/MailClient.h"
#include "host/Policy.h"
#include "host/Registration.h"
#include "host/Session.h"
#include "host/SystemIndex.h"
#include "host/Text.h"
#include "include/HoardexPH.h"
#include "platform/converter.h"
#include "platform/searchmanager.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr DWORD kStepTimeout = 30'000, kStepPoll = 20;  // ms
constexpr wchar_t kClientKey[] = L"SOFTWARE\\Trelmo\\Zarnak\\Client";

// What people attach most.
constexpr const wchar_t* kExtensions[] = {L"txt", L"htm", L"html", L"rtf",  L"csv",  L"xml",  L"pdf",
                                          L"doc", L"xls", L"ppt",  L"docx", L"xlsx", L"pptx", L"odt",
                                          L"ods", L"eml", L"msg",  L"json", L"md",   L"log"};

struct CloseHandleAtEnd {
  HANDLE handle;
  ~CloseHandleAtEnd() {
    if (handle) CloseHandle(handle);
  }
};

// What lies in the pipe at this moment; never waits.
void ReadWaiting(HANDLE pipe, std::string& text) {
  char part[4096];
  for (DWORD size = 0; PeekNamedPipe(pipe, nullptr, 0, nullptr, &size, nullptr) && size;) {
    if (!ReadFile(pipe, part, std::min<DWORD>(size, sizeof(part)), &size, nullptr)) return;
    text.append(part, size);
  }
}

// Runs this program with other words and returns the object that it prints, or {"failed": what became of it}.
Json RunStep(const std::wstring& words) {
  SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
  HANDLE read = nullptr, write = nullptr;
  if (!CreatePipe(&read, &write, &inherited, 0)) return {{"failed", "no pipe could be made"}};
  const CloseHandleAtEnd reader{read};
  SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  wchar_t program[MAX_PATH];
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  std::wstring line = L"\"" + std::wstring(program) + L"\" examine " + words;
  STARTUPINFOW start = {};
  start.cb = sizeof(start);
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = write;
  start.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  PROCESS_INFORMATION process = {};
  const BOOL started = CreateProcessW(program, line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                                      &start, &process);
  const DWORD error = started ? 0 : GetLastError();
  CloseHandle(write);
  if (!started) return {{"failed", "it could not be started: error " + std::to_string(error)}};
  const CloseHandleAtEnd child{process.hProcess}, thread{process.hThread};
  std::string text;
  // Read meanwhile: a process that fills the pipe would look as if it hung.
  for (DWORD waited = 0; WaitForSingleObject(process.hProcess, kStepPoll) != WAIT_OBJECT_0; waited += kStepPoll) {
    ReadWaiting(read, text);
    if (waited < kStepTimeout) continue;
    TerminateProcess(process.hProcess, 1);
    return {{"failed", "it gave no answer for " + std::to_string(kStepTimeout / 1000) + " s"}};
  }
  ReadWaiting(read, text);
  Json answer = Json::parse(text, nullptr, false);
  if (answer.is_object()) return answer;
  DWORD code = 0;
  GetExitCodeProcess(process.hProcess, &code);
  return {{"failed", "it ended with " + CodeText(static_cast<HRESULT>(code))}};
}

// Makes the registered class, which loads the module, which loads MAPI.
Json MakeClass() {
  ComPtr<ISearchProtocol> protocol;
  const HRESULT hr = MakeHandler(CLSID_HoardexSP, __uuidof(ISearchProtocol),
                                 reinterpret_cast<void**>(protocol.ReleaseAndGetAddressOf()));
  return {{"code", CodeText(hr)}, {"name", CodeName(hr)}};
}

// The search root that the module makes for this user.
std::string UserRoot() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return {};
  const CloseHandleAtEnd closer{token};
  std::vector<BYTE> user(sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE);
  DWORD size = static_cast<DWORD>(user.size());
  LPWSTR sid = nullptr;
  if (!GetTokenInformation(token, TokenUser, user.data(), size, &size) ||
      !ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(user.data())->User.Sid, &sid))
    return {};
  const std::string root = "zkoffline3x://{" + ToUtf8(sid) + "}/default/";
  LocalFree(sid);
  return root;
}

// Asks the index: {"root": the user's, "roots","rules" of the scheme, "changes": how many wait at least, and
// "more"; both absent where none can be asked for}, or "error".
Json AskIndex() {
  Json answer = SystemRoots();
  answer["root"] = UserRoot();
  const Json changes = SystemChanges();
  if (changes.contains("error")) return answer;
  answer["changes"] = changes["changes"].size();
  answer["more"] = changes["more"];
  return answer;
}

// The folders of vaults that the archiving client names, as the module lists them.
Json VaultFolders() {
  Json folders = Json::array();
  HKEY client = nullptr;
  if (RegOpenKeyExW(HKEY_CURRENT_USER, kClientKey, 0, KEY_READ, &client) != ERROR_SUCCESS) return folders;
  wchar_t name[256];
  for (DWORD i = 0, size = 256;
       RegEnumKeyExW(client, i, name, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS; ++i, size = 256) {
    auto root = RegistryText(HKEY_CURRENT_USER, std::wstring(kClientKey) + L"\\" + name, L"HXRootDirectory");
    if (!root) continue;
    if (root->empty() || root->back() != L'\\') *root += L'\\';
    const std::wstring folder = *root + name;
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    folders.push_back({{"name", ToUtf8(name)},
                       {"folder", ToUtf8(folder)},
                       {"exists", attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)}});
  }
  RegCloseKey(client);
  return folders;
}

Json Filters() {
  Json with = Json::array(), without = Json::array();
  for (const wchar_t* extension : kExtensions) {
    ComPtr<IFilter> filter;
    *filter.ReleaseAndGetAddressOf() = MakeBuiltInFilter(extension, L"");
    (filter ? with : without).push_back(ToUtf8(extension));
  }
  return {{"with", std::move(with)}, {"without", std::move(without)}};
}

Json AllFacts(bool clear) {
  const AttachmentPolicy policy = ReadAttachmentPolicy();
  // In this order: to load the module refreshes the names of the item types.
  Json facts = {{"registration", ExamineRegistration()},
                {"module", ExamineServer(CLSID_HoardexSP)},
                {"index_server", ExamineServer(CLSID_CSearchManager)},
                {"root_server", ExamineServer(CLSID_CSearchRoot)},
                {"converter", ExamineServer(CLSID_IConverterSession)},
                {"unnamed_item_types", ExamineItemTypes()},
                {"mail_client", ExamineMailClient()},
                {"vault_folders", VaultFolders()},
                {"policy", {{"prevented", policy.prevented}, {"excluded", ToUtf8(policy.excluded)}}},
                {"temporary", ExamineTemporaryFiles(clear)},
                {"filters", Filters()}};
  facts["mail"] = RunStep(clear ? L"mail --clear" : L"mail");
  facts["class"] = RunStep(L"class");
  facts["index"] = RunStep(L"index");
  return facts;
}

}  // namespace

int RunExamination(std::vector<std::string> words) {
  const bool clear = std::erase(words, "--clear") > 0;
  const std::pair<const char*, std::function<Json()>> kSteps[] = {
      {"class", MakeClass}, {"mail", [&] { return AskMailClient(clear); }}, {"index", AskIndex}};
  Json facts;
  if (words.empty()) facts = AllFacts(clear);
  for (const auto& [name, step] : kSteps)
    if (words.size() == 1 && words[0] == name) facts = step();
  if (facts.is_null()) return 2;
  const std::string line = facts.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  fwrite(line.data(), 1, line.size(), stdout);
  fflush(stdout);
  // Without unloading anything: what has been loaded may not bear it, and the answer is out.
  TerminateProcess(GetCurrentProcess(), 0);
  return 0;
}

}  // namespace host
