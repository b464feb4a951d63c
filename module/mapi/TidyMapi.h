// Scoped owners of what MAPI allocates. A buffer and a row set are freed by different functions, so the owner's type
// says which.
#pragma once

#include <algorithm>
#include <climits>
#include <memory>
#include <vector>

#include "module/mapi/MapiLoader.h"

// Whether a property that MAPI handed out has exactly this tag and, where its value is a pointer, one that can be read:
// a provider may answer S_OK with nothing behind it.
inline bool Carries(const SPropValue& value, ULONG tag) {
  if (value.ulPropTag != tag) return false;
  switch (PROP_TYPE(tag)) {
    case PT_UNICODE:
      return value.Value.lpszW != nullptr;
    case PT_STRING8:
      return value.Value.lpszA != nullptr;
    case PT_BINARY:
      return !value.Value.bin.cb || value.Value.bin.lpb;
    default:
      return true;
  }
}

// Owns one block from MAPIAllocateBuffer or a call that allocates with it.
template <class T>
class TidyMAPIBuffer;

template <class T>
class TidyMAPIBuffer<T*> {
 public:
  TidyMAPIBuffer() = default;
  explicit TidyMAPIBuffer(T* held) : held_(held) {}
  virtual ~TidyMAPIBuffer() { Free(); }
  TidyMAPIBuffer(const TidyMAPIBuffer&) = delete;
  TidyMAPIBuffer& operator=(const TidyMAPIBuffer&) = delete;

  virtual void Release() { Free(); }

  // For out-arguments; what was held is released first.
  T** operator&() {
    Release();
    return &held_;
  }
  T* get() const { return held_; }
  T* operator->() const { return held_; }
  explicit operator bool() const { return held_ != nullptr; }
  T* Detach() {
    T* held = held_;
    held_ = nullptr;
    return held;
  }

 protected:
  T* held_ = nullptr;

 private:
  void Free() {
    if (held_) mapi::MAPIFreeBuffer(held_);
    held_ = nullptr;
  }
};

using TidyPropTags = TidyMAPIBuffer<SPropTagArray*>;
using TidyPropValues = TidyMAPIBuffer<SPropValue*>;

// Entry `index` of what GetProps returned if it carries exactly `tag`, else null.
inline const SPropValue* FindProp(const TidyPropValues& values, ULONG count, ULONG index, ULONG tag) {
  return values && index < count && Carries(values.get()[index], tag) ? &values.get()[index] : nullptr;
}

// Owns a row set with its rows.
class TidyRowSet : public TidyMAPIBuffer<SRowSet*> {
 public:
  ~TidyRowSet() override { FreeRows(); }
  void Release() override { FreeRows(); }

  ULONG rows() const { return held_ ? held_->cRows : 0; }
  const SRow& row(ULONG i) const { return held_->aRow[i]; }
  // Column `column` of row `i` if the row has it and it carries exactly `tag`, else null.
  const SPropValue* cell(ULONG i, ULONG column, ULONG tag) const {
    const SRow& r = row(i);
    return column < r.cValues && Carries(r.lpProps[column], tag) ? &r.lpProps[column] : nullptr;
  }

 private:
  void FreeRows() {
    if (held_) mapi::FreeProws(held_);
    held_ = nullptr;
  }
};

// Owns rows of a table however many calls they came in.
class TidyTableRows {
 public:
  // Up to `count` rows from the table's position on. A provider may hand out fewer than it is asked for, so it is asked
  // again until it has none left. After a failure there are no rows.
  HRESULT Query(LPMAPITABLE table, ULONG count) {
    sets_.clear();
    rows_.clear();
    while (rows_.size() < count) {
      auto set = std::make_unique<TidyRowSet>();
      const ULONG left = count - static_cast<ULONG>(rows_.size());
      const HRESULT hr = table->QueryRows(static_cast<LONG>(std::min<ULONG>(left, LONG_MAX)), 0, &*set);
      if (FAILED(hr)) {
        rows_.clear();
        return hr;
      }
      if (!set->rows()) break;
      for (ULONG i = 0; i < set->rows(); ++i) rows_.push_back(&set->row(i));
      sets_.push_back(std::move(set));
    }
    return S_OK;
  }

  ULONG rows() const { return static_cast<ULONG>(rows_.size()); }
  // Column `column` of row `i` if the row has it and it carries exactly `tag`, else null.
  const SPropValue* cell(ULONG i, ULONG column, ULONG tag) const {
    const SRow& r = *rows_[i];
    return column < r.cValues && Carries(r.lpProps[column], tag) ? &r.lpProps[column] : nullptr;
  }

 private:
  std::vector<std::unique_ptr<TidyRowSet>> sets_;
  std::vector<const SRow*> rows_;
};
