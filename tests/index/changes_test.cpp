// Registered roots, their rules, and single changes.
#include "index/changes.h"

#include <gmock/gmock.h>

#include "support.h"

namespace hoardex::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using Target = PlannedChange::Target;

const std::string kOther = "zkoffline3x://{S-1-5-21-2}/default/";

std::string NoSlash(std::string url) {
  url.pop_back();
  return url;
}

TEST(Scope, TheLongestRuleDecides) {
  const std::string mail = kRoot + "V:\\Tessary\\mail.db";
  const CrawlScope scope({NoSlash(kRoot), kRoot, kOther}, {{kRoot, true, true},
                                                           {mail + "/", false, true},
                                                           {mail + "/AA/", true, true},
                                                           {kRoot + "v:\\*\\secret.db", false, false},
                                                           {kRoot + "V:\\Tessary\\same.db", false, true},
                                                           {kRoot + "V:\\Tessary\\same.db/", true, false},
                                                           {kRoot + "V:\\Tessary\\inside.db\\*", false, false}});
  EXPECT_THAT(scope.roots(), ElementsAre(kRoot, kOther));
  for (const std::string& in :
       {kRoot, NoSlash(kRoot), kRoot + "V:\\Tessary\\x.db/BB/01[[1]].zkm", mail + "/AA/BB/", mail + "2/",
        kRoot + "V:\\Tessary\\same.db/", kRoot + "V:\\Tessary\\inside.db/", kRoot + "V:\\Tessary\\deep\\secret.db/"})
    EXPECT_TRUE(scope.Includes(in)) << in;
  for (const std::string& out : {mail, mail + "/", mail + "/AB/", kRoot + "V:\\TESSARY\\Secret.db/AA/",
                                 kRoot + "V:\\Tessary\\inside.db/AA/", kOther, std::string(), std::string("file:///x")})
    EXPECT_FALSE(scope.Includes(out)) << out;
  EXPECT_TRUE(scope.LeadsTo(mail)) << "a folder in it is included";
  EXPECT_FALSE(scope.LeadsTo(mail + "/AB/"));
  EXPECT_EQ(*scope.RootOf("ZKoffline3x://{s-1-5-21-2}/default"), kOther);
  EXPECT_EQ(scope.RootOf("zkoffline3x://{S-1-5-21-22}/default/"), nullptr);
  const CrawlScope stars({kRoot}, {{std::string(200, '*') + "x", true, true}});
  EXPECT_FALSE(stars.Includes(std::string(20'000, 'y'))) << "must not take for ever";
}

TEST(Changes, ArePlannedOnceForEveryUrl) {
  const CrawlScope scope({kRoot}, {{kRoot, true, true}, {kRoot + "V:\\Tessary\\no.db", false, false}});
  const std::string a = kRoot + "V:\\Tessary\\a.db", b = kRoot + "V:\\Tessary\\b.db";
  const auto plan =
      PlanChanges(scope, {{1, ChangeKind::kModify, a},
                          {2, ChangeKind::kModify, b + "/"},
                          {3, ChangeKind::kDelete, "ZKOFFLINE3X://{S-1-5-21-1}/default/V:\\tessary\\A.DB"},
                          {4, ChangeKind::kModify, kOther},
                          {5, ChangeKind::kModify, kRoot + "V:\\Tessary\\no.db"},
                          {6, ChangeKind::kAdd, kRoot + "V:\\Tessary\\~dump-0-1.db"},
                          {7, ChangeKind::kAdd, b + "/AA/01[[5]].zkm"},
                          {8, ChangeKind::kModify, "", false},
                          {9, ChangeKind::kAdd, NoSlash(kRoot)}});
  std::vector<Target> targets;
  for (const PlannedChange& change : plan) targets.push_back(change.target);
  ASSERT_THAT(targets, ElementsAre(Target::kVault, Target::kVault, Target::kOutside, Target::kOutside, Target::kNoVault,
                                   Target::kNoVault, Target::kNoVault, Target::kRoot));
  EXPECT_EQ(plan[0].url, b + "/");
  EXPECT_EQ(plan[1].kind, ChangeKind::kDelete);
  EXPECT_EQ(plan[1].times, 2);
  EXPECT_EQ(plan.back().url, kRoot);
  const auto cleared =
      PlanChanges(scope, {{1, ChangeKind::kAdd, a}, {2, ChangeKind::kDelete, kRoot}, {3, ChangeKind::kAdd, b}});
  ASSERT_EQ(cleared.size(), 2u) << "what all are rid of need not be added before";
  EXPECT_EQ(cleared[1].url, b + "/") << "what comes after the deletion of all stays";
}

class ChangesTest : public IndexTest {
 protected:
  std::vector<ChangeReport> Changes(const CrawlOptions& options = {}, const std::string& name = "index.sqlite") {
    corpus_.Save();
    corpus_.Requests();
    Store store(File(name), Database::Mode::kCreate);
    Gatherer gatherer(corpus_.Options());
    return CrawlChanges(gatherer, store, options).reports;
  }
  // One mail in the vault is another, too, and one is gone.
  void ChangeVault() {
    TouchVault();
    corpus_.SetLinkTime(sample_.inbox, sample_.party, kLater);
    corpus_.item(sample_.party)["text"] = "Rescheduled";
    corpus_.Unlist(sample_.inbox, sample_.cafe);
  }
  void AddOtherUsersVault() {
    corpus_.script()["roots"].push_back(kOther);
    const std::string vault = kOther + "V:\\Tessary\\guest.db/", folder = vault + "DD/", mail = folder + "07[[9]].zkm";
    const auto links = [](const std::string& url) { return nlohmann::json{{{"url", url}, {"modified", kTime}}}; };
    corpus_.item(kOther) = {{"properties", {{"System.ItemName", "Tessary"}}}, {"links", links(vault)}};
    corpus_.item(vault) = {{"properties", {{"System.ItemName", "guest"}}}, {"links", links(folder)}};
    corpus_.item(folder) = {{"properties", {{"System.ItemName", "Inbox"}}}, {"links", links(mail)}};
    corpus_.item(mail) = {{"properties", {{"System.Subject", "Guestmail"}}}, {"text", "hospitality"}};
  }
};

TEST_F(ChangesTest, EveryRegisteredRootIsCrawledAndOneThatIsGoneLeaves) {
  AddOtherUsersVault();
  // An index may keep the rules of a root that is gone: they include nothing.
  corpus_.AddRule(kRoot, true, true);
  corpus_.AddRule(kOther, true, true);
  Crawl();
  EXPECT_EQ(Hits("hospitality"), 1);
  EXPECT_EQ(Hits("brulee"), 1);
  corpus_.script()["roots"] = {kRoot};
  Crawl();
  EXPECT_EQ(Hits("hospitality"), 0);
  EXPECT_EQ(Hits("brulee"), 1);
  corpus_.script()["roots"] = nlohmann::json::array();
  corpus_.script()["roots_error"] = {{"step", "GetCatalog"}, {"code", "0x80070005"}};
  try {
    Crawl();
    ADD_FAILURE() << "crawled without an index to ask for roots";
  } catch (const HostError& error) {
    EXPECT_THAT(error.what(), testing::AllOf(HasSubstr("GetCatalog"), HasSubstr("./hoardex setup")));
  }
  EXPECT_EQ(Hits("brulee"), 1) << "an index that cannot be asked is no proof that roots are gone";
  corpus_.script().erase("roots_error");
  try {
    Crawl();
    ADD_FAILURE() << "crawled without a root";
  } catch (const HostError& error) {
    EXPECT_THAT(error.what(), HasSubstr("./hoardex setup"));
  }
  EXPECT_EQ(Hits("brulee"), 0);
  corpus_.script()["roots"] = {kRoot};
  Crawl();
  EXPECT_EQ(Hits("brulee"), 1);
}

TEST_F(ChangesTest, RulesNarrowAndWidenTheIndex) {
  Crawl();
  corpus_.AddRule(kRoot, true, true);
  corpus_.AddRule(NoSlash(sample_.sub), false, false);
  corpus_.AddRule(sample_.other_vault, false, false);
  Crawl();
  EXPECT_EQ(Hits("tents"), 0);
  EXPECT_EQ(Hits("vault:second"), 0);
  EXPECT_EQ(Hits("brulee"), 1);
  EXPECT_THAT(Contents(File()), Not(HasSubstr("report.pdf")));
  corpus_.Requests();
  Crawl();
  EXPECT_THAT(corpus_.Requests(), ElementsAre(kRoot)) << "the same scope lists nothing anew";
  corpus_.script()["rules"].erase(1);
  Crawl();
  EXPECT_EQ(Hits("tents"), 2) << "an unchanged folder must be listed for what is included now";
  EXPECT_EQ(Hits("vault:second"), 0);

  corpus_.script()["rules"] = nlohmann::json::array();
  corpus_.Requests();
  EXPECT_THAT(Crawl().unruled, ElementsAre(kRoot));
  EXPECT_THAT(corpus_.Requests(), IsEmpty()) << "a root alone crawls nothing";
  EXPECT_EQ(Hits("brulee"), 0);
}

TEST_F(ChangesTest, AModifiedVaultAloneIsVisited) {
  Crawl();
  ChangeVault();
  for (int i = 0; i < 2; ++i) corpus_.Change("modify", NoSlash(sample_.vault));
  corpus_.Change("modify", kRoot + "v:\\tessary\\ARCHIVE.DB");
  const auto reports = Changes();
  EXPECT_THAT(corpus_.Requests(), UnorderedElementsAre(sample_.vault, sample_.inbox, sample_.sub, sample_.party));
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_EQ(reports[0].vault, "archive");
  EXPECT_EQ(reports[0].change.times, 3);
  EXPECT_EQ(reports[0].work.messages, 1);
  EXPECT_EQ(reports[0].removed, 1);
  EXPECT_EQ(Hits("rescheduled"), 1);
  EXPECT_EQ(Hits("brulee"), 0);
  EXPECT_EQ(corpus_.Done(), 3);
  EXPECT_THAT(Changes(), IsEmpty());
  EXPECT_THAT(corpus_.Requests(), IsEmpty());
  Crawl();
  EXPECT_THAT(corpus_.Requests(), UnorderedElementsAre(kRoot, sample_.vault))
      << "the next crawl learns the vault's time from the root, and has nothing more to do";
}

TEST_F(ChangesTest, AddedAndDeletedVaultsComeAndGo) {
  const std::string twin = "ZKoffline3x" + NoSlash(sample_.vault).substr(11);
  corpus_.Change("add", twin);
  auto reports = Changes();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_FALSE(reports[0].known);
  EXPECT_EQ(reports[0].work.messages, 5);
  EXPECT_THAT(corpus_.Requests(), Not(Contains(kRoot)));
  EXPECT_EQ(Hits("vault:second"), 0);
  Crawl();
  EXPECT_EQ(Hits("brulee"), 1) << "known by one URL only";
  EXPECT_EQ(Hits("vault:second"), 1);

  CrawlOptions kept;
  kept.kept_vaults = {"archive", "second"};
  corpus_.Change("delete", sample_.other_vault);
  corpus_.Change("delete", kRoot + "V:\\Tessary\\never.db");
  reports = Changes(kept);
  EXPECT_THAT(corpus_.Requests(), IsEmpty()) << "a deletion needs no host";
  ASSERT_EQ(reports.size(), 2u);
  EXPECT_EQ(reports[0].removed, 1);
  EXPECT_FALSE(reports[1].known);
  EXPECT_EQ(Hits("vault:second"), 0);
  EXPECT_EQ(Hits("vault:archive"), 6);

  corpus_.Change("delete", NoSlash(kRoot));
  corpus_.Change("add", sample_.other_vault);
  Changes(kept);
  EXPECT_EQ(Hits("vault:archive"), 0);
  EXPECT_EQ(Hits("vault:second"), 1) << "added after all were deleted";
  corpus_.Change("add", kRoot);
  reports = Changes(kept);
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(corpus_.Requests(), Contains(kRoot));
  EXPECT_EQ(Hits("vault:archive"), 6);
}

TEST_F(ChangesTest, WhatCannotBeDealtWithIsToldAndLetGo) {
  Crawl();
  corpus_.Change("modify", kOther + "V:\\Tessary\\x.db");
  corpus_.Change("modify", std::string(5000, '*') + "\n\x01");
  corpus_.Change("explode", sample_.vault);
  corpus_.Change("add", "no URL");
  corpus_.script()["changes"].back().erase("url");
  corpus_.Change("add", sample_.vault);
  corpus_.Change("add", kRoot + "V:\\Tessary\\lost.db");
  corpus_.script()["most_changes"] = 2;
  corpus_.script()["items"].erase(kRoot + "V:\\Tessary\\lost.db/");
  const auto reports = Changes();
  std::vector<Target> targets;
  for (const ChangeReport& report : reports) targets.push_back(report.change.target);
  EXPECT_THAT(targets, ElementsAre(Target::kOutside, Target::kOutside, Target::kNoVault, Target::kNoVault,
                                   Target::kVault, Target::kVault));
  EXPECT_THAT(reports.back().error, HasSubstr("FILE_NOT_FOUND"));
  EXPECT_EQ(corpus_.Done(), corpus_.last_change());
}

TEST_F(ChangesTest, AFullCrawlCoversWhatIsQueued) {
  Crawl();
  corpus_.item(sample_.vault)["links"].erase(0);  // at an unchanged time
  corpus_.Change("modify", sample_.vault);
  corpus_.Change("delete", sample_.other_vault);
  corpus_.script()["most_changes"] = 1;
  CrawlOptions kept;
  kept.kept_vaults = {"archive", "second"};
  Crawl(kept);
  EXPECT_EQ(Hits("vault:archive"), 0);
  EXPECT_EQ(Hits("vault:second"), 1) << "linked still, and listed";
  EXPECT_EQ(corpus_.Done(), 2);
  corpus_.Unlist(kRoot, sample_.other_vault);
  corpus_.Change("delete", sample_.other_vault);
  Crawl();
  EXPECT_EQ(Hits("vault:second"), 0);
  EXPECT_EQ(corpus_.Done(), 3);
}

// SIGKILL right after each commit and before each answer: the changes are never gone before the index has them.
TEST_F(ChangesTest, AKillAtAnyMomentRepeatsAndLosesNothing) {
  Crawl({}, "whole.sqlite");
  std::filesystem::copy_file(File("whole.sqlite"), File("start.sqlite"));
  ChangeVault();
  corpus_.Change("modify", sample_.vault);
  corpus_.Change("delete", sample_.other_vault);
  Changes({}, "whole.sqlite");
  const std::string whole = Contents(File("whole.sqlite"));
  const std::filesystem::path done_file = scratch_.path() / "requests.done";
  int killed = 0;
  for (int moment = 1; moment <= 10; ++moment) {
    std::filesystem::remove(done_file);
    const std::string name = "killed-" + std::to_string(moment) + ".sqlite";
    std::filesystem::copy_file(File("start.sqlite"), File(name));
    corpus_.ClearFaults();
    corpus_.FaultAtRequest(moment, "kill_parent");
    killed += IsKilledBy([&] {
      CrawlOptions options;
      options.batch_items = 1;
      Changes(options, name);
    });
    corpus_.ClearFaults();
    if (corpus_.Done() > 0) {
      EXPECT_EQ(Contents(File(name)), whole) << "let go before it was in the index, at " << moment;
    }
    Changes({}, name);
    ASSERT_EQ(Contents(File(name)), whole) << "killed at " << moment;
    EXPECT_EQ(corpus_.Done(), 2);
  }
  EXPECT_GE(killed, 5);
}

TEST_F(ChangesTest, TheCommandSaysWhatBecameOfEveryChange) {
  corpus_.Change("add", NoSlash(sample_.vault));
  corpus_.Change("delete", sample_.other_vault);
  corpus_.Change("modify", "nonsense");
  const Finished run = Program({"index", "--changes"});
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("archive: added; 5 messages and 1 attachment indexed, 0 messages removed.\n"));
  EXPECT_THAT(run.out, HasSubstr("second: deleted; it was not in the index.\n"));
  EXPECT_THAT(run.out, HasSubstr("nonsense: left out"));
  EXPECT_THAT(Program({"index", "--changes"}).out, HasSubstr("No change is queued."));
  corpus_.Change("delete", kRoot);
  const auto report = nlohmann::json::parse(Program({"index", "--changes", "--json"}).out);
  EXPECT_EQ(report["changes"][0]["removed"], 5);
  EXPECT_EQ(report["changes"][0]["target"], "all");
  EXPECT_EQ(Program({"index", "--changes", "x.pst"}).code, 2);
}

}  // namespace
}  // namespace hoardex::test
