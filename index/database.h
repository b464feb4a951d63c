// SQLite with owners: a connection, prepared statements and transactions. Failures are exceptions. One thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace hoardex {

// what() says what to do where that is known, else it is SQLite's own message with the statement it belongs to.
class DatabaseError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Statement {
 public:
  Statement(sqlite3* db, std::string_view sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // Resets, then binds the arguments to ?1, ?2, …; strings are copied.
  template <typename... Args>
  Statement& Bind(const Args&... args) {
    Reset();
    int index = 0;
    (BindOne(++index, args), ...);
    return *this;
  }
  void BindOne(int index, int64_t value);
  void BindOne(int index, int value) { BindOne(index, static_cast<int64_t>(value)); }
  void BindOne(int index, double value);
  void BindOne(int index, std::string_view value);
  void BindOne(int index, const char* value) { BindOne(index, std::string_view(value)); }
  void BindOne(int index, const std::string& value) { BindOne(index, std::string_view(value)); }
  void BindOne(int index, std::nullptr_t);

  // Step returns true while there is a row. Run executes a statement that gives none.
  bool Step();
  void Run();
  void Reset();

  int64_t Integer(int column) const;
  double Real(int column) const;
  // Valid until the next Step or Reset.
  std::string_view Text(int column) const;
  std::string String(int column) const { return std::string(Text(column)); }
  bool IsNull(int column) const;

 private:
  sqlite3_stmt* statement_ = nullptr;
};

class Database {
 public:
  // kReadOnly also reads what lies where nothing can be written.
  enum class Mode { kReadOnly, kCreate };
  Database(const std::filesystem::path& file, Mode mode);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void Execute(const std::string& sql);
  sqlite3* handle() const { return db_; }
  int64_t LastInsertId() const;

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace hoardex
