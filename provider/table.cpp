#include "provider/table.h"
#include "platform/critical_section.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace provider {
namespace {

// A row set in the making; frees the rows that it has if the rest fails.
class RowSet {
 public:
  explicit RowSet(std::size_t most) {
    set_ = static_cast<SRowSet*>(arena_.Allocate(CbNewSRowSet(static_cast<ULONG>(most))));
    set_->cRows = 0;
  }
  ~RowSet() {
    if (!set_) return;
    for (ULONG i = 0; i < set_->cRows; ++i) FreeBuffer(set_->aRow[i].lpProps);
  }
  void Add(PropertyBag& bag, const std::vector<ULONG>& columns, ULONG flags) {
    MapiArena row;
    auto* values = row.AllocateArray<SPropValue>(columns.size());
    for (std::size_t i = 0; i < columns.size(); ++i) WriteProperty(bag, columns[i], flags, row, values[i]);
    row.Release();
    set_->aRow[set_->cRows++] = {0, static_cast<ULONG>(columns.size()), values};
  }
  SRowSet* Release() {
    MarkRowSet(arena_.Release());
    return std::exchange(set_, nullptr);
  }

 private:
  MapiArena arena_;
  SRowSet* set_ = nullptr;
};

class Table : public Object<IMAPITable> {
 public:
  Table(std::shared_ptr<const RowSource> source, ULONG flags)
      : Object(Kind::kTable), source_(std::move(source)), flags_(flags & MAPI_UNICODE), count_(source_->Count()) {
    for (const vault::PropTag tag : source_->DefaultColumns()) columns_.push_back(CallerTag(tag, flags_));
  }

