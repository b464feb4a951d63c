#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "index/commands.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/record.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr char kIndent[] = "           ";
constexpr char kOpens[] = "opens", kSurvives[] = "survives";

// What one rule came to, over all items.
struct RuleResult {
  std::string name, text;
  int64_t items = 0, broken = 0, warned = 0;
  std::string item, seen;  // of the first that counts
  struct Waiver {
    std::string kind, reason;
    int64_t items = 0, used = 0;
  };
  std::vector<Waiver> waivers;

  const Waiver* Stale() const {
    for (const Waiver& waiver : waivers)
      if (waiver.items > 0 && waiver.used == 0) return &waiver;
    return nullptr;
  }
  int64_t Waived() const {
    int64_t used = 0;
    for (const Waiver& waiver : waivers) used += waiver.used;
    return used;
  }
};

class Summary {
 public:
  // With `whole`, the items stand for everything: a waiver that none of them needs is a fault then.
  explicit Summary(bool whole) : whole_(whole) {
    Named(kOpens).text = "the item can be opened, and its filter initialised";
    Named(kSurvives).text = "the protocol host outlives the filter";
  }

  void Add(const std::string& url, const json& record) {
    ++items_;
    const std::string kind = record.value("kind", std::string("unknown"));
    Count(Named(kSurvives), true, url, "");
    const auto error = record.find("error");
    const bool checked = error == record.end() && record.contains("rules") && record["rules"].is_array();
    // Every item has a chunk at least: one without any could not be opened, whatever its filter said.
    const bool empty = checked && KindOfUrl(url) != ItemKind::kUnknown && record.value("chunks", 1) == 0;
    const bool opens = checked && !empty;
    Count(Named(kOpens), opens, url,
          opens   ? ""
          : empty ? "no chunk at all"
                  : Record::FromJson(record).error.value_or(ItemError{}).Describe());
    if (!opens) return;
    for (const json& rule : record["rules"])
      if (rule.is_object()) AddRule(rule, kind, url);
  }

  void Lost(const std::string& url, const std::string& reason) {
    ++items_;
    Count(Named(kSurvives), false, url, reason);
  }

  int64_t items() const { return items_; }
  const std::vector<RuleResult>& rules() const { return rules_; }
  std::string ResultOf(const RuleResult& rule) const {
    if (rule.broken > 0 || (whole_ && rule.Stale())) return "failed";
    if (rule.Waived() > 0) return "waived";
    if (rule.warned > 0) return "warned";
    return rule.items > 0 ? "passed" : "not asked";
  }
  bool failed() const {
    return std::any_of(rules_.begin(), rules_.end(), [this](const auto& rule) { return ResultOf(rule) == "failed"; });
  }

 private:
  RuleResult& Named(const std::string& name) {
    for (RuleResult& rule : rules_)
      if (rule.name == name) return rule;
    rules_.push_back({});
    rules_.back().name = name;
    return rules_.back();
  }

  static void Count(RuleResult& rule, bool kept, const std::string& url, const std::string& seen) {
    ++rule.items;
    if (kept) return;
    if (!rule.broken++) rule.item = url, rule.seen = seen;
  }

  void AddRule(const json& rule, const std::string& kind, const std::string& url) {
    RuleResult& result = Named(rule.value("rule", std::string()));
    result.text = rule.value("text", std::string());
    if (rule.value("checked", 0) == 0) return;
    const bool kept = rule.value("broken", 0) == 0;
    const std::string seen = rule.value("seen", std::string());
    if (rule.contains("waiver")) {
      const std::string reason = rule.value("waiver", std::string());
      auto waiver = std::find_if(result.waivers.begin(), result.waivers.end(),
                                 [&](const auto& w) { return w.kind == kind && w.reason == reason; });
      if (waiver == result.waivers.end()) waiver = result.waivers.insert(waiver, {kind, reason});
      ++waiver->items;
      waiver->used += kept ? 0 : 1;
      ++result.items;
    } else if (rule.value("warning", false) && !kept) {
      ++result.items;
      if (!result.warned++) result.item = url, result.seen = seen;
    } else {
      Count(result, kept, url, seen);
    }
  }

  const bool whole_;
  int64_t items_ = 0;
  std::vector<RuleResult> rules_;
};

// Asks for a list of items, one after another.
class CheckSource : public WorkSource {
 public:
  CheckSource(const std::vector<std::string>& urls, Summary& summary) : urls_(urls), summary_(summary) {}

