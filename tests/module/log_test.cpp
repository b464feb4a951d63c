#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <vector>

#include "module/core/SCLog.h"
#include "tests/support/child_process.h"
#include "tests/support/import_hook.h"
#include "tests/support/scratch_registry.h"
#include "tests/support/thread.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\folder\\LogTest";
constexpr char kBannerStart[] = "-------------------- REWINDING";

// A log file of its own, absent at the start.
class LogFile : public testing::Test {
 protected:
  LogFile() {
    // The path comes from the logger itself, so the file is written once and removed again.
    SCLog probe(name_);
    path_ = probe.path();
    first_line_ = Content().size();
  }
  void SetUp() override { ASSERT_TRUE(DeleteFileW(path_.c_str())); }
  void TearDown() override { DeleteFileW(path_.c_str()); }

  void Line(SCLog& log, const wchar_t* text) {
    log.SetFileLine(kLogSource, 7);
    log.Log(SCLog::kOrdinary, L"%s", text);
  }
  void Fill(size_t size) {
    std::ofstream file(std::string(path_.begin(), path_.end()), std::ios::binary);
    file << std::string(size, 'x');
  }
  std::string Content() {
    std::ifstream file(std::string(path_.begin(), path_.end()), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  // Another thread can log: the lock was let go. A thread that waits for ever is left to the end of the process.
  static void ExpectLockFree(SCLog& log) {
    const HANDLE thread = StartLine<SCLog::kDetail>(log);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(WaitForSingleObject(thread, 20'000), WAIT_OBJECT_0) << "the log's lock was kept";
    CloseHandle(thread);
  }
  // A thread that writes a line.
  template <int level>
  static HANDLE StartLine(SCLog& log) {
    const auto write = [](void* of) -> DWORD {
      static_cast<SCLog*>(of)->SetFileLine(kLogSource, 1);
      static_cast<SCLog*>(of)->Log(level, L"started");
      return 0;
    };
    return CreateThread(nullptr, 0, write, &log, 0, nullptr);
  }
  // Keeps every other opener out.
  HANDLE OpenExclusively(DWORD flags = 0) {
    const HANDLE file = CreateFileW(path_.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_ALWAYS, flags, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    return file;
  }

  const wchar_t* name_ = L"HoardexLogTest.log";
  std::wstring path_;
  size_t first_line_ = 0;  // bytes of the line that names the process
};

TEST_F(LogFile, WritesLinesInOneForm) {
  {
    SCLog log(name_);
    Line(log, L"message \x3b1\xd83d\xde00");
  }
  const std::string content = Content();
  EXPECT_NE(content.find(" SCLog(112):PID:"), std::string::npos);
  EXPECT_NE(content.find("] LogTest(7):message \xce\xb1\xf0\x9f\x98\x80 \r\n"), std::string::npos);
  char start[32];
  snprintf(start, sizeof(start), "[%lu][0][2", GetCurrentProcessId());
  EXPECT_EQ(content.find(start), 0u);
  const std::string separator(56, '-');
  EXPECT_EQ(content.substr(content.size() - 59), separator + " \r\n");
}

// The size rules differ by one byte: at opening the limit itself rewinds, silently; after a line only what lies beyond
// it does, and says so.
TEST_F(LogFile, RewindsByItsTwoSizeRules) {
  constexpr size_t kLimit = SCLog::kRewindAt;
  Fill(kLimit);
  {
    SCLog log(name_);
    EXPECT_EQ(Content().rfind("[", 0), 0u);
    EXPECT_EQ(Content().size(), kLimit) << "rewinding must not truncate";
    EXPECT_EQ(Content().find(kBannerStart), std::string::npos);
  }
  Fill(kLimit - first_line_);
  {
    SCLog log(name_);
    EXPECT_EQ(Content().size(), kLimit);
    EXPECT_EQ(Content().find(kBannerStart), std::string::npos);
    Line(log, L"behind the limit");
    const std::string content = Content();
    EXPECT_EQ(content[0], 'x');
    EXPECT_NE(content.find("behind the limit", kLimit), std::string::npos);
    EXPECT_NE(content.find(kBannerStart, kLimit), std::string::npos);
  }
  Fill(kLimit - first_line_ + 1);
  {
    SCLog log(name_);
    const std::string content = Content();
    EXPECT_EQ(content.find(kBannerStart), kLimit + 1);
    EXPECT_EQ(content.substr(kLimit + 1 + 89), " \r\n");
    Line(log, L"at the start again");
    EXPECT_EQ(Content().rfind("[", 0), 0u);
    EXPECT_LT(Content().find("at the start again"), 200u);
    EXPECT_EQ(Content().size(), content.size()) << "old lines stay until they are written over";
  }
}

TEST_F(LogFile, CutsWhatIsTooLongAndKeepsWhatNoCodePageHas) {
  SCLog log(name_);
  Line(log, std::wstring(5000, L'y').c_str());
  std::string content = Content();
  EXPECT_NE(content.find(std::string(2047, 'y') + " \r\n"), std::string::npos);
  EXPECT_EQ(content.find(std::string(2048, 'y')), std::string::npos);
  // The longest line there can be in bytes, and halves of surrogate pairs, one of them made by the cut.
  Line(log, std::wstring(2047, L'\x4e2d').c_str());
  Line(log, (L"<\xdc00\xd83d>" + std::wstring(2041, L'z') + L"\xd83d\xde00").c_str());
  content = Content();
  std::string wide;
  for (int i = 0; i < 2047; ++i) wide += "\xe4\xb8\xad";
  EXPECT_NE(content.find(":" + wide + " \r\n"), std::string::npos);
  EXPECT_NE(content.find("<\xef\xbf\xbd\xef\xbf\xbd>zzz"), std::string::npos);
  ExpectLockFree(log);
}

TEST_F(LogFile, DropsLinesWhileTheFileCannotBeOpenedAndGoesOnAfterwards) {
  HANDLE exclusive = OpenExclusively();
  SCLog log(name_);
  Line(log, L"dropped");
  ExpectLockFree(log);
  CloseHandle(exclusive);
  EXPECT_EQ(Content(), "");
  // Dropping a detail line opens nothing: the file would be made anew.
  ASSERT_TRUE(DeleteFileW(path_.c_str()));
  log.SetFileLine(kLogSource, 1);
  log.Log(SCLog::kDetail, L"%s", L"never written");
  ExpectLockFree(log);
  EXPECT_EQ(GetFileAttributesW(path_.c_str()), INVALID_FILE_ATTRIBUTES);
  Line(log, L"written");
  EXPECT_NE(Content().find("LogTest(7):written \r\n"), std::string::npos);

  SCLog nowhere(L"no such folder\\x.log");
  Line(nowhere, L"dropped");
  ExpectLockFree(nowhere);
  EXPECT_EQ(GetFileAttributesW(nowhere.path()), INVALID_FILE_ATTRIBUTES);
}

// The folder comes from the user's shell folders; without one the log lies in the current directory.
TEST_F(LogFile, StandsWhereTheUsersFolderIsOrElseHere) {
  constexpr wchar_t kFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";
  const ScratchRegistry registry;
  registry.SetString(HKEY_CURRENT_USER, kFolders, L"Local AppData", L"Q:\\not there");
  {
    SCLog log(name_);
    EXPECT_STREQ(log.path(), name_);
    EXPECT_NE(GetFileAttributesW(name_), INVALID_FILE_ATTRIBUTES);
  }
  EXPECT_TRUE(DeleteFileW(name_));
  EXPECT_EQ(std::wstring(SCLog(nullptr).path()), L"ZK.log");
  EXPECT_TRUE(DeleteFileW(L"ZK.log"));
  // A device that is always full.
  if (GetFileAttributesW(L"Z:\\dev\\full") == INVALID_FILE_ATTRIBUTES) return;
  registry.SetString(HKEY_CURRENT_USER, kFolders, L"Local AppData", L"Z:\\dev");
  SCLog log(L"full");
  ASSERT_STREQ(log.path(), L"Z:\\dev\\full");
  Line(log, L"no room");
  ExpectLockFree(log);
}

TEST_F(LogFile, KeepsLinesOfSeveralThreadsWhole) {
  constexpr int kThreads = 4, kLines = 200;
  {
    SCLog log(name_);
    std::vector<Thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&log, t] {
        for (int i = 0; i < kLines; ++i) {
          log.SetFileLine(kLogSource, t);
          log.Log(SCLog::kOrdinary, L"thread %d line %d end", t, i);
        }
      });
    for (Thread& thread : threads) thread.join();
  }
  const std::string content = Content();
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i) {
      char line[80];
      snprintf(line, sizeof(line), "LogTest(%d):thread %d line %d end \r\n", t, t, i);
      ASSERT_NE(content.find(line), std::string::npos) << line;
    }
}

TEST_F(LogFile, AsksTheSystemForItsLockOnlyWhenAnotherThreadHasIt) {
  SCLog log(name_);
  const DWORD alone = GetCurrentThreadId();
  std::atomic<int> lone_waits = 0, endless_waits = 0;
  const ZK_IMPORT_HOOK(WaitForSingleObject) waits([&](auto real, HANDLE handle, DWORD milliseconds) {
    (GetCurrentThreadId() == alone ? lone_waits : endless_waits) += milliseconds == INFINITE;
    return real(handle, milliseconds);
  });
  for (int i = 0; i < 100; ++i) Line(log, L"alone");
  EXPECT_EQ(lone_waits, 0);
  log.SetFileLine(kLogSource, 8);
  const HANDLE others[] = {StartLine<SCLog::kOrdinary>(log), StartLine<SCLog::kOrdinary>(log)};
  EXPECT_EQ(WaitForMultipleObjects(2, others, FALSE, 200), DWORD{WAIT_TIMEOUT}) << "the lock was not kept";
  EXPECT_EQ(endless_waits, 2);
  log.Log(SCLog::kOrdinary, L"first");
  EXPECT_EQ(WaitForMultipleObjects(2, others, TRUE, 20'000), WAIT_OBJECT_0);
  for (const HANDLE other : others) CloseHandle(other);
  EXPECT_LT(Content().find("(8):first"), Content().find("(1):started"));
}

TEST_F(LogFile, OutlivesAThreadThatIsEndedInTheMiddleOfALine) {
  SCLog log(name_);
  for (const bool contended : {false, true}) {
    if (contended) log.SetFileLine(kLogSource, 1);
    const auto take = [](void* of) -> DWORD {
      static_cast<SCLog*>(of)->SetFileLine(kLogSource, 1);
      Sleep(INFINITE);
      return 0;
    };
    const HANDLE thread = CreateThread(nullptr, 0, take, &log, 0, nullptr);
    Sleep(100);
    if (contended) log.Log(SCLog::kDetail, L"");
    Sleep(100);
    TerminateThread(thread, 0);
    EXPECT_EQ(WaitForSingleObject(thread, 20'000), WAIT_OBJECT_0);
    CloseHandle(thread);
    ExpectLockFree(log);
  }
}

// The other side of the next test: a process of its own with the same file.
TEST(LogOfAnotherProcess, DISABLED_Writes) {
  SCLog log(L"HoardexLogTest.log");
  for (int i = 0; i < 300; ++i) {
    log.SetFileLine(kLogSource, 9);
    log.Log(SCLog::kOrdinary, L"process %lu line %d end", GetCurrentProcessId(), i);
  }
  EXPECT_NE(GetFileAttributesW(log.path()), INVALID_FILE_ATTRIBUTES);
}

// Processes share the file without a lock and each writes at its own place, so lines may cover one another; but nobody
// is kept out, nothing is truncated, and whoever writes last is whole.
TEST_F(LogFile, IsSharedByProcesses) {
  Fill(100'000);
  wchar_t program[MAX_PATH] = {};
  GetModuleFileNameW(nullptr, program, MAX_PATH);
  const std::wstring command =
      L"\"" + std::wstring(program) +
      L"\" --gtest_also_run_disabled_tests --gtest_filter=LogOfAnotherProcess.DISABLED_Writes --gtest_brief=1";
  ChildResult results[3];
  std::vector<Thread> processes;
  for (ChildResult& result : results) processes.emplace_back([&] { result = RunChild(command, 60'000); });
  {
    SCLog log(name_);
    for (int i = 0; i < 300; ++i) Line(log, L"of this process");
    processes.clear();
    for (const ChildResult& result : results)
      EXPECT_TRUE(result.ended && result.code == 0) << "a process that shares the log was disturbed" << result.output;
    const size_t size = Content().size();
    Line(log, L"the last");
    EXPECT_GE(Content().size(), size);
  }
  const std::string content = Content();
  EXPECT_EQ(content.substr(0, 100'000), std::string(100'000, 'x'));
  EXPECT_GE(content.size(), 100'000 + 300 * std::string("LogTest(9):process 1 line 1 end").size());
  EXPECT_EQ(content.find('\0'), std::string::npos);
  EXPECT_NE(content.find("LogTest(7):the last \r\n"), std::string::npos);
}

const wchar_t* LogsItself() {
  ZK_LOG(L"from inside an argument");
  return L"argument";
}

TEST(LogStatement, EvaluatesArgumentsBeforeTheLockIsTaken) {
  // A deadlock here would hang until the test's time is up.
  Thread([] { ZK_LOG(L"%s", LogsItself()); }).join();
  bool evaluated = false;
  ZK_LOG_DETAIL(L"%s", (evaluated = true, L"x"));
  EXPECT_FALSE(evaluated) << "a statement above the threshold must cost nothing";
}

}  // namespace
