// Judgements over facts: every fault is named by its check, whatever the host says.
#include "index/doctor.h"

#include <gmock/gmock.h>

#include <fstream>
#include <functional>

#include "index/database.h"
#include "index/store.h"
#include "support.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;

constexpr char kModule[] = R"(Z:\build\HoardexPH.dll)";

json Library(const char* path) {
  return {{"path", path}, {"exists", true}, {"bitness", 64}, {"threading", "Both"}};
}

json Healthy() {
  return {
      {"registration", {{"entries", 25}, {"differing", json::array()}}},
      {"module", Library(kModule)},
      {"index_server", Library(R"(Z:\build\HoardexIndex.dll)")},
      {"root_server", Library(R"(Z:\build\HoardexIndex.dll)")},
      {"converter", Library(R"(Z:\build\HoardexMapi.dll)")},
      {"unnamed_item_types", json::array()},
      {"mail_client", {{"key", true}, {"path", R"(Z:\m.dll)"}, {"exists", true}, {"bitness", 64}}},
      {"vault_folders", {{{"name", "Tessary"}, {"folder", R"(V:\Tessary)"}, {"exists", true}}}},
      {"policy", {{"prevented", false}, {"excluded", ""}}},
      {"temporary", {{"files", json::array()}, {"in_use", 0}}},
      {"filters", {{"with", {"txt"}}, {"without", {"pdf"}}}},
      {"mail", {{"code", "0x00000000"}, {"missing", json::array()}, {"profiles", json::array()}}},
      {"class", {{"code", "0x00000000"}}},
      {"index",
       {{"root", kRoot}, {"roots", {kRoot}}, {"rules", {{{"pattern", kRoot}, {"included", true}}}}, {"changes", 0}}}};
}

Environment Built() {
  Environment environment;
  environment.module = kModule;
  environment.provider = R"(Z:\build\HoardexMapi.dll)";
  environment.stand_in = R"(z:\BUILD\HoardexIndex.dll)";  // Windows makes no difference
  return environment;
}

// The checks that are not well.
std::map<std::string, Finding> Judged(const json& facts) {
  std::map<std::string, Finding> findings;
  for (Finding& finding : JudgeWindowsSide(facts, Built())) {
    EXPECT_NE(finding.found, "") << finding.check;
    EXPECT_EQ(finding.remedy.empty(), finding.verdict == Verdict::kOk) << finding.check;
    if (finding.verdict != Verdict::kOk) findings.emplace(finding.check, finding);
  }
  return findings;
}

