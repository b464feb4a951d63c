// Owner of a Windows critical section. A failure to initialise it is fatal, as everywhere in Windows code.
#pragma once

#include <windows.h>

class CriticalSection {
 public:
  CriticalSection() {
    if (!InitializeCriticalSectionAndSpinCount(&section_, 0))
      RaiseException(STATUS_NO_MEMORY, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  // Holds the section for a scope; may be nested on one thread.
  class Guard {
   public:
    explicit Guard(CriticalSection& owner) : section_(owner.section_) { EnterCriticalSection(&section_); }
    ~Guard() { LeaveCriticalSection(&section_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    CRITICAL_SECTION& section_;
  };

 private:
  CRITICAL_SECTION section_;
};
