#include <unistd.h>

#include <nlohmann/json.hpp>

#include "index/commands.h"
#include "index/output.h"
#include "index/search.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

std::string Marked(const std::string& snippet) {
  const bool bold = Emphasised();
  std::string out;
  for (char c : snippet) {
    if (c == kMarkStart) {
      out += bold ? "\x1b[1m" : "[";
    } else if (c == kMarkEnd) {
      out += bold ? "\x1b[0m" : "]";
    } else {
      out += c;
    }
  }
  return out;
}

// "2019-03-02T09:26:53.0000000Z" -> "2019-03-02 09:26".
std::string ShortDate(const std::string& iso) {
  if (iso.size() < 16) return iso;
  return iso.substr(0, 10) + " " + iso.substr(11, 5);
}

std::string Kinds(const Hit& hit) {
  std::string out;
  for (char c : hit.kinds) out += c == ';' ? (out.empty() ? "" : ", ") : std::string(1, c);
  if (out.ends_with(", ")) out.resize(out.size() - 2);
  return out;
}

std::string Place(const Hit& hit) {
  return OneLine(hit.vault + (hit.path.empty() ? "" : "/" + hit.path));
}

void PrintHit(const Hit& hit) {
  std::string title = OneLine(hit.title);
  if (title.empty()) title = "[No subject]";
  std::string about = ShortDate(OneLine(hit.date));
  const auto add = [&about](const std::string& part) {
    if (!part.empty()) about += (about.empty() ? "" : "  ") + part;
  };
  add(Shorten(OneLine(hit.sender), 60));
  add(Place(hit));
  Print(
      Bold(title) +
      (hit.kind == ItemKind::kAttachment ? "  (attached to \"" + Shorten(OneLine(hit.parent_title), 60) + "\")" : "") +
      "\n");
  Print("  " + about + "\n");
  if (!hit.snippet.empty()) Print("  " + Marked(hit.snippet) + "\n");
  if (!hit.error.empty()) Print("  incomplete: " + OneLine(hit.error) + "\n");
  Print("  " + OneLine(hit.url) + "\n\n");
}

json HitJson(const Hit& hit) {
  json out{{"url", hit.url},     {"type", KindName(hit.kind)}, {"kind", Kinds(hit)},
           {"vault", hit.vault}, {"folder", hit.path},         {"date", hit.date},
           {"from", hit.sender}, {"subject", hit.title},       {"score", hit.score}};
  std::string plain;
  for (char c : hit.snippet) plain += c == kMarkStart ? "[" : c == kMarkEnd ? "]" : std::string(1, c);
  out["snippet"] = plain;
  if (hit.kind == ItemKind::kAttachment) out["attached_to"] = hit.parent_title;
  if (!hit.error.empty()) out["error"] = hit.error;
  out["properties"] = json::parse(hit.properties, nullptr, false);
  if (out["properties"].is_discarded()) out["properties"] = json::object();
  return out;
}

// "(a OR b)" of one field.
std::string AnyOf(std::string_view field, const std::vector<std::string>& values) {
  std::string out;
  for (const std::string& value : values) out += (out.empty() ? " (" : " OR ") + QueryTerm(field, value);
  return out.empty() ? out : out + ")";
}

}  // namespace

int RunSearch(const Environment& environment, const SearchArguments& arguments) {
  std::string query = JoinQuery(arguments.words);
  // The words alone first, so that a fault in them is reported as such.
  QueryPlan plan = CompileQuery(query);
  const std::string narrowed =
      AnyOf("folder", arguments.folders) + AnyOf("vault", arguments.vaults) + AnyOf("kind", arguments.kinds);
  if (!narrowed.empty()) plan = CompileQuery("(" + query + ")" + narrowed);
  if (!std::filesystem::exists(environment.index_file())) {
    throw CommandError(kExitFailed,
                       "There is no index yet: run hoardex index with the stores to search, or hoardex index --demo.");
  }
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  const SearchResult result =
      Search(store, plan, arguments.limit, arguments.json ? HitDetail::kProperties : HitDetail::kSnippet);

  if (arguments.json) {
    json out{{"query", query}, {"total", result.total}, {"hits", json::array()}};
    for (const Hit& hit : result.hits) out["hits"].push_back(HitJson(hit));
    Print(out.dump(2, ' ', isatty(STDOUT_FILENO), json::error_handler_t::replace) + "\n");
    return kExitOk;
  }
  if (result.total == 0) {
    Print("Nothing found for: " + OneLine(query) + "\n");
    return kExitOk;
  }
  for (const Hit& hit : result.hits) PrintHit(hit);
  const auto shown = static_cast<int64_t>(result.hits.size());
  Print(shown < result.total ? Grouped(shown) + " of " + Counted(result.total, "hit") + " (more with --limit)\n"
                             : Counted(result.total, "hit") + "\n");
  return kExitOk;
}

}  // namespace hoardex
