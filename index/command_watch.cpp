#include <cstdio>
#include <ctime>
#include <optional>
#include <thread>

#include "index/changes.h"
#include "index/commands.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/text.h"
#include "index/vaults.h"
#include "index/watch.h"
#include "index/windows_side.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr auto kAgain = std::chrono::seconds(30);  // after a failure
constexpr auto kLockPoll = std::chrono::milliseconds(500);
constexpr auto kStep = std::chrono::milliseconds(1000);

struct ChangeWords {
  const char *told, *shown;
};
constexpr ChangeWords kWords[] = {{"add", "added"}, {"delete", "deleted"}, {"modify", "modified"}};

const ChangeWords& WordsOf(VaultChange change) {
  return kWords[static_cast<int>(change)];
}

void Say(const std::string& text) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char time[16];
  std::strftime(time, sizeof time, "%H:%M:%S  ", &local);
  Print(time + PrintableText(text) + "\n");
  std::fflush(stdout);
}

// Waits for other writers of the index; nothing when stopped meanwhile.
std::optional<HomeLock> WaitForLock(const Environment& environment) {
  for (bool said = false; !Interrupted();) {
    try {
      return std::optional<HomeLock>(std::in_place, environment);
    } catch (const LockBusy&) {
      if (!std::exchange(said, true)) Say("another hoardex is updating the index; waiting for it");
      std::this_thread::sleep_for(kLockPoll);
    }
  }
  return std::nullopt;
}

// The stamps of the files as they were indexed.
std::map<std::string, std::string> IndexedStamps(const Environment& environment) {
  std::map<std::string, std::string> stamps;
  if (!fs::exists(environment.index_file())) return stamps;
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  Statement rows(store.database().handle(), "SELECT name, stamp FROM vaults");
  while (rows.Step()) stamps.emplace(rows.String(0), rows.String(1));
  return stamps;
}

std::string Describe(const ChangeReport& report) {
  if (!report.error.empty()) return report.vault + " could not be read: " + OneLine(report.error);
  if (report.change.kind == ChangeKind::kDelete)
    return "removed " + (report.vault.empty() ? "all vaults" : report.vault) + ": " +
           Counted(report.removed, "message");
  std::string text = "indexed " + (report.vault.empty() ? "all vaults" : report.vault) + ": " +
                     Counted(report.work.messages, "message") + ", " + Counted(report.work.attachments, "attachment");
  if (report.work.failed > 0) text += ", " + Counted(report.work.failed, "item") + " failed";
  if (report.removed > 0) text += ", " + Counted(report.removed, "message") + " removed";
  return text;
}

class Watcher {
 public:
  Watcher(const Environment& environment, const WatchArguments& arguments)
      : environment_(environment), host_(HostOptions(environment, {}, arguments.timeout_seconds)) {}

  // Reports the events and indexes what they are about. False when that failed or was stopped: they are to come again.
  bool Handle(const std::vector<VaultEvent>& events) {
    for (const VaultEvent& event : events) Say(std::string(WordsOf(event.change).shown) + " " + event.name);
    const auto lock = WaitForLock(environment_);
    if (!lock) return false;
    try {
      // A host of its own each time: one that goes on keeps the files open that it has read, and would read one that
      // was replaced as it was.
      Gatherer gatherer(host_);
      for (const VaultEvent& event : events) {
        const std::string trouble = ReportVault(gatherer, WordsOf(event.change).told, event.name);
        if (!trouble.empty()) return Fail(trouble);
      }
      if (!Index(gatherer, events)) return false;
    } catch (const HostError& error) {
      return Interrupted() ? false : Fail(error.what());
    }
    said_.clear();
    return true;
  }

 private:
  bool Index(Gatherer& gatherer, const std::vector<VaultEvent>& events) {
    Store store(environment_.index_file(), Database::Mode::kCreate);
    VaultFolder folder(environment_);
    CrawlOptions options;
    for (const Vault& vault : folder.List()) options.kept_vaults.insert(vault.name);
    const ChangesOutcome outcome = CrawlChanges(gatherer, store, options);
    for (const ChangeReport& report : outcome.reports) Say(Describe(report));
    if (outcome.result != GatherResult::kFinished) return false;
    for (const VaultEvent& event : events) {
      if (event.change == VaultChange::kDeleted) {
        store.RemoveVault(event.name);
        continue;
      }
      // With the stamp of before the reading: what changed meanwhile is looked at again.
      const auto vault = folder.Find(event.name);
      if (!vault || !vault->present) continue;
      const VaultInfo info = InspectVault(environment_, vault->source);
      store.SaveVault({event.name, vault->source.string(), event.stamp, info.text});
    }
    return true;
  }

  bool Fail(const std::string& trouble) {
    if (trouble != said_) Say(trouble + " It is tried again every " + std::to_string(kAgain.count()) + " s.");
    said_ = trouble;
    return false;
  }

  const Environment& environment_;
  const GatherOptions host_;
  std::string said_;
};

}  // namespace

int RunWatch(const Environment& environment, const WatchArguments& arguments) {
  environment.Require(environment.vaultinfo);
  Watcher watcher(environment, arguments);
  WatchOptions options;
  options.quiet = std::chrono::milliseconds(static_cast<int64_t>(arguments.quiet_seconds * 1000));
  std::error_code error;
  fs::create_directories(environment.vault_folder(), error);
  VaultWatch watch(environment, IndexedStamps(environment), options);
  if (!watch.trouble().empty()) std::fprintf(stderr, "hoardex: %s\n", PrintableText(watch.trouble()).c_str());
  Say("watching " + Counted(static_cast<int64_t>(VaultFolder(environment).List().size()), "vault"));
  // A first look finds everything at the same moment.
  const auto first = options.quiet + std::chrono::milliseconds(200);
  for (auto again = Clock::now(); !Interrupted();) {
    const bool rest = Clock::now() < again;
    const auto events = rest ? std::vector<VaultEvent>() : watch.Wait(arguments.once ? first : kStep);
    if (rest) std::this_thread::sleep_for(kLockPoll);
    if (!events.empty() && !watcher.Handle(events)) {
      if (arguments.once && !Interrupted()) return kExitFailed;
      for (const VaultEvent& event : events) watch.Forget(event);
      again = Clock::now() + kAgain;
    }
    if (arguments.once) return kExitOk;
  }
  Say("stopped");
  return kExitOk;
}

}  // namespace hoardex
