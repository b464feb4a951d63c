#include "index/database.h"

#include <sqlite3.h>
#include <unistd.h>

#include "index/tokenizer.h"

namespace hoardex {
namespace {

// What SQLite's words do not say: what to do.
struct Advice {
  int code;
  const char* sentence;
};
constexpr Advice kAdvices[] = {
    {SQLITE_FULL,
     "the disk is full. What was written before is whole: make room (or name another folder with HOARDEX_HOME), and "
     "start hoardex index again; it goes on where it was"},
    {SQLITE_READONLY, "it cannot be written here; name another folder with HOARDEX_HOME"},
    {SQLITE_BUSY, "another program holds it; is another hoardex at work?"},
    {SQLITE_CORRUPT, "the file is damaged; delete it and index again, the stores are untouched"},
    {SQLITE_NOTADB, "the file is no index; delete it and index again, the stores are untouched"},
};

[[noreturn]] void Fail(sqlite3* db, std::string_view doing) {
  const int code = db ? sqlite3_errcode(db) & 0xFF : SQLITE_NOMEM;
  for (const Advice& advice : kAdvices)
    if (advice.code == code) throw DatabaseError(advice.sentence);
  throw DatabaseError(std::string(db ? sqlite3_errmsg(db) : "out of memory") + " (" + std::string(doing) + ")");
}

// SQLite needs to write beside an index even to read it, unless it is told that nobody else does. That is so where the
// folder cannot be written; a write-ahead log that lies there is then left to SQLite.
bool IsSealed(const std::filesystem::path& file) {
  const auto folder = file.parent_path().empty() ? std::filesystem::path(".") : file.parent_path();
  return access(file.c_str(), R_OK) == 0 && (access(file.c_str(), W_OK) != 0 || access(folder.c_str(), W_OK) != 0);
}

std::string SealedUri(const std::filesystem::path& file) {
  std::string uri = "file:";
  for (const char c : std::filesystem::absolute(file).string()) {
    if (c == '%' || c == '?' || c == '#') {
      uri += c == '%' ? "%25" : c == '?' ? "%3f" : "%23";
    } else {
      uri += c;
    }
  }
  std::error_code error;
  const bool log = std::filesystem::file_size(file.string() + "-wal", error) > 0 && !error;
  return uri + (log ? "?mode=ro" : "?immutable=1");
}

}  // namespace

Statement::Statement(sqlite3* db, std::string_view sql) {
  if (sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &statement_,
                         nullptr) != SQLITE_OK) {
    Fail(db, sql);
  }
}

Statement::~Statement() {
  sqlite3_finalize(statement_);
}

void Statement::BindOne(int index, int64_t value) {
  sqlite3_bind_int64(statement_, index, value);
}
void Statement::BindOne(int index, double value) {
  sqlite3_bind_double(statement_, index, value);
}
void Statement::BindOne(int index, std::nullptr_t) {
  sqlite3_bind_null(statement_, index);
}
void Statement::BindOne(int index, std::string_view value) {
  const char* data = value.data() ? value.data() : "";
  if (sqlite3_bind_text64(statement_, index, data, value.size(), SQLITE_TRANSIENT, SQLITE_UTF8) != SQLITE_OK) {
    Fail(sqlite3_db_handle(statement_), sqlite3_sql(statement_));
  }
}

bool Statement::Step() {
  const int result = sqlite3_step(statement_);
  if (result == SQLITE_ROW) return true;
  if (result == SQLITE_DONE) return false;
  Fail(sqlite3_db_handle(statement_), sqlite3_sql(statement_));
}

void Statement::Run() {
  while (Step()) {
  }
  Reset();
}

void Statement::Reset() {
  sqlite3_reset(statement_);
  sqlite3_clear_bindings(statement_);
}

int64_t Statement::Integer(int column) const {
  return sqlite3_column_int64(statement_, column);
}
double Statement::Real(int column) const {
  return sqlite3_column_double(statement_, column);
}
bool Statement::IsNull(int column) const {
  return sqlite3_column_type(statement_, column) == SQLITE_NULL;
}
std::string_view Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
  if (!text) return {};
  return {text, static_cast<size_t>(sqlite3_column_bytes(statement_, column))};
}

Database::Database(const std::filesystem::path& file, Mode mode) {
  const bool sealed = mode == Mode::kReadOnly && IsSealed(file);
  const int flags = sealed                    ? SQLITE_OPEN_READONLY | SQLITE_OPEN_URI
                    : mode == Mode::kReadOnly ? SQLITE_OPEN_READWRITE
                                              : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  if (sqlite3_open_v2(sealed ? SealedUri(file).c_str() : file.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw DatabaseError(message + " (" + file.string() + ")");
  }
  sqlite3_busy_timeout(db_, 10000);
  try {
    RegisterTokenizer(db_);
    // Readers of a write-ahead log need write access to its index file, hence "query only" in place of a read-only
    // open.
    if (mode == Mode::kReadOnly) Execute("PRAGMA query_only=ON");
  } catch (...) {
    sqlite3_close(db_);
    throw;
  }
}

Database::~Database() {
  sqlite3_close(db_);
}

void Database::Execute(const std::string& sql) {
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail(db_, sql);
}

int64_t Database::LastInsertId() const {
  return sqlite3_last_insert_rowid(db_);
}

}  // namespace hoardex
