#include "index/crawl.h"

#include <gmock/gmock.h>
#include <signal.h>

#include "support.h"

namespace hoardex::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;

using CrawlTest = IndexTest;

TEST_F(CrawlTest, NothingIsReadAgainUnlessItChanged) {
  Crawl();
  corpus_.Requests();
  Crawl();
  EXPECT_THAT(corpus_.Requests(), ElementsAre(kRoot));
  EXPECT_EQ(counts_["archive"].messages_unchanged, 5);
  EXPECT_EQ(counts_["archive"].messages_new, 0);

  TouchVault();
  corpus_.SetLinkTime(sample_.inbox, sample_.party, kLater);
  corpus_.item(sample_.party)["text"] = "Rescheduled";
  Crawl();
  EXPECT_THAT(corpus_.Requests(),
              UnorderedElementsAre(kRoot, sample_.vault, sample_.inbox, sample_.sub, sample_.party));
  EXPECT_EQ(counts_["archive"].messages_new, 1);
  EXPECT_EQ(Hits("rescheduled"), 1);
  EXPECT_EQ(Hits("bring lanterns"), 0);
}

TEST_F(CrawlTest, WhatIsNoLongerListedLeavesTheIndex) {
  Crawl();
  TouchVault();
  corpus_.Unlist(sample_.inbox, sample_.sub);
  Crawl();
  EXPECT_EQ(removed_["archive"], 1);
  EXPECT_EQ(Hits("tents"), 0);
  EXPECT_THAT(Contents(File()), Not(HasSubstr("report.pdf")));

  corpus_.Unlist(kRoot, sample_.other_vault);
  CrawlOptions keep;
  keep.kept_vaults = {"second"};
  Crawl(keep);
  EXPECT_EQ(Hits("vault:second"), 1) << "a vault that cannot be seen at the moment was dropped";
  Crawl();
  EXPECT_EQ(Hits("vault:second"), 0);
}

TEST_F(CrawlTest, AFailedListingRemovesNothing) {
  Crawl();
  TouchVault();
  corpus_.item(sample_.inbox) = {{"error", {{"step", "GetChunk"}, {"code", "0x80004005"}, {"name", "E_FAIL"}}}};
  Crawl();
  EXPECT_EQ(Hits("lanterns"), 2);
  ASSERT_EQ(failures_.size(), 1u);
  EXPECT_EQ(failures_[0].url, sample_.inbox);
}

TEST_F(CrawlTest, ARenamedFolderRenamesThePathsBelow) {
  Crawl();
  TouchVault();
  corpus_.item(sample_.sub)["properties"]["System.ItemName"] = "Ledger";
  Crawl();
  EXPECT_EQ(Hits("folder:ledger"), 2);
  EXPECT_EQ(Hits("folder:zahlen"), 0);
}

TEST_F(CrawlTest, FailedItemsAreTriedAgainAndNoOthers) {
  const nlohmann::json good = corpus_.item(sample_.party);
  corpus_.item(sample_.party) = {{"error", {{"step", "GetText"}, {"name", "E_FAIL"}}},
                                 {"properties", {{"System.Subject", "Half"}}}};
  Crawl();
  ASSERT_EQ(failures_.size(), 1u);
  EXPECT_EQ(failures_[0].error, "GetText: E_FAIL");
  EXPECT_EQ(Hits("half"), 1) << "what a failed item did tell is searchable";
  EXPECT_EQ(counts_["archive"].messages_failed, 1);
  corpus_.item(sample_.party) = good;
  corpus_.Requests();
  Crawl();
  EXPECT_THAT(corpus_.Requests(), UnorderedElementsAre(kRoot, sample_.party));
  EXPECT_THAT(failures_, IsEmpty());
  EXPECT_EQ(Hits("half"), 0);
}

TEST_F(CrawlTest, AnItemThatEndsTheHostIsAskedForAgainOnlyOnDemand) {
  corpus_.Fault(sample_.cafe, "die");
  Crawl();
  ASSERT_EQ(failures_.size(), 1u);
  EXPECT_THAT(failures_[0].error, HasSubstr("signal 11"));
  EXPECT_EQ(counts_["archive"].messages_new, 4);
  corpus_.ClearFaults();
  corpus_.Requests();
  Crawl();
  EXPECT_THAT(corpus_.Requests(), ElementsAre(kRoot));
  CrawlOptions retry;
  retry.retry_lost = true;
  Crawl(retry);
  EXPECT_EQ(Hits("brulee"), 1);
  EXPECT_THAT(failures_, IsEmpty());
}

TEST_F(CrawlTest, LinksOfADumpInProgressAreNoVaults) {
  corpus_.AddVault("~dump-1-1");
  Crawl();
  EXPECT_THAT(Contents(File()), Not(HasSubstr("~dump")));
}

// SIGKILL right after each commit, and between commits; then the crawl goes on and ends with the same index.
TEST_F(CrawlTest, AKillAtAnyMomentLosesNothing) {
  Crawl({}, "whole.sqlite");
  const std::string whole = Contents(File("whole.sqlite"));
  const size_t requests = corpus_.Requests().size();
  int killed = 0;
  for (int moment = 1; moment <= static_cast<int>(requests) + 1; ++moment) {
    for (const size_t batch : {size_t{1}, size_t{3}}) {
      const std::string name = "killed-" + std::to_string(moment) + "-" + std::to_string(batch) + ".sqlite";
      corpus_.ClearFaults();
      if (batch == 3) corpus_.FaultAtRequest(moment, "kill_parent");
      corpus_.Requests();
      killed += IsKilledBy([&] {
        int commits = 0;
        CrawlOptions options;
        options.batch_items = batch;
        if (batch == 1) options.committed = [&] { ++commits == moment ? static_cast<void>(raise(SIGKILL)) : void(); };
        Crawl(options, name);
      });
      corpus_.ClearFaults();
      Crawl({}, name);
      ASSERT_EQ(Contents(File(name)), whole) << "killed at " << moment << ", batches of " << batch;
      EXPECT_EQ(counts_["archive"].messages_new + counts_["archive"].messages_unchanged, 5);
    }
  }
  EXPECT_GE(killed, static_cast<int>(requests));
}

TEST_F(CrawlTest, AResumedRunAsksOnlyForTheRest) {
  corpus_.FaultAtRequest(9, "kill_parent");
  ASSERT_TRUE(IsKilledBy([&] {
    CrawlOptions options;
    options.batch_items = 1;
    corpus_.Save();
    Store store(File(), Database::Mode::kCreate);
    GatherOptions gather = corpus_.Options();
    gather.window = 1;
    Gatherer gatherer(gather);
    hoardex::Crawl(gatherer, store, options);
  }));
  const auto first = corpus_.Requests();
  corpus_.ClearFaults();
  EXPECT_TRUE(Crawl().resumed);
  const auto second = corpus_.Requests();
  EXPECT_LE(first.size() + second.size(), 13u + 2u)
      << "the root and the item in flight may be asked for twice, nothing else";
  EXPECT_EQ(counts_["archive"].messages_new, 5) << "the run counts as one";
}

}  // namespace
}  // namespace hoardex::test
