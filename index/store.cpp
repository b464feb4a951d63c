#include "index/store.h"

#include <algorithm>

#include "index/text.h"

namespace hoardex {
namespace {

constexpr int kSchemaVersion = 1;

// Numbers are never given again: an answer may come for an item that has been removed since. items.link_time is the
// time its container gave last, done_time the one it was indexed with; equal means unchanged. items.kinds is empty
// until there is a document. The columns of `documents` are in the order of the ranking weights in search.cpp.
constexpr const char* kSchema = R"(
CREATE TABLE items(
  id INTEGER PRIMARY KEY AUTOINCREMENT, url TEXT NOT NULL UNIQUE, parent INTEGER, vault TEXT NOT NULL, kind INTEGER NOT NULL,
  state INTEGER NOT NULL DEFAULT 0, run INTEGER NOT NULL DEFAULT 0, link_time TEXT NOT NULL DEFAULT '',
  done_time TEXT NOT NULL DEFAULT '', modified TEXT NOT NULL DEFAULT '', size INTEGER, title TEXT NOT NULL DEFAULT '',
  sender TEXT NOT NULL DEFAULT '', path TEXT NOT NULL DEFAULT '', kinds TEXT NOT NULL DEFAULT '',
  date TEXT NOT NULL DEFAULT '', has_attachments INTEGER NOT NULL DEFAULT 0, error TEXT NOT NULL DEFAULT '');
CREATE INDEX items_parent ON items(parent);
CREATE INDEX items_date ON items(date) WHERE kinds <> '';
CREATE INDEX items_failed ON items(state) WHERE state >= 2;
CREATE TABLE queue(rank INTEGER NOT NULL, item INTEGER NOT NULL, PRIMARY KEY(rank, item)) WITHOUT ROWID;
CREATE TABLE properties(item INTEGER PRIMARY KEY, json TEXT NOT NULL);
CREATE TABLE vaults(name TEXT PRIMARY KEY, source TEXT NOT NULL, stamp TEXT NOT NULL, info TEXT NOT NULL);
CREATE TABLE runs(id INTEGER PRIMARY KEY, finished INTEGER NOT NULL DEFAULT 0);
CREATE VIRTUAL TABLE documents USING fts5(
  title, sender, recipients, path, attachments, body, details, tokenize = 'hoardex');
)";

}  // namespace

struct Store::Row {
  int64_t id = 0, parent = 0;
  std::string url, vault, path, sender, date, title, link_time, kinds;
  ItemKind kind = ItemKind::kUnknown;
  ItemState state = ItemState::kNew;
};

Store::Store(const std::filesystem::path& file, Database::Mode mode) : db_(file, mode) {
  if (mode == Database::Mode::kCreate) {
    CreateSchema();
    // The scope of the last run; an index of before there were scopes gets the table, too.
    db_.Execute("CREATE TABLE IF NOT EXISTS scope(fingerprint TEXT NOT NULL)");
  }
  Statement version(db_.handle(), "PRAGMA user_version");
  if (!version.Step() || version.Integer(0) != kSchemaVersion) {
    throw DatabaseError("the index " + file.string() +
                        " was written by another version of hoardex; delete it and index again");
  }
}

void Store::CreateSchema() {
  db_.Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-65536; PRAGMA temp_store=MEMORY");
  {
    Statement version(db_.handle(), "PRAGMA user_version");
    if (version.Step() && version.Integer(0) != 0) return;
  }
  db_.Execute(std::string("BEGIN IMMEDIATE;") + kSchema + "PRAGMA user_version=" + std::to_string(kSchemaVersion) +
              ";COMMIT");
}

Statement& Store::Prepared(const char* sql) {
  auto& statement = statements_[sql];
  if (!statement) statement = std::make_unique<Statement>(db_.handle(), sql);
  return *statement;
}

void Store::Begin() {
  if (std::exchange(in_transaction_, true)) return;
  Prepared("BEGIN IMMEDIATE").Bind().Run();
}

void Store::Commit() {
  if (!in_transaction_) return;
  Prepared("COMMIT").Bind().Run();
  in_transaction_ = false;
}

