// Drives a protocol host: keeps a window of requests in flight, outlives hosts that die, hang or talk nonsense, and
// finds out which item was the cause. What to ask and what to do with the answers is the business of a WorkSource.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "index/host_connection.h"
#include "index/scope.h"

namespace hoardex {

struct WorkItem {
  int64_t id = 0;
  std::string url;
};

class WorkSource {
 public:
  virtual ~WorkSource() = default;
  // The next item to ask for; nothing when none is known now (answers still to come may bring more).
  virtual std::optional<WorkItem> Next() = 0;
  // One record as the host gave it; `line` is its text.
  virtual void Answered(const WorkItem& item, nlohmann::json record, const std::string& line) = 0;
  // The item ended the host twice; `reason` is a sentence.
  virtual void Lost(const WorkItem& item, const std::string& reason) = 0;
  // Called after every event and at least a few times a second.
  virtual void Tick() {}
};

struct GatherOptions {
  std::vector<std::string> command;  // argv of the host
  std::filesystem::path log;         // the host's standard error
  size_t window = 16;
  std::chrono::milliseconds answer_timeout{std::chrono::seconds(120)};
  std::chrono::milliseconds start_timeout{std::chrono::seconds(180)};
};

// The host cannot be started, or ends again and again before it has answered anything; what() is a sentence.
class HostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The host ended, or gave no answer, over a request that is no item's.
class RequestLost : public HostError {
 public:
  using HostError::HostError;
};

enum class GatherResult { kFinished, kInterrupted };

class Gatherer {
 public:
  explicit Gatherer(GatherOptions options) : options_(std::move(options)) {}

  // Starts the host if needed and returns the search roots that it named. Throws HostError.
  const std::vector<std::string>& Roots();
  // The roots with their rules. Throws HostError, which says what to do, when there is no root or they cannot be had.
  const CrawlScope& RequireScope();
  // The same without a root being needed.
  const CrawlScope& Scope();

  // Asks for something that is no item, between runs: the line that has `key`. Throws
  // RequestLost when the host ends over it again and again, HostError when it does not start.
  nlohmann::json Request(const nlohmann::json& request, const char* key);

  // Works until the source has no more and every answer has come, or until Interrupted(). Throws HostError and whatever
  // the source throws.
  GatherResult Run(WorkSource& source);

 private:
  using Clock = HostConnection::Clock;

  void Start();
  void TakeScope(const nlohmann::json& record);
  bool TryStart(std::string* problem);
  void Fill(WorkSource& source);
  void Ask(const WorkItem& item);
  void Handle(WorkSource& source, const std::string& line);
  // Takes the host down and decides about the items in flight: suspects are asked for one at a time afterwards.
  void HostGone(WorkSource& source, const std::string& reason);

  GatherOptions options_;
  std::unique_ptr<HostConnection> host_;
  CrawlScope scope_;
  std::string scope_error_;  // why the roots could not be had
  std::vector<WorkItem> in_flight_;
  std::deque<WorkItem> suspects_;
  std::unordered_map<std::string, int> deaths_;
};

// Asks running gatherers to stop at SIGINT and SIGTERM; SIGPIPE is ignored. Once per process.
void InstallSignalHandlers();
bool Interrupted();

}  // namespace hoardex
