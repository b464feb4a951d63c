#include "index/changes.h"

#include <algorithm>
#include <map>
#include <optional>

#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

using nlohmann::json;

struct Batch {
  std::vector<QueuedChange> changes;
  bool more = false;
  std::string error;
};

QueuedChange Parse(const json& entry) {
  QueuedChange change;
  change.valid = false;
  if (!entry.is_object() || !entry.contains("id") || !entry["id"].is_number_integer()) return change;
  change.id = entry["id"].get<int64_t>();
  if (!entry.contains("url") || !entry["url"].is_string() || !entry.contains("change")) return change;
  change.url = entry["url"].get<std::string>();
  constexpr std::pair<const char*, ChangeKind> kKinds[] = {
      {"add", ChangeKind::kAdd}, {"delete", ChangeKind::kDelete}, {"modify", ChangeKind::kModify}};
  for (const auto& [name, kind] : kKinds) {
    if (entry["change"] != name) continue;
    change.kind = kind;
    change.valid = true;
  }
  return change;
}

Batch Fetch(Gatherer& gatherer) {
  const json answer = gatherer.Request({{"changes", true}}, "changes");
  Batch batch;
  if (answer.contains("error")) batch.error = Record::FromJson(answer).error.value_or(ItemError{}).Describe();
  if (answer["changes"].is_array())
    for (const json& entry : answer["changes"]) batch.changes.push_back(Parse(entry));
  batch.more = answer.value("more", json()) == true;
  return batch;
}

int64_t LastId(const Batch& batch) {
  int64_t last = 0;
  for (const QueuedChange& change : batch.changes) last = std::max(last, change.id);
  return last;
}

PlannedChange Plan(const CrawlScope& scope, const QueuedChange& change) {
  PlannedChange planned;
  planned.kind = change.kind;
  planned.url = change.url;
  if (!change.valid || change.url.empty()) return planned;
  const std::string* const root = scope.RootOf(change.url);
  planned.target = PlannedChange::Target::kOutside;
  if (!root || !scope.LeadsTo(change.url)) return planned;
  planned.root = *root;
  // The root as it is in the store, whatever the notifier's spelling of it.
  const std::string url = ContainerUrl(change.url);
  planned.url = *root + url.substr(root->size());
  const bool vault = KindOfUrl(planned.url) == ItemKind::kVault;
  planned.target = planned.url == *root                                  ? PlannedChange::Target::kRoot
                   : vault && !IsTemporaryVault(VaultOfUrl(planned.url)) ? PlannedChange::Target::kVault
                                                                         : PlannedChange::Target::kNoVault;
  return planned;
}

// The vault's URL as the index has it, however the notifier has spelt it; nothing when it is not in the index.
std::optional<std::string> KnownVault(Store& store, const PlannedChange& change) {
  const std::string wanted = AsciiLower(change.url);
  for (const std::string& url : store.VaultsOf(change.root))
    if (AsciiLower(url) == wanted) return url;
  return std::nullopt;
}

// Deletions happen in the store at once; the rest is queued there.
ChangeReport Apply(Store& store, PlannedChange change) {
  ChangeReport report;
  if (change.target == PlannedChange::Target::kVault) {
    const auto known = KnownVault(store, change);
    report.known = known.has_value();
    change.url = known.value_or(change.url);
    report.vault = VaultOfUrl(change.url);
    if (change.kind == ChangeKind::kDelete) {
      report.removed = store.DropVault(change.root, change.url);
    } else {
      store.QueueVault(change.root, change.url);
    }
  }
  if (change.target == PlannedChange::Target::kRoot) {
    report.known = true;
    if (change.kind == ChangeKind::kDelete) {
      for (const std::string& vault : store.VaultsOf(change.root))
        report.removed += store.DropVault(change.root, vault);
    } else {
      store.QueueRoot(change.root);
    }
  }
  report.change = std::move(change);
  return report;
}

int64_t Sum(const std::map<std::string, int64_t>& counts) {
  int64_t sum = 0;
  for (const auto& [name, count] : counts) sum += count;
  return sum;
}

void Complete(Store& store, const CrawlOutcome& crawl, const std::map<std::string, int64_t>& removed_before,
              ChangeReport& report) {
  if (report.change.kind == ChangeKind::kDelete) return;
  const auto count = [](const auto& counts, const std::string& name) {
    const auto found = counts.find(name);
    return found == counts.end() ? typename std::decay_t<decltype(counts)>::mapped_type{} : found->second;
  };
  if (report.change.target == PlannedChange::Target::kVault) {
    report.work = count(crawl.vaults, report.vault);
    report.removed = count(store.removed(), report.vault) - count(removed_before, report.vault);
  } else if (report.change.target == PlannedChange::Target::kRoot) {
    for (const auto& [name, work] : crawl.vaults) {
      report.work.messages += work.messages;
      report.work.attachments += work.attachments;
      report.work.failed += work.failed;
    }
    report.removed = Sum(store.removed()) - Sum(removed_before);
  } else {
    return;
  }
  if (const auto status = store.StatusOf(report.change.url))
    if (status->state == ItemState::kFailed || status->state == ItemState::kLost) report.error = status->error;
}

}  // namespace