bool Store::StartRun(const CrawlScope& scope, bool retry_lost) {
  Begin();
  auto& last = Prepared("SELECT id, finished FROM runs ORDER BY id DESC LIMIT 1").Bind();
  const bool any = last.Step();
  const bool resumed = any && last.Integer(1) == 0;
  run_ = any ? last.Integer(0) : 0;
  last.Reset();
  if (!resumed) {
    ++run_;
    Prepared("INSERT INTO runs(id) VALUES(?1)").Bind(run_).Run();
    Prepared(
        "INSERT OR IGNORE INTO queue SELECT CASE WHEN kind <= 3 THEN 0 ELSE 1 END, id FROM items"
        " WHERE state >= 2 AND (state = 2 OR ?1)")
        .Bind(retry_lost ? 1 : 0)
        .Run();
  }
  FitScope(scope);
  for (const std::string& root : scope.roots())
    if (scope.LeadsTo(root)) Enqueue(*RootId(root, true), ItemKind::kRoot);
  Commit();
  return resumed;
}

void Store::FitScope(const CrawlScope& scope) {
  std::vector<std::pair<int64_t, std::string>> gone;
  auto& roots = Prepared("SELECT id, url FROM items WHERE parent IS NULL").Bind();
  while (roots.Step()) {
    const std::string url = roots.String(1);
    if (std::find(scope.roots().begin(), scope.roots().end(), url) == scope.roots().end())
      gone.emplace_back(roots.Integer(0), "");
  }
  roots.Reset();
  auto& known = Prepared("SELECT fingerprint FROM scope").Bind();
  const bool first = !known.Step();
  const bool same = !first && known.Text(0) == scope.Fingerprint();
  known.Reset();
  if (!same) {
    auto& items = Prepared("SELECT id, url, vault, kind FROM items").Bind();
    while (items.Step()) {
      const bool container = IsContainer(static_cast<ItemKind>(items.Integer(3)));
      if (container ? !scope.LeadsTo(items.Text(1)) : !scope.Includes(items.Text(1)))
        gone.emplace_back(items.Integer(0), items.String(2));
    }
    items.Reset();
  }
  for (const auto& [id, vault] : gone) RemoveTree(id, vault);
  if (same) return;
  Prepared("DELETE FROM scope").Bind().Run();
  Prepared("INSERT INTO scope VALUES(?1)").Bind(scope.Fingerprint()).Run();
  // An index without a scope was made when everything was included.
  if (first) return;
  Prepared(
      "INSERT OR IGNORE INTO queue SELECT CASE WHEN kind <= 3 THEN 0 ELSE 1 END, id FROM items"
      " WHERE kind <= 3 OR (kind = 4 AND has_attachments)")
      .Bind()
      .Run();
}

void Store::StartChanges() {
  Begin();
  auto& last = Prepared("SELECT id, finished FROM runs ORDER BY id DESC LIMIT 1").Bind();
  const bool any = last.Step();
  const bool going_on = any && last.Integer(1) == 0;
  run_ = any ? last.Integer(0) : 0;
  last.Reset();
  // A number of its own, so that what is asked for now can be told from the rest.
  if (!going_on) {
    Prepared("INSERT INTO runs(id, finished) VALUES(?1, 1)").Bind(++run_).Run();
    Prepared("DELETE FROM runs WHERE id < ?1").Bind(run_).Run();
  }
  Commit();
}

std::optional<int64_t> Store::IdOf(const std::string& url) {
  auto& query = Prepared("SELECT id FROM items WHERE url = ?1").Bind(url);
  const std::optional<int64_t> id = query.Step() ? std::optional(query.Integer(0)) : std::nullopt;
  query.Reset();
  return id;
}

std::optional<int64_t> Store::RootId(const std::string& root, bool make) {
  if (make) Prepared("INSERT OR IGNORE INTO items(url, vault, kind) VALUES(?1, '', 1)").Bind(root).Run();
  return IdOf(root);
}

void Store::QueueVault(const std::string& root, const std::string& url) {
  Begin();
  Prepared("INSERT OR IGNORE INTO items(url, parent, vault, kind) VALUES(?1, ?2, ?3, 2)")
      .Bind(url, *RootId(root, true), VaultOfUrl(url))
      .Run();
  Enqueue(*IdOf(url), ItemKind::kVault);
}

int64_t Store::DropVault(const std::string& root, const std::string& url) {
  Begin();
  const auto id = IdOf(url);
  const auto row = id ? Load(*id) : std::nullopt;
  if (!row || row->parent != RootId(root, false)) return 0;
  const int64_t before = removed_[row->vault];
  RemoveTree(*id, row->vault);
  return removed_[row->vault] - before;
}

void Store::QueueRoot(const std::string& root) {
  Begin();
  const int64_t id = *RootId(root, true);
  Enqueue(id, ItemKind::kRoot);
  Prepared("INSERT OR IGNORE INTO queue SELECT 0, id FROM items WHERE parent = ?1").Bind(id).Run();
}

