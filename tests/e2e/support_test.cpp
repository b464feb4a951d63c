// What helps when something is not found: checks of the filters, reasons, equal and complete dumps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tests/e2e/system.h"

namespace {

using e2e::Json;
using e2e::Result;
using e2e::System;
using testing::Contains;
using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr char kPolicyKey[] = "HKLM\\Software\\Policies\\Microsoft\\Windows\\Windows Search";

class Support : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(System::Trouble(), "");
    System::Clear();
  }
};

std::string Failures(const Json& summary) {
  std::string failures;
  for (const Json& rule : summary["rules"])
    if (rule["result"] == "failed") failures += rule.dump() + "\n";
  return failures;
}

Json Check(const std::vector<std::string>& words) {
  std::vector<std::string> all = {"check", "--json"};
  all.insert(all.end(), words.begin(), words.end());
  const Result run = System::Run(all);
  EXPECT_TRUE(run.code == 0 || run.code == 1) << run.errors;
  const Json summary = Json::parse(run.output, nullptr, false);
  if (summary.is_discarded()) return Json::object();
  EXPECT_EQ(run.code, Failures(summary).empty() ? 0 : 1);
  return summary;
}

const Json& Rule(const Json& summary, const std::string& name) {
  static const Json none;
  for (const Json& rule : summary["rules"])
    if (rule["rule"] == name) return rule;
  return none;
}

std::set<std::string> KindsOf(const Json& rule) {
  std::set<std::string> kinds;
  for (const Json& waiver : rule["waivers"]) kinds.insert(waiver["kind"]);
  return kinds;
}

TEST_F(Support, EveryItemKeepsTheRulesOrHasAWaiver) {
  const Json demo = Check({"--demo"});
  EXPECT_EQ(Failures(demo), "");
  EXPECT_EQ(KindsOf(Rule(demo, "value-once")),
            (std::set<std::string>{"root", "vault", "folder", "message", "attachment"}));
  EXPECT_EQ(Rule(demo, "threads")["items"], 5) << "once a kind";
  EXPECT_EQ(Rule(demo, "free-threads")["items"], 5);
  for (const char* rule : {"chunks-end", "same-again", "null-arguments", "value-memory"})
    EXPECT_EQ(Rule(demo, rule)["items"], demo["items"]) << rule;

  const char* folder = getenv("HOARDEX_SAMPLES");
  if (!folder || !fs::exists(fs::path(folder) / "all-item-kinds.pst")) return;
  for (const char* store : {"all-item-kinds.pst", "four_nesting_levels.pst", "tika-variousBodyTypes.pst"})
    EXPECT_EQ(System::Run({"vaults", "add", fs::path(folder) / store}).code, 0);
  const Json all = Check({"--all"});
  EXPECT_EQ(Failures(all), "");
  EXPECT_GT(all["items"], 30);
}

TEST_F(Support, OtherFiltersHaveNoWaivers) {
  const fs::path page = System::home() / "page.html";
  std::ofstream(page) << "<title>A title</title><p>and some words";
  const Json own = Check({"--file", page});
  EXPECT_EQ(Failures(own), "");
  EXPECT_EQ(Rule(own, "init-unloaded")["items"], 1);
  EXPECT_EQ(KindsOf(Rule(own, "value-once")), std::set<std::string>());
  // A class that is no filter.
  const Json none = Check({"--clsid", "{13709620-C279-11CE-A49E-444553540000}", "--file", page});
  EXPECT_EQ(Rule(none, "opens")["result"], "failed") << none;
}

TEST_F(Support, WhatCannotBeAskedIsRefusedAndWhatIsNotThereFails) {
  ASSERT_EQ(System::Run({"index", "--demo"}).code, 0);
  const std::string vault = "zkoffline3x://{S-1-5-21-0-0-0-1000}/default/V:\\Tessary\\demo.db/";
  const Json absent = Check({vault + "nonsense/"});
  EXPECT_EQ(Rule(absent, "opens")["result"], "failed") << absent;
  const fs::path latin = System::home() / "caf\xE9.html";
  std::ofstream(latin) << "<p>words";
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{{"check", "--file", latin},
                                                                                     {"check", "--file", ""},
                                                                                     {"check", "--clsid", ""},
                                                                                     {"check", vault + "\xFF.zkm"},
                                                                                     {"show", vault + "\xFF.zkm"},
                                                                                     {"why", vault + "\xFF.zkm"}}) {
    const Result run = System::Run(words);
    EXPECT_EQ(run.code, 2) << words[0] << " " << words[1] << run.output << run.errors;
  }
}

// The group policy that keeps attachments out, while it lives.
struct BarredAttachments {
  BarredAttachments() : result(Registry("add", " /v PreventIndexingEmailAttachments /t REG_DWORD /d 1")) {}
  ~BarredAttachments() { EXPECT_EQ(Registry("delete", ""), 0); }
  static int Registry(const std::string& verb, const std::string& value) {
    return std::system(
        ("wine reg " + verb + " '" + kPolicyKey + "'" + value + " /f </dev/null >e2e.tool 2>&1").c_str());
  }
  const int result;
};

