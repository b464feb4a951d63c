// The queue of changes: what was acknowledged is there, whatever happens.
#include <gmock/gmock.h>

#include <random>

#include "tests/winindex/index_server.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class IndexQueue : public testing::Test, protected IndexServer {};

TEST_F(IndexQueue, KeepsOrderUntilTakenAway) {
  EXPECT_THAT(Queued(), IsEmpty());
  EXPECT_EQ(Queue()->TakeAway(1), S_FALSE);
  const auto sink = Sink();
  EXPECT_EQ(sink->StartedMonitoringScope(L"zk://a/"), S_OK);
  EXPECT_EQ(Notify(SEARCH_CHANGE_ADD, L"zk://a/\tb\\n\n\x6771\x4EAC"), S_OK);
  EXPECT_EQ(Notify(SEARCH_CHANGE_MODIFY, L"zk://elsewhere/"), S_OK) << "outside the scope that is monitored";
  EXPECT_EQ(sink->StoppedMonitoringScope(L"zk://a/"), S_OK);
  EXPECT_EQ(Notify(SEARCH_CHANGE_DELETE, std::wstring(32'000, L'x')), S_OK);
  std::vector<ULONGLONG> ids;
  EXPECT_THAT(Queued(&ids), ElementsAre(Pair(SEARCH_CHANGE_ADD, L"zk://a/\tb\\n\n\x6771\x4EAC"),
                                        Pair(SEARCH_CHANGE_MODIFY, L"zk://elsewhere/"),
                                        Pair(SEARCH_CHANGE_DELETE, std::wstring(32'000, L'x'))));
  EXPECT_LT(ids.back(), 1ULL << 53);

  QUEUED_CHANGE* list = nullptr;
  ULONG count = 0;
  BOOL more = FALSE;
  ASSERT_EQ(Queue()->Read(1, &list, &count, &more), S_OK);
  EXPECT_EQ(count, 1u);
  EXPECT_TRUE(more);
  EXPECT_EQ(list[0].id, ids[0]);
  CoTaskMemFree(list[0].url);
  CoTaskMemFree(list);

  EXPECT_EQ(Queue()->TakeAway(ids[1]), S_OK);
  EXPECT_EQ(Queue()->TakeAway(ids[1]), S_FALSE);
  EXPECT_EQ(Queued().size(), 1u);
  EXPECT_EQ(Queue()->TakeAway(ids[2]), S_OK);
  EXPECT_FALSE(Exists(data() + L"\\Hoardex"));
  std::vector<ULONGLONG> later;
  EXPECT_EQ(Notify(SEARCH_CHANGE_ADD, L"zk://a/"), S_OK);
  Queued(&later);
  EXPECT_GT(later.front(), ids.back()) << "a number was given again";
}

TEST_F(IndexQueue, EveryChangeGetsItsOwnCode) {
  wchar_t good[] = L"zk://good/", old[] = L"zk://old/", empty[] = L"";
  std::wstring endless(40'000, L'x');
  const auto directory = static_cast<SEARCH_KIND_OF_CHANGE>(SEARCH_CHANGE_MODIFY | 0x40000);
  SEARCH_ITEM_PERSISTENT_CHANGE changes[] = {
      {SEARCH_CHANGE_ADD, good, nullptr, SEARCH_HIGH_PRIORITY},
      {SEARCH_CHANGE_ADD, nullptr, nullptr, SEARCH_NORMAL_PRIORITY},
      {SEARCH_CHANGE_ADD, empty, nullptr, SEARCH_NORMAL_PRIORITY},
      {SEARCH_CHANGE_ADD, endless.data(), nullptr, SEARCH_NORMAL_PRIORITY},
      {static_cast<SEARCH_KIND_OF_CHANGE>(4), good, nullptr, SEARCH_NORMAL_PRIORITY},
      {SEARCH_CHANGE_MOVE_RENAME, good, old, SEARCH_NORMAL_PRIORITY},
      {SEARCH_CHANGE_MOVE_RENAME, good, nullptr, SEARCH_NORMAL_PRIORITY},
      {directory, good, nullptr, SEARCH_NORMAL_PRIORITY},
  };
  HRESULT codes[8];
  EXPECT_EQ(Sink()->OnItemsChanged(8, changes, codes), static_cast<HRESULT>(0x80040E21));
  EXPECT_THAT(codes,
              ElementsAre(S_OK, E_INVALIDARG, E_INVALIDARG, E_INVALIDARG, E_INVALIDARG, S_OK, E_INVALIDARG, S_OK));
  EXPECT_THAT(Queued(), ElementsAre(Pair(SEARCH_CHANGE_ADD, good), Pair(SEARCH_CHANGE_DELETE, old),
                                    Pair(SEARCH_CHANGE_ADD, good), Pair(SEARCH_CHANGE_MODIFY, good)));
  EXPECT_EQ(Sink()->OnItemsChanged(0, nullptr, nullptr), S_OK);
  EXPECT_EQ(Sink()->OnItemsChanged(1, nullptr, codes), E_INVALIDARG);
  EXPECT_EQ(Sink()->StartedMonitoringScope(nullptr), E_INVALIDARG);
  Fail(L"ISearchPersistentItemsChangedSink::OnItemsChanged=0x80040E21");
  codes[0] = E_PENDING;
  EXPECT_EQ(Sink()->OnItemsChanged(1, changes, codes), static_cast<HRESULT>(0x80040E21));
  EXPECT_EQ(codes[0], E_PENDING);
  Fail(nullptr);
  EXPECT_EQ(Queued().size(), 4u);
}

TEST_F(IndexQueue, AHalfWrittenLineIsNoChange) {
  WriteQueueFile("5\tadd\tzk://a/\n7\tmodify\tzk://b/\n9\tdelete\tzk://al");
  EXPECT_THAT(Queued(), ElementsAre(Pair(SEARCH_CHANGE_ADD, L"zk://a/"), Pair(SEARCH_CHANGE_MODIFY, L"zk://b/")));
  EXPECT_EQ(Notify(SEARCH_CHANGE_DELETE, L"zk://c/"), S_OK);
  EXPECT_THAT(Queued(), ElementsAre(Pair(SEARCH_CHANGE_ADD, L"zk://a/"), Pair(SEARCH_CHANGE_MODIFY, L"zk://b/"),
                                    Pair(SEARCH_CHANGE_DELETE, L"zk://c/")));
}

// Lines that others made up neither end the reader nor hide what comes after them.
TEST_F(IndexQueue, SurvivesAHostileFile) {
  const std::string bad =
      "\n\t\n9\n9\tadd\n9\trename\tx\n-1\tadd\tx\n99999999999999999999\tadd\tx\n9007199254740991\tadd\tx\n1x\tadd\tx\n"
      "4\tadd\t\n4\tadd\ta\tb\n\\\n";
  WriteQueueFile(bad + "4\tadd\tzk://a/\n4\tadd\tzk://again/\n3\tadd\tzk://older/\n");
  EXPECT_THAT(Queued(), ElementsAre(Pair(SEARCH_CHANGE_ADD, L"zk://a/")));
  std::mt19937 random(7);
  for (int round = 0; round < 60; ++round) {
    std::string bytes(random() % 5000, '\0');
    constexpr char kLikely[] = "\n\n\t\\0123456789addmodify";
    for (char& byte : bytes)
      byte = random() % 2 ? kLikely[random() % (sizeof(kLikely) - 1)] : static_cast<char>(random());
    WriteQueueFile(bytes);
    const size_t before = Queued().size();
    ASSERT_EQ(Notify(SEARCH_CHANGE_ADD, L"zk://new/"), S_OK);
    const Changes after = Queued();
    ASSERT_EQ(after.size(), before + 1);
    ASSERT_EQ(after.back().second, L"zk://new/");
  }
  WriteQueueFile(std::string(3 << 20, 'x'));
  EXPECT_EQ(Notify(SEARCH_CHANGE_ADD, L"zk://new/"), S_OK);
  EXPECT_EQ(Queued().size(), 1u);
  // Behind the largest number nothing can be queued that would be read; that is told, and ends with the queue.
  WriteQueueFile(std::to_string((1ULL << 53) - (1ULL << 40)) + "\tadd\tzk://last/\n");
  EXPECT_HRESULT_FAILED(Notify(SEARCH_CHANGE_ADD, L"zk://lost/"));
  EXPECT_EQ(Queued().size(), 1u);
  WriteQueueFile("");
}

// A process that queues changes until it is killed, and writes a byte after each that was acknowledged.
class Writer {
 public:
  explicit Writer(const wchar_t* name) {
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    HANDLE output = nullptr;
    CreatePipe(&read_, &output, &inherit, 1 << 20);
    wchar_t self[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring line = L"\"" + std::wstring(self) + L"\" --write " + name;
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    PROCESS_INFORMATION process = {};
    EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process));
    CloseHandle(process.hThread);
    CloseHandle(output);
    process_ = process.hProcess;
  }
  ~Writer() { CloseHandle(read_); }

  int Acknowledged(int at_least) {
    char bytes[256];
    for (DWORD got = 0; acknowledged_ < at_least; acknowledged_ += static_cast<int>(got))
      if (!ReadFile(read_, bytes, sizeof(bytes), &got, nullptr)) break;
    return acknowledged_;
  }
  void Kill() {
    TerminateProcess(process_, 1);
    WaitForSingleObject(process_, 10'000);
    CloseHandle(process_);
  }

 private:
  HANDLE read_ = nullptr, process_ = nullptr;
  int acknowledged_ = 0;
};

int WriteUntilKilled(const std::wstring& name) {
  const IndexServer server(false);
  for (int i = 0; i < 100'000; ++i) {
    if (server.Notify(SEARCH_CHANGE_MODIFY, name + std::to_wstring(i)) != S_OK) return 1;
    DWORD put = 0;
    if (!WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), ".", 1, &put, nullptr)) return 1;
  }
  return 0;
}

TEST_F(IndexQueue, LosesNothingThatWasAcknowledgedWhenItsWritersAreKilled) {
  Writer first(L"first"), second(L"second");
  EXPECT_GE(first.Acknowledged(40), 40);
  EXPECT_GE(second.Acknowledged(20), 20);
  first.Kill();
  EXPECT_EQ(Notify(SEARCH_CHANGE_ADD, L"between"), S_OK) << "a killed process kept the lock";
  second.Kill();
  const int all_first = first.Acknowledged(1'000'000), all_second = second.Acknowledged(1'000'000);
  int found_first = 0, found_second = 0;
  for (const auto& [kind, url] : Queued()) {
    if (url.rfind(L"first", 0) == 0) {
      EXPECT_EQ(url, L"first" + std::to_wstring(found_first++));
    }
    if (url.rfind(L"second", 0) == 0) {
      EXPECT_EQ(url, L"second" + std::to_wstring(found_second++));
    }
  }
  // One may have been written and not acknowledged any more.
  EXPECT_TRUE(found_first == all_first || found_first == all_first + 1) << found_first << " of " << all_first;
  EXPECT_TRUE(found_second == all_second || found_second == all_second + 1) << found_second << " of " << all_second;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--write")
    return WriteUntilKilled(std::wstring(argv[2], argv[2] + strlen(argv[2])));
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
