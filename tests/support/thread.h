// A thread that is waited for: what std::thread is where the toolchain's runtime has it.
#pragma once

#include <windows.h>

#include <process.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

class Thread {
 public:
  template <class Body>
  explicit Thread(Body&& body) {
    auto work = std::make_unique<std::function<void()>>(std::forward<Body>(body));
    handle_ = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Run, work.get(), 0, nullptr));
    if (!handle_) throw std::runtime_error("no thread");
    work.release();
  }
  Thread(Thread&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  ~Thread() { join(); }

  void join() {
    if (!handle_) return;
    WaitForSingleObject(handle_, INFINITE);
    CloseHandle(std::exchange(handle_, nullptr));
  }

 private:
  static unsigned __stdcall Run(void* parameter) {
    const std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(parameter));
    (*work)();
    return 0;
  }

  HANDLE handle_ = nullptr;
};
