// The index file: items as the crawl knows them, the queue of those to ask for, and the full text. All of it changes in
// the same transactions, so that a process killed at any moment leaves a queue that fits the index. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "index/database.h"
#include "index/gatherer.h"
#include "index/record.h"
#include "index/scope.h"

namespace hoardex {

// Values are stored; do not renumber. kLost: the item ended the host twice; it is asked again only when it has changed.
enum class ItemState : int { kNew = 0, kDone = 1, kFailed = 2, kLost = 3 };

struct VaultCounts {
  int64_t messages_new = 0, messages_unchanged = 0, messages_failed = 0, messages_waiting = 0;
  int64_t attachments = 0, attachments_failed = 0;
  int64_t folders = 0, folders_failed = 0;
};

struct FailedItem {
  std::string url, vault, title, path, error;
  ItemKind kind = ItemKind::kUnknown;
};

// What the index knows of one item.
struct ItemStatus {
  ItemState state = ItemState::kNew;
  bool queued = false, searchable = false;
  bool this_run = false;  // it was asked for in the last run
  std::string title, error, link_time, done_time;
};

// What is remembered about a vault between runs; `info` is the text that vaultinfo printed.
struct VaultRow {
  std::string name, source, stamp, info;
};

class Store {
 public:
  Store(const std::filesystem::path& file, Database::Mode mode);

  Database& database() { return db_; }

  void Begin();
  void Commit();
  bool in_transaction() const { return in_transaction_; }

  // Continues the run that was not finished, else starts a new one: then items that failed are queued again, lost ones
  // only with `retry_lost`. The roots are always queued. What lies outside the scope leaves the index; when the scope
  // is not that of the last run, every container is listed again, for what it has come to include. Returns true when an
  // earlier run goes on.
  bool StartRun(const CrawlScope& scope, bool retry_lost);
  // Begins to work off single changes, apart from runs. What is queued already stays queued.
  void StartChanges();
  // Marks the run as finished.
  void FinishRun();

  int64_t QueueSize();
  // The first items of the queue, containers first, without those in `taken`.
  std::vector<WorkItem> Queued(size_t limit, const std::unordered_set<int64_t>& taken);

  // Puts a record into the index and its item out of the queue; new and changed links go into the queue, and what a
  // container no longer lists goes out of the index, except vaults in `kept_vaults`.
  void Finish(int64_t id, const Record& record, const std::set<std::string>& kept_vaults);
  // Records that the item cannot be had; what was indexed of it before stays.
  void Lose(int64_t id, const std::string& reason);

  // What changes of single vaults do; both URLs are as in the index. QueueVault: the vault is asked for again, or for
  // the first time. DropVault: it goes with its items; returns how many messages went.
  void QueueVault(const std::string& root, const std::string& url);
  int64_t DropVault(const std::string& root, const std::string& url);
  // The root and every vault in it are asked for again.
  void QueueRoot(const std::string& root);
  // The vaults that the index knows below a root: their URLs.
  std::vector<std::string> VaultsOf(const std::string& root);
  // On the disk, not only with the system, once it returns. Commits.
  void Sync();

  // Removes everything below a vault's URL and its row.
  void RemoveVault(const std::string& name);

  std::map<std::string, VaultCounts> Counts();
  std::vector<FailedItem> Failures();

  std::optional<ItemStatus> StatusOf(const std::string& url);
  // The messages and attachments with exactly this title, upper and lower case being the same for ASCII; their URLs.
  std::vector<std::string> WithTitle(const std::string& title, int64_t limit);

  std::optional<VaultRow> FindVault(const std::string& name);
  void SaveVault(const VaultRow& row);

  // Messages taken out of the index by this object, by vault.
  const std::map<std::string, int64_t>& removed() const { return removed_; }

 private:
  struct Row;
  void CreateSchema();
  std::optional<Row> Load(int64_t id);
  Parent LoadParent(int64_t id);
  void WriteDocument(const Row& row, const Document& document, const Record& record);
  void Follow(const Row& row, const Record& record, bool again, const std::set<std::string>& kept_vaults);
  void FollowLink(const Row& row, const Link& link, bool again);
  void RemoveTree(int64_t id, const std::string& vault);
  void FitScope(const CrawlScope& scope);
  std::optional<int64_t> IdOf(const std::string& url);
  std::optional<int64_t> RootId(const std::string& root, bool make);
  void Enqueue(int64_t id, ItemKind kind);

  Database db_;
  bool in_transaction_ = false;
  int64_t run_ = 0;
  std::map<std::string, int64_t> removed_;
  // Statements are prepared on first use and kept.
  Statement& Prepared(const char* sql);
  std::map<const char*, std::unique_ptr<Statement>> statements_;
};

}  // namespace hoardex
