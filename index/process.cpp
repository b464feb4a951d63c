#include "index/process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "index/gatherer.h"

namespace hoardex {
namespace {

[[noreturn]] void ThrowErrno(const std::string& doing, int error = errno) {
  throw std::system_error(error, std::generic_category(), doing);
}

struct Pipe {
  FileDescriptor read, write;
};

Pipe MakePipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) ThrowErrno("a pipe could not be made");
  return {FileDescriptor(fds[0]), FileDescriptor(fds[1])};
}

// The cores this process might use when it was asked for first; none when there was only one.
const cpu_set_t& AllCores() {
  static const cpu_set_t all = [] {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0 || CPU_COUNT(&allowed) < 2) CPU_ZERO(&allowed);
    return allowed;
  }();
  return all;
}

// The lowest of these, or -1.
int FirstCore() {
  for (int core = 0; core < CPU_SETSIZE; ++core)
    if (CPU_ISSET(core, &AllCores())) return core;
  return -1;
}

cpu_set_t CoresOf(Core core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  if (core == Core::kEvery) return AllCores();
  if (const int first = FirstCore(); core == Core::kFirst && first >= 0) CPU_SET(first, &cores);
  return cores;
}

// Runs in the child between fork and exec: system calls only.
[[noreturn]] void BecomeProgram(char* const* argv, int in, int out, int err, const cpu_set_t& cores, int report,
                                pid_t tied_to) {
  setpgid(0, 0);
  if (tied_to) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != tied_to) _exit(127);
  }
  if (CPU_COUNT(&cores)) sched_setaffinity(0, sizeof cores, &cores);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  if (dup2(in, 0) == 0 && dup2(out, 1) == 1 && dup2(err, 2) == 2) execvp(argv[0], argv);
  const int error = errno;
  [[maybe_unused]] const ssize_t written = write(report, &error, sizeof error);
  _exit(127);
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

void FileDescriptor::Close() {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

Child Spawn(const std::vector<std::string>& argv, const std::filesystem::path& error_log, Core core, Life life) {
  if (argv.empty()) ThrowErrno("an empty command cannot be started", EINVAL);
  std::vector<char*> arguments;
  for (const std::string& argument : argv) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);

  Pipe in = MakePipe(), out = MakePipe(), report = MakePipe();
  FileDescriptor err(
      open(error_log.empty() ? "/dev/null" : error_log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (!err) ThrowErrno(error_log.string());
  const cpu_set_t cores = CoresOf(core);

  Child child;
  const pid_t tied_to = life == Life::kTied ? getpid() : 0;
  child.pid = fork();
  if (child.pid < 0) ThrowErrno("a process could not be started");
  if (child.pid == 0)
    BecomeProgram(arguments.data(), in.read.get(), out.write.get(), err.get(), cores, report.write.get(), tied_to);
  setpgid(child.pid, child.pid);
  report.write.Close();
  int error = 0;
  ssize_t got;
  do {
    got = read(report.read.get(), &error, sizeof error);
  } while (got < 0 && errno == EINTR);
  if (got == sizeof error) {
    waitpid(child.pid, nullptr, 0);
    ThrowErrno(argv[0], error);
  }
  child.in = std::move(in.write);
  child.out = std::move(out.read);
  return child;
}

void LeaveFirstCore() {
  const int core = FirstCore();
  cpu_set_t allowed;
  if (core < 0 || sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
  CPU_CLR(core, &allowed);
  sched_setaffinity(0, sizeof allowed, &allowed);
}

std::string DescribeExit(int status) {
  if (WIFEXITED(status)) return "status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status))
    return "signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
  return "wait status " + std::to_string(status);
}

Captured RunAndCapture(const std::vector<std::string>& argv) {
  Child child = Spawn(argv, {}, Core::kAny, Life::kTied);
  child.in.Close();
  Captured captured;
  std::array<char, 65536> buffer;
  while (true) {
    const ssize_t got = read(child.out.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) {
      // Its own process group does not get the terminal's signal.
      if (Interrupted()) kill(child.pid, SIGTERM);
      continue;
    }
    if (got <= 0) break;
    captured.out.append(buffer.data(), static_cast<size_t>(got));
  }
  int status = 0;
  while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
  }
  captured.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return captured;
}

}  // namespace hoardex
