// The built module coming and going: threads that attach, loading, use and unloading, and hosts that just end.
#include <gtest/gtest.h>

#include <windows.h>

#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/searchmanager.h"
#include "tests/support/child_process.h"
#include "tests/support/class_double.h"
#include "tests/support/item_chunks.h"
#include "tests/support/module_host.h"
#include "tests/support/registry_tree.h"
#include "vault/writer.h"

namespace {

// What this process holds.
struct Holdings {
  long handles = 0, threads = 0;
  size_t memory = 0;     // private and committed, in bytes
  int free_indices = 0;  // of thread-local and fiber-local storage
};

// How many indices can still be had.
template <class Allocate, class Free>
int CountIndices(Allocate allocate, Free free) {
  std::vector<DWORD> taken;
  for (DWORD index; (index = allocate()) != TLS_OUT_OF_INDEXES;) taken.push_back(index);
  for (const DWORD index : taken) free(index);
  return static_cast<int>(taken.size());
}
static_assert(TLS_OUT_OF_INDEXES == FLS_OUT_OF_INDEXES);

long CountHandles() {
  struct Entry {
    ULONG process;
    BYTE type, flags;
    USHORT handle;
    void* object;
    ULONG access;
  };
  constexpr auto kHandles = static_cast<SYSTEM_INFORMATION_CLASS>(16);
  std::vector<ULONG_PTR> buffer(1 << 17);
  ULONG size = 0;
  while (NtQuerySystemInformation(kHandles, buffer.data(), static_cast<ULONG>(buffer.size() * sizeof(ULONG_PTR)),
                                  &size) == static_cast<NTSTATUS>(0xC0000004))
    buffer.resize(2 * buffer.size());
  const auto* entries = reinterpret_cast<const Entry*>(buffer.data() + 1);
  long count = 0;
  for (ULONG i = 0; i < static_cast<ULONG>(buffer[0]); ++i) count += entries[i].process == GetCurrentProcessId();
  return count;
}

Holdings Count() {
  Holdings holdings;
  holdings.handles = CountHandles();
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 thread = {};
  thread.dwSize = sizeof(thread);
  for (BOOL more = Thread32First(snapshot, &thread); more; more = Thread32Next(snapshot, &thread))
    holdings.threads += thread.th32OwnerProcessID == GetCurrentProcessId();
  CloseHandle(snapshot);
  MEMORY_BASIC_INFORMATION region;
  for (const char* at = nullptr; VirtualQuery(at, &region, sizeof(region));
       at = static_cast<const char*>(region.BaseAddress) + region.RegionSize)
    if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE) holdings.memory += region.RegionSize;
  holdings.free_indices = CountIndices(TlsAlloc, TlsFree) + CountIndices([] { return FlsAlloc(nullptr); }, FlsFree);
  return holdings;
}

void ExpectLevel(const Holdings& before, const Holdings& after, int times) {
  printf("%d times: handles %ld -> %ld, threads %ld -> %ld, memory %zu -> %zu, free indices %d -> %d\n", times,
         before.handles, after.handles, before.threads, after.threads, before.memory, after.memory, before.free_indices,
         after.free_indices);
  ASSERT_GT(before.handles, 5) << "the count does not work";
  EXPECT_LE(after.handles, before.handles + 5);
  EXPECT_LE(after.threads, before.threads);
  EXPECT_LE(after.memory, before.memory + (size_t{128} << 10));
  ASSERT_GT(before.free_indices, 100) << "the count does not work";
  EXPECT_EQ(after.free_indices, before.free_indices);
}

// A registry with a mail client in it, and folders for the log.
struct Surroundings {
  explicit Surroundings(bool mail_client = true) {
    if (mail_client)
      ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, L"Software\\Clients\\Mail\\Microsoft Outlook", L"DLLPathEx",
                                 ModuleHost::ProviderPath());
  }
  ScratchRegistry registry;
  ScratchFolders folders;
};

// Microseconds that a thread of its own takes to start and end, on average.
double ThreadCost(int count) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    const HANDLE thread = CreateThread(
        nullptr, 0, [](LPVOID) -> DWORD { return 0; }, nullptr, 0, nullptr);
    WaitForSingleObject(thread, INFINITE);
    CloseHandle(thread);
  }
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
  return time.count() / count;
}

constexpr wchar_t kType[] = L"MAPI/ZK.Message";
constexpr wchar_t kName[] = L"FriendlyTypeName";

