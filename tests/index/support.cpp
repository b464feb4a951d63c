#include "support.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "index/database.h"
#include "index/query.h"
#include "index/record.h"
#include "index/search.h"

namespace hoardex::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

std::string Slurp(const fs::path& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

Scratch::Scratch() {
  std::string name = (fs::temp_directory_path() / "hoardex test XXXXXX").string();
  if (!mkdtemp(name.data())) std::abort();
  path_ = name;
}

Scratch::~Scratch() {
  std::error_code error;
  fs::remove_all(path_, error);
}

fs::path Scratch::Write(const std::string& name, const std::string& text) const {
  const fs::path file = path_ / name;
  fs::create_directories(file.parent_path());
  std::ofstream(file) << text;
  return file;
}

Corpus::Corpus(const Scratch& scratch) : scratch_(scratch) {
  script_ = {{"roots", {kRoot}},
             {"items", json::object()},
             {"faults", json::array()},
             {"log", (scratch.path() / "requests").string()}};
  item(kRoot) = {{"kind", "root"},
                 {"properties", {{"System.ItemName", "Tessary"}, {"System.ItemPathDisplay", "/"}}},
                 {"links", json::array()}};
}

std::string Corpus::Add(const std::string& container, const std::string& url, json record, const std::string& time) {
  record["links"] = json::array();
  record["modified"] = time;
  item(url) = std::move(record);
  item(container)["links"].push_back({{"url", url}, {"modified", time}});
  return url;
}

std::string Corpus::AddVault(const std::string& name, const std::string& time) {
  return Add(kRoot, kRoot + "V:\\Tessary\\" + name + ".db/",
             {{"kind", "vault"}, {"properties", {{"System.ItemName", name}, {"System.ItemPathDisplay", "/Tessary"}}}},
             time);
}

std::string Corpus::AddFolder(const std::string& parent, const std::string& id, const std::string& name,
                              const std::string& time) {
  const json& above = item(parent)["properties"];
  const std::string path =
      above["System.ItemPathDisplay"].get<std::string>() + "/" + above["System.ItemName"].get<std::string>();
  return Add(parent, parent + id + "/",
             {{"kind", "folder"}, {"properties", {{"System.ItemName", name}, {"System.ItemPathDisplay", path}}}}, time);
}

std::string Corpus::AddMessage(const std::string& folder, const std::string& id, json properties,
                               const std::string& text, const std::string& time) {
  json all{{"System.Kind", "email;communication"},
           {"System.Message.FromName", "Ann Archer"},
           {"System.Message.DateReceived", "2019-03-02T09:26:53.0000000Z"}};
  if (properties.is_object()) all.update(properties);
  return Add(folder, folder + id + "[[100]].zkm",
             {{"kind", "message"}, {"size", 100}, {"properties", all}, {"text", text}}, time);
}

std::string Corpus::AddAttachment(const std::string& message, const std::string& name, const std::string& text,
                                  const std::string& time) {
  item(message)["properties"]["System.Message.AttachmentNames"] = name;
  return Add(message, message + "/00AA/" + name,
             {{"kind", "attachment"},
              {"properties",
               {{"System.FileName", name}, {"System.Kind", "email;communication"}, {"System.IsAttachment", true}}},
              {"text", text}},
             time);
}

void Corpus::SetLinkTime(const std::string& container, const std::string& url, const std::string& time) {
  for (json& link : item(container)["links"]) {
    if (link["url"] == url) link["modified"] = time;
  }
}

void Corpus::Unlist(const std::string& container, const std::string& url) {
  json& links = item(container)["links"];
  for (size_t i = 0; i < links.size(); ++i) {
    if (links[i]["url"] == url) return static_cast<void>(links.erase(i));
  }
}

void Corpus::Fault(const std::string& url, const std::string& what, int times) {
  script_["faults"].push_back({{"url", url}, {"do", what}, {"times", times}});
}
void Corpus::FaultAtRequest(int number, const std::string& what) {
  script_["faults"].push_back({{"request", number}, {"do", what}});
}

void Corpus::Change(const std::string& change, const std::string& url) {
  script_["changes"].push_back({{"id", ++last_change_}, {"change", change}, {"url", url}});
}
int64_t Corpus::Done() const {
  int64_t done = 0;
  std::ifstream(scratch_.path() / "requests.done") >> done;
  return done;
}
void Corpus::AddRule(const std::string& pattern, bool included, bool is_default) {
  script_["rules"].push_back({{"pattern", pattern}, {"included", included}, {"default", is_default}, {"follow", 1}});
}

void Corpus::Save() {
  scratch_.Write("script.json", script_.dump());
}

std::vector<std::string> Corpus::Requests() {
  const fs::path log = scratch_.path() / "requests";
  std::istringstream in(Slurp(log));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) {
    if (line != "start" && line != "changes" && line != "done" && line != "notify") lines.push_back(line);
  }
  fs::remove(log);
  return lines;
}

