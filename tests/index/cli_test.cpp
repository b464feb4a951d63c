#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "index/database.h"
#include "index/vaults.h"
#include "support.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr char kBad[] = R"({"opens": false, "error": "The header's checksum is wrong."})";

class CliTest : public IndexTest {
 protected:
  fs::path Home(const std::string& name = "") const { return scratch_.path() / "home" / name; }
};

TEST_F(CliTest, WrongUsageIsTwoAndHelpIsZero) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{{},
                                                                     {"nonsense"},
                                                                     {"search"},
                                                                     {"index", "--nonsense"},
                                                                     {"search", "--limit", "none", "x"},
                                                                     {"show", "http://x"}}) {
    EXPECT_EQ(Program(arguments).code, 2) << testing::PrintToString(arguments);
  }
  EXPECT_THAT(Program({}).err, HasSubstr("The commands are index, search"));
  EXPECT_THAT(Program({"nonsense"}).err, HasSubstr("There is no command \"nonsense\""));
  EXPECT_THAT(Program({"index", ""}).err, HasSubstr("The name is empty"));
  EXPECT_EQ(Program({"dump", ""}).code, 2);
  for (const char* command : {"index", "search", "show", "dump", "vaults", "check", "why", "watch", "doctor"})
    EXPECT_EQ(Program({command, "--help"}).code, 0) << command;
  EXPECT_THAT(Program({"search", "--help"}).out, HasSubstr("has:attachment"));
}

TEST_F(CliTest, NothingThereYet) {
  EXPECT_EQ(Program({"index"}).code, 2);
  EXPECT_THAT(Program({"index"}).err, HasSubstr("--demo"));
  EXPECT_EQ(Program({"search", "x"}).code, 1);
  EXPECT_THAT(Program({"search", "x"}).err, HasSubstr("hoardex index"));
  EXPECT_EQ(Program({"search", "before:soon"}).code, 2);
  EXPECT_EQ(Program({"dump"}).code, 2);
  EXPECT_EQ(Program({"vaults"}).code, 0);
}

TEST_F(CliTest, IndexReportsEveryVault) {
  const std::string out = IndexBoth().out;
  EXPECT_THAT(out, testing::ContainsRegex("archive +5 +5 +0 +0 +0 +1"));
  EXPECT_THAT(out, testing::ContainsRegex("second +1 +1"));
  EXPECT_THAT(out, HasSubstr("not counted, 2 messages in the store's top folder"));
  EXPECT_THAT(out, HasSubstr("\"Lost mail\""));
  EXPECT_TRUE(fs::is_symlink(Home("vaults/Tessary/archive.db")));

  const Finished again = Program({"index", "--json"});
  EXPECT_EQ(again.code, 0);
  const json report = json::parse(again.out);
  EXPECT_EQ(report["vaults"][0]["unchanged"], 5);
  EXPECT_EQ(report["vaults"][0]["promised"], 5);
  EXPECT_EQ(report["items"], 1);
}

TEST_F(CliTest, RefusedAndFailedItemsAreNamed) {
  const auto bad = scratch_.Write("mail/bad.pst", kBad), good = scratch_.Write("mail/archive.pst", kGood);
  corpus_.item(sample_.cafe) = {{"error", {{"step", "BindToFilter"}, {"code", "0x80004005"}, {"name", "E_FAIL"}}}};
  const Finished run = Program({"index", (scratch_.path() / "mail").string()});
  EXPECT_EQ(run.code, 3);
  EXPECT_THAT(run.out, HasSubstr("refused: The header's checksum is wrong."));
  EXPECT_THAT(run.out, HasSubstr("BindToFilter: E_FAIL (0x80004005)"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(Home("vaults/Tessary/bad.db"))));
  EXPECT_EQ(Program({"index", bad}).code, 1);
  EXPECT_EQ(Program({"index", "/nonexistent.pst"}).code, 1);
  EXPECT_EQ(Program({"index"}).code, 3) << "the failed item is still failed";
}

// A pipe would be waited for without end; a broken link must not vanish from the folder that was named.
TEST_F(CliTest, WhatOnlyLooksLikeAStoreIsRefusedByName) {
  const fs::path folder = scratch_.path() / "odd";
  fs::create_directories(folder / "folder.pst");
  ASSERT_EQ(mkfifo((folder / "pipe.pst").c_str(), 0600), 0);
  fs::create_symlink("loop.pst", folder / "loop.pst");
  fs::create_symlink("gone", folder / "gone.db");
  for (const char* command : {"index", "dump"}) {
    const Finished run = Program({command, folder});
    EXPECT_EQ(run.code, 1) << command;
    for (const char* name : {"pipe.pst is refused", "loop.pst is refused", "gone.db is refused"})
      EXPECT_THAT(run.err, HasSubstr(name)) << command;
    EXPECT_THAT(run.err, Not(HasSubstr("folder.pst is")));
  }
  EXPECT_EQ(Program({"dump", folder / "folder.pst"}).code, 2);
}

