#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "index/commands.h"
#include "index/crawl.h"
#include "index/imports.h"
#include "index/output.h"
#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr size_t kShownFailures = 20, kShownSubjects = 5;

struct Refusal {
  std::string file, reason;
};

// One line of the closing table.
struct VaultReport {
  Vault vault;
  VaultInfo info;
  VaultCounts counts;
  int64_t removed = 0;
  std::vector<FailedItem> failures;
  Import import;  // where the vault was made of mail in files

  // Promised, but in no list that the crawl has seen.
  int64_t Missing() const {
    const int64_t seen =
        counts.messages_new + counts.messages_unchanged + counts.messages_failed + counts.messages_waiting;
    return info.opens && info.messages > seen ? info.messages - seen : 0;
  }
  bool Complete() const {
    return vault.present && info.opens && failures.empty() && Missing() == 0 && import.error.empty() &&
           import.left_out.empty();
  }
};

// The files become vaults; what is refused is added to `refusals` with its reason.
void AddVaults(const Environment& environment, const std::vector<fs::path>& files, Store& store, Progress& progress,
               bool quiet, std::vector<Refusal>& refusals) {
  VaultFolder folder(environment);
  for (const fs::path& file : files) {
    if (Interrupted()) break;
    progress.Say("examining " + OneLine(file.filename().string()));
    const AddResult added = folder.Add(file);
    progress.Clear();
    if (added.state == AddResult::State::kRefused) {
      std::fprintf(stderr, "hoardex: %s is refused: %s\n", OneLine(file.string()).c_str(),
                   OneLine(added.reason).c_str());
      refusals.push_back({file.string(), added.reason});
      continue;
    }
    if (added.state != AddResult::State::kAdded) continue;
    if (const auto vault = folder.Find(added.name)) {
      store.SaveVault({vault->name, vault->source.string(), vault->stamp, added.info.text});
    }
    if (!quiet && added.name != SafeVaultName(file.stem().string())) {
      std::fprintf(stderr, "hoardex: %s is the vault \"%s\", another has its name.\n", OneLine(file.string()).c_str(),
                   added.name.c_str());
    }
  }
}

// Converts the named mail, and what was converted before where it has changed. Stores of what was named go to `files`.
std::vector<Import> BringMail(const Environment& environment, const std::vector<fs::path>& named,
                              std::vector<fs::path>& files, std::vector<Refusal>& refusals, Progress& progress) {
  Imports imports(environment);
  imports.Sweep();
  std::vector<Import> all;
  const auto bring = [&](const fs::path& source) -> const Import& {
    progress.Say("converting " + OneLine(source.filename().string()));
    all.push_back(imports.Bring(source));
    progress.Clear();
    return all.back();
  };
  for (const fs::path& source : named) {
    if (Interrupted()) break;
    const Import& import = bring(source);
    if (Interrupted()) break;
    if (!import.store.empty() && fs::exists(import.store)) continue;
    std::fprintf(stderr, "hoardex: %s is refused: %s\n", OneLine(source.string()).c_str(), import.error.c_str());
    refusals.push_back({source.string(), import.error});
  }
  for (const Import& known : imports.List()) {
    const auto same = [&](const Import& import) { return import.store == known.store; };
    if (Interrupted() || std::any_of(all.begin(), all.end(), same)) continue;
    if (known.source.empty()) {
      all.push_back(known);
    } else {
      bring(known.source);
    }
  }
  // Also a store whose vault somebody took away by hand comes back: vaults remove forgets it.
  for (const Import& import : all)
    if (!import.store.empty() && fs::exists(import.store)) files.push_back(import.store);
  return all;
}

// What the stores promise: remembered as long as the file is the same.
VaultInfo Promise(const Environment& environment, const Vault& vault, Store& store, Progress& progress) {
  const auto known = store.FindVault(vault.name);
  if (known && known->stamp == vault.stamp) return VaultInfo::FromJson(known->info);
  if (!vault.present) {
    VaultInfo missing;
    missing.error = "The original " + OneLine(vault.source.string()) + " is not there.";
    return missing;
  }
  progress.Say("examining " + vault.name);
  VaultInfo info = InspectVault(environment, vault.source);
  progress.Clear();
  if (info.opens) store.SaveVault({vault.name, vault.source.string(), vault.stamp, info.text});
  return info;
}

std::string WhatFailed(const FailedItem& item) {
  std::string out(KindName(item.kind));
  if (!item.path.empty()) out += " in " + OneLine(item.path);
  out += item.title.empty() ? " " + OneLine(item.url) : " \"" + OneLine(item.title) + "\"";
  return out + ": " + OneLine(item.error);
}

