#include "index/gatherer.h"

#include <signal.h>

#include <algorithm>
#include <fstream>
#include <system_error>

#include "index/record.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr auto kPoll = std::chrono::milliseconds(200);
constexpr int kStartAttempts = 3;
constexpr int kDeathsAllowed = 2;

volatile sig_atomic_t interrupted = 0;

std::string Seconds(std::chrono::milliseconds time) {
  const long long ms = time.count();
  return (ms % 1000 == 0 ? std::to_string(ms / 1000)
                         : std::to_string(ms / 1000) + "." + std::to_string(ms % 1000 / 100)) +
         " s";
}

// The last words of the host, which usually say why it could not start.
std::string LastLine(const std::filesystem::path& log) {
  std::ifstream in(log);
  std::string line, last;
  while (std::getline(in, line)) {
    if (!OneLine(line).empty()) last = OneLine(line);
  }
  return Shorten(last, 300);
}

}  // namespace

void InstallSignalHandlers() {
  signal(SIGPIPE, SIG_IGN);
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigemptyset(&action.sa_mask);
  // A second Ctrl-C ends the process at once.
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Interrupted() {
  return interrupted != 0;
}

const std::vector<std::string>& Gatherer::Roots() {
  if (!host_) Start();
  return scope_.roots();
}

const CrawlScope& Gatherer::Scope() {
  if (!host_) Start();
  if (!scope_error_.empty())
    throw HostError("The system's index does not tell its search roots: " + scope_error_ +
                    ". ./hoardex setup registers what is missing.");
  return scope_;
}

const CrawlScope& Gatherer::RequireScope() {
  if (Scope().roots().empty())
    throw HostError("No search root is registered, so there is nothing to crawl: ./hoardex setup adds it.");
  return scope_;
}

json Gatherer::Request(const json& request, const char* key) {
  std::string problem;
  for (int attempt = 0; attempt < kStartAttempts && !Interrupted(); ++attempt) {
    if (!host_) Start();
    host_->Touch();
    host_->Send(request.dump(-1, ' ', false, json::error_handler_t::replace));
    problem.clear();
    while (problem.empty() && !Interrupted()) {
      std::string line;
      const auto event = host_->Wait(kPoll, &line);
      if (event == HostConnection::Event::kLine) {
        json record = json::parse(line, nullptr, false);
        if (record.is_object() && record.contains(key)) return record;
        if (record.is_object() && record.contains("error") && !record.contains("url"))
          problem = "it does not know the request.";
      } else if (event == HostConnection::Event::kGone) {
        problem = "it " + host_->end_reason() + ".";
      } else if (Clock::now() - host_->last_activity() > options_.answer_timeout) {
        problem = "it gave no answer for " + Seconds(options_.answer_timeout) + ".";
      }
    }
    host_->Kill();
    host_.reset();
  }
  throw RequestLost("The protocol host does not answer {\"" + std::string(key) + "\"}: " + problem);
}

void Gatherer::Start() {
  std::string problem;
  for (int attempt = 0; attempt < kStartAttempts && !Interrupted(); ++attempt) {
    if (TryStart(&problem)) return;
    host_.reset();
  }
  const std::string words = LastLine(options_.log);
  throw HostError("The protocol host does not start: " + problem + (words.empty() ? "" : " Its last words: " + words));
}

bool Gatherer::TryStart(std::string* problem) {
  try {
    host_ = std::make_unique<HostConnection>(options_.command, options_.log);
  } catch (const std::system_error& error) {
    *problem = std::string(error.what()) + ".";
    return false;
  }
  host_->Send(R"({"roots":true})");
  const auto deadline = Clock::now() + options_.start_timeout;
  std::string line;
  while (Clock::now() < deadline && !Interrupted()) {
    const auto event = host_->Wait(kPoll, &line);
    if (event == HostConnection::Event::kGone) {
      *problem = "it " + host_->end_reason() + " before it answered.";
      return false;
    }
    if (event != HostConnection::Event::kLine) continue;
    // What Wine may print before the host runs is no record; skip it.
    const json record = json::parse(line, nullptr, false);
    if (!record.is_object() || !record.contains("roots")) continue;
    TakeScope(record);
    return true;
  }
  *problem = "it gave no answer for " + Seconds(options_.start_timeout) + ".";
  host_->Kill();
  return false;
}

void Gatherer::TakeScope(const json& record) {
  std::vector<std::string> roots;
  for (const json& root : record["roots"])
    if (root.is_string() && !root.get_ref<const std::string&>().empty()) roots.push_back(root.get<std::string>());
  std::vector<ScopeRule> rules;
  for (const json& rule : record.value("rules", json::array())) {
    if (!rule.is_object() || !rule.contains("pattern") || !rule["pattern"].is_string()) continue;
    rules.push_back({rule["pattern"].get<std::string>(), rule.value("included", json()) == true,
                     rule.value("default", json()) == true});
  }
  scope_ = CrawlScope(std::move(roots), rules);
  scope_error_ = record.contains("error") ? Record::FromJson(record).error.value_or(ItemError{}).Describe() : "";
}

GatherResult Gatherer::Run(WorkSource& source) {
  in_flight_.clear();
  suspects_.clear();
  while (true) {
    if (Interrupted()) return GatherResult::kInterrupted;
    if (!host_) Start();
    Fill(source);
    if (in_flight_.empty()) return GatherResult::kFinished;
    std::string line;
    switch (host_->Wait(kPoll, &line)) {
      case HostConnection::Event::kLine:
        Handle(source, line);
        break;
      case HostConnection::Event::kGone:
        HostGone(source, "the protocol host " + host_->end_reason());
        break;
      case HostConnection::Event::kNothing:
        if (Clock::now() - host_->last_activity() > options_.answer_timeout) {
          HostGone(source, "the protocol host gave no answer for " + Seconds(options_.answer_timeout));
        }
        break;
    }
    source.Tick();
  }
}

void Gatherer::Fill(WorkSource& source) {
  if (!suspects_.empty()) {
    if (!in_flight_.empty()) return;
    const WorkItem item = std::move(suspects_.front());
    suspects_.pop_front();
    return Ask(item);
  }
  while (in_flight_.size() < options_.window) {
    std::optional<WorkItem> item = source.Next();
    if (!item) return;
    Ask(*item);
  }
}

void Gatherer::Ask(const WorkItem& item) {
  if (in_flight_.empty()) host_->Touch();
  in_flight_.push_back(item);
  host_->Send(json{{"url", item.url}}.dump(-1, ' ', false, json::error_handler_t::replace));
}

void Gatherer::Handle(WorkSource& source, const std::string& line) {
  json record = json::parse(line, nullptr, false);
  if (!record.is_object() || !record.contains("url") || !record["url"].is_string()) {
    return HostGone(source, "the protocol host answered with something that is not a record");
  }
  const auto& url = record["url"].get_ref<const std::string&>();
  const auto found =
      std::find_if(in_flight_.begin(), in_flight_.end(), [&](const WorkItem& item) { return item.url == url; });
  // Answered twice, or never asked: nothing hangs on it.
  if (found == in_flight_.end()) return;
  const WorkItem item = std::move(*found);
  in_flight_.erase(found);
  deaths_.erase(item.url);
  source.Answered(item, std::move(record), line);
}

void Gatherer::HostGone(WorkSource& source, const std::string& reason) {
  host_->Kill();
  host_.reset();
  for (WorkItem& item : in_flight_) {
    if (++deaths_[item.url] >= kDeathsAllowed) {
      deaths_.erase(item.url);
      source.Lost(item, reason);
    } else {
      suspects_.push_back(std::move(item));
    }
  }
  in_flight_.clear();
}

}  // namespace hoardex
