// What people see: progress, tables, emphasis.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace hoardex {

// True when standard output is a terminal that understands emphasis.
bool Emphasised();
std::string Bold(const std::string& text);

// A line on standard error that is rewritten in place; nothing at all when that is no terminal.
class Progress {
 public:
  Progress();
  ~Progress() { Clear(); }
  // "indexing 1,200 of 5,000 items, 310/s, 0:12 left".
  void Show(const std::string& doing, int64_t done, int64_t remaining);
  void Say(const std::string& sentence);
  void Clear();

 private:
  bool enabled_, shown_ = false;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// Columns as wide as their widest cell. The first row is the head.
class Table {
 public:
  // kRight: columns that hold numbers only are set to the right, to be compared.
  enum class Numbers { kRight, kLeft };
  explicit Table(std::vector<std::string> head, Numbers numbers = Numbers::kRight) : numbers_(numbers) {
    rows_.push_back(std::move(head));
  }
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  std::string Text() const;

 private:
  const Numbers numbers_;
  std::vector<std::vector<std::string>> rows_;
};

// "1 message", "2 messages".
std::string Counted(int64_t count, const std::string& noun);

// Writes to standard output. False once nobody reads it any more, or it cannot be written.
bool Print(std::string_view text);

}  // namespace hoardex