// When the type's key was last written.
ULONGLONG WrittenAt() {
  HKEY key = nullptr;
  FILETIME time = {};
  RegOpenKeyExW(HKEY_CLASSES_ROOT, kType, 0, KEY_READ, &key);
  RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                   &time);
  RegCloseKey(key);
  return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

size_t CountInLog(const std::string& words) {
  const std::string log = ModuleHost::LogText();
  size_t count = 0;
  for (size_t at = 0; (at = log.find(words, at)) != std::string::npos; at += words.size()) ++count;
  return count;
}

TEST(Attach, OfEveryThreadPutsRightWhatDiffersAndWritesNothingElse) {
  ModuleHost host;
  ASSERT_TRUE(host.loaded());
  const RegistryTree whole = ModuleHives();
  RegDeleteKeyW(HKEY_CLASSES_ROOT, kType);
  ThreadCost(1);
  EXPECT_EQ(ModuleHives(), whole) << "what was removed is there again after the next thread's start";
  ScratchRegistry::SetString(HKEY_CLASSES_ROOT, kType, kName, L"Another name");
  ThreadCost(1);
  EXPECT_EQ(ModuleHives(), whole);

  const std::string row = std::string("--- TY ItemType [MAPI/ZK.Message] ---"),
                    policy = "DetectWDSGroupPolicy() - Exit";
  const ULONGLONG written = WrittenAt();
  const size_t rows = CountInLog(row), policies = CountInLog(policy);
  ASSERT_GT(written, 0u);
  ThreadCost(50);
  EXPECT_EQ(CountInLog(row), rows + 50);
  EXPECT_EQ(CountInLog(policy), policies + 50);
  EXPECT_EQ(WrittenAt(), written);
  EXPECT_EQ(ModuleHives(), whole);
}

