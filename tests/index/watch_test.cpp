// What is heard and seen of vault files on disk.
#include "index/watch.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "support.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr milliseconds kQuiet{60}, kPatience{2000}, kNothing{250};

class WatchTest : public testing::Test {
 protected:
  WatchTest() {
    environment_.home = scratch_.path();
    fs::create_directories(environment_.vault_folder());
  }

  fs::path Original(const std::string& name) const { return scratch_.path() / "originals" / (name + ".pst"); }
  void Put(const std::string& name, const std::string& text) { scratch_.Write("originals/" + name + ".pst", text); }
  void Link(const std::string& name) { fs::create_symlink(Original(name), LinkOf(name)); }
  fs::path LinkOf(const std::string& name) const { return environment_.vault_folder() / (name + ".db"); }
  std::string Stamp(const std::string& name) { return VaultFolder(environment_).Find(name)->stamp; }

  // Long after which nothing is looked at but what is heard.
  VaultWatch Start(std::map<std::string, std::string> known, milliseconds period = std::chrono::hours(1)) {
    return VaultWatch(environment_, std::move(known), {kQuiet, period});
  }
  static std::vector<std::string> Words(const std::vector<VaultEvent>& events) {
    std::vector<std::string> words;
    for (const VaultEvent& event : events)
      words.push_back(std::string(event.change == VaultChange::kAdded     ? "added "
                                  : event.change == VaultChange::kDeleted ? "deleted "
                                                                          : "modified ") +
                      event.name);
    return words;
  }
  static std::vector<std::string> Next(VaultWatch& watch, milliseconds patience = kPatience) {
    return Words(watch.Wait(patience));
  }

  // Over a vault "mail" that is known as it is.
  VaultWatch StartOverMail(milliseconds period = std::chrono::hours(1)) {
    Put("mail", "one");
    Link("mail");
    VaultWatch watch = Start({{"mail", Stamp("mail")}}, period);
    EXPECT_THAT(Next(watch, kNothing), IsEmpty());
    return watch;
  }

  Scratch scratch_;
  Environment environment_;
};

TEST_F(WatchTest, TellsAtTheStartWhatChangedWhileNobodyWatched) {
  for (const char* name : {"same", "changed", "new", "away"}) {
    Put(name, name);
    Link(name);
  }
  std::map<std::string, std::string> known{
      {"same", Stamp("same")}, {"changed", "3 1.0"}, {"away", Stamp("away")}, {"unlinked", "5 1.0"}};
  fs::remove(Original("away"));
  VaultWatch watch = Start(known);
  // A file whose disk may be away stays as it was; a link that somebody took away is a vault taken away.
  EXPECT_THAT(Next(watch), ElementsAre("modified changed", "added new", "deleted unlinked"));
  EXPECT_THAT(Next(watch, kNothing), IsEmpty());
}

TEST_F(WatchTest, HearsEveryWayInWhichAFileChanges) {
  VaultWatch watch = StartOverMail();

  std::ofstream(Original("mail"), std::ios::app) << " more";
  EXPECT_THAT(Next(watch), ElementsAre("modified mail"));

  // As programs replace a file; same size, same time.
  const auto time = fs::last_write_time(Original("mail"));
  Put("mail.tmp", "another!");
  fs::last_write_time(Original("mail.tmp"), time);
  fs::rename(Original("mail.tmp"), Original("mail"));
  EXPECT_THAT(Next(watch), ElementsAre("modified mail"));

  fs::remove(Original("mail"));
  EXPECT_THAT(Next(watch), ElementsAre("deleted mail"));
  Put("mail", "back again");
  const std::vector<VaultEvent> back = watch.Wait(kPatience);
  EXPECT_THAT(Words(back), ElementsAre("added mail"));
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back.front().stamp, Stamp("mail"));

  Put("other", "two");
  Link("other");
  EXPECT_THAT(Next(watch), ElementsAre("added other"));
  fs::remove(LinkOf("mail"));
  EXPECT_THAT(Next(watch), ElementsAre("deleted mail"));
  EXPECT_THAT(Next(watch, kNothing), IsEmpty());
}

TEST_F(WatchTest, WaitsUntilAFileIsQuietAndLooksAtNoOther) {
  VaultWatch watch = StartOverMail();
  std::thread writer([&] {
    for (int i = 0; i < 12; ++i) {
      std::ofstream(Original("mail"), std::ios::app) << i;
      std::this_thread::sleep_for(kQuiet / 3);
    }
  });
  const std::vector<VaultEvent> events = watch.Wait(kPatience);
  writer.join();
  EXPECT_THAT(Words(events), ElementsAre("modified mail"));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events.front().stamp, Stamp("mail")) << "told of before it was complete";
  Put("unrelated", "nothing of ours");
  EXPECT_THAT(Next(watch, kNothing), IsEmpty());
}

TEST_F(WatchTest, LooksFromTimeToTimeWhereNothingIsHeard) {
  VaultWatch watch = StartOverMail(milliseconds(100));
  // The folder goes away whole, as a disk does, and comes back with another file in a folder of another number: no
  // notice tells of what happens in there.
  fs::rename(scratch_.path() / "originals", scratch_.path() / "elsewhere");
  EXPECT_THAT(Next(watch, kNothing), IsEmpty()) << "what was indexed stays while the disk is away";
  std::ofstream(scratch_.path() / "elsewhere/mail.pst", std::ios::app) << " changed elsewhere";
  fs::rename(scratch_.path() / "elsewhere", scratch_.path() / "originals");
  EXPECT_THAT(Next(watch), ElementsAre("modified mail"));
}

TEST_F(WatchTest, TellsAgainWhatCouldNotBeDealtWith) {
  Put("mail", "one");
  Link("mail");
  VaultWatch watch = Start({});
  for (const char* change : {"added mail", "modified mail", "deleted mail"}) {
    if (change == std::string("modified mail")) Put("mail", "two words");
    if (change == std::string("deleted mail")) fs::remove(Original("mail"));
    const std::vector<VaultEvent> events = watch.Wait(kPatience);
    ASSERT_THAT(Words(events), ElementsAre(change));
    watch.Forget(events.front());
    EXPECT_THAT(Next(watch), ElementsAre(change));
  }
}

}  // namespace
}  // namespace hoardex::test