std::vector<std::string> Store::VaultsOf(const std::string& root) {
  std::vector<std::string> urls;
  const auto id = RootId(root, false);
  if (!id) return urls;
  auto& rows = Prepared("SELECT url FROM items WHERE parent = ?1 ORDER BY id").Bind(*id);
  while (rows.Step()) urls.push_back(rows.String(0));
  rows.Reset();
  return urls;
}

void Store::Sync() {
  Commit();
  db_.Execute("PRAGMA wal_checkpoint");
}

void Store::FinishRun() {
  Begin();
  Prepared("UPDATE runs SET finished = 1 WHERE id = ?1").Bind(run_).Run();
  Prepared("DELETE FROM runs WHERE id < ?1").Bind(run_).Run();
  Commit();
}

int64_t Store::QueueSize() {
  auto& count = Prepared("SELECT count(*) FROM queue").Bind();
  const int64_t size = count.Step() ? count.Integer(0) : 0;
  count.Reset();
  return size;
}

std::vector<WorkItem> Store::Queued(size_t limit, const std::unordered_set<int64_t>& taken) {
  std::vector<WorkItem> items;
  auto& rows =
      Prepared("SELECT q.item, i.url FROM queue q JOIN items i ON i.id = q.item ORDER BY q.rank, q.item LIMIT ?1")
          .Bind(static_cast<int64_t>(limit + taken.size()));
  while (rows.Step()) {
    if (!taken.contains(rows.Integer(0))) items.push_back({rows.Integer(0), rows.String(1)});
  }
  rows.Reset();
  return items;
}

std::optional<Store::Row> Store::Load(int64_t id) {
  auto& query = Prepared(
                    "SELECT url, parent, vault, kind, state, path, sender, date, title, link_time, kinds FROM items "
                    "WHERE id = ?1")
                    .Bind(id);
  if (!query.Step()) return std::nullopt;
  Row row;
  row.id = id;
  row.url = query.String(0);
  row.parent = query.Integer(1);
  row.vault = query.String(2);
  row.kind = static_cast<ItemKind>(query.Integer(3));
  row.state = static_cast<ItemState>(query.Integer(4));
  row.path = query.String(5);
  row.sender = query.String(6);
  row.date = query.String(7);
  row.title = query.String(8);
  row.link_time = query.String(9);
  row.kinds = query.String(10);
  query.Reset();
  return row;
}

Parent Store::LoadParent(int64_t id) {
  const auto row = Load(id);
  if (!row) return {};
  Parent parent{row->kind, row->path, row->title, row->sender, {}, row->date};
  if (row->kind == ItemKind::kMessage) {
    auto& query = Prepared("SELECT recipients FROM documents WHERE rowid = ?1").Bind(id);
    if (query.Step()) parent.recipients = query.String(0);
    query.Reset();
  }
  return parent;
}

void Store::Finish(int64_t id, const Record& record, const std::set<std::string>& kept_vaults) {
  const auto row = Load(id);
  // Its container was listed anew in the meantime and had it no more.
  if (!row) return;
  Begin();
  Prepared("DELETE FROM queue WHERE item = ?1 AND rank IN (0, 1)").Bind(id).Run();
  const ItemState state = record.error ? ItemState::kFailed : ItemState::kDone;
  Prepared("UPDATE items SET state = ?2, run = ?3, done_time = link_time, error = ?4 WHERE id = ?1")
      .Bind(id, static_cast<int>(state), run_, record.error ? record.error->Describe() : "")
      .Run();
  // A failure may still have brought something; one that brought nothing does not wipe out what was known.
  if (record.error && record.properties.empty() && record.text.empty() && record.links.empty()) return;
  const Document document = MakeDocument(record, row->kind, LoadParent(row->parent));
  WriteDocument(*row, document, record);
  // What lies below carries the folder path and the sender in its own documents.
  const bool again = row->state != ItemState::kNew &&
                     (row->path != document.path || (row->kind == ItemKind::kMessage &&
                                                     (row->sender != document.sender || row->date != document.date)));
  Follow(*row, record, again, kept_vaults);
}

