#include "module/core/SCLog.h"

#include <shlobj.h>

#include <share.h>
#include <cstdarg>
#include <cwchar>
#include <iterator>

namespace {

constexpr int kMessageChars = 2048;
constexpr char kBanner[] =
    "-------------------- REWINDING THE LOG FILE (GOTO BEGINNING OF FILE) -------------------- \n";
constexpr char kSeparator[] = "-------------------------------------------------------- \n";

constexpr std::uint64_t kOneTurn = std::uint64_t{1} << 32;
constexpr int kSpins = 200, kYields = 50, kSleepsBetweenLooks = 50;

DWORD LoneHolder(std::uint64_t turns) {
  return static_cast<DWORD>(turns);
}

// Whether the thread still runs. One that was ended while it had the lock gives nothing back.
bool IsAlive(DWORD thread_id) {
  const HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, thread_id);
  if (!thread) return GetLastError() != ERROR_INVALID_PARAMETER;
  const bool alive = WaitForSingleObject(thread, 0) == WAIT_TIMEOUT;
  CloseHandle(thread);
  return alive;
}

void Append(wchar_t (&path)[1024], const wchar_t* text) {
  const size_t length = wcslen(path);
  wcsncpy(path + length, text, std::size(path) - 1 - length);
}

}  // namespace

// Lets the lock go on every path out of a scope.
class SCLog::Turn {
 public:
  explicit Turn(SCLog& log) : log_(log) {}
  ~Turn() { log_.GiveBack(); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  SCLog& log_;
};

SCLog::SCLog(const wchar_t* file_name) {
  wchar_t folder[MAX_PATH] = {};
  if (SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA | CSIDL_FLAG_CREATE, nullptr, 0, folder))) {
    Append(path_, folder);
    Append(path_, L"\\");
  }
  Append(path_, file_name ? file_name : L"ZK.log");
  SetFileLine(L".\\SCLog", 112);
  Log(kOrdinary, L"PID:%lu EXE:%s", GetCurrentProcessId(), GetCommandLineW());
}

SCLog::~SCLog() {
  if (stream_) {
    fputs(kSeparator, stream_);
    fclose(stream_);
    stream_ = nullptr;
  }
  closed_ = true;  // another static object's destructor may still log
  if (lock_) CloseHandle(lock_);
  lock_ = nullptr;
}

void SCLog::SetFileLine(const wchar_t* source_path, int line) noexcept {
  if (closed_) return;
  // Made by the constructor's own line, while the loader still keeps other threads out.
  if (!lock_) lock_ = CreateMutexW(nullptr, FALSE, nullptr);
  Take();
  const wchar_t* slash = wcsrchr(source_path, L'\\');
  wcsncpy(source_, slash ? slash + 1 : source_path, std::size(source_) - 1);
  line_ = line;
}

// A mutex costs a call of the system whether or not anybody else wants it, and most lines are written by a thread that
// is alone. Such a thread takes the lock by one exchange; every other one waits on the mutex.
void SCLog::Take() noexcept {
  const DWORD thread = GetCurrentThreadId();
  std::uint64_t turns = 0;
  if (turns_.compare_exchange_strong(turns, kOneTurn | thread)) return;
  if (LoneHolder(turns) == thread) return;  // left behind by a fault of this thread in the middle of a line
  turns_ += kOneTurn;
  WaitForSingleObject(lock_, INFINITE);
  WaitForLoneHolder();
}

// The owner of the mutex waits for the one thread that has come before it without: for the rest of a line, as a rule.
void SCLog::WaitForLoneHolder() noexcept {
  for (int round = 0;; ++round) {
    std::uint64_t turns = turns_;
    const DWORD holder = LoneHolder(turns);
    if (!holder) return;
    if (round < kSpins) {
      YieldProcessor();
    } else if (round < kSpins + kYields) {
      SwitchToThread();
    } else {
      Sleep(1);
      const bool look = (round - kSpins - kYields) % kSleepsBetweenLooks == kSleepsBetweenLooks - 1;
      if (look && !IsAlive(holder) && LoneHolder(turns = turns_) == holder)
        turns_.compare_exchange_strong(turns, turns - kOneTurn - holder);
    }
  }
}

void SCLog::GiveBack() noexcept {
  const DWORD thread = GetCurrentThreadId();
  if (LoneHolder(turns_) == thread) {
    turns_ -= kOneTurn | thread;
    return;
  }
  if (ReleaseMutex(lock_)) turns_ -= kOneTurn;
}

void SCLog::Log(int level, const wchar_t* format, ...) noexcept {
  if (closed_) return;
  const Turn turn(*this);
  if (level > threshold_ || (!stream_ && !Open())) return;
  wchar_t message[kMessageChars] = {};
  va_list args;
  va_start(args, format);
  // Cuts what is too long and leaves the buffer's last zero; the bounded formatter of the C++ runtime would read %s as
  // narrow.
  _vsnwprintf(message, kMessageChars - 1, format, args);
  va_end(args);
  Write(level, message);
}

bool SCLog::Open() noexcept {
  stream_ = _wfsopen(path_, L"r+", _SH_DENYNO);
  if (!stream_) stream_ = _wfsopen(path_, L"w+", _SH_DENYNO);
  if (!stream_) return false;
  fseek(stream_, 0, SEEK_END);
  if (ftell(stream_) >= kRewindAt) fseek(stream_, 0, SEEK_SET);
  return true;
}

void SCLog::Write(int level, const wchar_t* message) noexcept {
  // UTF-8, so that a character outside the code page never costs the line. Three bytes hold any UTF-16 unit.
  char text[3 * kMessageChars];
  if (!WideCharToMultiByte(CP_UTF8, 0, message, -1, text, sizeof(text), nullptr, nullptr)) return;
  char source[3 * sizeof(source_) / sizeof(wchar_t)];
  if (!WideCharToMultiByte(CP_UTF8, 0, source_, -1, source, sizeof(source), nullptr, nullptr)) return;
  SYSTEMTIME now;
  GetLocalTime(&now);
  // Formatted apart and written whole: the C runtime's fprintf costs several times as much, one character at a time.
  char line[sizeof(text) + sizeof(source) + 128];
  snprintf(line, sizeof(line), "[%lu][%d][%04d/%02d/%02d %02d:%02d:%02d:%03d] %s(%d):%s \n", GetCurrentProcessId(),
           level, now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds, source,
           line_, text);
  fputs(line, stream_);
  fflush(stream_);
  if (ftell(stream_) > kRewindAt) {
    fputs(kBanner, stream_);
    fseek(stream_, 0, SEEK_SET);
  }
}
