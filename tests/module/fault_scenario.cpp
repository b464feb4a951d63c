#include "tests/module/fault_scenario.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <filterr.h>

#include <fstream>
#include <iterator>
#include <new>
#include <set>

#include "module/core/Boundary.h"
#include "module/core/HoardexURL.h"
#include "module/mapi/MapiForWDS.h"
#include "module/protocol/HoardexSP.h"
#include "tests/support/filter_double.h"
#include "vault/writer.h"

namespace faults {
namespace {

namespace fs = std::filesystem;
using Microsoft::WRL::ComPtr;

constexpr wchar_t kLogSource[] = L".\\FaultTest";
constexpr wchar_t kShellFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
constexpr wchar_t kProfiles[] = L"Software\\Trelmo\\Hoardex\\Profiles";

class Site final : public IProtocolHandlerSite {
 public:
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP GetFilter(CLSID*, LPCWSTR, LPCWSTR extension, IFilter** filter) override {
    const Inside outside(false);
    *filter = !wcscmp(extension, L"txt") ? new FilterDouble : nullptr;
    return *filter ? S_OK : E_FAIL;
  }
};

// Runs an operation as the module's own interfaces do.
template <class Body>
HRESULT InModule(Body&& body) {
  const Inside inside(true);
  return boundary::Guard(kLogSource, __LINE__, L"FaultTest", body);
}
// Calls an interface, which must let no exception out.
template <class Body>
auto Calling(Body&& body) {
  const Inside inside(true);
  return body();
}

Operation OperationOf(const CHoardexURL& url) {
  return url.IsStore()       ? Operation::kTop
         : url.IsContainer() ? Operation::kFolder
         : url.IsMessage()   ? Operation::kMessage
                             : Operation::kAttachment;
}

std::wstring Describe(const PROPVARIANT* value) {
  if (!value) return L"none";
  std::wstring text = std::to_wstring(value->vt) + L" ";
  if (value->vt == VT_LPWSTR) text += value->pwszVal;
  if (value->vt == (VT_VECTOR | VT_VARIANT)) text += value->capropvar.pElems[0].pwszVal;
  return text;
}

Site& TheSite() {
  static Site site;
  return site;
}

std::wstring HeadOf(const STAT_CHUNK& stat) {
  wchar_t text[48];
  const FULLPROPSPEC& attribute = stat.attribute;
  swprintf(text, std::size(text), L"%08lX/%lu #%lu ", attribute.guidPropSet.Data1, attribute.psProperty.propid,
           stat.idChunk);
  return text;
}

}  // namespace

Host::Host() {
  void* made = nullptr;
  if (FAILED(Calling([&] { return CreateHoardexSP(nullptr, __uuidof(ISearchProtocol), &made); }))) return;
  protocol_ = static_cast<ISearchProtocol*>(made);
  TIMEOUT_INFO timeouts = {};
  PROXY_INFO proxy = {};
  EXPECT_EQ(Calling([&] { return protocol_->Init(&timeouts, &TheSite(), &proxy); }), S_OK);
}

Host::~Host() {
  if (!protocol_) return;
  EXPECT_EQ(Calling([&] { return protocol_->ShutDown(); }), S_OK);
  protocol_->Release();
}

std::vector<std::wstring> Host::Read(const std::wstring& url, std::vector<std::wstring>* links) {
  std::vector<std::wstring> given;
  AUTHENTICATION_INFO authentication = {};
  INCREMENTAL_ACCESS_INFO incremental = {};
  ITEM_INFO info = {};
  ComPtr<IUrlAccessor> accessor;
  const HRESULT made =
      Calling([&] { return protocol_->CreateAccessor(url.c_str(), &authentication, &incremental, &info, &accessor); });
  given.push_back(url + L" " + std::to_wstring(made));
  if (made != S_OK) return given;
  ComPtr<IFilter> filter;
  ULONG flags = 0;
  if (Calling([&] { return accessor->BindToFilter(&filter); }) == S_OK &&
      Calling([&] { return filter->Init(0, 0, nullptr, &flags); }) == S_OK) {
    STAT_CHUNK stat = {};
    for (int i = 0; i < 200 && Calling([&] { return filter->GetChunk(&stat); }) == S_OK; ++i) {
      std::wstring line = HeadOf(stat);
      if (stat.flags == CHUNK_TEXT) {
        wchar_t text[101];
        ULONG count = 100;
        while (SUCCEEDED(Calling([&] { return filter->GetText(&count, text); }))) {
          line.append(text, count);
          count = 100;
        }
      } else {
        PROPVARIANT* value = nullptr;
        if (FAILED(Calling([&] { return filter->GetValue(&value); }))) value = nullptr;
        line += Describe(value);
        if (links && value && value->vt == (VT_VECTOR | VT_VARIANT))
          links->push_back(value->capropvar.pElems[0].pwszVal);
        if (value) PropVariantClear(value);
        CoTaskMemFree(value);
      }
      given.push_back(std::move(line));
    }
  }
  Calling([&] {
    filter.Reset();
    protocol_->CloseAccessor(accessor.Get());
    accessor.Reset();
    return 0;
  });
  return given;
}

Scene& Scene::Get() {
  static Scene scene;
  return scene;
}

namespace {

// A run is made of short calls to Wine's server; changing processors between them costs more than the calls.
void StayOnOneProcessor() {
  DWORD_PTR allowed = 0, all = 0;
  if (!GetProcessAffinityMask(GetCurrentProcess(), &allowed, &all) || !allowed) return;
  std::vector<DWORD_PTR> masks;
  for (DWORD_PTR bit = 1; bit; bit <<= 1)
    if (allowed & bit) masks.push_back(bit);
  SetProcessAffinityMask(GetCurrentProcess(), masks[GetCurrentProcessId() / 4 % masks.size()]);
}

// A store that a session kept open could be deleted, but not its folder. Now nobody has it.
void RemoveEmptyFolders(const fs::path& temporary) {
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(temporary, none)) {
    if (!entry.path().filename().wstring().starts_with(L"HoardexFaults")) continue;
    if (fs::exists(entry.path() / L"Local", none) || !fs::exists(entry.path() / L"Vault", none)) continue;  // in use
    RemoveDirectoryW((entry.path() / L"Vault").c_str());
    RemoveDirectoryW(entry.path().c_str());
  }
}

}  // namespace