void Store::WriteDocument(const Row& row, const Document& document, const Record& record) {
  const bool searchable = !IsContainer(row.kind);
  auto& update = Prepared(
      "UPDATE items SET title = ?2, sender = ?3, path = ?4, kinds = ?5, date = ?6, has_attachments = ?7, modified = "
      "?8, size = ?9 "
      "WHERE id = ?1");
  update.Bind(row.id, document.title, document.sender, document.path, searchable ? document.kinds : std::string(),
              document.date, document.has_attachments ? 1 : 0, record.modified);
  if (record.size) update.BindOne(9, *record.size);
  update.Run();
  if (!searchable) return;
  if (!row.kinds.empty()) Prepared("DELETE FROM documents WHERE rowid = ?1").Bind(row.id).Run();
  Prepared(
      "INSERT INTO documents(rowid, title, sender, recipients, path, attachments, body, details) VALUES(?1, ?2, ?3, "
      "?4, ?5, ?6, ?7, ?8)")
      .Bind(row.id, document.title, document.sender, document.recipients, document.path, document.attachments,
            document.body, document.details)
      .Run();
  Prepared("INSERT OR REPLACE INTO properties(item, json) VALUES(?1, ?2)")
      .Bind(row.id, record.properties.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))
      .Run();
}

void Store::Follow(const Row& row, const Record& record, bool again, const std::set<std::string>& kept_vaults) {
  std::unordered_set<std::string> listed;
  for (Link link : record.links) {
    if (IsContainer(ChildKind(row.kind, link.url))) link.url = ContainerUrl(link.url);
    if (listed.insert(link.url).second) FollowLink(row, link, again);
  }
  // An incomplete list is no proof that the rest is gone; neither is the first list, which has nothing before it.
  if (record.error || row.state == ItemState::kNew) return;
  std::vector<std::pair<int64_t, std::string>> gone;
  auto& children = Prepared("SELECT id, url, vault FROM items WHERE parent = ?1").Bind(row.id);
  while (children.Step()) {
    const bool kept = row.kind == ItemKind::kRoot && kept_vaults.contains(children.String(2));
    if (!kept && !listed.contains(children.String(1))) gone.emplace_back(children.Integer(0), children.String(2));
  }
  children.Reset();
  for (const auto& [id, vault] : gone) RemoveTree(id, vault);
}

void Store::FollowLink(const Row& row, const Link& link, bool again) {
  const ItemKind kind = ChildKind(row.kind, link.url);
  auto& query = Prepared("SELECT id, state, done_time, run FROM items WHERE url = ?1").Bind(link.url);
  if (!query.Step()) {
    query.Reset();
    Prepared("INSERT INTO items(url, parent, vault, kind, link_time) VALUES(?1, ?2, ?3, ?4, ?5)")
        .Bind(link.url, row.id, kind == ItemKind::kVault ? VaultOfUrl(link.url) : row.vault, static_cast<int>(kind),
              link.modified)
        .Run();
    return Enqueue(db_.LastInsertId(), kind);
  }
  const int64_t id = query.Integer(0);
  const bool is_new = query.Integer(1) == static_cast<int>(ItemState::kNew);
  const bool changed = query.Text(2) != link.modified || link.modified.empty();
  query.Reset();
  // Failed items are in the queue already when it is their turn.
  if (!is_new && !changed && !again) return;
  Prepared("UPDATE items SET link_time = ?2 WHERE id = ?1").Bind(id, link.modified).Run();
  Enqueue(id, kind);
}

void Store::Enqueue(int64_t id, ItemKind kind) {
  Prepared("INSERT OR IGNORE INTO queue(rank, item) VALUES(?1, ?2)").Bind(IsContainer(kind) ? 0 : 1, id).Run();
}

void Store::Lose(int64_t id, const std::string& reason) {
  Begin();
  Prepared("DELETE FROM queue WHERE item = ?1 AND rank IN (0, 1)").Bind(id).Run();
  Prepared("UPDATE items SET state = ?2, run = ?3, done_time = link_time, error = ?4 WHERE id = ?1")
      .Bind(id, static_cast<int>(ItemState::kLost), run_, reason)
      .Run();
}

void Store::RemoveTree(int64_t id, const std::string& vault) {
  db_.Execute("CREATE TEMP TABLE IF NOT EXISTS doomed(id INTEGER PRIMARY KEY)");
  Prepared(
      "WITH RECURSIVE tree(id) AS (SELECT ?1 UNION ALL SELECT i.id FROM items i JOIN tree ON i.parent = tree.id) "
      "INSERT OR IGNORE INTO doomed SELECT id FROM tree")
      .Bind(id)
      .Run();
  auto& count = Prepared("SELECT count(*) FROM items WHERE kind = 4 AND id IN (SELECT id FROM doomed)").Bind();
  if (count.Step()) removed_[vault] += count.Integer(0);
  count.Reset();
  Prepared("DELETE FROM documents WHERE rowid IN (SELECT id FROM doomed)").Bind().Run();
  Prepared("DELETE FROM properties WHERE item IN (SELECT id FROM doomed)").Bind().Run();
  Prepared("DELETE FROM queue WHERE item IN (SELECT id FROM doomed)").Bind().Run();
  Prepared("DELETE FROM items WHERE id IN (SELECT id FROM doomed)").Bind().Run();
  Prepared("DELETE FROM doomed").Bind().Run();
}

