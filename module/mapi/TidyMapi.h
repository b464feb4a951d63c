// Scoped owners of what MAPI allocates. A buffer and a row set are freed by different functions, so the owner's type
// says which.
#pragma once

#include "module/mapi/MapiLoader.h"

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
    return column < r.cValues && r.lpProps[column].ulPropTag == tag ? &r.lpProps[column] : nullptr;
  }

 private:
  void FreeRows() {
    if (held_) mapi::FreeProws(held_);
    held_ = nullptr;
  }
};