TEST_F(CliTest, AShortfallIsNotHidden) {
  const Finished run = Program({"index", scratch_.Write("archive.pst", R"({"opens": true, "messages": 7})")});
  EXPECT_EQ(run.code, 3);
  EXPECT_THAT(run.out, HasSubstr("2 messages of the store were not listed"));
}

TEST_F(CliTest, NamesOfVaults) {
  const auto one = scratch_.Write("a/mail.pst", kGood), two = scratch_.Write("b/Mail.pst", kGood),
             odd = scratch_.Write("c/x.db.[y].pst", kGood);
  Program({"vaults", "add", one, two, odd, one});
  const json list = json::parse(Program({"vaults", "list", "--json"}).out);
  std::vector<std::string> names;
  for (const json& vault : list) names.push_back(vault["name"]);
  EXPECT_THAT(names, testing::UnorderedElementsAre("mail", "Mail-2", "x_db._y_"));
  EXPECT_EQ(fs::read_symlink(Home("vaults/Tessary/mail.db")), fs::canonical(one));
}

TEST_F(CliTest, TheOriginalIsNeverTouched) {
  const auto store = scratch_.Write("mail/archive.pst", kGood);
  fs::permissions(store, fs::perms::owner_read);
  const auto time = fs::last_write_time(store);
  Program({"index", store});
  EXPECT_EQ(Program({"vaults", "remove", "ARCHIVE"}).code, 0);
  EXPECT_TRUE(fs::exists(store));
  EXPECT_EQ(fs::last_write_time(store), time);
  EXPECT_THAT(Program({"search", "budget", "--vault", "archive"}).out, HasSubstr("Nothing found"));
  EXPECT_EQ(Program({"vaults", "remove", "archive"}).code, 1);
}

TEST_F(CliTest, VaultsComeAndGoWithoutTheWindowsSideToo) {
  IndexBoth();
  corpus_.SetNotifyResult("0x80040154");
  const Finished removed = Program({"vaults", "remove", "archive"});
  EXPECT_EQ(removed.code, 3);
  EXPECT_THAT(removed.err, HasSubstr("not told of the vault archive: 0x80040154"));
  EXPECT_THAT(Program({"search", "budget", "--vault", "archive"}).out, HasSubstr("Nothing found"));
  const Finished added = Program({"vaults", "add", scratch_.Write("mail/third.pst", kSecond)});
  EXPECT_EQ(added.code, 3);
  EXPECT_TRUE(fs::is_symlink(Home("vaults/Tessary/third.db"))) << added.out << added.err;
}

TEST_F(CliTest, AVaultWhoseOriginalIsGoneKeepsItsItems) {
  IndexBoth();
  fs::remove(scratch_.path() / "mail/second.db");
  corpus_.Unlist(kRoot, sample_.other_vault);
  const Finished run = Program({"index"});
  EXPECT_EQ(run.code, 3);
  EXPECT_THAT(run.out, HasSubstr("second.db is not there"));
  EXPECT_THAT(Program({"search", "annual", "vault:second"}).out, HasSubstr("1 hit"));
}

TEST_F(CliTest, SearchShowsWhatMatters) {
  IndexBoth();
  const Finished run = Program({"search", "lanterns", "-kind:attachment"});
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_THAT(run.out, HasSubstr("Party\n  2020-12-31 23:59  Carl Budget  archive/Inbox\n"));
  EXPECT_THAT(run.out, HasSubstr("[lanterns]"));
  EXPECT_THAT(run.out, HasSubstr(sample_.party));
  EXPECT_THAT(run.out, Not(HasSubstr("\x1b")));
  EXPECT_THAT(Program({"search", "itemised"}).out,
              HasSubstr("report.pdf  (attached to \"Budget for the spring fair\")"));
  EXPECT_THAT(Program({"search", "annual report", "--folder", "sent items"}).out, HasSubstr("1 hit\n"));
  const Finished none = Program({"search", "unheardof"});
  EXPECT_EQ(none.code, 0);
  EXPECT_THAT(none.out, HasSubstr("Nothing found"));
  const json hits = json::parse(Program({"search", "--json", "-n", "1", "annual"}).out);
  EXPECT_EQ(hits["total"], 2);
  EXPECT_EQ(hits["hits"].size(), 1u);
  EXPECT_TRUE(hits["hits"][0]["properties"].contains("System.Subject"));
}

