#include "index/host_connection.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace hoardex {
namespace {

constexpr size_t kReadSize = 1 << 17;
constexpr auto kFarewell = std::chrono::seconds(5);

void MakeNonBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

}  // namespace

HostConnection::HostConnection(const std::vector<std::string>& command, const std::filesystem::path& log, Core core)
    : child_(Spawn(command, log, core)) {
  // A host that ends while it is written to is told by EPIPE.
  signal(SIGPIPE, SIG_IGN);
  MakeNonBlocking(child_.in.get());
  MakeNonBlocking(child_.out.get());
  // Room for the records that arrive while a batch is being committed, so that the host does not stand still.
  fcntl(child_.out.get(), F_SETPIPE_SZ, 1 << 20);
}

HostConnection::~HostConnection() {
  child_.in.Close();
  const auto deadline = Clock::now() + kFarewell;
  while (!Reap(false) && Clock::now() < deadline) {
    ReadSome();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  Kill();
}

void HostConnection::Send(std::string line) {
  outgoing_ += line;
  outgoing_ += '\n';
  WriteSome();
}

HostConnection::Event HostConnection::Wait(std::chrono::milliseconds timeout, std::string* line) {
  if (TakeLine(line)) return Event::kLine;
  if (!at_end_) {
    WriteSome();
    pollfd fds[2] = {{child_.out.get(), POLLIN, 0}, {child_.in.get(), POLLOUT, 0}};
    const nfds_t count = sent_ < outgoing_.size() && child_.in ? 2 : 1;
    const int ready = poll(fds, count, static_cast<int>(timeout.count()));
    if (ready > 0 && fds[0].revents != 0) at_end_ = !ReadSome();
    if (ready > 0 && count == 2 && fds[1].revents != 0) WriteSome();
    if (TakeLine(line)) return Event::kLine;
    // A service that Wine started may hold the pipe open after the host has died, so the end of the stream alone is not
    // enough to go by.
    if (!at_end_ && ready <= 0 && Reap(false)) {
      ReadSome();
      at_end_ = true;
      if (TakeLine(line)) return Event::kLine;
    }
    if (!at_end_) return Event::kNothing;
  }
  if (!Reap(false)) {
    // It closed its output: whatever it still does, it answers no more.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (!Reap(false)) {
      Kill();
      end_reason_ = "closed its output";
    }
  }
  return Event::kGone;
}

bool HostConnection::TakeLine(std::string* line) {
  const size_t end = incoming_.find('\n', scanned_);
  if (end == std::string::npos) {
    scanned_ = incoming_.size();
    if (taken_ > 0) {
      incoming_.erase(0, taken_);
      scanned_ -= taken_;
      taken_ = 0;
    }
    return false;
  }
  line->assign(incoming_, taken_, end - taken_);
  if (!line->empty() && line->back() == '\r') line->pop_back();
  taken_ = scanned_ = end + 1;
  return true;
}

bool HostConnection::ReadSome() {
  while (true) {
    const size_t old = incoming_.size();
    incoming_.resize(old + kReadSize);
    const ssize_t got = read(child_.out.get(), incoming_.data() + old, kReadSize);
    incoming_.resize(old + (got > 0 ? static_cast<size_t>(got) : 0));
    if (got > 0) {
      Touch();
      // One buffer's worth at a time: the caller works on whole lines as they come.
      return true;
    }
    if (got < 0 && errno == EINTR) continue;
    return got < 0 && errno == EAGAIN;
  }
}

void HostConnection::WriteSome() {
  while (sent_ < outgoing_.size() && child_.in) {
    const ssize_t put = write(child_.in.get(), outgoing_.data() + sent_, outgoing_.size() - sent_);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) {
      // EPIPE: the host is ending; its output says when it has.
      if (errno != EAGAIN) child_.in.Close();
      break;
    }
    sent_ += static_cast<size_t>(put);
  }
  if (sent_ == outgoing_.size()) {
    outgoing_.clear();
    sent_ = 0;
  }
}

bool HostConnection::Reap(bool wait) {
  if (reaped_) return true;
  int status = 0;
  pid_t got;
  do {
    got = waitpid(child_.pid, &status, wait ? 0 : WNOHANG);
  } while (got < 0 && errno == EINTR);
  if (got == 0) return false;
  reaped_ = true;
  if (got == child_.pid && end_reason_.empty()) end_reason_ = "ended with " + DescribeExit(status);
  return true;
}

void HostConnection::Kill() {
  if (reaped_) return;
  kill(-child_.pid, SIGKILL);
  Reap(true);
}

}  // namespace hoardex