GatherOptions Corpus::Options() const {
  GatherOptions options;
  options.command = {std::getenv("FAKE_HOST"), (scratch_.path() / "script.json").string(), "serve"};
  options.log = scratch_.path() / "host.log";
  return options;
}

Sample::Sample(Corpus& corpus) {
  vault = corpus.AddVault("archive");
  inbox = corpus.AddFolder(vault, "AA", "Inbox");
  sub = corpus.AddFolder(inbox, "BB", "Zahlen 2019");
  budget = corpus.AddMessage(sub, "01",
                             {{"System.Subject", "Budget for the spring fair"},
                              {"System.Message.ToName", "Bob Baker"},
                              {"System.Message.ToAddress", "bob@example.org"}},
                             "The budget is attached. Tents cost more than last year.");
  report = corpus.AddAttachment(budget, "report.pdf", "Itemised costs: tents, benches, lanterns.");
  party = corpus.AddMessage(inbox, "02",
                            {{"System.Subject", "Party"},
                             {"System.Message.FromName", "Carl Budget"},
                             {"System.Message.DateReceived", "2020-12-31T23:59:59.0000000Z"}},
                            "Bring lanterns and a tent. \x1b[31mred\x1b[0m");
  japanese = corpus.AddMessage(inbox, "03", {{"System.Subject", "東京の会議について"}},
                               "来週の会議は東京本社で行います。よろしくお願いします。");
  cafe = corpus.AddMessage(
      inbox, "04", {{"System.Subject", "Café"}, {"System.Message.DateReceived", "2018-06-15T00:00:00.0000000Z"}},
      "Crème brûlée in the Straße");
  meeting = corpus.AddMessage(inbox, "05",
                              {{"System.Subject", "Planning"},
                               {"System.Kind", {"calendar", "communication"}},
                               {"System.Calendar.Location", "Blue room"},
                               {"System.Message.FromName", "Dora"}},
                              "Quarterly planning of the annual report");
  other_vault = corpus.AddVault("second");
  other_folder = corpus.AddFolder(other_vault, "CC", "Sent Items");
  other_mail = corpus.AddMessage(other_folder, "06",
                                 {{"System.Subject", "Re: Budget"}, {"System.Message.FromName", "Bob Baker"}},
                                 "annual plan and annual report");
}

std::string Contents(const fs::path& index_file) {
  Database db(index_file, Database::Mode::kReadOnly);
  std::string out;
  const auto add = [&](const char* sql) {
    Statement rows(db.handle(), sql);
    while (rows.Step()) out += rows.String(0) + "\n";
  };
  add("SELECT i.url || '|' || coalesce(p.url, '') || '|' || i.vault || '|' || i.kind || '|' || i.state || '|' || "
      "i.done_time || '|' || i.title || '|' || "
      "i.sender || '|' || i.path || '|' || i.kinds || '|' || i.date || '|' || i.has_attachments || '|' || i.error || "
      "'|' || coalesce(r.json, '') "
      "FROM items i LEFT JOIN items p ON p.id = i.parent LEFT JOIN properties r ON r.item = i.id ORDER BY i.url");
  add("SELECT i.url || '|' || d.title || '|' || d.sender || '|' || d.recipients || '|' || d.path || '|' || "
      "d.attachments || '|' || d.body || '|' || d.details "
      "FROM documents d JOIN items i ON i.id = d.rowid ORDER BY i.url");
  add("SELECT 'documents without item: ' || rowid FROM documents WHERE rowid NOT IN (SELECT id FROM items)");
  add("SELECT 'queued: ' || item FROM queue");
  add("SELECT 'integrity: ' || integrity_check FROM pragma_integrity_check WHERE integrity_check <> 'ok'");
  return out;
}

