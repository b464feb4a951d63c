// The commands that ask the host about single items: check and why.
#include <gmock/gmock.h>

#include "support.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

json Rule(const char* name, int broken, const char* waiver = nullptr) {
  json rule{{"rule", name}, {"text", "what must be"}, {"checked", 3}, {"broken", broken}};
  if (broken > 0) rule["seen"] = "what was seen";
  if (waiver) rule["waiver"] = waiver;
  return rule;
}

class ConformanceTest : public IndexTest {
 protected:
  ConformanceTest() { Answer({Rule("ids", 0), Rule("ends", 2, "on purpose")}); }
  void Answer(const std::vector<json>& rules, const std::string& url = "*") {
    corpus_.SetCheck(url, {{"kind", "message"}, {"rules", rules}});
  }
};

TEST_F(ConformanceTest, OneItemOfEverySortIsChecked) {
  EXPECT_EQ(Program({"check"}).code, 2);
  EXPECT_THAT(Program({"check"}).err, HasSubstr("--demo"));
  IndexBoth();
  const Finished some = Program({"check"}), all = Program({"check", "--all", "--json"});
  EXPECT_EQ(some.code, 0) << some.out << some.err;
  EXPECT_THAT(some.out, testing::ContainsRegex("passed +ids +[0-9]+ +what must be"));
  EXPECT_THAT(some.out, testing::ContainsRegex("waived +ends"));
  EXPECT_THAT(some.out, HasSubstr("messages: on purpose"));
  const json summary = json::parse(all.out);
  EXPECT_EQ(summary["items"], 13) << "all, the root with them";
  EXPECT_FALSE(summary["failed"]);
  EXPECT_THAT(some.out, Not(HasSubstr("13 items,")));
}

TEST_F(ConformanceTest, AFaultIsToldWithItsItem) {
  IndexBoth();
  Answer({Rule("ids", 1)}, sample_.party);
  const Finished run = Program({"check", sample_.party, sample_.cafe});
  EXPECT_EQ(run.code, 1);
  EXPECT_THAT(run.out, testing::ContainsRegex("failed +ids +1 of 2"));
  EXPECT_THAT(run.out, HasSubstr("what was seen"));
  EXPECT_THAT(run.out, HasSubstr(sample_.party));
  corpus_.Fault(sample_.cafe, "die");
  EXPECT_THAT(Program({"check", sample_.cafe}).out, testing::ContainsRegex("failed +survives +1 of 1"));
  corpus_.ClearFaults();
  corpus_.SetCheck(sample_.cafe, {{"kind", "message"}, {"error", {{"step", "Init"}, {"name", "E_FAIL"}}}});
  const Finished closed = Program({"check", sample_.cafe});
  EXPECT_EQ(closed.code, 1);
  EXPECT_THAT(closed.out, HasSubstr("Init: E_FAIL"));
}

TEST_F(ConformanceTest, AWaiverThatNobodyNeedsIsAFault) {
  IndexBoth();
  Answer({Rule("ids", 0), Rule("ends", 0, "on purpose")});
  const Finished run = Program({"check"});
  EXPECT_EQ(run.code, 1);
  EXPECT_THAT(run.out, HasSubstr("the waiver for message is needed no longer: on purpose"));
  EXPECT_EQ(Program({"check", sample_.party}).code, 0) << "one item proves nothing";
}

TEST_F(ConformanceTest, CheckRefusesWhatMakesNoSense) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"check", "http://x"},
                                                                     {"check", "--all", sample_.party},
                                                                     {"check", "--file", "/nonexistent.txt"},
                                                                     {"check", "--demo", "--file", "x"},
                                                                     {"why"},
                                                                     {"why", " "}})
    EXPECT_EQ(Program(arguments).code, 2) << testing::PrintToString(arguments);
}

TEST_F(ConformanceTest, WhyTakesAUrlOrASubject) {
  EXPECT_THAT(Program({"why", "Party"}).out, HasSubstr("there is none yet"));
  IndexBoth();
  const Finished by_subject = Program({"why", "party"}), by_url = Program({"why", sample_.party});
  EXPECT_EQ(by_subject.code, 0);
  EXPECT_EQ(by_subject.out, by_url.out);
  EXPECT_THAT(by_url.out, HasSubstr("The message can be found."));
  EXPECT_THAT(by_url.out, HasSubstr("Promised: its folder lists it"));
  EXPECT_THAT(Program({"why", "http://x"}).out, HasSubstr("its scheme is http"));
  EXPECT_THAT(Program({"why", "zkoffline3x://x"}).out, HasSubstr("names no item"));
  EXPECT_THAT(Program({"why", "Parti"}).out, HasSubstr("No item in the index has the subject"));
  EXPECT_THAT(Program({"why", kRoot + "V:\\Tessary\\none.db/AA/"}).out, HasSubstr("There is no vault \"none\""));
  EXPECT_THAT(Program({"why", sample_.inbox + "99[[1]].zkm"}).out, HasSubstr("does not list it"));
}

TEST_F(ConformanceTest, WhyKnowsWhatTheIndexRemembers) {
  corpus_.Fault(sample_.cafe, "die");
  EXPECT_EQ(Program({"index", scratch_.Write("archive.pst", kGood)}).code, 3);
  const json lost = json::parse(Program({"why", sample_.cafe, "--json"}).out);
  EXPECT_EQ(lost["index"]["state"], "given up");
  EXPECT_THAT(lost["lost"].get<std::string>(), HasSubstr("signal 11"));
  EXPECT_EQ(lost["promised"], true);
  fs::remove(scratch_.path() / "archive.pst");
  EXPECT_THAT(Program({"why", sample_.party}).out, HasSubstr("can be found, but not read again"));
}

}  // namespace
}  // namespace hoardex::test