  STDMETHODIMP GetLastError(HRESULT code, ULONG flags, LPMAPIERROR* error) override {
    return LastError("IMAPITable::GetLastError", code, flags, error);
  }
  // A store that is only read never changes: nothing will ever be notified.
  STDMETHODIMP Advise(ULONG, LPMAPIADVISESINK, ULONG* connection) override {
    return Guarded(
        "IMAPITable::Advise",
        [&] {
          Require(connection != nullptr, MAPI_E_INVALID_PARAMETER);
          *connection = 1;
        },
        connection);
  }
  STDMETHODIMP Unadvise(ULONG) override { return Answer("IMAPITable::Unadvise", S_OK); }
  STDMETHODIMP GetStatus(ULONG* status, ULONG* type) override {
    return Guarded(
        "IMAPITable::GetStatus",
        [&] {
          Require(status && type, MAPI_E_INVALID_PARAMETER);
          *status = TBLSTAT_COMPLETE;
          *type = TBLTYPE_SNAPSHOT;
        },
        status, type);
  }
  STDMETHODIMP SetColumns(LPSPropTagArray columns, ULONG) override {
    return Guarded("IMAPITable::SetColumns", [&] {
      Require(columns && columns->cValues, MAPI_E_INVALID_PARAMETER);
      std::vector<ULONG> tags(columns->aulPropTag, columns->aulPropTag + columns->cValues);
      const std::scoped_lock lock(lock_);
      columns_.swap(tags);
    });
  }
  STDMETHODIMP QueryColumns(ULONG, LPSPropTagArray* columns) override {
    return Guarded(
        "IMAPITable::QueryColumns",
        [&] {
          Require(columns != nullptr, MAPI_E_INVALID_PARAMETER);
          const std::scoped_lock lock(lock_);
          MapiArena arena;
          auto* array =
              static_cast<SPropTagArray*>(arena.Allocate(CbNewSPropTagArray(static_cast<ULONG>(columns_.size()))));
          array->cValues = static_cast<ULONG>(columns_.size());
          std::copy(columns_.begin(), columns_.end(), array->aulPropTag);
          arena.Release();
          *columns = array;
        },
        columns);
  }
  STDMETHODIMP GetRowCount(ULONG, ULONG* count) override {
    return Guarded(
        "IMAPITable::GetRowCount",
        [&](const Call& call) {
          Require(count != nullptr, MAPI_E_INVALID_PARAMETER);
          const std::scoped_lock lock(lock_);
          *count = count_;
          call.Spoil(*count);
        },
        count);
  }
  STDMETHODIMP SeekRow(BOOKMARK origin, LONG move, LONG* moved) override {
    return Guarded(
        "IMAPITable::SeekRow",
        [&] {
          const std::scoped_lock lock(lock_);
          const auto from = static_cast<std::int64_t>(Place(origin));
          const std::int64_t to = std::clamp<std::int64_t>(from + move, 0, count_);
          position_ = static_cast<std::uint32_t>(to);
          if (moved) *moved = static_cast<LONG>(to - from);
        },
        moved);
  }
  STDMETHODIMP SeekRowApprox(ULONG numerator, ULONG denominator) override {
    return Guarded("IMAPITable::SeekRowApprox", [&] {
      Require(denominator != 0, MAPI_E_INVALID_PARAMETER);
      const std::scoped_lock lock(lock_);
      const auto row = std::uint64_t{count_} * numerator / denominator;
      position_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(row, count_));
    });
  }
  STDMETHODIMP QueryPosition(ULONG* row, ULONG* numerator, ULONG* denominator) override {
    return Guarded("IMAPITable::QueryPosition", [&] {
      Require(row && numerator && denominator, MAPI_E_INVALID_PARAMETER);
      const std::scoped_lock lock(lock_);
      *row = *numerator = position_;
      *denominator = std::max<ULONG>(count_, 1);
    });
  }
  STDMETHODIMP FindRow(LPSRestriction restriction, BOOKMARK origin, ULONG flags) override {
    return Guarded("IMAPITable::FindRow", [&] {
      Require(restriction != nullptr, MAPI_E_INVALID_PARAMETER);
      const std::scoped_lock lock(lock_);
      ScratchArena arena;
      const bool backward = flags & DIR_BACKWARD;
      for (std::uint32_t at = Place(origin); backward ? at > 0 : at < count_; backward ? --at : ++at) {
        const std::uint32_t row = backward ? at - 1 : at;
        if (RowMatches(*restriction, SourceRow(row), arena)) {
          position_ = row;
          return;
        }
      }
      Fail(MAPI_E_NOT_FOUND);
    });
  }
  STDMETHODIMP Restrict(LPSRestriction restriction, ULONG) override {
    return Guarded("IMAPITable::Restrict", [&] {
      const std::scoped_lock lock(lock_);
      std::vector<std::uint32_t> rows;
      const std::uint32_t all = source_->Count();
      if (restriction) {
        ScratchArena arena;
        for (std::uint32_t row = 0; row < all; ++row)
          if (RowMatches(*restriction, row, arena)) rows.push_back(row);
      } else {
        rows.resize(all);
        std::iota(rows.begin(), rows.end(), 0u);
      }
      Sort(rows);
      Show(std::move(rows));
    });
  }
  STDMETHODIMP CreateBookmark(BOOKMARK* bookmark) override {
    return Guarded("IMAPITable::CreateBookmark", [&] {
      Require(bookmark != nullptr, MAPI_E_INVALID_PARAMETER);
      const std::scoped_lock lock(lock_);
      *bookmark = next_bookmark_++;
      bookmarks_[*bookmark] = position_;
    });
  }
  STDMETHODIMP FreeBookmark(BOOKMARK bookmark) override {
    return Guarded("IMAPITable::FreeBookmark", [&] {
      const std::scoped_lock lock(lock_);
      Require(bookmark <= BOOKMARK_END || bookmarks_.erase(bookmark), MAPI_E_INVALID_BOOKMARK);
    });
  }
  STDMETHODIMP SortTable(LPSSortOrderSet order, ULONG) override {
    return Guarded("IMAPITable::SortTable", [&] {
      Require(!order || !order->cCategories, MAPI_E_TOO_COMPLEX);
      const std::scoped_lock lock(lock_);
      order_.clear();
      if (order) order_.assign(order->aSort, order->aSort + order->cSorts);
      std::vector<std::uint32_t> rows(count_);
      for (std::uint32_t i = 0; i < count_; ++i) rows[i] = SourceRow(i);
      if (order_.empty()) std::sort(rows.begin(), rows.end());
      Sort(rows);
      Show(std::move(rows));
    });
  }
  STDMETHODIMP QuerySortOrder(LPSSortOrderSet* order) override {
    return Guarded(
        "IMAPITable::QuerySortOrder",
        [&] {
          Require(order != nullptr, MAPI_E_INVALID_PARAMETER);
          const std::scoped_lock lock(lock_);
          MapiArena arena;
          auto* set =
              static_cast<SSortOrderSet*>(arena.Allocate(CbNewSSortOrderSet(static_cast<ULONG>(order_.size()))));
          set->cSorts = static_cast<ULONG>(order_.size());
          set->cCategories = set->cExpanded = 0;
          std::copy(order_.begin(), order_.end(), set->aSort);
          arena.Release();
          *order = set;
        },
        order);
  }
  STDMETHODIMP QueryRows(LONG wanted, ULONG flags, LPSRowSet* rows) override {
    return Guarded(
        "IMAPITable::QueryRows",
        [&](const Call& call) {
          Require(rows != nullptr, MAPI_E_INVALID_PARAMETER);
          const std::scoped_lock lock(lock_);
          if (Has(kHoardexMapiGivesFewRows)) wanted = std::min<LONG>(wanted, 2);
          const std::int64_t to = std::clamp<std::int64_t>(std::int64_t{position_} + wanted, 0, count_);
          const auto first = static_cast<std::uint32_t>(std::min<std::int64_t>(position_, to));
          const auto last = static_cast<std::uint32_t>(std::max<std::int64_t>(position_, to));
          RowSet set(last - first);
          for (std::uint32_t row = first; row < last; ++row) set.Add(*source_->Row(SourceRow(row)), columns_, flags_);
          if (!(flags & TBL_NOADVANCE)) position_ = static_cast<std::uint32_t>(to);
          *rows = set.Release();
          call.Spoil(*rows);
        },
        rows);
  }
  STDMETHODIMP Abort() override { return Answer("IMAPITable::Abort", S_OK); }
  STDMETHODIMP ExpandRow(ULONG, LPBYTE, ULONG, ULONG, LPSRowSet*, ULONG*) override {
    return Answer("IMAPITable::ExpandRow", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP CollapseRow(ULONG, LPBYTE, ULONG, ULONG*) override {
    return Answer("IMAPITable::CollapseRow", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP WaitForCompletion(ULONG, ULONG, ULONG* status) override {
    return Guarded(
        "IMAPITable::WaitForCompletion",
        [&] {
          if (status) *status = TBLSTAT_COMPLETE;
        },
        status);
  }
  STDMETHODIMP GetCollapseState(ULONG, ULONG, LPBYTE, ULONG*, LPBYTE*) override {
    return Answer("IMAPITable::GetCollapseState", MAPI_E_NO_SUPPORT);
  }
  STDMETHODIMP SetCollapseState(ULONG, ULONG, LPBYTE, BOOKMARK*) override {
    return Answer("IMAPITable::SetCollapseState", MAPI_E_NO_SUPPORT);
  }

 protected:
  bool Implements(REFIID iid) const override { return iid == IID_IMAPITable; }

 private:
  std::uint32_t SourceRow(std::uint32_t shown) const { return selected_ ? rows_[shown] : shown; }

  std::uint32_t Place(BOOKMARK origin) const {
    switch (origin) {
      case BOOKMARK_BEGINNING:
        return 0;
      case BOOKMARK_CURRENT:
        return position_;
      case BOOKMARK_END:
        return count_;
      default:
        break;
    }
    const auto found = bookmarks_.find(origin);
    Require(found != bookmarks_.end(), MAPI_E_INVALID_BOOKMARK);
    return std::min(found->second, count_);
  }

  // A damaged row satisfies nothing.
  bool RowMatches(const SRestriction& restriction, std::uint32_t source_row, ScratchArena& arena) const {
    arena.Reset();
    try {
      return Matches(restriction, *source_->Row(source_row), arena);
    } catch (const vault::Error&) {
      return false;
    }
  }

  void Sort(std::vector<std::uint32_t>& rows) const {
    if (order_.empty()) return;
    ScratchArena arena;
    const std::size_t keys = order_.size();
    std::vector<SPropValue> values(rows.size() * keys);
    std::vector<std::uint32_t> order(rows.size());
    std::iota(order.begin(), order.end(), 0u);
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const auto bag = source_->Row(rows[i]);
      for (std::size_t k = 0; k < keys; ++k)
        WriteProperty(*bag, order_[k].ulPropTag, MAPI_UNICODE, arena, values[i * keys + k]);
    }
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
      for (std::size_t k = 0; k < keys; ++k) {
        const LONG difference = CompareValues(values[a * keys + k], values[b * keys + k]);
        if (difference) return order_[k].ulOrder == TABLE_SORT_DESCEND ? difference > 0 : difference < 0;
      }
      return false;
    });
    for (std::uint32_t& index : order) index = rows[index];
    rows.swap(order);
  }

  void Show(std::vector<std::uint32_t> rows) {
    rows_ = std::move(rows);
    selected_ = true;
    count_ = static_cast<std::uint32_t>(rows_.size());
    position_ = 0;
    bookmarks_.clear();
  }

  const std::shared_ptr<const RowSource> source_;
  const ULONG flags_;
  CriticalSection lock_;
  std::vector<ULONG> columns_;
  bool selected_ = false;  // rows_ says which rows are shown, and in what order; otherwise all
  std::vector<std::uint32_t> rows_;
  std::uint32_t count_;
  std::uint32_t position_ = 0;
  std::vector<SSortOrder> order_;
  std::map<BOOKMARK, std::uint32_t> bookmarks_;
  BOOKMARK next_bookmark_ = BOOKMARK_END + 1;
};

}  // namespace

Ref<IMAPITable> MakeTable(std::shared_ptr<const RowSource> rows, ULONG flags) {
  return Ref<IMAPITable>(new Table(std::move(rows), flags));
}

std::optional<Value> FixedProperties::Find(std::uint16_t id) {
  for (const Value& value : *values_)
    if (value.id() == id) return value.View();
  return {};
}

void FixedProperties::List(std::vector<vault::PropTag>& tags) {
  for (const Value& value : *values_) tags.push_back(value.tag());
}

}  // namespace provider
