#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>

#include "index/commands.h"
#include "index/explain.h"
#include "index/export_folder.h"
#include "index/file_names.h"
#include "index/host_items.h"
#include "index/output.h"
#include "index/search.h"
#include "index/shell_answer.h"
#include "index/text.h"

namespace hoardex {
namespace {

using nlohmann::json;

constexpr size_t kNamed = 20;  // so many files are named one by one
constexpr std::string_view kMessageFile = ".msg";

// An item to be exported, and what its file's name is made of.
struct Item {
  std::string url, title, date;
  ItemKind kind = ItemKind::kUnknown;
};

struct Outcome {
  std::string url, file, trouble;  // a file, or why there is none
  ItemError error;
};

// Also one that is mistyped, which as a query would find nothing.
bool LooksLikeUrl(const std::string& word) {
  return KindOfUrl(word) != ItemKind::kUnknown || word.find("://") != std::string::npos;
}

std::vector<Item> Named(const std::vector<std::string>& urls) {
  std::vector<Item> items;
  for (const std::string& url : urls) {
    RequireUtf8(url);
    const ItemKind kind = KindOfUrl(url);
    if (kind == ItemKind::kUnknown)
      throw CommandError(kExitUsage, "\"" + url + "\" is no item's URL; give URLs, or a query, but not both.");
    if (IsContainer(kind))
      throw CommandError(kExitUsage, "This is the URL of a " + std::string(KindName(kind)) +
                                         ", and only messages and attachments are exported: " + url +
                                         " (a query with vault: or folder: exports what lies in one).");
    items.push_back({url, "", "", kind});
  }
  return items;
}

std::vector<Item> Found(const Environment& environment, const std::string& query, int64_t limit) {
  const QueryPlan plan = CompileQuery(query);
  if (!std::filesystem::exists(environment.index_file()))
    throw CommandError(kExitFailed,
                       "There is no index yet to find items in: run hoardex index with the stores, or name items by "
                       "their URLs.");
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  const int64_t most = limit ? limit : std::numeric_limits<int64_t>::max();
  std::vector<Item> items;
  for (Hit& hit : Search(store, plan, most, HitDetail::kBare).hits)
    items.push_back({std::move(hit.url), std::move(hit.title), std::move(hit.date), hit.kind});
  return items;
}

// Title and date of an item that no index told about. What cannot be had stays empty: saving tells why.
void Describe(Gatherer& gatherer, Item& item) {
  Parent parent;
  if (item.kind == ItemKind::kAttachment) {
    const ItemAnswer above = AskItem(gatherer, ContainerOf(item.url));
    if (above.record.is_object())
      parent.date = MakeDocument(Record::FromJson(above.record), ItemKind::kMessage, {}).date;
  }
  const ItemAnswer own = AskItem(gatherer, item.url);
  if (!own.record.is_object()) return;
  Document document = MakeDocument(Record::FromJson(own.record), item.kind, parent);
  item.title = std::move(document.title);
  item.date = std::move(document.date);
  if (item.kind == ItemKind::kAttachment && item.title.empty()) item.title = item.url.substr(item.url.rfind('/') + 1);
}

// Whether the file is a compound file of the class of mails, which an attached mail is without its name saying so.
bool IsMessageFile(const std::filesystem::path& file) {
  constexpr unsigned char kMagic[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  constexpr unsigned char kMailClass[] = {0x0B, 0x0D, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
  const std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(file.c_str(), "rb"), std::fclose);
  unsigned char header[0x34], clsid[16];
  if (!in || std::fread(header, sizeof header, 1, in.get()) != 1 || memcmp(header, kMagic, sizeof kMagic)) return false;
  // The root's entry is the first of the first sector of the directory ([MS-CFB] 2.2 and 2.6.1).
  const auto word = [&](size_t at) { return header[at] | header[at + 1] << 8; };
  const long shift = word(0x1E), sector = word(0x30) | static_cast<long>(word(0x32)) << 16;
  if (shift != 9 && shift != 12) return false;
  if (std::fseek(in.get(), ((sector + 1) << shift) + 0x50, SEEK_SET)) return false;
  return std::fread(clsid, sizeof clsid, 1, in.get()) == 1 && !memcmp(clsid, kMailClass, sizeof clsid);
}

std::string KeepUnderItsName(ExportFolder& folder, const Item& item, const std::string& format) {
  if (item.kind == ItemKind::kAttachment) {
    const std::string name = item.title.empty() ? "attachment" : item.title;
    const size_t extension = ExtensionOf(name);
    if (!AsciiLower(name).ends_with(kMessageFile) && IsMessageFile(folder.part()))
      return folder.Keep(name, kMessageFile, item.date);
    return folder.Keep(std::string_view(name).substr(0, extension), std::string_view(name).substr(extension),
                       item.date);
  }
  const std::string subject = item.title.empty() ? "No subject" : item.title;
  return folder.Keep(item.date.empty() ? subject : item.date.substr(0, 10) + " " + subject, "." + format, item.date);
}

Outcome Export(Gatherer& gatherer, ExportFolder& folder, const Item& item, const std::string& format) {
  Outcome outcome{item.url, "", "", {}};
  const bool attachment = item.kind == ItemKind::kAttachment;
  try {
    const json answer = gatherer.Request(
        {{"save", item.url}, {"to", folder.windows_part()}, {"format", attachment ? "content" : format}}, "save");
    if (const auto error = ErrorOfAnswer(answer)) {
      outcome.error = *error;
      outcome.trouble = ExplainShellError(*error, "save");
    } else {
      outcome.file = KeepUnderItsName(folder, item, format);
    }
  } catch (const RequestLost& lost) {
    if (Interrupted()) throw;
    outcome.trouble = lost.what();
  } catch (const std::system_error& error) {
    outcome.trouble = "The file cannot be written: " + std::string(error.what()) + ".";
  }
  folder.DropPart();
  return outcome;
}

json OutcomeJson(const ExportFolder& folder, const std::vector<Outcome>& outcomes) {
  json out{{"to", folder.folder().string()}, {"exported", json::array()}, {"failed", json::array()}};
  for (const Outcome& outcome : outcomes) {
    if (!outcome.file.empty()) {
      out["exported"].push_back({{"url", outcome.url}, {"file", outcome.file}});
      continue;
    }
    json failure{{"url", outcome.url}, {"reason", outcome.trouble}};
    if (!outcome.error.step.empty()) failure["step"] = outcome.error.step;
    if (!outcome.error.code.empty()) failure["code"] = outcome.error.code;
    if (!outcome.error.name.empty()) failure["name"] = outcome.error.name;
    out["failed"].push_back(std::move(failure));
  }
  return out;
}

// Returns how many have failed.
int64_t Report(const ExportFolder& folder, const std::vector<Outcome>& outcomes, bool as_json) {
  int64_t failed = 0;
  for (const Outcome& outcome : outcomes) failed += outcome.file.empty();
  if (as_json) {
    Print(OutcomeJson(folder, outcomes).dump(2, ' ', isatty(STDOUT_FILENO), json::error_handler_t::replace) + "\n");
    return failed;
  }
  if (outcomes.size() <= kNamed)
    for (const Outcome& outcome : outcomes)
      if (!outcome.file.empty()) Print(OneLine(outcome.file) + "\n");
  Print(Counted(static_cast<int64_t>(outcomes.size()) - failed, "item") + " exported to " +
        OneLine(folder.folder().string()) + "\n");
  std::fflush(stdout);
  for (const Outcome& outcome : outcomes)
    if (outcome.file.empty())
      std::fprintf(stderr, "hoardex: %s\n  %s\n", OneLine(outcome.trouble).c_str(), OneLine(outcome.url).c_str());
  return failed;
}

}  // namespace

int RunExportItems(const Environment& environment, const ExportArguments& arguments) {
  const bool urls = std::any_of(arguments.words.begin(), arguments.words.end(), LooksLikeUrl);
  std::vector<Item> items =
      urls ? Named(arguments.words) : Found(environment, JoinQuery(arguments.words), arguments.limit);
  if (urls && arguments.limit && items.size() > static_cast<size_t>(arguments.limit))
    items.resize(static_cast<size_t>(arguments.limit));
  if (items.empty()) throw CommandError(kExitFailed, "Nothing found for: " + OneLine(JoinQuery(arguments.words)));
  Gatherer gatherer(HostOptions(environment, {}, kItemTimeout));
  ExportFolder folder(environment, arguments.to);
  std::vector<Outcome> outcomes;
  Progress progress;
  const auto count = static_cast<int64_t>(items.size());
  bool stopped = false;
  try {
    for (Item& item : items) {
      if ((stopped = Interrupted())) break;
      if (urls) Describe(gatherer, item);
      outcomes.push_back(Export(gatherer, folder, item, arguments.format));
      const auto done = static_cast<int64_t>(outcomes.size());
      progress.Show("exporting", done, count - done);
    }
  } catch (const HostError&) {
    // A host that does not start ends the command; what has been exported stays and is told.
    stopped = Interrupted();
    if (!stopped) {
      progress.Clear();
      if (!outcomes.empty()) Report(folder, outcomes, arguments.json);
      throw;
    }
  }
  progress.Clear();
  const int64_t failed = Report(folder, outcomes, arguments.json);
  if (stopped) throw CommandError(kExitInterrupted, "Stopped.");
  if (failed == 0) return kExitOk;
  return failed == count ? kExitFailed : kExitPartly;
}

}  // namespace hoardex
