#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_set>

#include "index/commands.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/record.h"
#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

using nlohmann::json;

// The output took no more. That nobody reads it is no failure; that it is full is one.
struct OutputClosed {
  int error;
  ExitCode Code() const {
    if (error == EPIPE) return kExitOk;
    throw CommandError(kExitFailed, "The output cannot be written: " + std::string(std::strerror(error)) + ".");
  }
};

// Walks everything below the root, deepest first, so that little is remembered at a time.
class DumpSource : public WorkSource {
 public:
  // With names, only these vaults.
  DumpSource(const std::string& root, const std::set<std::string>& vaults) : vaults_(vaults) {
    waiting_.push_back({{0, root}, ItemKind::kRoot});
  }

  std::optional<WorkItem> Next() override {
    if (waiting_.empty()) return std::nullopt;
    const auto [item, kind] = std::move(waiting_.back());
    waiting_.pop_back();
    kinds_[item.url] = kind;
    return item;
  }

  void Answered(const WorkItem& item, json json_record, const std::string& line) override {
    const ItemKind kind = Forget(item);
    if (kind != ItemKind::kRoot) Write(kind, json_record, line);
    const Record record = Record::FromJson(std::move(json_record));
    if (record.error) Report(item, record.error->Describe());
    for (auto link = record.links.rbegin(); link != record.links.rend(); ++link) {
      if (kind == ItemKind::kRoot && !Wanted(VaultOfUrl(link->url))) continue;
      waiting_.push_back({{0, link->url}, ChildKind(kind, link->url)});
    }
    ++done_;
  }

  void Lost(const WorkItem& item, const std::string& reason) override {
    const ItemKind kind = Forget(item);
    const json record{{"url", item.url}, {"kind", KindName(kind)}, {"error", {{"step", "host"}, {"name", reason}}}};
    Write(kind, record, record.dump());
    Report(item, reason);
  }

  void Tick() override {
    const auto now = std::chrono::steady_clock::now();
    if (now - shown_ < std::chrono::milliseconds(300)) return;
    shown_ = now;
    if (!isatty(STDOUT_FILENO)) progress_.Show("dumping", done_, static_cast<int64_t>(waiting_.size() + kinds_.size()));
  }

  int64_t failed() const { return failed_; }

 private:
  bool Wanted(const std::string& vault) const {
    return vaults_.empty() ? !IsTemporaryVault(vault) : vaults_.contains(vault);
  }

  ItemKind Forget(const WorkItem& item) {
    const auto found = kinds_.find(item.url);
    const ItemKind kind = found == kinds_.end() ? ItemKind::kUnknown : found->second;
    kinds_.erase(item.url);
    return kind;
  }

  void Write(ItemKind, const json& record, const std::string& line) {
    // JSON escapes only the first 32 control characters; a terminal must not see the others either.
    static const bool terminal = isatty(STDOUT_FILENO);
    const bool written = terminal ? Print(record.dump(-1, ' ', true, json::error_handler_t::replace) + "\n")
                                  : Print(line) && Print("\n");
    if (!written) throw OutputClosed{errno};
  }

  void Report(const WorkItem& item, const std::string& reason) {
    ++failed_;
    progress_.Clear();
    std::fprintf(stderr, "hoardex: %s: %s\n", OneLine(item.url).c_str(), OneLine(reason).c_str());
  }

  const std::set<std::string>& vaults_;
  std::vector<std::pair<WorkItem, ItemKind>> waiting_;
  std::unordered_map<std::string, ItemKind> kinds_;
  int64_t failed_ = 0, done_ = 0;
  Progress progress_;
  std::chrono::steady_clock::time_point shown_ = std::chrono::steady_clock::now();
};

std::string ValueText(const json& value) {
  if (value.is_string()) return OneLine(value.get_ref<const std::string&>());
  if (value.is_object() && value.contains("url"))
    return ValueText(value["url"]) + "  " + ValueText(value.value("modified", json("")));
  if (!value.is_array()) return value.dump();
  std::string out;
  for (const json& element : value) out += (out.empty() ? "" : "; ") + ValueText(element);
  return out;
}