TEST(DoctorTest, EveryFactThatIsWrongIsNamedByItsCheck) {
  EXPECT_TRUE(Judged(Healthy()).empty());
  struct Case {
    const char* pointer;
    json value;
    const char *check, *found;
  };
  const json missing = {{"key", R"(HKLM\x)"}, {"name", "y"}, {"expected", "1"}, {"found", nullptr}};
  json more = Healthy()["index"];
  more.update({{"changes", 1000}, {"more", true}});
  const Case cases[] = {
      {"/registration/differing/0", missing, "registration", R"(HKLM\x y is missing)"},
      {"/registration/differing/0",
       {{"key", "HKCR\\k"}, {"name", "ThreadingModel"}, {"expected", "Both"}, {"found", "Apartment"}},
       "threading",
       "is \"Apartment\", not \"Both\""},
      {"/registration/differing/0",
       {{"key", R"(HKCR\TypeLib\{1})"}, {"name", ""}, {"expected", "a"}, {"found", nullptr}},
       "type library",
       "is missing"},
      {"/module/path", R"(Z:\old\HoardexPH.dll)", "class server", "is not the one that was built"},
      {"/module/exists", false, "class server", "is not there"},
      {"/module/bitness", 32, "bitness", "has 32 bits, not 64"},
      {"/index_server/bitness", 0, "bitness", "is no library"},
      {"/mail_client/key", false, "mail client", "none is registered"},
      {"/mail_client/exists", false, "mail client", "is not there"},
      {"/mail/code", "0x8007007E", "MAPI", "does not load: 0x8007007E"},
      {"/mail/missing", {"MAPILogonEx"}, "MAPI", "lacks MAPILogonEx"},
      {"/mail", {{"failed", "it gave no answer for 30 s"}}, "MAPI", "no answer"},
      {"/mail/profiles", {"ZK_HX_1_2_3_4_5"}, "profiles", "ZK_HX_1_2_3_4_5"},
      {"/class/code", "0x8007045A", "module", "0x8007045A"},
      {"/class", {{"failed", "it ended with 0xC0000005"}}, "module", "0xC0000005"},
      {"/policy/prevented", true, "policy", "no attachment"},
      {"/policy/excluded", "zip;", "policy", "zip;"},
      {"/vault_folders", json::array(), "vault folder", "names none"},
      {"/vault_folders/0/exists", false, "vault folder", R"(V:\Tessary is not there)"},
      {"/index_server", {{"exists", false}}, "search manager", "no library"},
      {"/index_server/path", R"(C:\other.dll)", "search manager", R"(C:\other.dll is registered)"},
      {"/root_server", {{"exists", false}, {"program", "{9E175B9C}"}}, "search manager", "{9E175B9C} is registered"},
      {"/index/error",
       {{"step", "GetCatalog"}, {"code", "0x80070005"}},
       "search manager",
       "GetCatalog gave 0x80070005"},
      {"/index/roots", json::array(), "search root", "not registered"},
      {"/index/roots", {"zkoffline3x://{S-1-5-21-2}/default/"}, "search root", "not registered"},
      {"/index/rules", json::array(), "search root", "no rule includes"},
      {"/index/rules/0/included", false, "search root", "excluded"},
      {"/index/rules/1", {{"pattern", kRoot}, {"included", false}}, "search root", "excluded"},
      {"/index/rules/0/pattern", "zkoffline3x://{S-1-5-21-2}", "search root", "no rule includes"},
      {"/index", more, "changes", "at least 1,000 reported changes wait"},
      {"/unnamed_item_types", {"MAPI/ZK.Note"}, "item types", "MAPI/ZK.Note"},
      {"/temporary/files", {"ZK_HX_a.txt"}, "temporary", "ZK_HX_a.txt"},
      {"/filters/with", json::array(), "filters", "no type"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(std::string(one.pointer) + " " + one.value.dump());
    json facts = Healthy();
    facts[json::json_pointer(one.pointer)] = one.value;
    const auto findings = Judged(facts);
    ASSERT_TRUE(findings.contains(one.check));
    EXPECT_THAT(findings.at(one.check).found, HasSubstr(one.found));
  }
}

TEST(DoctorTest, WhatIsInUseOrDecidedByAnotherRuleIsWell) {
  json facts = Healthy();
  facts["mail"]["in_use"] = 2;
  facts["temporary"]["in_use"] = 1;
  const json broader = {{"pattern", "zkoffline3x://"}, {"included", true}};
  const json weaker = {{"pattern", kRoot}, {"included", false}, {"default", true}};
  const json strong = {{"pattern", kRoot.substr(0, kRoot.size() - 1)}, {"included", true}};
  for (const json& rules : {json::array({broader}), json::array({weaker, strong})}) {
    facts["index"]["rules"] = rules;
    EXPECT_TRUE(Judged(facts).empty()) << rules;
  }
  facts["index_server"]["path"] = R"(Z:\old\Index.dll)";
  facts["index_server"]["title"] = "Hoardex system index: search manager";
  EXPECT_THAT(Judged(facts).at("search manager").remedy, HasSubstr("--fix"));
}

TEST(DoctorTest, StrangeFactsAreJudgedWithoutHarm) {
  EXPECT_GE(Judged(json::object()).size(), 8u);
  const json healthy = Healthy();
  for (const json& value : {json(), json(5), json("text"), json::array({1, nullptr, json::object()})}) {
    for (const auto& [key, fact] : healthy.items()) {
      json facts = healthy;
      facts[key] = value;
      Judged(facts);
      if (!fact.is_object()) continue;
      for (const auto& [inner, ignored] : fact.items()) {
        json deeper = healthy;
        deeper[key][inner] = value;
        Judged(deeper);
      }
    }
  }
}

TEST(DoctorTest, JudgesVaultsDrivesAndTheIndex) {
  const Scratch scratch;
  Environment environment;
  environment.home = scratch.path();
  environment.prefix = scratch.path() / "prefix";
  fs::create_directories(environment.vault_folder());
  const auto judge = [&](const std::string& check) {
    std::vector<Finding> all = JudgePrefix(environment);
    for (Finding& finding : JudgeHome(environment)) all.push_back(std::move(finding));
    for (Finding& finding : all)
      if (finding.check == check) return finding;
    return Finding{};
  };
  EXPECT_EQ(judge("prefix").verdict, Verdict::kWrong);
  scratch.Write("prefix/.complete", "");
  EXPECT_EQ(judge("prefix").verdict, Verdict::kOk);
  EXPECT_EQ(judge("drives").verdict, Verdict::kWrong);
  fs::create_directories(environment.prefix / "dosdevices");
  fs::create_symlink("/", environment.prefix / "dosdevices/z:");
  fs::create_symlink(scratch.path(), environment.prefix / "dosdevices/v:");
  EXPECT_THAT(judge("drives").found, HasSubstr("V: is not"));
  fs::remove(environment.prefix / "dosdevices/v:");
  fs::create_symlink("../../vaults", environment.prefix / "dosdevices/v:");
  EXPECT_EQ(judge("drives").verdict, Verdict::kOk);

  EXPECT_EQ(judge("vaults").verdict, Verdict::kOk);
  EXPECT_EQ(judge("index").verdict, Verdict::kOk) << "nothing to index, no index";
  fs::create_symlink(scratch.path() / "gone.pst", environment.vault_folder() / "gone.db");
  EXPECT_THAT(judge("vaults").found, HasSubstr("gone.pst"));
  EXPECT_EQ(judge("index").verdict, Verdict::kWarning);

  std::string why;
  { Store store(environment.index_file(), Database::Mode::kCreate); }
  EXPECT_EQ(judge("index").verdict, Verdict::kOk) << judge("index").found;
  EXPECT_FALSE(IndexIsBroken(environment, &why)) << why;
  Database(environment.index_file(), Database::Mode::kCreate).Execute("PRAGMA user_version = 99");
  EXPECT_THAT(judge("index").found, HasSubstr("another version"));
  // Damage in the middle of the file, which opens all the same.
  fs::remove(environment.index_file());
  {
    Store store(environment.index_file(), Database::Mode::kCreate);
    store.database().Execute("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  {
    std::fstream file(environment.index_file(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(3 * 4096);
    file << std::string(4096, '\x5A');
  }
  EXPECT_EQ(judge("index").verdict, Verdict::kWrong);
  std::ofstream(environment.index_file(), std::ios::trunc) << "no index at all, but a text";
  EXPECT_TRUE(IndexIsBroken(environment, &why));
  EXPECT_EQ(judge("disk").verdict, Verdict::kOk) << "the tests need room, too";
}

}  // namespace
}  // namespace hoardex::test