TEST_F(CliTest, AnIndexIsSearchedWhereNothingCanBeWritten) {
  IndexBoth();
  for (const auto& entry : fs::directory_iterator(Home())) {
    if (entry.is_regular_file()) fs::permissions(entry.path(), fs::perms::owner_read | fs::perms::others_read);
  }
  constexpr auto kWalk =
      fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read | fs::perms::others_exec;
  for (const fs::path& folder : {Home(), scratch_.path()}) fs::permissions(folder, kWalk);
  // Root may write everywhere, so somebody else looks.
  const std::string other = geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
  const auto search = [&](const std::string& word) {
    const std::string line = other + "env HOARDEX_HOME='" + Home().string() + "' " + getenv("HOARDEX_CLI") +
                             " search " + word + " | grep -q '[0-9] hit'";
    return std::system(line.c_str());
  };
  EXPECT_EQ(search("lanterns"), 0);
  EXPECT_NE(search("unheardof"), 0);
  for (const fs::path& folder : {scratch_.path(), Home()}) fs::permissions(folder, fs::perms::owner_all);
}

TEST_F(CliTest, AFullDiskIsCalledThat) {
  Database database(scratch_.path() / "small.sqlite", Database::Mode::kCreate);
  database.Execute("CREATE TABLE t(x); PRAGMA max_page_count=4");
  try {
    database.Execute("INSERT INTO t VALUES(zeroblob(100000))");
    ADD_FAILURE() << "there was room";
  } catch (const DatabaseError& error) {
    EXPECT_THAT(error.what(), HasSubstr("the disk is full"));
    EXPECT_THAT(error.what(), Not(HasSubstr("INSERT")));
  }
}

TEST_F(CliTest, ShowAsksTheHost) {
  const Finished run = Program({"show", sample_.party});
  EXPECT_EQ(run.code, 0) << run.err;
  EXPECT_THAT(run.out, testing::ContainsRegex("[0-9] +System.Message.FromName +Carl Budget"));
  EXPECT_THAT(run.out, HasSubstr("Bring lanterns"));
  EXPECT_THAT(run.out, Not(HasSubstr("\x1b")));
  EXPECT_EQ(Program({"show", sample_.inbox + "99[[1]].zkm"}).code, 1);
}

TEST_F(CliTest, DumpWritesEveryItemOnce) {
  IndexBoth();
  const Finished run = Program({"dump"});
  EXPECT_EQ(run.code, 0) << run.err;
  std::istringstream lines(run.out);
  std::set<std::string> urls;
  for (std::string line; std::getline(lines, line);) EXPECT_TRUE(urls.insert(json::parse(line)["url"]).second);
  EXPECT_EQ(urls.size(), 12u);

  const Finished part = Program({"dump", (scratch_.path() / "mail/second.db").string(), "--chunks"});
  EXPECT_EQ(std::ranges::count(part.out, '\n'), 3);
  EXPECT_THAT(part.out, HasSubstr("\"chunks\":[{"));
  corpus_.Fault(sample_.cafe, "die");
  const Finished broken = Program({"dump"});
  EXPECT_EQ(broken.code, 3);
  EXPECT_THAT(broken.err, HasSubstr("signal 11"));
  EXPECT_EQ(std::ranges::count(broken.out, '\n'), 12) << "the lost item has its line too";
  EXPECT_EQ(Program({"dump", scratch_.Write("bad.pst", kBad)}).code, 1);
  Program({"dump", scratch_.Write("elsewhere.pst", kGood)});
  EXPECT_EQ(std::distance(fs::directory_iterator(Home("vaults/Tessary")), {}), 2) << "a link is left behind";
}

TEST_F(CliTest, TheDemonstrationVaultIsMadeOnce) {
  corpus_.AddMessage(corpus_.AddFolder(corpus_.AddVault("demo"), "DD", "Inbox"), "07", {}, "welcome");
  EXPECT_EQ(Program({"index", "--demo"}).code, 0);
  EXPECT_TRUE(fs::is_symlink(Home("vaults/Tessary/demo.db")));
  const auto time = fs::last_write_time(Home("demo.db"));
  EXPECT_EQ(Program({"index", "--demo"}).code, 0);
  EXPECT_EQ(fs::last_write_time(Home("demo.db")), time);
}

TEST_F(CliTest, TwoAtOnceDoNotMix) {
  IndexBoth();
  const int fd = open(Home("index.lock").c_str(), O_RDWR);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  const Finished run = Program({"index"});
  EXPECT_EQ(run.code, 1);
  EXPECT_THAT(run.err, HasSubstr("Another hoardex"));
  EXPECT_EQ(Program({"search", "annual"}).code, 0) << "searching goes on";
  close(fd);
}

TEST_F(CliTest, InterruptedItGoesOnLater) {
  corpus_.Fault(sample_.party, "hang");
  const auto store = scratch_.Write("mail/archive.pst", kGood), second = scratch_.Write("mail/second.pst", kSecond);
  const Finished stopped = Program({"index", store, second}, sample_.party);
  EXPECT_EQ(stopped.code, 130);
  EXPECT_THAT(stopped.err, HasSubstr("goes on from here"));
  corpus_.ClearFaults();
  EXPECT_EQ(Program({"index"}).code, 0);
}

}  // namespace
}  // namespace hoardex::test
