#include "index/output.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "index/text.h"

namespace hoardex {
namespace {

bool IsDumb() {
  const char* term = std::getenv("TERM");
  return !term || std::string_view(term) == "dumb" || std::string_view(term).empty();
}

}  // namespace

bool Emphasised() {
  static const bool yes = isatty(STDOUT_FILENO) && !IsDumb() && !std::getenv("NO_COLOR");
  return yes;
}

std::string Bold(const std::string& text) {
  return Emphasised() ? "\x1b[1m" + text + "\x1b[0m" : text;
}

Progress::Progress() : enabled_(isatty(STDERR_FILENO) && !IsDumb()) {}

void Progress::Show(const std::string& doing, int64_t done, int64_t remaining) {
  if (!enabled_) return;
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  std::string line = doing + " " + Grouped(done) + " of " + Grouped(done + remaining) + " items, " +
                     Grouped(static_cast<long long>(rate)) + "/s";
  if (rate > 0 && remaining > 0) {
    const auto left = static_cast<long long>(static_cast<double>(remaining) / rate);
    const std::string rest = std::to_string(left % 60);
    line += ", " + std::to_string(left / 60) + ":" + (rest.size() < 2 ? "0" : "") + rest + " left";
  }
  Say(line);
}

void Progress::Say(const std::string& sentence) {
  if (!enabled_) return;
  std::fprintf(stderr, "\r\x1b[K%s", sentence.c_str());
  std::fflush(stderr);
  shown_ = true;
}

void Progress::Clear() {
  if (!std::exchange(shown_, false)) return;
  std::fputs("\r\x1b[K", stderr);
  std::fflush(stderr);
}

std::string Table::Text() const {
  // The last cell of a row that is shorter than the head may run on to the right.
  const size_t columns = rows_.front().size();
  const auto runs_on = [&](const auto& row, size_t i) { return i + 1 == row.size() && row.size() < columns; };
  std::vector<size_t> widths(columns);
  std::vector<bool> right(columns, numbers_ == Numbers::kRight && rows_.size() > 1);
  for (size_t r = 0; r < rows_.size(); ++r) {
    for (size_t i = 0; i < rows_[r].size(); ++i) {
      const std::string& cell = rows_[r][i];
      if (runs_on(rows_[r], i)) continue;
      widths[i] = std::max(widths[i], DisplayWidth(cell));
      if (i == 0 || (r > 0 && cell.find_first_not_of("0123456789,?") != std::string::npos)) right[i] = false;
    }
  }
  std::string out;
  for (size_t r = 0; r < rows_.size(); ++r) {
    std::string line;
    for (size_t i = 0; i < rows_[r].size(); ++i) {
      const std::string& cell = rows_[r][i];
      const std::string padding(runs_on(rows_[r], i) ? 0 : widths[i] - DisplayWidth(cell), ' ');
      line += (i > 0 ? "  " : "") + (right[i] && !runs_on(rows_[r], i) ? padding + cell : cell + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += (r == 0 ? Bold(line) : line) + "\n";
  }
  return out;
}

std::string Counted(int64_t count, const std::string& noun) {
  return Grouped(count) + " " + noun + (count == 1 ? "" : "s");
}

bool Print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::ferror(stdout) == 0;
}

}  // namespace hoardex
