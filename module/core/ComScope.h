// COM on the calling thread for the length of a call.
#pragma once

#include <objbase.h>

// Enters an apartment of the model where the thread has none; a caller that has COM, in whatever apartment, keeps it as
// it is.
class ComScope {
 public:
  explicit ComScope(COINIT model = COINIT_MULTITHREADED) : entered_(SUCCEEDED(CoInitializeEx(nullptr, model))) {}
  ~ComScope() {
    if (entered_) CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;

 private:
  bool entered_;
};