  std::optional<WorkItem> Next() override {
    if (next_ >= urls_.size()) return std::nullopt;
    return WorkItem{0, urls_[next_++]};
  }
  void Answered(const WorkItem& item, json record, const std::string&) override { summary_.Add(item.url, record); }
  void Lost(const WorkItem& item, const std::string& reason) override { summary_.Lost(item.url, reason); }
  void Tick() override {
    progress_.Show("checking", summary_.items(), static_cast<int64_t>(urls_.size()) - summary_.items());
  }

 private:
  const std::vector<std::string>& urls_;
  Summary& summary_;
  size_t next_ = 0;
  Progress progress_;
};

// Walks the vaults and picks items: all, or the first of every sort in every vault.
class PickSource : public WorkSource {
 public:
  PickSource(const std::string& root, const std::set<std::string>& vaults, bool all)
      : root_(root), vaults_(vaults), all_(all) {
    waiting_.push_back({root, ItemKind::kRoot});
  }

  std::optional<WorkItem> Next() override {
    if (waiting_.empty()) return std::nullopt;
    const auto [url, kind] = std::move(waiting_.back());
    waiting_.pop_back();
    kinds_[url] = kind;
    return WorkItem{0, url};
  }
  void Answered(const WorkItem& item, json json_record, const std::string&) override {
    const ItemKind kind = kinds_[item.url];
    kinds_.erase(item.url);
    const Record record = Record::FromJson(std::move(json_record));
    const bool broken = record.error.has_value();
    if (all_ || seen_.insert(SortOf(kind, record) + (broken ? " broken" : "")).second) picked.push_back(item.url);
    for (auto link = record.links.rbegin(); link != record.links.rend(); ++link) {
      if (kind == ItemKind::kRoot && !Wanted(VaultOfUrl(link->url))) continue;
      waiting_.push_back({link->url, ChildKind(kind, link->url)});
    }
  }
  void Lost(const WorkItem& item, const std::string&) override { picked.push_back(item.url); }

  std::vector<std::string> picked;

 private:
  bool Wanted(const std::string& vault) const {
    return vaults_.empty() ? !IsTemporaryVault(vault) : vaults_.contains(vault);
  }
  static std::string SortOf(ItemKind kind, const Record& record) {
    const std::string vault = VaultOfUrl(record.url) + "|" + std::string(KindName(kind)) + "|";
    const bool empty = record.links.empty(), text = !record.text.empty();
    if (kind == ItemKind::kAttachment) {
      const std::string name = record.Text("System.FileName");
      return vault + AsciiLower(name.substr(std::min(name.rfind('.'), name.size())));
    }
    return vault + record.Text("System.ItemType") + (empty ? "|" : "|links") + (text ? "|text" : "");
  }

  const std::string root_;
  const std::set<std::string>& vaults_;
  const bool all_;
  std::vector<std::pair<std::string, ItemKind>> waiting_;
  std::map<std::string, ItemKind> kinds_;
  std::set<std::string> seen_;
};

// One line a reason, with the kinds that it holds for.
void PrintWaivers(const RuleResult& rule, bool failed) {
  std::vector<std::pair<std::string, std::string>> lines;
  for (const auto& waiver : rule.waivers) {
    if (waiver.used == 0) {
      if (failed)
        Print(std::string(kIndent) + "the waiver for " + waiver.kind +
              " is needed no longer: " + OneLine(waiver.reason) + "\n");
      continue;
    }
    const std::string kinds = Counted(waiver.used, waiver.kind);
    const auto same = [&](const auto& line) { return line.second == waiver.reason; };
    if (const auto line = std::find_if(lines.begin(), lines.end(), same); line != lines.end()) {
      line->first += ", " + kinds;
    } else {
      lines.emplace_back(kinds, waiver.reason);
    }
  }
  for (const auto& [kinds, reason] : lines) Print(kIndent + kinds + ": " + OneLine(reason) + "\n");
}

void PrintSummary(const Summary& summary) {
  std::map<std::string, int64_t> totals;
  size_t width = 0;
  for (const RuleResult& rule : summary.rules()) width = std::max(width, rule.name.size());
  for (const RuleResult& rule : summary.rules()) {
    const std::string result = summary.ResultOf(rule);
    ++totals[result];
    std::string line = result + std::string(11 - result.size(), ' ') + OneLine(rule.name);
    line += std::string(width + 2 - rule.name.size(), ' ');
    const std::string count =
        rule.broken > 0 ? Grouped(rule.broken) + " of " + Grouped(rule.items) : Grouped(rule.items);
    line += count + std::string(count.size() < 10 ? 10 - count.size() : 1, ' ') + OneLine(rule.text);
    Print(line + "\n");
    if (!rule.seen.empty()) Print(kIndent + OneLine(rule.seen) + "\n" + kIndent + OneLine(rule.item) + "\n");
    PrintWaivers(rule, result == "failed");
  }
  std::string sums;
  for (const char* result : {"passed", "waived", "warned", "not asked", "failed"})
    if (totals[result] > 0 || std::string(result) == "failed")
      sums += (sums.empty() ? "" : ", ") + Grouped(totals[result]) + " " + result;
  Print(Counted(summary.items(), "item") + ", " + Counted(static_cast<int64_t>(summary.rules().size()), "rule") + ": " +
        sums + "\n");
}

