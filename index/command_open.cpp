#include <nlohmann/json.hpp>

#include "index/commands.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/search.h"
#include "index/shell_answer.h"
#include "index/text.h"
#include "index/windows_side.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr int64_t kShownChoices = 10;

// The item that is meant: its URL, or what a query finds when that is one.
std::string Resolve(const Environment& environment, const std::vector<std::string>& words) {
  if (words.size() == 1 && KindOfUrl(words[0]) != ItemKind::kUnknown) return words[0];
  const QueryPlan plan = CompileQuery(JoinQuery(words));
  if (!std::filesystem::exists(environment.index_file()))
    throw CommandError(kExitFailed,
                       "There is no index yet to find items in: run hoardex index with the stores, or name "
                       "the item by its URL.");
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  const SearchResult found = Search(store, plan, kShownChoices, HitDetail::kBare);
  if (found.total == 0) throw CommandError(kExitFailed, "Nothing found for: " + JoinQuery(words));
  if (found.total == 1) return found.hits.front().url;
  std::string choices = "There are " + Counted(found.total, "hit") + "; name the one that is meant by its URL:";
  for (const Hit& hit : found.hits) choices += "\n  " + OneLine(hit.title) + "\n    " + OneLine(hit.url);
  throw CommandError(kExitFailed, choices);
}

}  // namespace

int RunOpen(const Environment& environment, const OpenArguments& arguments) {
  const std::string verb = arguments.print ? "print" : "open", url = Resolve(environment, arguments.words);
  RequireUtf8(url);
  if (const ItemKind kind = KindOfUrl(url); IsContainer(kind))
    throw CommandError(kExitUsage, "This is the URL of a " + std::string(KindName(kind)) +
                                       "; messages and attachments can be opened and printed.");
  // A process of its own: the end of one that reads items sweeps the file away that was opened.
  const json answer = RunHost(environment, {verb, url}, HostLife::kOpensPrograms);
  const auto error = ErrorOfAnswer(answer);
  if (!error) return kExitOk;
  throw CommandError(kExitFailed, ExplainShellError(*error, verb));
}

}  // namespace hoardex
