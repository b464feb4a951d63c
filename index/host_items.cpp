#include "index/host_items.h"

#include <cstdio>
#include <utility>

#include "index/text.h"

namespace hoardex {
namespace {

// One item, kept.
class SingleSource : public WorkSource {
 public:
  SingleSource(const std::string& url, ItemAnswer& answer) : url_(url), answer_(answer) {}
  std::optional<WorkItem> Next() override {
    if (std::exchange(asked_, true)) return std::nullopt;
    return WorkItem{1, url_};
  }
  void Answered(const WorkItem&, nlohmann::json record, const std::string&) override {
    answer_.record = std::move(record);
  }
  void Lost(const WorkItem&, const std::string& reason) override { answer_.lost = reason; }

 private:
  const std::string& url_;
  ItemAnswer& answer_;
  bool asked_ = false;
};

}  // namespace

GatherOptions HostOptions(const Environment& environment, const std::vector<std::string>& words,
                          int64_t timeout_seconds) {
  if (environment.host_command.empty()) environment.Require("");
  GatherOptions options;
  options.command = environment.host_command;
  options.command.insert(options.command.end(), words.begin(), words.end());
  std::error_code error;
  std::filesystem::create_directories(environment.home, error);
  if (!error) options.log = environment.host_log();
  options.answer_timeout = std::chrono::seconds(timeout_seconds);
  return options;
}

void RequireUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const size_t first = i;
    constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    if (DecodeUtf8(text, &i) == 0xFFFD && text.compare(first, i - first, kReplacement) != 0)
      throw CommandError(kExitUsage, "\"" + OneLine(text) + "\" is not UTF-8; the protocol host takes nothing else.");
  }
}

ItemAnswer AskItem(Gatherer& gatherer, const std::string& url) {
  RequireUtf8(url);
  ItemAnswer answer;
  SingleSource source(url, answer);
  answer.interrupted = gatherer.Run(source) == GatherResult::kInterrupted;
  return answer;
}

std::set<std::string> LinkFiles(const Environment& environment, const std::vector<std::string>& arguments,
                                VaultFolder& folder, int64_t* refused) {
  std::set<std::string> names;
  int number = 0;
  for (const auto& file : ExpandFolders(arguments)) {
    std::error_code error;
    const auto source = std::filesystem::canonical(file, error);
    std::string reason = error ? "It cannot be reached: " + error.message() + "." : "";
    bool known = false;
    for (const Vault& vault : folder.List()) {
      if (error || !vault.present || !std::filesystem::equivalent(vault.link, source, error)) continue;
      names.insert(vault.name);
      known = true;
    }
    if (known) continue;
    if (reason.empty()) {
      const VaultInfo info = InspectVault(environment, source);
      if (!info.opens) reason = info.error;
    }
    if (reason.empty()) {
      names.insert(folder.LinkTemporarily(source, ++number).name);
      continue;
    }
    ++*refused;
    std::fprintf(stderr, "hoardex: %s is refused: %s\n", OneLine(file.string()).c_str(), OneLine(reason).c_str());
  }
  return names;
}

}  // namespace hoardex
