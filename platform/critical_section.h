// Owner of a Windows critical section, in the form that std::lock_guard and std::scoped_lock take: the toolchain's
// runtime without POSIX threads has no mutex of its own. A failure to initialise it is fatal, as everywhere in Windows
// code.
#pragma once

#include <windows.h>

#include <mutex>

class CriticalSection {
 public:
  CriticalSection() {
    if (!InitializeCriticalSectionAndSpinCount(&section_, 0))
      RaiseException(STATUS_NO_MEMORY, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  // May be nested on one thread.
  void lock() { EnterCriticalSection(&section_); }
  void unlock() { LeaveCriticalSection(&section_); }

  // Holds the section for a scope.
  using Guard = std::lock_guard<CriticalSection>;

 private:
  CRITICAL_SECTION section_;
};
