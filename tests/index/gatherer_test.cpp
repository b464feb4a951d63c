#include "index/gatherer.h"

#include <gmock/gmock.h>

#include <deque>
#include <map>

#include "support.h"

namespace hoardex::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// A fixed list of URLs.
class ListSource : public WorkSource {
 public:
  std::optional<WorkItem> Next() override {
    if (urls.empty()) return std::nullopt;
    WorkItem item{++number_, urls.front()};
    urls.pop_front();
    return item;
  }
  void Answered(const WorkItem& item, nlohmann::json record, const std::string&) override {
    answered[item.url] = record.value("text", "");
  }
  void Lost(const WorkItem& item, const std::string& reason) override { lost[item.url] = reason; }

  std::deque<std::string> urls;
  std::map<std::string, std::string> answered, lost;

 private:
  int64_t number_ = 0;
};

class GathererTest : public testing::Test {
 protected:
  GathererTest() : corpus_(scratch_) {
    const std::string folder = corpus_.AddFolder(corpus_.AddVault("v"), "AA", "Inbox");
    for (int i = 0; i < 40; ++i)
      urls_.push_back(corpus_.AddMessage(folder, std::to_string(100 + i), {}, "text " + std::to_string(i)));
  }

  GatherResult Gather() {
    corpus_.Save();
    options_.command = corpus_.Options().command;
    options_.log = corpus_.Options().log;
    source_.urls.assign(urls_.begin(), urls_.end());
    return Gatherer(options_).Run(source_);
  }

  Scratch scratch_;
  Corpus corpus_;
  std::vector<std::string> urls_;
  ListSource source_;
  GatherOptions options_;
};

TEST_F(GathererTest, LargeRecordsComeWhole) {
  const std::string large(3 << 20, 'x');
  corpus_.item(urls_[5])["text"] = large;
  Gather();
  EXPECT_EQ(source_.answered[urls_[5]], large);
  EXPECT_EQ(source_.answered[urls_[39]], "text 39");
}

// Everything but the one item comes, once and whole; what ended the host is asked for twice.
TEST_F(GathererTest, AnItemThatMisbehavesCostsOnlyItself) {
  const struct {
    size_t item;
    const char *fault, *reason;
  } kCases[] = {{7, "die", "signal 11"},
                {20, "hang", "no answer for 0.5 s"},
                {3, "mute", "no answer"},
                {11, "garble", "not a record"}};
  for (const auto& [item, fault, reason] : kCases) {
    SCOPED_TRACE(fault);
    options_.answer_timeout = std::chrono::milliseconds(fault == std::string("die") ? 60'000 : 500);
    source_.answered.clear();
    source_.lost.clear();
    corpus_.Requests();
    corpus_.ClearFaults();
    corpus_.Fault(urls_[item], fault);
    Gather();
    EXPECT_EQ(source_.answered.size(), urls_.size() - 1);
    EXPECT_THAT(source_.lost, ElementsAre(Pair(urls_[item], HasSubstr(reason))));
    EXPECT_EQ(std::ranges::count(corpus_.Requests(), urls_[item]), 2);
  }
}

TEST_F(GathererTest, OneDeathIsForgiven) {
  corpus_.Fault(urls_[7], "exit", 1);
  Gather();
  EXPECT_EQ(source_.answered.size(), urls_.size());
  EXPECT_TRUE(source_.lost.empty());
}

TEST_F(GathererTest, SeveralBadItemsAreAllFound) {
  for (int i : {0, 1, 17, 39}) corpus_.Fault(urls_[static_cast<size_t>(i)], "die");
  Gather();
  EXPECT_EQ(source_.answered.size(), urls_.size() - 4);
  EXPECT_EQ(source_.lost.size(), 4u);
}

TEST_F(GathererTest, AHostThatNeverStartsIsAnError) {
  corpus_.Fault("start", "exit");
  try {
    Gather();
    FAIL();
  } catch (const HostError& error) {
    EXPECT_THAT(error.what(), HasSubstr("status 3"));
    EXPECT_THAT(error.what(), HasSubstr("fake host: started"));
  }
  EXPECT_TRUE(source_.answered.empty());
}

TEST_F(GathererTest, AStartThatFailsTwiceIsTriedAgain) {
  corpus_.Fault("start", "exit", 2);
  EXPECT_EQ(Gather(), GatherResult::kFinished);
  EXPECT_EQ(source_.answered.size(), urls_.size());
}

TEST_F(GathererTest, AMissingProgramIsAnError) {
  GatherOptions options;
  options.command = {"/nonexistent/host"};
  EXPECT_THROW(Gatherer(options).Roots(), HostError);
}

}  // namespace
}  // namespace hoardex::test