void PrintLosses(const VaultReport& report) {
  const std::string name = report.vault.name;
  if (!report.vault.present || !report.info.opens)
    Print(name + ": " + report.info.error + " What was indexed of it before stays.\n");
  if (!report.import.error.empty() && report.import.source.empty()) {
    Print(name + ": " + report.import.error + "\n");
  } else if (!report.import.error.empty()) {
    Print(name + ": the mail in " + OneLine(report.import.source.string()) +
          " could not be brought up to date: " + report.import.error + "\n");
  }
  for (size_t i = 0; i < report.import.left_out.size() && i < kShownFailures; ++i)
    Print(name + ": left out " + OneLine(report.import.left_out[i].file) + ": " +
          OneLine(report.import.left_out[i].reason) + "\n");
  if (report.import.left_out.size() > kShownFailures)
    Print(name + ": … and left out " + Grouped(static_cast<long long>(report.import.left_out.size() - kShownFailures)) +
          " more (all with --json)\n");
  for (size_t i = 0; i < report.failures.size() && i < kShownFailures; ++i)
    Print(name + ": " + WhatFailed(report.failures[i]) + "\n");
  if (report.failures.size() > kShownFailures) {
    Print(name + ": … and " + Grouped(static_cast<long long>(report.failures.size() - kShownFailures)) +
          " more (all with --json)\n");
  }
  if (report.Missing() > 0) {
    Print(name + ": " + Counted(report.Missing(), "message") + " of the store " +
          (report.Missing() == 1 ? "was" : "were") + " not listed by any folder that could be browsed\n");
  }
  if (report.info.top_message_count == 0) return;
  Print(name + ": not counted, " + Counted(report.info.top_message_count, "message") +
        " in the store's top folder, which browsing does not list:\n");
  for (size_t i = 0; i < report.info.top_subjects.size() && i < kShownSubjects; ++i) {
    const std::string& subject = report.info.top_subjects[i];
    Print("  \"" + (subject.empty() ? "[No subject]" : subject) + "\"\n");
  }
  if (report.info.top_message_count > static_cast<int64_t>(kShownSubjects)) Print("  …\n");
}

void PrintReport(const std::vector<VaultReport>& reports, const std::vector<Refusal>& refusals) {
  Table table({"vault", "promised", "indexed", "unchanged", "failed", "removed", "attachments"});
  for (const VaultReport& report : reports) {
    const VaultCounts& counts = report.counts;
    std::string attachments = Grouped(counts.attachments);
    if (report.info.attachments > counts.attachments) attachments += " of " + Grouped(report.info.attachments);
    if (counts.attachments_failed > 0) attachments += " (" + Grouped(counts.attachments_failed) + " failed)";
    table.Add({report.vault.name, report.info.opens ? Grouped(report.info.messages) : "?", Grouped(counts.messages_new),
               Grouped(counts.messages_unchanged), Grouped(counts.messages_failed), Grouped(report.removed),
               attachments});
  }
  for (const Refusal& refusal : refusals)
    table.Add({OneLine(fs::path(refusal.file).filename().string()), "refused: " + OneLine(refusal.reason)});
  Print(table.Text());
  for (const VaultReport& report : reports) {
    if (report.info.attachments <= report.counts.attachments + report.counts.attachments_failed) continue;
    Print(
        "The content of attachments is indexed where their type has a text filter; the others are found by their "
        "names.\n");
    break;
  }
  for (const VaultReport& report : reports) PrintLosses(report);
}

json ReportJson(const std::vector<VaultReport>& reports, const std::vector<Refusal>& refusals) {
  json out{{"vaults", json::array()}, {"refused", json::array()}};
  for (const VaultReport& report : reports) {
    json losses = json::array();
    for (const FailedItem& item : report.failures) {
      losses.push_back({{"url", item.url},
                        {"kind", KindName(item.kind)},
                        {"title", item.title},
                        {"path", item.path},
                        {"reason", item.error}});
    }
    const VaultCounts& counts = report.counts;
    json entry{{"name", report.vault.name},
               {"source", report.vault.source.string()},
               {"present", report.vault.present},
               {"indexed", counts.messages_new},
               {"unchanged", counts.messages_unchanged},
               {"failed", counts.messages_failed},
               {"waiting", counts.messages_waiting},
               {"removed", report.removed},
               {"attachments", counts.attachments},
               {"attachments_failed", counts.attachments_failed},
               {"folders", counts.folders},
               {"folders_failed", counts.folders_failed},
               {"not_listed", report.Missing()},
               {"top_message_count", report.info.top_message_count},
               {"top_messages", report.info.top_subjects},
               {"losses", losses}};
    if (!report.import.source.empty()) {
      entry["made_of"] = report.import.source.string();
      entry["left_out"] = json::array();
      for (const LeftOut& loss : report.import.left_out)
        entry["left_out"].push_back({{"file", loss.file}, {"reason", loss.reason}});
      if (!report.import.error.empty()) entry["not_brought_up_to_date"] = report.import.error;
    }
    if (report.info.opens) {
      entry["promised"] = report.info.messages;
      entry["attachments_in_store"] = report.info.attachments;
    } else {
      entry["error"] = report.info.error;
    }
    out["vaults"].push_back(std::move(entry));
  }
  for (const Refusal& refusal : refusals)
    out["refused"].push_back({{"file", refusal.file}, {"reason", refusal.reason}});
  return out;
}

}  // namespace

