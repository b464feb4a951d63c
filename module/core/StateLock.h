// A lock for an object's few members that several threads may set and read.
#pragma once

#include <windows.h>

class StateLock {
 public:
  class Shared {
   public:
    explicit Shared(StateLock& lock) : lock_(lock.lock_) { AcquireSRWLockShared(&lock_); }
    ~Shared() { ReleaseSRWLockShared(&lock_); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;

   private:
    SRWLOCK& lock_;
  };
  class Exclusive {
   public:
    explicit Exclusive(StateLock& lock) : lock_(lock.lock_) { AcquireSRWLockExclusive(&lock_); }
    ~Exclusive() { ReleaseSRWLockExclusive(&lock_); }
    Exclusive(const Exclusive&) = delete;
    Exclusive& operator=(const Exclusive&) = delete;

   private:
    SRWLOCK& lock_;
  };

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};
