#include "host/FilterThreads.h"

#include <process.h>

#include <array>
#include <atomic>

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr int kThreads = 3;
constexpr DWORD kPatience = 60'000;
constexpr ULONG kFlags = IFILTER_INIT_CANON_PARAGRAPHS | IFILTER_INIT_APPLY_INDEX_ATTRIBUTES |
                         IFILTER_INIT_APPLY_OTHER_ATTRIBUTES | IFILTER_INIT_SEARCH_LINKS;

class Event {
 public:
  Event() : handle_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~Event() { CloseHandle(handle_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void Set() { SetEvent(handle_); }
  bool Wait() { return WaitForSingleObject(handle_, kPatience) == WAIT_OBJECT_0; }

 private:
  HANDLE handle_;
};

// A body on a thread of its own, with COM there. Joined when it goes away.
class Thread {
 public:
  Thread(DWORD apartment, std::function<void()> body) : apartment_(apartment), body_(std::move(body)) {
    handle_ = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Thread::Enter, this, 0, nullptr));
  }
  ~Thread() {
    if (!handle_) return;
    WaitForSingleObject(handle_, INFINITE);
    CloseHandle(handle_);
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

 private:
  static unsigned __stdcall Enter(void* self) {
    const auto* thread = static_cast<Thread*>(self);
    const HRESULT hr = CoInitializeEx(nullptr, thread->apartment_);
    thread->body_();
    if (SUCCEEDED(hr)) CoUninitialize();
    return 0;
  }

  DWORD apartment_;
  std::function<void()> body_;
  HANDLE handle_ = nullptr;
};

// Everybody waits here for everybody.
class Barrier {
 public:
  explicit Barrier(int threads) : missing_(threads) {}
  void Arrive() {
    if (--missing_ == 0) open_.Set();
    open_.Wait();
  }

 private:
  std::atomic<int> missing_;
  Event open_;
};

FILETIME Now() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return now;
}

HRESULT Open(FilterSource* source, ComPtr<IFilter>* filter) {
  if (!source) return E_FAIL;
  const HRESULT hr = source->Make(filter);
  ULONG flags = 0;
  return FAILED(hr) ? hr : (*filter)->Init(kFlags, 0, nullptr, &flags);
}

Reading Read(IFilter* filter, const ReadingCaps& caps, const FILETIME& begin, size_t most = SIZE_MAX) {
  RuleTally unused;
  FilterReader reader(filter, unused, caps);
  reader.set_begin(begin);
  reader.set_noting(false);
  return reader.Run(most);
}

void CheckOwnObjects(const SourceForThread& for_thread, const Reading& expected, const ReadingCaps& caps,
                     RuleTally& tally) {
  std::array<std::string, kThreads> differences;
  // A handler that is made or let go resets what handlers share, so all are there before the first reads and until the
  // last has read.
  Barrier all_made(kThreads), all_read(kThreads);
  {
    std::array<std::unique_ptr<Thread>, kThreads> threads;
    for (size_t i = 0; i < threads.size(); ++i)
      threads[i] = std::make_unique<Thread>(COINIT_APARTMENTTHREADED, [&, i] {
        const std::unique_ptr<FilterSource> source = for_thread();
        all_made.Arrive();
        {
          ComPtr<IFilter> filter;
          const HRESULT hr = Open(source.get(), &filter);
          differences[i] = FAILED(hr) ? "the filter cannot be had: " + CodeText(hr)
                                      : Difference(expected, Read(filter.Get(), caps, Now()));
        }
        if (source) source->Done();
        all_read.Arrive();
      });
  }
  for (const std::string& difference : differences) tally.Note(Rule::kThreads, difference.empty(), difference);
}

void CheckFreeUse(const SourceForThread& for_thread, const Reading& expected, const ReadingCaps& caps,
                  RuleTally& tally) {
  const size_t half = expected.chunks.size() / 2;
  const FILETIME begin = Now();
  Reading reading;
  std::string trouble;
  Event first_half, second_half;
  ComPtr<IFilter> filter;
  {
    Thread first(COINIT_MULTITHREADED, [&] {
      const std::unique_ptr<FilterSource> source = for_thread();
      const HRESULT hr = Open(source.get(), &filter);
      if (FAILED(hr)) trouble = "the filter cannot be had: " + CodeText(hr);
      if (SUCCEEDED(hr)) reading = Read(filter.Get(), caps, begin, half);
      first_half.Set();
      second_half.Wait();
      filter.Reset();
      if (source) source->Done();
    });
    Thread second(COINIT_MULTITHREADED, [&] {
      first_half.Wait();
      if (trouble.empty()) {
        Reading rest = Read(filter.Get(), caps, begin);
        for (ReadChunk& chunk : rest.chunks) reading.chunks.push_back(std::move(chunk));
      }
      second_half.Set();
    });
  }
  if (trouble.empty()) trouble = Difference(expected, reading);
  tally.Note(Rule::kFreeThreads, trouble.empty(), trouble);
}

}  // namespace

void CheckThreads(const SourceForThread& for_thread, const Reading& expected, const ReadingCaps& caps,
                  RuleTally& tally) {
  CheckOwnObjects(for_thread, expected, caps, tally);
  CheckFreeUse(for_thread, expected, caps, tally);
}

}  // namespace host
