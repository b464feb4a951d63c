// The enumerators of roots and rules: what there was when they were asked for.
#pragma once

#include <string>
#include <vector>

#include "platform/critical_section.h"
#include "platform/searchmanager.h"
#include "winindex/ComObject.h"

namespace winindex {

template <class EnumInterface, class Item>
class Enumerator final : public ComObject<EnumInterface> {
 public:
  // `name` is the interface's, for the fault plan.
  Enumerator(const char* name, std::vector<ComPtr<Item>> items, size_t next = 0)
      : name_(name), items_(std::move(items)), next_(next) {}

  STDMETHODIMP Next(ULONG count, Item** items, ULONG* fetched) override {
    return Method(name_ + "::Next", [&] {
      Require(items && (fetched || count <= 1), E_POINTER);
      const std::lock_guard guard(mutex_);
      ULONG given = 0;
      for (; given < count && next_ < items_.size(); ++given) {
        items[given] = items_[next_++].Get();
        items[given]->AddRef();
      }
      if (fetched) *fetched = given;
      return given == count ? S_OK : S_FALSE;
    });
  }
  STDMETHODIMP Skip(ULONG count) override {
    return Method(name_ + "::Skip", [&] {
      const std::lock_guard guard(mutex_);
      const bool enough = count <= items_.size() - next_;
      next_ = enough ? next_ + count : items_.size();
      return enough ? S_OK : S_FALSE;
    });
  }
  STDMETHODIMP Reset() override {
    return Method(name_ + "::Reset", [&] {
      const std::lock_guard guard(mutex_);
      next_ = 0;
      return S_OK;
    });
  }
  STDMETHODIMP Clone(EnumInterface** copy) override {
    return Method(name_ + "::Clone", [&] {
      Require(copy, E_POINTER);
      const std::lock_guard guard(mutex_);
      *copy = Make<Enumerator>(name_.c_str(), items_, next_).Detach();
      return S_OK;
    });
  }

 private:
  const std::string name_;
  CriticalSection mutex_;
  const std::vector<ComPtr<Item>> items_;
  size_t next_;
};

}  // namespace winindex
