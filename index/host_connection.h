// The wire to one protocol host process: lines out, lines in, and certain knowledge of its end. The protocol itself is
// in docs/host-protocol.md.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "index/process.h"

namespace hoardex {

class HostConnection {
 public:
  using Clock = std::chrono::steady_clock;

  // Starts the host; its standard error goes to `log`. From then on the process ignores SIGPIPE. Throws
  // std::system_error.
  HostConnection(const std::vector<std::string>& command, const std::filesystem::path& log, Core core = Core::kFirst);
  // Closes the host's input, gives it a moment to end by itself, then kills its process group.
  ~HostConnection();
  HostConnection(const HostConnection&) = delete;
  HostConnection& operator=(const HostConnection&) = delete;

  // Takes one line (without its end) to be written; never blocks, the writing happens in Wait.
  void Send(std::string line);

  enum class Event { kLine, kNothing, kGone };
  // Waits at most `timeout` for a whole line (returned without its end), or for the end of the host: then everything
  // that it wrote has been returned before. A signal handler ends the wait early.
  Event Wait(std::chrono::milliseconds timeout, std::string* line);

  // The last time a byte came from the host, or a line was sent to an idle one.
  Clock::time_point last_activity() const { return last_activity_; }
  void Touch() { last_activity_ = Clock::now(); }

  // After kGone: "ended with status 3".
  const std::string& end_reason() const { return end_reason_; }
  void Kill();

 private:
  bool TakeLine(std::string* line);
  // Reads what is there; false at the end of the stream.
  bool ReadSome();
  void WriteSome();
  bool Reap(bool wait);

  Child child_;
  std::string outgoing_, incoming_;
  size_t sent_ = 0, scanned_ = 0, taken_ = 0;
  bool at_end_ = false, reaped_ = false;
  std::string end_reason_;
  Clock::time_point last_activity_ = Clock::now();
};

}  // namespace hoardex
