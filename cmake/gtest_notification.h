// Stands in for GoogleTest's Notification, which needs the mutex and the condition variable that the toolchain's
// runtime without POSIX threads does not have. Put before GoogleTest's headers by Testing.cmake.
#pragma once

#ifdef __cplusplus
#include <atomic>

namespace testing::internal {

class Notification {
 public:
  void Notify() { given_ = true; }
  void WaitForNotification() const {
    while (!given_) __builtin_ia32_pause();
  }

 private:
  std::atomic<bool> given_ = false;
};

}  // namespace testing::internal

#define GTEST_HAS_NOTIFICATION_ 1
#endif
