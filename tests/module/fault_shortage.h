// Memory that runs out at one request.
#pragma once

#include "tests/module/fault_scenario.h"

namespace faults {

// Denies the n-th request that is made while the module's code runs on the thread that made this plan.
class Shortage {
 public:
  void Plan(long denied) {
    thread_ = GetCurrentThreadId();
    denied_ = denied;
    seen_ = 0;
    given_ = 0;
  }
  bool Denies() {
    if (!faults::in_module || GetCurrentThreadId() != thread_ || ++seen_ != denied_) return false;
    ++given_;
    return true;
  }
  long seen() const { return seen_; }
  long given() const { return given_; }

 private:
  DWORD thread_ = 0;
  long denied_ = 0, seen_ = 0, given_ = 0;
};
// Requests of operator new, which the test program replaces, and of COM's allocator.
inline constinit Shortage of_new, of_com;

}  // namespace faults
