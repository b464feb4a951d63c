// Child processes without a shell: argument lists, pipes with close-on-exec, process groups.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace hoardex {

// Closes a file descriptor at the end of its life; -1 is none.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() { Close(); }
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  void Close();
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

struct Child {
  pid_t pid = -1;  // also the id of its process group
  FileDescriptor in, out;
};

enum class Core { kAny, kFirst, kEvery };
// kTied: the child is told to end (SIGTERM) when the thread that started it does, however that comes.
enum class Life { kOwn, kTied };

// Starts argv[0] (looked up in PATH) in a process group of its own, with pipes at its standard input and output and
// standard error appended to `error_log` (or discarded when empty). kFirst pins it to one core when there are more: a
// host that shares its core with Wine's server needs no hand-over between cores for every call to it. kEvery gives it
// back the one that LeaveFirstCore has left.
// Throws std::system_error, also when the program cannot be executed.
Child Spawn(const std::vector<std::string>& argv, const std::filesystem::path& error_log, Core core,
            Life life = Life::kOwn);

// Keeps the calling process off the core that Core::kFirst takes, when there is another one.
void LeaveFirstCore();

// "status 3" or "signal 11 (Segmentation fault)".
std::string DescribeExit(int wait_status);

struct Captured {
  int status = -1;  // exit status, or 128 + signal
  std::string out;
};
// Runs a program to its end with empty standard input and returns what it printed. Throws std::system_error.
Captured RunAndCapture(const std::vector<std::string>& argv);

}  // namespace hoardex