std::vector<PlannedChange> PlanChanges(const CrawlScope& scope, const std::vector<QueuedChange>& changes) {
  std::vector<PlannedChange> plan;
  for (const QueuedChange& change : changes) {
    PlannedChange planned = Plan(scope, change);
    const std::string key = AsciiLower(planned.url);
    std::erase_if(plan, [&](const PlannedChange& earlier) {
      const bool same = earlier.target == planned.target && AsciiLower(earlier.url) == key;
      const bool needless = planned.target == PlannedChange::Target::kRoot && planned.kind == ChangeKind::kDelete &&
                            earlier.root == planned.root && earlier.target == PlannedChange::Target::kVault;
      if (same) planned.times += earlier.times;
      return same || needless;
    });
    plan.push_back(std::move(planned));
  }
  return plan;
}

ChangesOutcome CrawlChanges(Gatherer& gatherer, Store& store, const CrawlOptions& options) {
  ChangesOutcome outcome;
  const CrawlScope scope = gatherer.Scope();
  store.StartChanges();
  for (int64_t done = 0;;) {
    const Batch batch = Fetch(gatherer);
    if (!batch.error.empty())
      throw HostError("The system's index does not tell what has changed: " + batch.error + ".");
    if (batch.changes.empty()) return outcome;
    const int64_t last = LastId(batch);
    if (last <= done) throw HostError("The system's index does not let go of changes that are done.");
    const auto removed_before = store.removed();
    const size_t first = outcome.reports.size();
    for (const PlannedChange& planned : PlanChanges(scope, batch.changes))
      outcome.reports.push_back(Apply(store, planned));
    store.Commit();
    CrawlOutcome crawl;
    WorkOffQueue(gatherer, store, scope, options, &crawl);
    outcome.items += crawl.items;
    outcome.result = crawl.result;
    for (size_t i = first; i < outcome.reports.size(); ++i) Complete(store, crawl, removed_before, outcome.reports[i]);
    if (crawl.result != GatherResult::kFinished) return outcome;
    FinishChanges(gatherer, store, last);
    done = last;
  }
}

int64_t TakeUpChanges(Gatherer& gatherer, Store& store, const CrawlScope& scope,
                      const std::set<std::string>& kept_vaults) {
  for (int64_t done = 0;;) {
    const Batch batch = Fetch(gatherer);
    // Where the system's own index crawls there is no queue for others; the crawl needs none.
    const int64_t last = LastId(batch);
    if (!batch.error.empty() || last <= done) return 0;
    for (const PlannedChange& planned : PlanChanges(scope, batch.changes)) {
      const bool vault = planned.target == PlannedChange::Target::kVault;
      const auto known = vault ? KnownVault(store, planned) : std::nullopt;
      // The listing of the root finds new vaults. It tells, too, which of those are gone that a deletion named but that
      // are still linked.
      if (known && planned.kind != ChangeKind::kDelete) {
        store.QueueVault(planned.root, *known);
      } else if (known && !kept_vaults.contains(VaultOfUrl(*known))) {
        store.DropVault(planned.root, *known);
      }
      if (planned.target == PlannedChange::Target::kRoot && planned.kind != ChangeKind::kDelete)
        store.QueueRoot(planned.root);
    }
    store.Commit();
    if (!batch.more) return last;
    // The rest shows only when these are gone; what they asked for is in the store's own queue.
    FinishChanges(gatherer, store, last);
    done = last;
  }
}

void FinishDeletions(Gatherer& gatherer, Store& store, const std::set<std::string>& vaults) {
  const Batch batch = Fetch(gatherer);
  const auto known = [&](const QueuedChange& change) {
    return change.valid && change.kind == ChangeKind::kDelete &&
           KindOfUrl(ContainerUrl(change.url)) == ItemKind::kVault &&
           vaults.contains(VaultOfUrl(ContainerUrl(change.url)));
  };
  if (batch.changes.empty() || batch.more || !std::all_of(batch.changes.begin(), batch.changes.end(), known)) return;
  FinishChanges(gatherer, store, LastId(batch));
}

void FinishChanges(Gatherer& gatherer, Store& store, int64_t last) {
  store.Sync();
  const json answer = gatherer.Request({{"done", last}}, "done");
  if (answer.contains("error"))
    throw HostError("The system's index does not let go of changes that are done: " +
                    Record::FromJson(answer).error.value_or(ItemError{}).Describe() + ".");
}

}  // namespace hoardex
