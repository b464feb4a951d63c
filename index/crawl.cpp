#include "index/crawl.h"

#include <optional>

#include "index/vaults.h"

namespace hoardex {
namespace {

using Clock = std::chrono::steady_clock;

class IndexSource : public WorkSource {
 public:
  IndexSource(Store& store, const CrawlOptions& options) : store_(store), options_(options) {}

  std::optional<WorkItem> Next() override {
    if (ready_.empty()) {
      // An answer since the last look may have brought new work; without one the queue is the same.
      if (!std::exchange(queue_changed_, false)) return std::nullopt;
      for (WorkItem& item : store_.Queued(kLookahead, asked_)) ready_.push_back(std::move(item));
      if (ready_.empty()) return std::nullopt;
      queue_changed_ = true;
    }
    WorkItem item = std::move(ready_.front());
    ready_.pop_front();
    asked_.insert(item.id);
    return item;
  }

  void Answered(const WorkItem& item, nlohmann::json json, const std::string& line) override {
    Record record = Record::FromJson(std::move(json));
    std::erase_if(record.links, [](const Link& link) { return IsTemporaryVault(VaultOfUrl(link.url)); });
    store_.Finish(item.id, record, options_.kept_vaults);
    Count(item, line.size());
  }

  void Lost(const WorkItem& item, const std::string& reason) override {
    store_.Lose(item.id, reason);
    Count(item, 0);
  }

  void Tick() override {
    const auto now = Clock::now();
    if (batch_items_ > 0 && (batch_items_ >= options_.batch_items || batch_bytes_ >= options_.batch_bytes ||
                             now - batch_start_ >= options_.batch_time)) {
      Commit();
    }
    if (options_.progress && now - shown_ >= std::chrono::milliseconds(300)) {
      shown_ = now;
      options_.progress(items_, store_.QueueSize());
    }
  }

  void Commit() {
    store_.Commit();
    batch_items_ = batch_bytes_ = 0;
    if (options_.committed) options_.committed();
  }

  int64_t items() const { return items_; }

 private:
  static constexpr size_t kLookahead = 256;

  void Count(const WorkItem& item, size_t bytes) {
    if (batch_items_++ == 0) batch_start_ = Clock::now();
    batch_bytes_ += bytes;
    ++items_;
    asked_.erase(item.id);
    queue_changed_ = true;
  }

  Store& store_;
  const CrawlOptions& options_;
  std::deque<WorkItem> ready_;
  std::unordered_set<int64_t> asked_;
  bool queue_changed_ = true;
  size_t batch_items_ = 0, batch_bytes_ = 0;
  int64_t items_ = 0;
  Clock::time_point batch_start_, shown_;
};

}  // namespace

CrawlOutcome Crawl(Gatherer& gatherer, Store& store, const CrawlOptions& options) {
  const auto roots = gatherer.Roots();
  if (roots.empty()) throw HostError("The protocol host names no search root.");
  CrawlOutcome outcome;
  outcome.resumed = store.StartRun(roots.front(), options.retry_lost);
  IndexSource source(store, options);
  try {
    outcome.result = gatherer.Run(source);
  } catch (const HostError&) {
    source.Commit();
    throw;
  }
  source.Commit();
  outcome.items = source.items();
  if (outcome.result == GatherResult::kFinished) store.FinishRun();
  return outcome;
}

}  // namespace hoardex
