#include <unistd.h>
#include <algorithm>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "index/commands.h"
#include "index/explain.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/store.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr int64_t kShownChoices = 10;
constexpr std::string_view kScheme = "zkoffline3x://";

// What was typed names no item; these sentences say so.
int SayNothing(const std::string& item, const std::string& verdict, const std::vector<std::string>& sentences,
               bool as_json) {
  if (as_json) {
    Print(json{{"item", item}, {"verdict", verdict}, {"sentences", sentences}}.dump(2, ' ', isatty(STDOUT_FILENO),
                                                                                    json::error_handler_t::replace) +
          "\n");
  } else {
    Print(Bold(OneLine(verdict)) + "\n");
    for (const std::string& sentence : sentences) Print("  " + OneLine(sentence) + "\n");
  }
  return kExitOk;
}

// The item's URL; or nothing, when `*code` is what the command ends with.
std::optional<std::string> Resolve(const Environment& environment, const WhyArguments& arguments, int* code) {
  const std::string& item = arguments.item;
  if (KindOfUrl(item) != ItemKind::kUnknown) return item;
  constexpr char kWhere[] = "hoardex search prints an item's URL below each hit, hoardex index those of failed items.";
  const auto nothing = [&](const std::string& verdict, const std::vector<std::string>& sentences) {
    *code = SayNothing(item, verdict, sentences, arguments.json);
    return std::nullopt;
  };
  if (item.starts_with(kScheme))
    return nothing(
        "This URL names no item.",
        {"An item's URL is zkoffline3x://{…}/default/, the vault's path ending in .db, and what lies in it.", kWhere});
  if (const size_t scheme = item.find("://"); scheme != std::string::npos && item.find(' ') > scheme)
    return nothing("This is not a URL of hoardex: its scheme is " + item.substr(0, scheme) + ".",
                   {"URLs of hoardex begin with zkoffline3x://.", kWhere});
  if (!std::filesystem::exists(environment.index_file()))
    return nothing("Items are found by their subject in an index, and there is none yet.",
                   {"hoardex index with the stores to search makes one."});
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  std::vector<std::string> urls = store.WithTitle(item, kShownChoices + 1);
  if (urls.size() == 1) return urls.front();
  if (urls.empty())
    return nothing("No item in the index has the subject \"" + item + "\".",
                   {"A subject must be given whole; hoardex search finds items by some of their words.",
                    "What hoardex index never saw is in no index: the table that it ends with tells what is missing."});
  const bool more = urls.size() > static_cast<size_t>(kShownChoices);
  if (more) urls.back() = "…";
  urls.insert(urls.begin(), "Name the one that is meant:");
  return nothing("Several items have this subject.", urls);
}

std::string VaultTrouble(const Environment& environment, const std::string& url) {
  if (KindOfUrl(url) == ItemKind::kRoot) return {};
  const std::string name = VaultOfUrl(url);
  const auto vault = VaultFolder(environment).Find(name);
  if (!vault)
    return "There is no vault \"" + name +
           "\" (any more): hoardex vaults lists those that are there, and hoardex index "
           "FILE makes one of a store.";
  if (!vault->present)
    return "The store of the vault \"" + name + "\" is not there: " + vault->source.string() +
           ". Is its disk connected, or was it moved? What was indexed of it stays.";
  return {};
}

void AskHost(const Environment& environment, ItemFacts& facts) {
  Gatherer gatherer(HostOptions(environment, {"--chunks", "--log"}, kItemTimeout));
  const auto roots = gatherer.Roots();
  const auto here = [&](const std::string& root) { return facts.url.starts_with(root); };
  if (!roots.empty() && std::none_of(roots.begin(), roots.end(), here)) {
    facts.vault_trouble = "The URL belongs to another user: here, URLs begin with " + roots.front() + ".";
    return;
  }
  const auto ask = [&](const std::string& url) {
    ItemAnswer answer = AskItem(gatherer, url);
    if (answer.interrupted) throw CommandError(kExitInterrupted, "Stopped.");
    return answer;
  };
  ItemAnswer own = ask(facts.url);
  facts.record = std::move(own.record);
  facts.lost = own.lost;
  const std::string container = ContainerOf(facts.url);
  if (container.empty()) return;
  facts.container_asked = true;
  ItemAnswer above = ask(container);
  facts.container_error = above.lost;
  if (!above.lost.empty()) return;
  const Record record = Record::FromJson(above.record);
  for (size_t i = 0; i < record.links.size(); ++i) {
    if (!IsSameItem(record.links[i].url, facts.url)) continue;
    facts.link = record.links[i];
    facts.undated = above.record["links"][i].value("undated", false);
    return;
  }
  if (record.error) facts.container_error = record.error->Describe();
}

void AskIndex(const Environment& environment, ItemFacts& facts) {
  facts.index_there = std::filesystem::exists(environment.index_file());
  if (!facts.index_there) return;
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  facts.status = store.StatusOf(facts.url);
}

void PrintExplanation(const ItemFacts& facts, const Explanation& explanation) {
  Print(Bold(OneLine(explanation.verdict)) + "\n");
  if (facts.status && !facts.status->title.empty()) Print("  \"" + OneLine(facts.status->title) + "\"\n");
  for (const std::string& sentence : explanation.sentences) Print("  " + OneLine(sentence) + "\n");
  Print("  " + OneLine(facts.url) + "\n");
  if (explanation.log.empty()) return;
  Print("\nWhat the module logged meanwhile (! marks failures):\n");
  for (const LogLine& line : explanation.log) Print((line.failure ? "! " : "  ") + line.text + "\n");
}

json ExplanationJson(const ItemFacts& facts, const Explanation& explanation) {
  json out{{"url", facts.url},
           {"kind", KindName(facts.kind)},
           {"verdict", explanation.verdict},
           {"sentences", explanation.sentences},
           {"left_out", explanation.left_out},
           {"promised", facts.link.has_value()},
           {"log", json::array()}};
  if (facts.link && !facts.link->modified.empty()) out["modified"] = facts.link->modified;
  if (!facts.lost.empty()) out["lost"] = facts.lost;
  if (facts.record.contains("error")) out["error"] = facts.record["error"];
  if (facts.status) {
    constexpr const char* kStates[] = {"waiting", "indexed", "failed", "given up"};
    out["index"] = {{"state", kStates[static_cast<int>(facts.status->state)]},
                    {"error", facts.status->error},
                    {"time", facts.status->done_time},
                    {"queued", facts.status->queued}};
  }
  for (const LogLine& line : explanation.log) out["log"].push_back({{"line", line.text}, {"failure", line.failure}});
  return out;
}

}  // namespace

int RunWhy(const Environment& environment, const WhyArguments& arguments) {
  if (OneLine(arguments.item).empty()) throw CommandError(kExitUsage, "Name an item by its URL or its subject.");
  int code = kExitOk;
  const auto url = Resolve(environment, arguments, &code);
  if (!url) return code;
  ItemFacts facts;
  facts.url = *url;
  facts.kind = KindOfUrl(*url);
  facts.vault_trouble = VaultTrouble(environment, *url);
  if (facts.vault_trouble.empty()) AskHost(environment, facts);
  AskIndex(environment, facts);
  const Explanation explanation = Explain(facts);
  if (arguments.json) {
    Print(ExplanationJson(facts, explanation).dump(2, ' ', isatty(STDOUT_FILENO), json::error_handler_t::replace) +
          "\n");
  } else {
    PrintExplanation(facts, explanation);
  }
  return kExitOk;
}

}  // namespace hoardex
