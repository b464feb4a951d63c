// COM on the calling thread for the length of a call.
#pragma once

#include <objbase.h>

// A caller that has COM, in whatever apartment, keeps it as it is.
class ComScope {
 public:
  ComScope() : entered_(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {}
  ~ComScope() {
    if (entered_) CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;

 private:
  bool entered_;
};