TEST_F(Support, WhySaysWhatIsLeftOut) {
  ASSERT_EQ(System::Run({"index", "--demo"}).code, 0);
  const auto why = [](const std::string& item) { return Json::parse(System::Run({"why", "--json", item}).output); };
  const Json photo = why("Photo of the harbour");
  EXPECT_EQ(photo["promised"], true);
  EXPECT_EQ(photo["index"]["state"], "indexed");
  EXPECT_THAT(photo["left_out"].get<std::vector<std::string>>(), Contains(HasSubstr("type .png")));
  const auto failed_line = [](const Json& line) {
    return line["failure"] == true && line["line"].get<std::string>().find("[png]") != std::string::npos;
  };
  EXPECT_EQ(std::ranges::count_if(photo["log"], failed_line), 1) << photo["log"];
  const std::string url = photo["url"], folder = url.substr(0, url.rfind('/') + 1);
  const Json absent = why(folder + std::string(48, '0') + "[[1]].zkm");
  EXPECT_EQ(absent["promised"], false);
  EXPECT_TRUE(absent.contains("error"));
  EXPECT_FALSE(absent["left_out"].empty());

  const BarredAttachments policy;
  ASSERT_EQ(policy.result, 0);
  const Json barred = why("Photo of the harbour");
  EXPECT_THAT(barred["left_out"].get<std::vector<std::string>>(), Contains(HasSubstr("policy")));
  EXPECT_EQ(Failures(Check({"--demo"})), "") << "what policy changes is waived, too";
}

// What independent readers count in a store.
struct Counted {
  std::map<std::string, size_t> items;  // as lspst names them
  size_t skipped = 0;                   // by readpst: tasks and notes
  size_t attachments = 0;
};

Counted CountByOthers(const fs::path& store) {
  Counted counted;
  std::istringstream list(e2e::Output("lspst '" + store.string() + "'"));
  for (std::string line; std::getline(list, line);) ++counted.items[line.substr(0, line.find_first_of(" \t"))];
  const fs::path folder = fs::absolute("e2e-readpst");
  fs::remove_all(folder);
  fs::create_directories(folder);
  std::istringstream read(e2e::Output("readpst -j 0 -e -D -o '" + folder.string() + "' '" + store.string() + "'"));
  for (std::string line; std::getline(read, line);)
    if (const size_t at = line.find(" items done, "); at != std::string::npos)
      counted.skipped += std::stoul(line.substr(at + 13));
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    if (entry.path().extension() != ".eml") continue;
    std::ifstream mail(entry.path());
    for (std::string line; std::getline(mail, line);) {
      counted.attachments += line.starts_with("Content-Disposition: attachment");
      counted.attachments += line.starts_with("Content-Type: message/rfc822");
      // The tool's own copy of a formatted body.
      counted.attachments -=
          line.find("rtf-body.rtf") != std::string::npos && line.find("filename*=") != std::string::npos;
    }
  }
  fs::remove_all(folder);
  return counted;
}

TEST_F(Support, DumpsAreEqualAndCompleteByTheCountOfOthers) {
  if (std::system("command -v lspst readpst >/dev/null")) GTEST_SKIP() << "pst-utils are not installed";
  const fs::path store = System::home() / "invented.db";
  ASSERT_EQ(
      std::system((std::string(MKVAULT) + " --messages 1500 --seed 11 '" + store.string() + "' >e2e.tool").c_str()), 0);
  const Result first = System::Run({"dump", "--chunks", store}), second = System::Run({"dump", "--chunks", store});
  EXPECT_EQ(first.code, 0) << first.errors;
  EXPECT_TRUE(first.output == second.output) << "a dump differs from run to run";

  const Counted others = CountByOthers(store);
  std::map<std::string, size_t> types;
  size_t names = 0;
  std::istringstream lines(first.output);
  for (std::string line; std::getline(lines, line);) {
    const Json record = Json::parse(line);
    EXPECT_FALSE(record.contains("error")) << line;
    if (record["kind"] != "message") continue;
    ++types[record["properties"]["System.ItemType"]];
    const std::string list = record["properties"].value("System.Message.AttachmentNames", "");
    if (!list.empty()) names += 1 + static_cast<size_t>(std::ranges::count(list, ';'));
  }
  const auto at = [](const std::map<std::string, size_t>& counts, const char* key) {
    const auto found = counts.find(key);
    return found == counts.end() ? 0 : found->second;
  };
  // Journal entries have no kind of their own here; tasks and notes are the ones that the tools pass over.
  EXPECT_EQ(at(types, "MAPI/ZK.Message"), at(others.items, "Email") + at(others.items, "Journal"));
  EXPECT_EQ(at(types, "MAPI/ZK.Appointment"), at(others.items, "Appointment"));
  EXPECT_EQ(at(types, "MAPI/ZK.Contact"), at(others.items, "Contact"));
  EXPECT_EQ(at(types, "MAPI/ZK.Task") + at(types, "MAPI/ZK.Note"), others.skipped);
  EXPECT_EQ(names, others.attachments);
  EXPECT_GT(names, 300u);

  const Result index = System::Run({"index", "--json", store});
  EXPECT_EQ(index.code, 0) << index.errors;
  const Json vault = Json::parse(index.output)["vaults"][0];
  size_t delivered = 0;
  for (const auto& [type, count] : types) delivered += count;
  EXPECT_EQ(vault["promised"], delivered);
  EXPECT_EQ(vault["indexed"], delivered);
  EXPECT_EQ(vault["attachments_in_store"], names);
}

}  // namespace