TEST(Attach, OfAThousandThreadsIsCheapAndKeepsNothing) {
  // By turns, so that what else the machine does falls on both alike; the best of each counts.
  double without = 1e9, with = 1e9;
  constexpr int kRounds = 10;
  Holdings first;
  for (int round = 0; round < kRounds; ++round) {
    without = std::min(without, ThreadCost(100));
    {
      const ModuleHost host;
      ASSERT_TRUE(host.loaded());
      ThreadCost(1);
      const Holdings before = Count();
      with = std::min(with, ThreadCost(100));
      ExpectLevel(before, Count(), 100);
      // A policy large enough to be missed if it were not given back with the module, or kept once for every thread.
      for (const wchar_t* name : {L"ExcludedExtensionsMultiline0", L"ExcludedExtensionsMultiline3"})
        ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, L"Software\\Policies\\Microsoft\\Windows\\Windows Search", name,
                                   std::wstring(50'000, L'X'));
      ThreadCost(5);
    }
    if (round == 0) first = Count();
  }
  ExpectLevel(first, Count(), kRounds);
  printf("a thread: %.1f us without the module, %.1f us with it\n", without, with);
  EXPECT_LT(with, without + 4'000);
}

// A host's site. When it throws, the module's runtime has an exception to handle.
class Site final : public IProtocolHandlerSite {
 public:
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP GetFilter(CLSID*, LPCWSTR, LPCWSTR, IFilter**) override { throw std::runtime_error("a host's fault"); }
};

// Reads an item, and what it links to. How many messages could be read up to where the site throws.
int ReadMessages(ISearchProtocol* protocol, const std::wstring& url) {
  Item item(protocol, url);
  if (FAILED(item.result) || item.Bind() != S_OK) return 0;
  const std::vector<Chunk> chunks = item.ReadAll();
  int messages = !chunks.empty() && item.last == E_FAIL;
  for (const Chunk& chunk : chunks)
    if (chunk.fmtid == 0x0B63E343) messages += ReadMessages(protocol, chunk.text);
  return messages;
}

template <class Function>
Function Find(HMODULE module, const char* name) {
  return reinterpret_cast<Function>(reinterpret_cast<void (*)()>(GetProcAddress(module, name)));
}

// All that a search host does with the module between loading and unloading it.
void Use(HMODULE module, const std::wstring& vault) {
  constexpr CLSID kClass = {0x6E2F0B6A, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};
  const auto get = Find<LPFNGETCLASSOBJECT>(module, "DllGetClassObject");
  Microsoft::WRL::ComPtr<IClassFactory> factory;
  ASSERT_EQ(get(kClass, IID_IClassFactory, &factory), S_OK);
  Microsoft::WRL::ComPtr<ISearchProtocol> protocol;
  ASSERT_EQ(factory->CreateInstance(nullptr, __uuidof(ISearchProtocol), &protocol), S_OK);
  Site site;
  TIMEOUT_INFO timeouts = {};
  PROXY_INFO proxy = {};
  ASSERT_EQ(protocol->Init(&timeouts, &site, &proxy), S_OK);
  ASSERT_EQ(ReadMessages(protocol.Get(), vault), 1);
  EXPECT_EQ(protocol->ShutDown(), S_OK);
}

TEST(Attach, UseAndDetachLeaveNothingBehindHoweverOften) {
  const Surroundings surroundings;
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  // Looking for a server that is not registered costs Wine two handles each time.
  auto index = std::make_unique<ClassDouble>(CLSID_CSearchManager, [](REFIID, void** object) {
    *object = nullptr;
    return REGDB_E_CLASSNOTREG;
  });
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("HoardexAttachTest" + std::to_string(GetCurrentProcessId()));
  std::filesystem::create_directories(folder);
  ScratchRegistry::SetString(HKEY_CURRENT_USER, L"SOFTWARE\\Trelmo\\Zarnak\\Client\\Vault", L"HXRootDirectory",
                             folder.parent_path().wstring());
  vault::StoreBuilder store("items");
  store.top().AddFolder("Inbox").AddMessage("IPM.Note").Subject("Invoice 17").AttachFile("a.txt", "17");
  store.Write(folder / "items.db");
  const std::wstring vault = L"zkoffline3x://{S-1-5-21-1}/default/" + (folder / "items.db").wstring();
  Holdings before;
  constexpr int kWarmUp = 20, kTimes = 500;
  for (int i = 0; i < kTimes; ++i) {
    const HMODULE module = LoadLibraryW(ModuleHost::ModulePath().c_str());
    ASSERT_NE(module, nullptr) << i;
    ASSERT_NO_FATAL_FAILURE(Use(module, vault));
    ProviderFaults::Clear();  // or its record of calls would grow
    ASSERT_EQ(Find<LPFNCANUNLOADNOW>(module, "DllCanUnloadNow")(), S_OK);
    ASSERT_TRUE(FreeLibrary(module));
    ASSERT_EQ(GetModuleHandleW(L"HoardexPH.dll"), nullptr) << "still loaded";
    if (i == kWarmUp) before = Count();
  }
  ExpectLevel(before, Count(), kTimes);
  std::filesystem::remove_all(folder);
  index.reset();
  CoUninitialize();
}

TEST(Attach, RefusedWithoutMapiLeavesNothingBehind) {
  const Surroundings surroundings(false);
  Holdings before;
  constexpr int kWarmUp = 10, kTimes = 100;
  for (int i = 0; i < kTimes; ++i) {
    SetLastError(0);
    ASSERT_EQ(LoadLibraryW(ModuleHost::ModulePath().c_str()), nullptr);
    ASSERT_EQ(GetLastError(), DWORD{ERROR_DLL_INIT_FAILED});
    if (i == kWarmUp) before = Count();
  }
  ExpectLevel(before, Count(), kTimes);
  EXPECT_FALSE(ScratchRegistry::Exists(HKEY_CLASSES_ROOT, L"MAPI/ZK.Message")) << "nothing else runs";
}

// What the next test starts: a host that ends while the module is loaded, in use and called.
TEST(Attach, DISABLED_ChildThatEndsWithTheModuleLoaded) {
  const Surroundings surroundings;
  const HMODULE module = LoadLibraryW(ModuleHost::ModulePath().c_str());
  const FARPROC get = module ? GetProcAddress(module, "UpdateWDSRegKeyForHX") : nullptr;
  if (!get) ExitProcess(1);
  HANDLE running = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  struct Work {
    FARPROC call;
    HANDLE running;
  } work = {get, running};
  // Logs all the time, so that the process ends while the log is held.
  CreateThread(
      nullptr, 0,
      [](LPVOID argument) -> DWORD {
        const auto& work = *static_cast<Work*>(argument);
        for (;;) {
          work.call();
          SetEvent(work.running);
        }
      },
      &work, 0, nullptr);
  WaitForSingleObject(running, 10000);
  ExitProcess(7);
}

TEST(Attach, OfAHostThatEndsWithoutUnloadingDoesNotKeepIt) {
  wchar_t path[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  for (int i = 0; i < 5; ++i) {
    const ChildResult result =
        RunChild(L"\"" + std::wstring(path) +
                     L"\" --gtest_also_run_disabled_tests --gtest_filter=*ChildThatEndsWithTheModuleLoaded",
                 20000);
    EXPECT_TRUE(result.ended) << "hung";
    EXPECT_EQ(result.code, 7u) << result.output;
  }
}

}  // namespace