void Store::RemoveVault(const std::string& name) {
  Begin();
  std::vector<int64_t> ids;
  auto& query = Prepared("SELECT id FROM items WHERE kind = 2 AND vault = ?1").Bind(name);
  while (query.Step()) ids.push_back(query.Integer(0));
  query.Reset();
  for (int64_t id : ids) RemoveTree(id, name);
  Prepared("DELETE FROM vaults WHERE name = ?1").Bind(name).Run();
  Commit();
}

std::map<std::string, VaultCounts> Store::Counts() {
  std::map<std::string, VaultCounts> counts;
  auto& rows = Prepared(
                   "SELECT vault, kind, state, run = (SELECT max(id) FROM runs), count(*) FROM items WHERE kind >= 2 "
                   "GROUP BY 1, 2, 3, 4")
                   .Bind();
  while (rows.Step()) {
    VaultCounts& vault = counts[rows.String(0)];
    const auto state = static_cast<ItemState>(rows.Integer(2));
    const bool failed = state == ItemState::kFailed || state == ItemState::kLost;
    const int64_t count = rows.Integer(4);
    switch (static_cast<ItemKind>(rows.Integer(1))) {
      case ItemKind::kMessage:
        (failed                     ? vault.messages_failed
         : state == ItemState::kNew ? vault.messages_waiting
         : rows.Integer(3) != 0     ? vault.messages_new
                                    : vault.messages_unchanged) += count;
        break;
      case ItemKind::kAttachment:
        if (state != ItemState::kNew) (failed ? vault.attachments_failed : vault.attachments) += count;
        break;
      default:
        (failed ? vault.folders_failed : vault.folders) += count;
        break;
    }
  }
  rows.Reset();
  return counts;
}

std::vector<FailedItem> Store::Failures() {
  std::vector<FailedItem> failures;
  auto& rows =
      Prepared(
          "SELECT i.url, i.vault, i.title, coalesce(nullif(i.path, ''), p.path, ''), i.error, i.kind FROM items i "
          "LEFT JOIN items p ON p.id = i.parent WHERE i.state >= 2 ORDER BY i.vault, i.id")
          .Bind();
  while (rows.Step()) {
    failures.push_back({rows.String(0), rows.String(1), rows.String(2), rows.String(3), rows.String(4),
                        static_cast<ItemKind>(rows.Integer(5))});
  }
  rows.Reset();
  return failures;
}

std::optional<ItemStatus> Store::StatusOf(const std::string& url) {
  auto& query = Prepared(
                    "SELECT state, title, error, link_time, done_time, kinds <> '', run = (SELECT max(id) FROM runs), "
                    "EXISTS(SELECT 1 FROM queue WHERE item = id) FROM items WHERE url = ?1")
                    .Bind(url);
  std::optional<ItemStatus> status;
  if (query.Step()) {
    status.emplace();
    status->state = static_cast<ItemState>(query.Integer(0));
    status->title = query.String(1);
    status->error = query.String(2);
    status->link_time = query.String(3);
    status->done_time = query.String(4);
    status->searchable = query.Integer(5) != 0;
    status->this_run = query.Integer(6) != 0;
    status->queued = query.Integer(7) != 0;
  }
  query.Reset();
  return status;
}

std::vector<std::string> Store::WithTitle(const std::string& title, int64_t limit) {
  std::vector<std::string> urls;
  auto& rows = Prepared("SELECT url FROM items WHERE kind >= 4 AND title = ?1 COLLATE NOCASE ORDER BY id LIMIT ?2")
                   .Bind(title, limit);
  while (rows.Step()) urls.push_back(rows.String(0));
  rows.Reset();
  return urls;
}

std::optional<VaultRow> Store::FindVault(const std::string& name) {
  auto& query = Prepared("SELECT name, source, stamp, info FROM vaults WHERE name = ?1").Bind(name);
  std::optional<VaultRow> row;
  if (query.Step()) row = VaultRow{query.String(0), query.String(1), query.String(2), query.String(3)};
  query.Reset();
  return row;
}

void Store::SaveVault(const VaultRow& row) {
  Prepared("INSERT OR REPLACE INTO vaults(name, source, stamp, info) VALUES(?1, ?2, ?3, ?4)")
      .Bind(row.name, row.source, row.stamp, row.info)
      .Run();
}

}  // namespace hoardex