int RunIndex(const Environment& environment, const IndexArguments& arguments) {
  std::vector<std::string> stores;
  std::vector<fs::path> mail;
  for (const std::string& argument : arguments.files) {
    if (Imports::IsMail(argument)) mail.emplace_back(argument);
    if (Imports::IsStores(argument)) stores.push_back(argument);
  }
  std::vector<fs::path> files = ExpandFolders(stores);
  VaultFolder folder(environment);
  if (arguments.files.empty() && !arguments.demo && folder.List().empty()) {
    throw CommandError(
        kExitUsage,
        "There is no vault yet. Name stores or folders of stores (hoardex index mail.pst), mail in files (a maildir, "
        "mailboxes, .eml), or try it with hoardex index --demo.");
  }
  if (files.empty() && mail.empty() && !arguments.files.empty())
    throw CommandError(kExitUsage, "There is no .pst or .db file in what you named.");
  environment.Require(environment.vaultinfo);
  if (environment.host_command.empty()) environment.Require("");
  HomeLock lock(environment);
  folder.ClearTemporary();
  if (arguments.demo) {
    files.push_back(MakeDemo(environment));
  }

  Store store(environment.index_file(), Database::Mode::kCreate);
  Progress progress;
  std::vector<Refusal> refusals;
  const size_t named = files.size() + mail.size();
  const std::vector<Import> imports = BringMail(environment, mail, files, refusals, progress);
  AddVaults(environment, files, store, progress, arguments.json, refusals);
  if (!refusals.empty() && refusals.size() == named) {
    if (arguments.json) Print(ReportJson({}, refusals).dump(2, ' ', false, json::error_handler_t::replace) + "\n");
    return kExitFailed;
  }

  CrawlOptions options;
  options.retry_lost = arguments.retry;
  for (const Vault& vault : folder.List()) options.kept_vaults.insert(vault.name);
  options.progress = [&](int64_t done, int64_t remaining) { progress.Show("indexing", done, remaining); };
  GatherOptions gather;
  gather.command = environment.host_command;
  gather.log = environment.host_log();
  gather.answer_timeout = std::chrono::seconds(arguments.timeout_seconds);
  std::error_code ignored;
  fs::remove(gather.log, ignored);

  CrawlOutcome outcome;
  outcome.result = GatherResult::kInterrupted;
  if (!Interrupted()) {
    progress.Say("starting the protocol host");
    Gatherer gatherer(gather);
    outcome = Crawl(gatherer, store, options);
  }
  progress.Clear();
  if (outcome.result == GatherResult::kInterrupted) {
    std::fprintf(
        stderr,
        "hoardex: stopped with %s still to do; what has been done is in the index. hoardex index goes on from here.\n",
        Counted(store.QueueSize(), "item").c_str());
    return kExitInterrupted;
  }

  bool complete = refusals.empty();
  for (const std::string& root : outcome.unruled) {
    std::fprintf(stderr,
                 "hoardex: nothing is crawled of the search root %s: no rule includes it. ./hoardex setup adds its "
                 "rules.\n",
                 OneLine(root).c_str());
    complete = false;
  }
  std::vector<VaultReport> reports;
  auto counts = store.Counts();
  auto failures = store.Failures();
  for (const Vault& vault : folder.List()) {
    VaultReport report;
    report.vault = vault;
    report.info = Promise(environment, vault, store, progress);
    report.counts = counts[vault.name];
    if (const auto removed = store.removed().find(vault.name); removed != store.removed().end())
      report.removed = removed->second;
    for (const Import& import : imports) {
      if (import.store == vault.source) report.import = import;
    }
    for (const FailedItem& item : failures) {
      if (item.vault == vault.name) report.failures.push_back(item);
    }
    complete = complete && report.Complete();
    reports.push_back(std::move(report));
  }
  // The root belongs to no vault.
  for (const FailedItem& item : failures) {
    if (!item.vault.empty()) continue;
    std::fprintf(stderr, "hoardex: the list of vaults could not be had: %s\n", item.error.c_str());
    complete = false;
  }
  if (arguments.json) {
    json out = ReportJson(reports, refusals);
    out["items"] = outcome.items;
    out["resumed"] = outcome.resumed;
    Print(out.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
  } else {
    PrintReport(reports, refusals);
  }
  return complete ? kExitOk : kExitPartly;
}

}  // namespace hoardex
