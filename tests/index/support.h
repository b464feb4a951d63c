// What the tests of the index share: a scratch home, a scripted host, a mail corpus, runs of the program.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "index/crawl.h"
#include "index/gatherer.h"

namespace hoardex::test {

inline const std::string kRoot = "zkoffline3x://{S-1-5-21-1}/default/";
inline const std::string kTime = "2020-01-01T00:00:00.0000000Z", kLater = "2021-01-01T00:00:00.0000000Z";

// A folder that goes away with the test.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path Write(const std::string& name, const std::string& text) const;

 private:
  std::filesystem::path path_;
};

// What the fake host serves. Items are added below others; every change needs Save().
class Corpus {
 public:
  explicit Corpus(const Scratch& scratch);

  std::string AddVault(const std::string& name, const std::string& time = kTime);
  std::string AddFolder(const std::string& parent, const std::string& id, const std::string& name,
                        const std::string& time = kTime);
  // `properties` may be sparse: subject and sender have defaults.
  std::string AddMessage(const std::string& folder, const std::string& id, nlohmann::json properties,
                         const std::string& text, const std::string& time = kTime);
  std::string AddAttachment(const std::string& message, const std::string& name, const std::string& text,
                            const std::string& time = kTime);

  nlohmann::json& item(const std::string& url) { return script_["items"][url]; }
  // The link to an item within its container; removing it leaves the item unlisted.
  void SetLinkTime(const std::string& container, const std::string& url, const std::string& time);
  void Unlist(const std::string& container, const std::string& url);
  void Fault(const std::string& url, const std::string& what, int times = 1000);
  void FaultAtRequest(int number, const std::string& what);
  void ClearFaults() { script_["faults"] = nlohmann::json::array(); }

  // Queues a change; its number is returned by last_change().
  void Change(const std::string& change, const std::string& url);
  int64_t last_change() const { return last_change_; }
  // The number up to which the changes were done.
  int64_t Done() const;
  // Registers one more rule; without any every root is included.
  void AddRule(const std::string& pattern, bool included, bool is_default);
  nlohmann::json& script() { return script_; }

  // What the index answers to a report of a change.
  void SetNotifyResult(const std::string& code) { script_["notify_result"] = code; }
  // What the host answers when the item (all, for "*") is checked.
  void SetCheck(const std::string& url, nlohmann::json record) { script_["checks"][url] = std::move(record); }

  void Save();
  // The URLs asked for since the last call.
  std::vector<std::string> Requests();
  GatherOptions Options() const;

 private:
  std::string Add(const std::string& container, const std::string& url, nlohmann::json record, const std::string& time);
  const Scratch& scratch_;
  nlohmann::json script_;
  int64_t last_change_ = 0;
};

// Two vaults, folders, mails in several languages, an appointment, an attachment.
struct Sample {
  explicit Sample(Corpus& corpus);
  std::string vault, inbox, sub, budget, party, japanese, cafe, meeting, report, other_vault, other_folder, other_mail;
};

// Everything that the index holds but row numbers, as text: equal text means equal indexes.
std::string Contents(const std::filesystem::path& index_file);

struct Finished {
  int code = -1;  // exit code, or -signal
  std::string out, err;
};
// Runs the program with the scratch folder as home and the corpus as host; `interrupt_at`: SIGINT once the host has
// been asked for this URL.
Finished RunProgram(const Scratch& scratch, const std::vector<std::string>& arguments,
                    const std::string& interrupt_at = {});

// What is said of the first vault's file.
inline constexpr char kGood[] =
    R"({"opens": true, "messages": 5, "attachments": 1, "top_message_count": 2, "top_messages": [{"nid": 1, "subject": "Lost mail"}]})";
inline constexpr char kSecond[] = R"({"opens": true, "messages": 1})";

// The sample behind a fake host, and indexes of it.
class IndexTest : public testing::Test {
 protected:
  IndexTest() : corpus_(scratch_), sample_(corpus_) {}

  std::filesystem::path File(const std::string& name = "index.sqlite") const { return scratch_.path() / name; }
  CrawlOutcome Crawl(const CrawlOptions& options = {}, const std::string& name = "index.sqlite");
  int64_t Hits(const std::string& query);
  // Runs the program over the corpus as it is now.
  Finished Program(const std::vector<std::string>& arguments, const std::string& interrupt_at = {});
  // Two files with what the host serves, the second of one message; the run that indexes them.
  Finished IndexBoth();
  // The vault's file has changed, as its link and those of its folders show.
  void TouchVault();
  // Runs it in a process of its own; whether SIGKILL ended that.
  static bool IsKilledBy(const std::function<void()>& run);

  Scratch scratch_;
  Corpus corpus_;
  Sample sample_;
  // Of the last crawl.
  std::map<std::string, VaultCounts> counts_;
  std::vector<FailedItem> failures_;
  std::map<std::string, int64_t> removed_;
};

}  // namespace hoardex::test
