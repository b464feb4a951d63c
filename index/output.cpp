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

std::string Bold(const std::string& text) { return Emphasised() ? "\x1b[1m" + text + "\x1b[0m" : text; }

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
  std::vector<size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], DisplayWidth(row[i]));
  }
  std::string out;
  for (size_t r = 0; r < rows_.size(); ++r) {
    std::string line;
    for (size_t i = 0; i < rows_[r].size(); ++i) {
      const std::string& cell = rows_[r][i];
      // The head follows the column below it.
      const std::string& model = r == 0 && rows_.size() > 1 && i < rows_[1].size() ? rows_[1][i] : cell;
      const bool right = i > 0 && !model.empty() && model[0] >= '0' && model[0] <= '9';
      const std::string padding(widths[i] - DisplayWidth(cell), ' ');
      line += (i > 0 ? "  " : "") + (right ? padding + cell : cell + padding);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    out += (r == 0 ? Bold(line) : line) + "\n";
  }
  return out;
}

std::string Counted(int64_t count, const std::string& noun) { return Grouped(count) + " " + noun + (count == 1 ? "" : "s"); }

bool Print(std::string_view text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::ferror(stdout) == 0;
}

}  // namespace hoardex