json SummaryJson(const Summary& summary) {
  json out{{"items", summary.items()}, {"failed", summary.failed()}, {"rules", json::array()}};
  for (const RuleResult& rule : summary.rules()) {
    json waivers = json::array();
    for (const auto& waiver : rule.waivers)
      waivers.push_back(
          {{"kind", waiver.kind}, {"reason", waiver.reason}, {"items", waiver.items}, {"needed", waiver.used}});
    json entry{{"rule", rule.name},   {"text", rule.text},     {"result", summary.ResultOf(rule)},
               {"items", rule.items}, {"broken", rule.broken}, {"waivers", waivers}};
    if (!rule.seen.empty()) entry["item"] = rule.item, entry["seen"] = rule.seen;
    out["rules"].push_back(std::move(entry));
  }
  return out;
}

// A file as the host sees it: the root of this machine's files is its drive Z.
std::string HostPath(const std::string& file) {
  std::string path = "Z:" + std::filesystem::canonical(file).string();
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

void RunChecks(const Environment& environment, const std::vector<std::string>& words,
               const std::vector<std::string>& urls, Summary& summary) {
  GatherOptions options = HostOptions(environment, words, kItemTimeout);
  options.window = 1;
  Gatherer gatherer(options);
  CheckSource source(urls, summary);
  if (gatherer.Run(source) == GatherResult::kInterrupted) throw CommandError(kExitInterrupted, "Stopped.");
}

std::vector<std::string> Pick(const Environment& environment, const std::set<std::string>& vaults, bool all) {
  Gatherer gatherer(HostOptions(environment, {}, kItemTimeout));
  const auto roots = gatherer.RequireScope().roots();
  PickSource source(roots.front(), vaults, all);
  if (gatherer.Run(source) == GatherResult::kInterrupted) throw CommandError(kExitInterrupted, "Stopped.");
  return source.picked;
}

}  // namespace

int RunCheck(const Environment& environment, const CheckArguments& arguments) {
  const bool other = !arguments.clsid.empty() || !arguments.file.empty();
  const bool walk = arguments.urls.empty() && !other;
  RequireUtf8(arguments.file);
  for (const std::string& url : arguments.urls) {
    RequireUtf8(url);
    if (KindOfUrl(url) == ItemKind::kUnknown)
      throw CommandError(kExitUsage,
                         "\"" + OneLine(url) + "\" is no item URL; hoardex search prints one below each hit.");
  }
  if (other && !arguments.file.empty() && !std::filesystem::is_regular_file(arguments.file))
    throw CommandError(kExitUsage, "There is no file \"" + OneLine(arguments.file) + "\".");
  Summary summary(walk);
  VaultFolder folder(environment);
  folder.ClearTemporary();
  TemporaryLinks cleanup{folder};
  if (other) {
    std::vector<std::string> words{"--check", "--files"};
    if (!arguments.clsid.empty()) words.insert(words.end(), {"--clsid", arguments.clsid});
    RunChecks(environment, words, {arguments.file.empty() ? std::string() : HostPath(arguments.file)}, summary);
  } else {
    std::vector<std::string> urls = arguments.urls;
    if (walk) {
      std::set<std::string> vaults;
      int64_t refused = 0;
      if (arguments.demo) vaults = LinkFiles(environment, {MakeDemo(environment).string()}, folder, &refused);
      if (refused > 0) return kExitFailed;
      if (!arguments.demo && folder.List().empty())
        throw CommandError(
            kExitUsage,
            "There is no vault yet: hoardex index mail.pst makes one of a store, hoardex check --demo "
            "checks the demonstration vault, and hoardex check --file FILE the filter of a file's type.");
      urls = Pick(environment, vaults, arguments.all);
    }
    RunChecks(environment, {"--check"}, urls, summary);
  }
  if (arguments.json) {
    Print(SummaryJson(summary).dump(2, ' ', isatty(STDOUT_FILENO), json::error_handler_t::replace) + "\n");
  } else {
    PrintSummary(summary);
  }
  return summary.failed() ? kExitFailed : kExitOk;
}

}  // namespace hoardex
