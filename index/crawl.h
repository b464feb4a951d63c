// The crawl of an index: takes its work from the queue of the store and puts the answers there, in batches.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_set>

#include "index/gatherer.h"
#include "index/store.h"

namespace hoardex {

struct CrawlOptions {
  // A batch is committed when one of the limits is reached.
  size_t batch_items = 256;
  size_t batch_bytes = 8 << 20;
  std::chrono::milliseconds batch_time{1000};
  bool retry_lost = false;
  // Vaults whose files are there but may be unreadable at the moment: never dropped because the host does not list
  // them.
  std::set<std::string> kept_vaults;
  // Called a few times a second with what has been done and what is known to remain.
  std::function<void(int64_t done, int64_t remaining)> progress;
  std::function<void()> committed;
};

// What was asked for, of one vault.
struct VaultWork {
  int64_t messages = 0, attachments = 0, failed = 0;
};

struct CrawlOutcome {
  GatherResult result = GatherResult::kFinished;
  bool resumed = false;
  int64_t items = 0;  // asked for in this call
  std::map<std::string, VaultWork> vaults;
  std::vector<std::string> unruled;  // roots that no rule includes
};

// Crawls from the registered search roots until the queue is empty, and with it what the system's index has queued: see
// index/changes.h. Throws HostError and DatabaseError; what was committed stays.
CrawlOutcome Crawl(Gatherer& gatherer, Store& store, const CrawlOptions& options);

// Works the store's queue off, without starting or finishing a run. The last commit is done when it returns or throws
// HostError.
void WorkOffQueue(Gatherer& gatherer, Store& store, const CrawlScope& scope, const CrawlOptions& options,
                  CrawlOutcome* outcome);

}  // namespace hoardex