Scene::Scene() {
  StayOnOneProcessor();
  wchar_t path[MAX_PATH] = {};
  GetTempPathW(MAX_PATH, path);
  RemoveEmptyFolders(path);
  folder_ = fs::path(path) / (L"HoardexFaults" + std::to_wstring(GetCurrentProcessId()));
  for (const wchar_t* name : {L"Local", L"Roaming", L"Vault"}) fs::create_directories(folder_ / name);
  // Log and temporary files of this process alone.
  ScratchRegistry::SetString(HKEY_CURRENT_USER, kShellFolders, L"Local AppData", (folder_ / L"Local").wstring());
  ScratchRegistry::SetString(HKEY_CURRENT_USER, kShellFolders, L"AppData", (folder_ / L"Roaming").wstring());
  ScratchRegistry::SetString(HKEY_CURRENT_USER, L"SOFTWARE\\Trelmo\\Zarnak\\Client\\Vault", L"HXRootDirectory",
                             folder_.wstring());
  log_ = folder_ / L"Local" / L"HoardexFaults.log";
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  // <build>/tests/<folder>/<test>.exe
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  const fs::path provider =
      fs::path(path).parent_path().parent_path().parent_path() / L"provider" / L"HoardexMapiChecked.dll";
  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, L"Software\\Clients\\Mail\\Microsoft Outlook", L"DLLPathEx",
                             provider.wstring());
  g_MapiLoader.Load();
  if (!g_MapiLoader.IsLoaded()) throw std::runtime_error(g_MapiLoader.LastError());
  OpenLog();
  WriteStore();
  vault_url_ = UrlOf(store_);
  // What is there is found by reading it.
  std::set<std::wstring> known;
  steps_.push_back({Operation::kSession, vault_url_});
  for (const std::wstring& line : Crawl()) {
    const std::wstring item = line.substr(0, line.rfind(L' '));
    const CHoardexURL parsed(item);
    if (!parsed.IsRoot() && parsed.kind() != CHoardexURL::kUnknown && known.insert(item).second)
      steps_.push_back({OperationOf(parsed), item});
  }
  steps_.push_back({Operation::kClean, {}});
}

Scene::~Scene() {
  g_Log.~SCLog();
  new (&g_Log) SCLog(L"no such folder\\none.log");
  // One by one, and no further than what is known to be there.
  for (const fs::path& file : {log_, store_}) DeleteFileW(file.c_str());
  for (const wchar_t* name : {L"Local", L"Roaming", L"Vault"}) RemoveDirectoryW((folder_ / name).c_str());
  RemoveDirectoryW(folder_.c_str());
}

void Scene::OpenLog() {
  g_Log.~SCLog();
  DeleteFileW(log_.c_str());
  new (&g_Log) SCLog(log_.filename().c_str());
  log_read_ = 0;
}

void Scene::WriteStore() {
  vault::StoreBuilder store("items");
  const auto time = vault::FileTime(2024, 5, 1);
  const auto add = [&](vault::FolderBuilder& folder, const char* subject) -> vault::MessageBuilder& {
    return folder.AddMessage("IPM.Note")
        .Subject(subject)
        .From("Ann", "ann@example.com")
        .To("Bob", "bob@example.org")
        .SubmitTime(time)
        .Body("Some text.");
  };
  auto& inbox = store.top().AddFolder("Inbox");
  auto& mail = add(inbox, "A file and a message");
  mail.AttachFile("first.txt", "content of the first").Time(0x3008, time);
  mail.AttachMessage("IPM.Note").Subject("Embedded").Body("Inside");
  add(inbox, "Nothing attached");
  inbox.AddHidden("IPM.Configuration").Subject("Hidden");
  inbox.AddFolder("Deeper").AddMessage("IPM.Contact").Subject("Card").Text(0x3001, "Ann Smith");
  add(store.deleted_items(), "Deleted");
  store_ = folder_ / L"Vault" / L"items.db";
  store.Write(store_);
}