void PrintItem(const json& json_record) {
  const Record record = Record::FromJson(json_record);
  Table head({"url", OneLine(record.url)}, Table::Numbers::kLeft);
  head.Add({"kind", OneLine(json_record.value("kind", std::string("unknown")))});
  if (record.size) head.Add({"size", Grouped(*record.size)});
  if (!record.modified.empty()) head.Add({"modified", OneLine(record.modified)});
  Print(head.Text() + "\n");

  Table table({"chunk", "property", "value"}, Table::Numbers::kLeft);
  const auto chunks = json_record.find("chunks");
  if (chunks != json_record.end() && chunks->is_array()) {
    for (const json& chunk : *chunks) {
      if (!chunk.is_object()) continue;
      const std::string key = chunk.value("key", std::string());
      std::string value;
      if (chunk.value("type", std::string()) == "text") {
        value = chunk.contains("characters") ? chunk["characters"].dump() + " characters of the text below"
                                             : "the text below";
      } else if (const auto own = chunk.find("value"); own != chunk.end()) {
        value = ValueText(*own);
      } else if (const auto found = record.properties.find(key); found != record.properties.end()) {
        value = ValueText(*found);
      }
      table.Add({chunk.contains("id") ? chunk["id"].dump() : "", OneLine(key), value});
    }
  } else {
    int number = 0;
    for (const auto& [key, value] : record.properties.items())
      table.Add({std::to_string(++number), OneLine(key), ValueText(value)});
  }
  Print(table.Text());
  if (record.text.empty()) return;
  Print("\n");
  Print(PrintableText(record.text) + "\n");
}

}  // namespace

int RunDump(const Environment& environment, const DumpArguments& arguments) {
  VaultFolder folder(environment);
  folder.ClearTemporary();
  TemporaryLinks cleanup{folder};
  int64_t refused = 0;
  std::set<std::string> names;
  if (!arguments.files.empty()) {
    names = LinkFiles(environment, arguments.files, folder, &refused);
    if (names.empty() && refused == 0)
      throw CommandError(kExitUsage, "There is no store (.pst or .db) in what was named.");
    if (names.empty()) return kExitFailed;
  } else if (folder.List().empty()) {
    throw CommandError(kExitUsage, "There is no vault yet. Name stores (hoardex dump mail.pst), or index some first.");
  }
  std::vector<std::string> words;
  if (arguments.chunks) words.push_back("--chunks");
  Gatherer gatherer(HostOptions(environment, words, arguments.timeout_seconds));
  const auto roots = gatherer.RequireScope().roots();
  DumpSource source(roots.front(), names);
  try {
    const GatherResult result = gatherer.Run(source);
    if (std::fflush(stdout) != 0) throw OutputClosed{errno};
    if (result == GatherResult::kInterrupted) return kExitInterrupted;
  } catch (const OutputClosed& closed) {
    return closed.Code();
  }
  return refused > 0 || source.failed() > 0 ? kExitPartly : kExitOk;
}

int RunShow(const Environment& environment, const ShowArguments& arguments) {
  if (KindOfUrl(arguments.url) == ItemKind::kUnknown) {
    throw CommandError(kExitUsage, "That is no item URL; hoardex search prints one below each hit.");
  }
  Gatherer gatherer(HostOptions(environment, {"--chunks"}, kItemTimeout));
  const ItemAnswer answer = AskItem(gatherer, arguments.url);
  if (answer.interrupted) return kExitInterrupted;
  if (!answer.lost.empty()) throw CommandError(kExitFailed, "The item cannot be shown: " + answer.lost + ".");
  if (arguments.json) {
    Print(answer.record.dump(2, ' ', isatty(STDOUT_FILENO), json::error_handler_t::replace) + "\n");
  } else {
    PrintItem(answer.record);
  }
  const Record record = Record::FromJson(answer.record);
  if (!record.error) return kExitOk;
  throw CommandError(kExitFailed, "The item failed: " + record.error->Describe() + ".");
}

}  // namespace hoardex
