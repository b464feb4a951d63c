#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <thread>
#include <vector>

#include "module/core/SCLog.h"

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

  const wchar_t* name_ = L"HoardexLogTest.log";
  std::wstring path_;
};

TEST_F(LogFile, WritesLinesInTheLaidDownForm) {
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

TEST_F(LogFile, RewindsByItsTwoSizeRules) {
  // At opening, exactly the limit rewinds, silently.
  Fill(SCLog::kRewindAt);
  {
    SCLog log(name_);
    EXPECT_EQ(Content().rfind("[", 0), 0u);
    EXPECT_EQ(Content().size(), static_cast<size_t>(SCLog::kRewindAt)) << "rewinding must not truncate";
    EXPECT_EQ(Content().find(kBannerStart), std::string::npos);
  }
  // One byte less appends; the write then passes the limit, which is told, and the next line stands at the start.
  Fill(SCLog::kRewindAt - 1);
  {
    SCLog log(name_);
    EXPECT_EQ(Content()[0], 'x');
    EXPECT_NE(Content().find(kBannerStart), std::string::npos);
    Line(log, L"after the banner");
    EXPECT_EQ(Content().rfind("[", 0), 0u);
    EXPECT_LT(Content().find("after the banner"), 200u);
  }
}

TEST_F(LogFile, CutsWhatIsTooLongAndDropsDetail) {
  SCLog log(name_);
  const std::string before = Content();
  log.SetFileLine(kLogSource, 1);
  log.Log(SCLog::kDetail, L"%s", L"never written");
  EXPECT_EQ(Content(), before);
  Line(log, std::wstring(5000, L'y').c_str());
  const std::string content = Content();
  EXPECT_NE(content.find(std::string(2047, 'y') + " \r\n"), std::string::npos);
  EXPECT_EQ(content.find(std::string(2048, 'y')), std::string::npos);
}

TEST_F(LogFile, SurvivesAFileItCannotWrite) {
  Fill(10);
  SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_READONLY);
  {
    SCLog log(name_);
    Line(log, L"lost");
    Line(log, L"lost as well, with the lock free");
  }
  SetFileAttributesW(path_.c_str(), FILE_ATTRIBUTE_NORMAL);
  // Root may write read-only files; then the lines are there instead.
  SCLog nowhere(L"no such folder\\x.log");
  Line(nowhere, L"dropped");
  EXPECT_EQ(GetFileAttributesW(nowhere.path()), INVALID_FILE_ATTRIBUTES);
}

TEST_F(LogFile, KeepsLinesOfSeveralThreadsWhole) {
  constexpr int kThreads = 4, kLines = 200;
  {
    SCLog log(name_);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([&log, t] {
        for (int i = 0; i < kLines; ++i) {
          log.SetFileLine(kLogSource, t);
          log.Log(SCLog::kOrdinary, L"thread %d line %d end", t, i);
        }
      });
    for (std::thread& thread : threads) thread.join();
  }
  const std::string content = Content();
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i) {
      char line[80];
      snprintf(line, sizeof(line), "LogTest(%d):thread %d line %d end \r\n", t, t, i);
      ASSERT_NE(content.find(line), std::string::npos) << line;
    }
}

const wchar_t* LogsItself() {
  ZK_LOG(L"from inside an argument");
  return L"argument";
}

TEST(LogStatement, EvaluatesArgumentsBeforeTheLockIsTaken) {
  // A deadlock here would hang until the test's time is up.
  std::thread other([] { ZK_LOG(L"%s", LogsItself()); });
  other.join();
  bool evaluated = false;
  ZK_LOG_DETAIL(L"%s", (evaluated = true, L"x"));
  EXPECT_FALSE(evaluated) << "a statement above the threshold must cost nothing";
}

}  // namespace
