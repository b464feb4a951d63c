#include "index/crawl.h"

#include <optional>

#include "index/changes.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

using Clock = std::chrono::steady_clock;

class IndexSource : public WorkSource {
 public:
  IndexSource(Store& store, const CrawlScope& scope, const CrawlOptions& options)
      : store_(store), scope_(scope), options_(options) {}

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
    std::erase_if(record.links, [this](const Link& link) {
      const ItemKind kind = KindOfUrl(link.url);
      const bool wanted = IsContainer(kind) ? scope_.LeadsTo(link.url) : scope_.Includes(link.url);
      return !wanted || IsTemporaryVault(VaultOfUrl(link.url));
    });
    store_.Finish(item.id, record, options_.kept_vaults);
    Count(item, line.size(), record.error.has_value());
  }

  void Lost(const WorkItem& item, const std::string& reason) override {
    store_.Lose(item.id, reason);
    Count(item, 0, true);
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
  const std::map<std::string, VaultWork>& vaults() const { return vaults_; }

 private:
  static constexpr size_t kLookahead = 256;

  void Count(const WorkItem& item, size_t bytes, bool failed) {
    VaultWork& vault = vaults_[VaultOfUrl(item.url)];
    const ItemKind kind = KindOfUrl(item.url);
    ++(failed                          ? vault.failed
       : kind == ItemKind::kMessage    ? vault.messages
       : kind == ItemKind::kAttachment ? vault.attachments
                                       : containers_);
    if (batch_items_++ == 0) batch_start_ = Clock::now();
    batch_bytes_ += bytes;
    ++items_;
    asked_.erase(item.id);
    queue_changed_ = true;
  }

  Store& store_;
  const CrawlScope& scope_;
  const CrawlOptions& options_;
  std::map<std::string, VaultWork> vaults_;
  std::deque<WorkItem> ready_;
  std::unordered_set<int64_t> asked_;
  bool queue_changed_ = true;
  size_t batch_items_ = 0, batch_bytes_ = 0;
  int64_t items_ = 0, containers_ = 0;
  Clock::time_point batch_start_, shown_;
};

}  // namespace

void WorkOffQueue(Gatherer& gatherer, Store& store, const CrawlScope& scope, const CrawlOptions& options,
                  CrawlOutcome* outcome) {
  IndexSource source(store, scope, options);
  try {
    outcome->result = gatherer.Run(source);
  } catch (const HostError&) {
    source.Commit();
    throw;
  }
  source.Commit();
  outcome->items += source.items();
  for (const auto& [name, work] : source.vaults()) {
    VaultWork& all = outcome->vaults[name];
    all.messages += work.messages;
    all.attachments += work.attachments;
    all.failed += work.failed;
  }
}

CrawlOutcome Crawl(Gatherer& gatherer, Store& store, const CrawlOptions& options) {
  CrawlOutcome outcome;
  // A copy: a host that is started again tells its scope again.
  const CrawlScope scope = gatherer.Scope();
  if (scope.roots().empty()) {
    // What was indexed of roots that are gone goes, too.
    store.StartRun(scope, false);
    store.FinishRun();
    gatherer.RequireScope();
  }
  const int64_t covered = TakeUpChanges(gatherer, store, scope, options.kept_vaults);
  outcome.resumed = store.StartRun(scope, options.retry_lost);
  for (const std::string& root : scope.roots())
    if (!scope.LeadsTo(root)) outcome.unruled.push_back(root);
  WorkOffQueue(gatherer, store, scope, options, &outcome);
  if (outcome.result != GatherResult::kFinished) return outcome;
  store.FinishRun();
  if (covered > 0) FinishChanges(gatherer, store, covered);
  return outcome;
}

}  // namespace hoardex
