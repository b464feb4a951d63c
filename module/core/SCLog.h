// The module's log: one plain-text file in the user's local application-data folder, appended to by every process that
// loads the module and rewound at about 5 MiB.
//
// Statements go through ZK_LOG / ZK_LOG_DETAIL, which make the SetFileLine/Log pair. The pair holds a process-local
// lock between its two calls, so the arguments are evaluated before it starts: one that itself logs meets a free lock.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <type_traits>

class SCLog {
 public:
  static constexpr int kOrdinary = 0;  // progress, failures, caught exceptions
  static constexpr int kDetail = 2;    // above the threshold: never written
  static constexpr long kRewindAt = 5'242'880;

  // Opens nothing yet but the first line, which names the process, is written at once. `file_name` is a bare name;
  // null means "ZK.log". Never fails outward.
  explicit SCLog(const wchar_t* file_name);
  ~SCLog();
  SCLog(const SCLog&) = delete;
  SCLog& operator=(const SCLog&) = delete;

  // Takes the lock and notes where the line comes from: the part of `source_path` after its last backslash. Must be
  // followed by Log on the same thread, which lets the lock go.
  void SetFileLine(const wchar_t* source_path, int line) noexcept;

  // Formats and writes one line (wide printf format, %s is wide) unless level is above the threshold, then releases
  // the lock. Never reports a failure: a line that cannot be written is dropped.
  void Log(int level, const wchar_t* format, ...) noexcept;

  bool Enabled(int level) const noexcept { return level <= threshold_; }
  void ResetThreshold() noexcept { threshold_ = 0; }
  const wchar_t* path() const noexcept { return path_; }

 private:
  class Turn;

  void Take() noexcept;
  void GiveBack() noexcept;
  void WaitForLoneHolder() noexcept;
  bool Open() noexcept;
  void Write(int level, const wchar_t* message) noexcept;

  wchar_t source_[1024] = {};
  int line_ = 0;
  wchar_t path_[1024] = {};
  std::FILE* stream_ = nullptr;
  int threshold_ = 0;
  HANDLE lock_ = nullptr;
  // Who wants or has the lock: their number in the upper half; in the lower, the id of the thread that found nobody
  // there and has it without the mutex.
  std::atomic<std::uint64_t> turns_ = 0;
  bool closed_ = false;  // the separator stands: what comes later is dropped
};

extern SCLog g_Log;

namespace logging {

enum class Argument { kWideString, kInt32, kInt64 };

template <class T>
consteval Argument Classify() {
  using Value = std::remove_cvref_t<T>;
  if constexpr (std::is_pointer_v<Value>) {
    static_assert(std::is_same_v<std::remove_cv_t<std::remove_pointer_t<Value>>, wchar_t>,
                  "log arguments are wide strings or integers");
    return Argument::kWideString;
  } else {
    static_assert(std::is_integral_v<Value> || std::is_enum_v<Value>, "log arguments are wide strings or integers");
    return sizeof(Value) == 8 ? Argument::kInt64 : Argument::kInt32;
  }
}

// A wide format whose conversions are checked against the argument types when it is compiled: the toolchain checks no
// wide formats, and a wrong one would crash the host process.
template <class... Args>
struct Format {
  const wchar_t* text;
  template <size_t N>
  consteval Format(const wchar_t (&format)[N]) : text(format) {  // NOLINT(google-explicit-constructor)
    constexpr Argument kinds[sizeof...(Args) + 1] = {Classify<Args>()..., Argument::kInt32};
    size_t used = 0;
    for (size_t i = 0; format[i]; ++i) {
      if (format[i] != L'%') continue;
      if (format[++i] == L'%') continue;
      while (format[i] >= L'0' && format[i] <= L'9') ++i;
      int longs = 0;
      while (format[i] == L'l') ++longs, ++i;
      if (used == sizeof...(Args)) throw "more conversions than arguments";
      const Argument kind = kinds[used++];
      switch (format[i]) {
        case L's':
          if (kind != Argument::kWideString || longs) throw "%s takes a wide string";
          break;
        case L'd':
        case L'u':
        case L'x':
        case L'X':
          if (kind != (longs == 2 ? Argument::kInt64 : Argument::kInt32)) throw "integer of another size";
          break;
        default:
          throw "conversion that the log does not know";
      }
    }
    if (used != sizeof...(Args)) throw "more arguments than conversions";
  }
};

template <class... Args>
void Write(const wchar_t* source, int line, int level, Format<std::type_identity_t<Args>...> format, Args... args) {
  g_Log.SetFileLine(source, line);
  g_Log.Log(level, format.text, args...);
}

// What %lX shows of an object's address: its low 32 bits, which tell objects of one run apart.
inline ULONG Address(const void* object) {
  return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(object));
}

}  // namespace logging

// Each source file that logs defines kLogSource, its bare name with a leading ".\". A statement above the threshold
// costs one comparison: neither lock nor arguments are touched.
#define ZK_LOG_AT(level, ...)                                                               \
  do {                                                                                      \
    if (g_Log.Enabled(level)) ::logging::Write(kLogSource, __LINE__, (level), __VA_ARGS__); \
  } while (0)
#define ZK_LOG(...) ZK_LOG_AT(SCLog::kOrdinary, __VA_ARGS__)
#define ZK_LOG_DETAIL(...) ZK_LOG_AT(SCLog::kDetail, __VA_ARGS__)
