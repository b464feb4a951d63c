// hoardex index --changes: brings the index up to date with the changes that the system's index has queued, and with
// nothing else.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "index/changes.h"
#include "index/commands.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

using nlohmann::json;
using Target = PlannedChange::Target;

struct KindWords {
  const char *name, *past;
};
KindWords WordsOf(ChangeKind kind) {
  constexpr KindWords kWords[] = {{"add", "added"}, {"delete", "deleted"}, {"modify", "modified"}};
  return kWords[static_cast<int>(kind)];
}

bool LeftOut(const ChangeReport& report) {
  return report.change.target == Target::kOutside || report.change.target == Target::kNoVault;
}

std::string Sentence(const ChangeReport& report) {
  const PlannedChange& change = report.change;
  if (change.target == Target::kOutside)
    return OneLine(change.url) + ": left out, it lies in no search root or is excluded by a rule.";
  if (change.target == Target::kNoVault)
    return (change.url.empty() ? "A change without a URL" : OneLine(change.url)) + ": left out, it is no vault.";
  std::string text = change.target == Target::kRoot ? "all vaults" : OneLine(report.vault);
  text += ": " + std::string(WordsOf(change.kind).past) + "; ";
  if (change.kind == ChangeKind::kDelete)
    return text + (report.known ? Counted(report.removed, "message") + " left the index." : "it was not in the index.");
  if (!report.error.empty()) return text + "it cannot be read: " + OneLine(report.error);
  text += Counted(report.work.messages, "message") + " and " + Counted(report.work.attachments, "attachment") +
          " indexed, " + Counted(report.removed, "message") + " removed";
  if (report.work.failed > 0) text += ", " + Counted(report.work.failed, "item") + " failed";
  return text + ".";
}

json ReportJson(const ChangeReport& report) {
  const PlannedChange& change = report.change;
  constexpr const char* kTargets[] = {"vault", "all", "outside", "no vault"};
  json out{{"url", change.url},
           {"change", WordsOf(change.kind).name},
           {"target", kTargets[static_cast<int>(change.target)]},
           {"times", change.times}};
  if (LeftOut(report)) return out;
  out["vault"] = report.vault;
  out["known"] = report.known;
  out["messages"] = report.work.messages;
  out["attachments"] = report.work.attachments;
  out["failed"] = report.work.failed;
  out["removed"] = report.removed;
  if (!report.error.empty()) out["error"] = report.error;
  return out;
}

}  // namespace

int RunIndexChanges(const Environment& environment, const IndexArguments& arguments) {
  HomeLock lock(environment);
  VaultFolder folder(environment);
  Store store(environment.index_file(), Database::Mode::kCreate);
  Progress progress;
  CrawlOptions options;
  for (const Vault& vault : folder.List()) options.kept_vaults.insert(vault.name);
  options.progress = [&](int64_t done, int64_t remaining) { progress.Show("indexing", done, remaining); };
  progress.Say("starting the protocol host");
  Gatherer gatherer(HostOptions(environment, {}, arguments.timeout_seconds));
  const ChangesOutcome outcome = CrawlChanges(gatherer, store, options);
  progress.Clear();

  bool complete = true;
  json list = json::array();
  for (const ChangeReport& report : outcome.reports) {
    complete = complete && report.error.empty() && report.work.failed == 0;
    list.push_back(ReportJson(report));
    if (!arguments.json) Print(Sentence(report) + "\n");
  }
  if (arguments.json) {
    Print(json{{"changes", list}, {"items", outcome.items}}.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
  } else if (outcome.reports.empty()) {
    Print("No change is queued.\n");
  }
  if (outcome.result == GatherResult::kInterrupted) {
    std::fprintf(stderr, "hoardex: stopped; what is not done yet stays queued.\n");
    return kExitInterrupted;
  }
  return complete ? kExitOk : kExitPartly;
}

}  // namespace hoardex
