// Changes that the system's index has queued: taken from the host, brought into the store, and reported done once the
// store has committed what they asked for. A kill in between repeats them.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "index/crawl.h"

namespace hoardex {

enum class ChangeKind { kAdd, kDelete, kModify };

struct QueuedChange {
  int64_t id = 0;
  ChangeKind kind = ChangeKind::kModify;
  std::string url;
  bool valid = true;  // false: the host told something that is no change
};

// What is to be done about one URL. A change is asked for once, by the last one told of its URL.
struct PlannedChange {
  // kOutside: below no root, or not in the scope. kNoVault: neither a root nor a vault.
  enum class Target { kVault, kRoot, kOutside, kNoVault };
  Target target = Target::kNoVault;
  ChangeKind kind = ChangeKind::kModify;
  std::string root, url;  // as in the store
  int64_t times = 1;      // how often it was told
};

// In the order of the last change of every URL. A deletion of all makes what came before it in its root needless.
std::vector<PlannedChange> PlanChanges(const CrawlScope& scope, const std::vector<QueuedChange>& changes);

// One planned change and what became of it.
struct ChangeReport {
  PlannedChange change;
  std::string vault;   // "mail", or empty for all
  bool known = false;  // the index knew it
  VaultWork work;
  int64_t removed = 0;  // messages that left the index
  std::string error;    // why the vault itself could not be read
};

struct ChangesOutcome {
  GatherResult result = GatherResult::kFinished;
  int64_t items = 0;
  std::vector<ChangeReport> reports;
};

// Works off what is queued, and what is queued meanwhile. Throws HostError and DatabaseError.
ChangesOutcome CrawlChanges(Gatherer& gatherer, Store& store, const CrawlOptions& options);

// For a crawl of everything, which covers the changes: vaults that were added or modified will be asked for again
// whatever their time; those that were deleted leave the index unless they are in `kept_vaults`. Returns the number to
// finish with after the crawl, or 0.
int64_t TakeUpChanges(Gatherer& gatherer, Store& store, const CrawlScope& scope,
                      const std::set<std::string>& kept_vaults);
// Takes deletions of these vaults (by name), which the store knows already, out of the system's queue, unless other
// changes wait there: the queue can only be shortened from its front. Then they stay; told again they do no harm.
void FinishDeletions(Gatherer& gatherer, Store& store, const std::set<std::string>& vaults);
// Takes the changes up to and including this one out of the system's queue, after the store's last commit has reached
// the disk.
void FinishChanges(Gatherer& gatherer, Store& store, int64_t last);

}  // namespace hoardex
