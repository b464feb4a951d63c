#include "vault/tree_writer.h"

#include <algorithm>
#include <queue>
#include <system_error>

#include "vault/append.h"
#include "vault/error.h"

namespace vault {
namespace {

constexpr const Layout& kLayout = kUnicodeLayout;
constexpr std::size_t kNodesAtOnce = 128;  // read from a run

bool Before(const NodeInfo& a, const NodeInfo& b) {
  return a.nid < b.nid;
}

// One sorted run of nodes in a file, read in small portions.
class Run {
 public:
  Run(std::uint64_t begin, std::uint64_t end) : next_(begin), end_(end) {}
  const NodeInfo& front() const { return portion_[at_]; }
  // False at the end.
  bool Step(std::fstream& file) {
    if (++at_ < portion_.size()) return true;
    portion_.resize(std::min<std::uint64_t>(kNodesAtOnce, end_ - next_));
    if (portion_.empty()) return false;
    file.seekg(static_cast<std::streamoff>(next_ * sizeof(NodeInfo)));
    file.read(reinterpret_cast<char*>(portion_.data()),
              static_cast<std::streamsize>(portion_.size() * sizeof(NodeInfo)));
    if (!file) throw Error(ErrorCode::kCannotOpen, "the sorted nodes cannot be read from their temporary file");
    next_ += portion_.size();
    at_ = 0;
    return true;
  }

 private:
  std::uint64_t next_, end_;  // numbers of nodes in the file
  std::vector<NodeInfo> portion_;
  std::size_t at_ = 0;
};

}  // namespace

void TreeWriter::AddTo(std::size_t level, std::span<const std::uint8_t> entry) {
  if (level == levels_.size()) levels_.emplace_back();
  if (levels_[level].size() + entry.size() > kLayout.entry_count_at) WritePage(level);
  levels_[level].insert(levels_[level].end(), entry.begin(), entry.end());
}

// Writes the open page of a level and enters it into the level above, unless it is the top.
AreaWriter::Root TreeWriter::WritePage(std::size_t level) {
  std::vector<std::uint8_t> entries = std::move(levels_[level]);
  levels_[level].clear();
  const AreaWriter::Room page = space_.AddPage();
  std::copy(entries.begin(), entries.end(), page.bytes);
  std::uint8_t* const counts = page.bytes + kLayout.entry_count_at;
  counts[0] = static_cast<std::uint8_t>(entries.size() / entry_size(level));
  counts[1] = static_cast<std::uint8_t>(kLayout.entry_count_at / entry_size(level));
  counts[2] = static_cast<std::uint8_t>(entry_size(level));
  counts[3] = static_cast<std::uint8_t>(level);
  const AreaWriter::Root root{next_page_, page.offset};
  next_page_ += 4;
  SealPage(page.bytes, type_, root.offset, root.bid);
  std::vector<std::uint8_t> branch(entries.begin(), entries.begin() + 8);
  AppendValue(branch, root.bid);
  AppendValue(branch, root.offset);
  AddTo(level + 1, branch);
  return root;
}

AreaWriter::Root TreeWriter::Finish() {
  for (std::size_t level = 0;; ++level) {
    const AreaWriter::Root root = WritePage(level);
    // The only entry of the level above: nothing to choose from.
    if (level + 2 == levels_.size() && levels_.back().size() == kLayout.branch_entry) return root;
  }
}

NodeSorter::~NodeSorter() {
  if (runs_ == 0) return;
  file_.close();
  std::error_code error;
  std::filesystem::remove(path_, error);
}

void NodeSorter::Add(const NodeInfo& node) {
  if (nodes_.size() == kInMemory) Spill();
  nodes_.push_back(node);
}

void NodeSorter::Spill() {
  std::sort(nodes_.begin(), nodes_.end(), Before);
  if (runs_++ == 0) file_.open(path_, std::ios::binary | std::ios::in | std::ios::out | std::ios::trunc);
  file_.write(reinterpret_cast<const char*>(nodes_.data()),
              static_cast<std::streamsize>(nodes_.size() * sizeof(NodeInfo)));
  if (!file_.flush()) throw Error(ErrorCode::kCannotOpen, "the nodes cannot be written to a temporary file");
  nodes_.clear();
}

void NodeSorter::Drain(const std::function<void(const NodeInfo&)>& take) {
  std::sort(nodes_.begin(), nodes_.end(), Before);
  std::vector<Run> runs;
  for (std::uint64_t i = 0; i < runs_; ++i) runs.emplace_back(i * kInMemory, (i + 1) * kInMemory);
  const auto later = [](const Run* a, const Run* b) { return Before(b->front(), a->front()); };
  std::priority_queue<Run*, std::vector<Run*>, decltype(later)> queue(later);
  for (Run& run : runs) {
    if (run.Step(file_)) queue.push(&run);
  }
  auto last = nodes_.begin();
  while (!queue.empty() || last != nodes_.end()) {
    if (queue.empty() || (last != nodes_.end() && Before(*last, queue.top()->front()))) {
      take(*last++);
      continue;
    }
    Run* const run = queue.top();
    queue.pop();
    take(run->front());
    if (run->Step(file_)) queue.push(run);
  }
}

}  // namespace vault