std::vector<StepResult> Scene::RunSteps() {
  std::vector<StepResult> results;
  CMapiForWDS* mapi = nullptr;
  for (const Step& step : steps_) {
    StepResult& result = results.emplace_back();
    if (step.operation == Operation::kClean) {
      result.result = InModule([] {
        CMapiForWDS::CleanMapiObjs();
        return S_OK;
      });
    } else if (step.operation == Operation::kSession) {
      result.result = InModule([&] {
        mapi = CMapiForWDS::GetMapiObj(step.url).get();
        return mapi ? S_OK : E_FAIL;
      });
    } else if (!mapi) {
      continue;
    } else if (step.operation == Operation::kMessage) {
      ComPtr<IMessage> message;
      result.result = InModule([&] { return mapi->GetMsgFromURL(step.url, &message); });
      EXPECT_EQ(SUCCEEDED(result.result), message != nullptr);
    } else if (step.operation == Operation::kAttachment) {
      ComPtr<IStream> stream;
      result.result = InModule([&] { return mapi->GetStreamFromAttachmentURL(step.url, &stream); });
      EXPECT_EQ(SUCCEEDED(result.result), stream != nullptr);
    } else {
      std::vector<FILETIME> times;
      result.result = InModule([&] { return mapi->BrowseFolder(step.url, result.path, result.names, times); });
      EXPECT_EQ(result.names.size(), times.size());
    }
    result.last_call = ProviderFaults::CallsEntered();
  }
  return results;
}

std::vector<std::wstring> Scene::Crawl() {
  std::vector<std::wstring> given;
  Host host;
  std::vector<std::wstring> pending = {url::Root(L"S-1-5-21-1")};
  std::set<std::wstring> seen;
  while (host && !pending.empty()) {
    const std::wstring url = pending.back();
    pending.pop_back();
    if (!seen.insert(url).second) continue;
    std::vector<std::wstring> links;
    const auto item = host.Read(url, &links);
    given.insert(given.end(), item.begin(), item.end());
    pending.insert(pending.end(), links.rbegin(), links.rend());
  }
  return given;
}

std::wstring Scene::UrlOf(const fs::path& store) {
  return url::Root(L"S-1-5-21-1") + store.wstring();
}

void Scene::LeaveStaleProfile() {
  HKEY key;
  const std::wstring path = std::wstring(kProfiles) + L"\\ZK_HX_10_1_2_3_4";
  if (RegCreateKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) ==
      ERROR_SUCCESS)
    RegCloseKey(key);
}

std::vector<std::string> Scene::NewLogLines() {
  std::vector<std::string> lines;
  std::ifstream file(log_, std::ios::binary);
  file.seekg(log_read_);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  file.close();  // or it could not be deleted
  log_read_ += static_cast<std::streamoff>(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size()), mark = text.find("):", at);
    // "[...] Source(12):text " with the runtime's line ending.
    if (mark < end) {
      std::string line = text.substr(mark + 2, end - mark - 2);
      while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
      lines.push_back(std::move(line));
    }
    at = end + 1;
  }
  if (log_read_ > SCLog::kRewindAt / 2) OpenLog();  // before it starts over in the middle of a run
  return lines;
}

size_t Scene::TemporaryFiles() const {
  const fs::path folder = folder_ / L"Roaming" / url::kScheme;
  std::error_code none;
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder, none), {}));
}

bool Scene::LogIsFree() {
  const auto log = [](LPVOID) -> DWORD {
    ZK_LOG(L"Another thread");
    return 0;
  };
  const HANDLE thread = CreateThread(nullptr, 0, log, nullptr, 0, nullptr);
  const bool done = WaitForSingleObject(thread, 10'000) == WAIT_OBJECT_0;
  CloseHandle(thread);
  return done;
}

void Invariants::Check(const Left& left, long profiles, bool exact) const {
  const ProviderFaults::Alive now = ProviderFaults::Count();
  const auto within = [exact](long alive, long most) { return exact ? alive == most : alive >= 0 && alive <= most; };
  const long started = now.initializations - before_.initializations;
  const bool only_left = within(now.sessions - before_.sessions, left.sessions) &&
                         within(now.service_admins - before_.service_admins, left.service_admins) &&
                         within(now.buffers - before_.buffers, left.buffers) &&
                         // One that was only said to be done is undone all the same.
                         (exact ? started == left.initializations : started <= left.initializations) &&
                         now.objects() - now.sessions - now.service_admins ==
                             before_.objects() - before_.sessions - before_.service_admins &&
                         now.row_sets == before_.row_sets && now.store_files <= 1 &&
                         now.open_profiles - before_.open_profiles <= left.sessions;
  EXPECT_TRUE(only_left) << now << "; before, " << before_;
  EXPECT_TRUE(within(now.profiles, profiles)) << now << "; expected, " << profiles;
  EXPECT_EQ(Scene::Get().TemporaryFiles(), 0u);
}

}  // namespace faults
