// Checks a filter against the rules of its interface: several readings, each of a new object, each asking something
// that the next must not be disturbed by.
#pragma once

#include <wrl/client.h>

#include <functional>
#include <memory>

#include "host/FilterReading.h"
#include "host/FilterRules.h"

namespace host {

// What is checked. Its calls come from one thread.
class FilterSource {
 public:
  virtual ~FilterSource() = default;
  // A new filter with its item loaded, not yet initialised. The one before is released by then.
  virtual HRESULT Make(Microsoft::WRL::ComPtr<IFilter>* filter) = 0;
  // Called after every filter has been released.
  virtual void Done() {}
  // A new filter with nothing loaded; S_FALSE where the item is part of the object.
  virtual HRESULT MakeUnloaded(Microsoft::WRL::ComPtr<IFilter>*) { return S_FALSE; }
};

// Makes a source for the thread that calls; COM is initialised there. Null where threads are not to be tried.
using SourceForThread = std::function<std::unique_ptr<FilterSource>()>;

struct CheckResult {
  RuleTally tally;
  Reading reading;  // the first one
  const char* failed_step = nullptr;
  HRESULT error = S_OK;  // of that step; then nothing was checked
};

CheckResult CheckFilter(FilterSource& source, const SourceForThread& for_thread, const ReadingCaps& caps = {});
// What can be asked of a filter with nothing loaded.
CheckResult CheckEmptyFilter(FilterSource& source);

}  // namespace host
