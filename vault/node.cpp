#include "vault/node.h"

#include "vault/database.h"

namespace vault {

NodeCursor::NodeCursor(std::shared_ptr<const Database> db, Nid first, Nid last)
    : db_(std::move(db)), last_(last), first_(first) {}

void NodeCursor::Enter(unsigned level, std::uint64_t page, Bid bid) {
  const TreePage checked = db_->ReadTreePage(page, bid, kNodeTreePage);
  if (top_ < 0) {
    top_ = at_ = static_cast<int>(checked.level);
    level = checked.level;
  } else if (checked.level != level) {
    throw Error(ErrorCode::kBadPage, "a tree page has another level than its place in the tree", page);
  }
  levels_[level].page = page;
  levels_[level].bid = bid;
  levels_[level].next = 0;
  at_ = static_cast<int>(level);
}

bool NodeCursor::Next() {
  error_.reset();
  try {
    if (!started_) {
      started_ = true;
      const auto root = db_->node_root();
      Enter(0, root.offset, root.bid);
    }
    while (at_ >= 0) {
      Level& level = levels_[at_];
      const TreePage page = db_->ReadTreePage(level.page, level.bid, kNodeTreePage);
      if (level.next >= page.count) {
        at_ = at_ == top_ ? -1 : at_ + 1;
        continue;
      }
      const unsigned i = level.next++;
      const std::uint8_t* const entry = page.entries + i * page.entry_size;
      const Nid key = Load32(entry);
      // Only rising keys count, which ends every circle.
      if (level.any && key <= level.last_key) continue;
      level.any = true;
      level.last_key = key;
      if (key > last_) return at_ = -1, false;
      if (page.level == 0) {
        if (key < first_) continue;
        node_ = db_->ParseNode(entry);
        return true;
      }
      // A child that ends before the range begins is not read.
      if (i + 1 < page.count && Load32(entry + page.entry_size) <= first_ && first_ > key) continue;
      const Layout& layout = db_->layout();
      Enter(page.level - 1, layout.Word(entry + 2 * layout.word), layout.Word(entry + layout.word));
    }
  } catch (const Error& error) {
    error_ = error;
    return true;
  }
  return false;
}

}  // namespace vault
