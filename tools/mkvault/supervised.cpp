#include "tools/mkvault/supervised.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace mkvault {
namespace {

namespace fs = std::filesystem;

volatile sig_atomic_t g_signal = 0;

void Note(int signal) {
  g_signal = signal;
}

[[noreturn]] void Fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// Files of the folder whose names begin with that of `partial`: the store and what the writer makes beside it.
void RemoveAll(const fs::path& partial) {
  std::error_code error;
  const fs::path folder = partial.has_parent_path() ? partial.parent_path() : fs::path(".");
  std::vector<fs::path> made;
  for (fs::directory_iterator it(folder, error); !error && it != fs::directory_iterator(); it.increment(error))
    if (it->path().filename().string().starts_with(partial.filename().string())) made.push_back(it->path());
  for (const fs::path& path : made) fs::remove(path, error);
}

// Where the work is, in memory that both processes see.
class SharedPlace {
 public:
  SharedPlace()
      : place_(static_cast<MailPlace*>(
            mmap(nullptr, sizeof(MailPlace), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    if (place_ == MAP_FAILED) Fail("no memory to share");
  }
  ~SharedPlace() { munmap(place_, sizeof(MailPlace)); }
  SharedPlace(const SharedPlace&) = delete;
  SharedPlace& operator=(const SharedPlace&) = delete;
  MailPlace& operator*() { return *place_; }

 private:
  MailPlace* place_;
};

[[noreturn]] void Work(int pipe, pid_t parent, const std::function<Said()>& work) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::signal(signal, SIG_DFL);
  const Said said = work();
  const std::string report = static_cast<char>('0' + said.status) + said.text;
  for (std::size_t sent = 0; sent < report.size();) {
    const ssize_t count = write(pipe, report.data() + sent, report.size() - sent);
    if (count < 0 && errno != EINTR) _exit(1);
    if (count > 0) sent += static_cast<std::size_t>(count);
  }
  _exit(0);
}

}  // namespace

Supervised RunSupervised(const fs::path& out, const std::function<Said(const fs::path&, const ImportOptions&)>& work,
                         ImportOptions options) {
  fs::path partial = out;
  // Ends behind the number: another process's must not begin with it.
  partial += "." + std::to_string(getpid()) + ".new";
  SharedPlace place;
  options.at = [&](MailPlace now) { *place = now; };
  struct sigaction action = {};
  action.sa_handler = Note;  // without SA_RESTART: the read below comes back
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaction(signal, &action, nullptr);
  // A file that may not grow further is an error that can be told.
  signal(SIGXFSZ, SIG_IGN);

  int ends[2];
  if (pipe(ends) != 0) Fail("no pipe");
  const pid_t parent = getpid(), child = fork();
  if (child < 0) Fail("no process");
  if (child == 0) {
    close(ends[0]);
    Work(ends[1], parent, [&] { return work(partial, options); });
  }
  close(ends[1]);
  std::string report;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(ends[0], buffer, sizeof(buffer));
    if (g_signal) kill(child, SIGKILL);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    report.append(buffer, static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }

  Supervised result;
  result.place = *place;
  result.interrupted = g_signal != 0;
  result.signal = g_signal ? g_signal : WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  if (!result.signal && !report.empty()) result.said = {report[0] - '0', report.substr(1)};
  std::error_code error;
  if (!result.signal && (result.said.status == 0 || result.said.status == 3)) fs::rename(partial, out, error);
  RemoveAll(partial);
  if (error) throw std::system_error(error, out.string());
  return result;
}

}  // namespace mkvault