Finished RunProgram(const Scratch& scratch, const std::vector<std::string>& arguments,
                    const std::string& interrupt_at) {
  const fs::path out = scratch.path() / "stdout", err = scratch.path() / "stderr";
  // The store files of these tests contain what vaultinfo says about them.
  const fs::path info = scratch.Write("vaultinfo", "#!/bin/sh\ncat \"$1\"; grep -q '\"opens\": *true' \"$1\"\n");
  const fs::path maker =
      scratch.Write("mkvault", "#!/bin/sh\nprintf '%s' '{\"opens\": true, \"messages\": 1, \"demo\": true}' >\"$2\"\n");
  for (const fs::path& script : {info, maker}) fs::permissions(script, fs::perms::owner_all);
  const pid_t pid = fork();
  if (pid == 0) {
    if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr) || !freopen("/dev/null", "r", stdin))
      _exit(99);
    setenv("HOARDEX_HOME", (scratch.path() / "home").c_str(), 1);
    setenv(
        "HOARDEX_HOST",
        (std::string(std::getenv("FAKE_HOST")) + "\n" + (scratch.path() / "script.json").string() + "\nserve").c_str(),
        1);
    setenv("HOARDEX_RUNDLL", "true", 1);
    setenv("HOARDEX_MODULE", "Z:\\HoardexPH.dll", 1);
    setenv("HOARDEX_VAULTINFO", info.c_str(), 1);
    setenv("HOARDEX_MKVAULT", maker.c_str(), 1);
    std::vector<char*> argv{std::getenv("HOARDEX_CLI")};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(99);
  }
  for (int tries = 0; !interrupt_at.empty() && tries < 600; ++tries) {
    if (Slurp(scratch.path() / "requests").find(interrupt_at) != std::string::npos) break;
    usleep(50000);
  }
  if (!interrupt_at.empty()) kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), Slurp(out), Slurp(err)};
}

CrawlOutcome IndexTest::Crawl(const CrawlOptions& options, const std::string& name) {
  corpus_.Save();
  Store store(File(name), Database::Mode::kCreate);
  Gatherer gatherer(corpus_.Options());
  const CrawlOutcome outcome = hoardex::Crawl(gatherer, store, options);
  counts_ = store.Counts();
  failures_ = store.Failures();
  removed_ = store.removed();
  return outcome;
}

int64_t IndexTest::Hits(const std::string& query) {
  Store store(File(), Database::Mode::kReadOnly);
  return Search(store, CompileQuery(query), 10, HitDetail::kBare).total;
}

Finished IndexTest::Program(const std::vector<std::string>& arguments, const std::string& interrupt_at) {
  corpus_.Save();
  return RunProgram(scratch_, arguments, interrupt_at);
}

Finished IndexTest::IndexBoth() {
  const Finished run =
      Program({"index", scratch_.Write("mail/archive.pst", kGood), scratch_.Write("mail/second.db", kSecond)});
  EXPECT_EQ(run.code, 0) << run.out << run.err;
  return run;
}

void IndexTest::TouchVault() {
  corpus_.SetLinkTime(kRoot, sample_.vault, kLater);
  corpus_.SetLinkTime(sample_.vault, sample_.inbox, kLater);
  corpus_.SetLinkTime(sample_.inbox, sample_.sub, kLater);
}

bool IndexTest::IsKilledBy(const std::function<void()>& run) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      run();
    } catch (...) {
      _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

}  // namespace hoardex::test
