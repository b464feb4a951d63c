#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <functional>
#include <set>
#include <system_error>

#include "index/commands.h"
#include "index/gatherer.h"
#include "index/query.h"
#include "index/store.h"
#include "index/text.h"

namespace hoardex {
namespace {

constexpr const char* kQueryHelp = R"(What a query can hold (all words must occur; case and accents do not matter):
  word  prefix*  "a phrase"       in subject, sender, recipients, folder, attachment names and text
  from:ann  to:bob  subject:plan  folder:inbox  body:word  name:report.pdf
  kind:email|calendar|task|contact|note|attachment|document|picture …
  has:attachment   vault:name
  before:2019  after:2019-03  date:2019-03-02    (after: includes the day, before: does not; UTC)
  a OR b   -word   NOT word   (a OR b) c)";

// A query may begin with "-"; CLI11 would take "-word" for options. Such words are marked here and unmarked afterwards.
constexpr char kQueryWord = '\x01';

std::vector<std::string> MarkQueryWords(int argc, char** argv) {
  static const std::set<std::string> kShort{"-h", "-n"};
  std::vector<std::string> words;
  bool searching = false;
  for (int i = 1; i < argc; ++i) {
    std::string word = argv[i];
    if (searching && word.size() > 1 && word[0] == '-' && word[1] != '-' && !kShort.contains(word) &&
        !(word[1] == 'n' && word[2] >= '0' && word[2] <= '9')) {
      word.insert(word.begin(), kQueryWord);
    }
    searching = searching || word == "search" || word == "export" || word == "open";
    words.push_back(std::move(word));
  }
  return words;
}

void UnmarkQueryWords(std::vector<std::string>& words) {
  for (std::string& word : words)
    if (!word.empty() && word[0] == kQueryWord) word.erase(0, 1);
}

// What CLI11 would say of a command line without a command, or with one that is none, tells nobody what is wrong.
std::string CommandTrouble(const CLI::App& app, const std::vector<std::string>& words) {
  std::string names;
  bool found = false;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names += (names.empty() ? "" : ", ") + command->get_name();
    found = found || (!words.empty() && command->get_name() == words.front());
  }
  const std::string known = " The commands are " + names + "; hoardex --help tells more.";
  if (words.empty()) return "Name a command." + known;
  const std::string& first = words.front();
  if (first == "-h" || first == "--help" || first == "--help-all" || found) return {};
  if (first.starts_with("-")) return "There is no option " + first + " before the command." + known;
  return "There is no command \"" + first + "\"." + known;
}

std::string NotEmpty(const std::string& name) {
  return name.empty() ? "The name is empty" : "";
}

}  // namespace

int Main(int argc, char** argv) {
  CLI::App app("Finds the mail in message stores: indexes them with their attachments, and searches.", "hoardex");
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Help of all commands");
  app.footer(
      "The launcher knows more: setup (makes everything ready; --remove takes it back), test (builds and runs all "
      "tests), bench FILE… (speed beside other readers), fuzz "
      "(looks "
      "for input that the readers cannot bear) and mkvault (makes stores to try it with).");
  std::function<int()> command;
  // Read late, so that --help works everywhere.
  const auto environment = [] { return Environment::FromProcess(); };

  IndexArguments index;
  auto* index_command = app.add_subcommand("index", "Bring stores into the index, or the index up to date");
  auto* index_files =
      index_command
          ->add_option(
              "FILE", index.files,
              "Stores (.pst, .db) or folders of them; mail in files: a maildir, a mailbox (mbox), a message (.eml) "
              "or a folder of these; without, what is there is looked through again")
          ->check(NotEmpty);
  auto* index_demo = index_command->add_flag("--demo", index.demo, "Index a demonstration vault");
  auto* index_retry = index_command->add_flag("--retry", index.retry,
                                              "Also ask again for unchanged items that ended the protocol host before");
  index_command
      ->add_flag("--changes", index.changes,
                 "Only what was reported since: vaults that were added, deleted or modified")
      ->excludes(index_files)
      ->excludes(index_demo)
      ->excludes(index_retry);
  index_command->add_flag("--json", index.json, "Report as JSON");
  index_command
      ->add_option("--timeout", index.timeout_seconds, "Seconds without any answer before the protocol host is ended")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  index_command->callback([&] {
    command = [&] { return index.changes ? RunIndexChanges(environment(), index) : RunIndex(environment(), index); };
  });

  SearchArguments search;
  auto* search_command = app.add_subcommand("search", "Search the index");
  search_command->add_option("QUERY", search.words, "What to find")->required();
  search_command->add_option("-n,--limit", search.limit, "Show at most so many hits")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  search_command->add_option("--folder", search.folders, "Only in folders with these words in their path")
      ->allow_extra_args(false);
  search_command->add_option("--vault", search.vaults, "Only in this vault; * stands for anything")
      ->allow_extra_args(false);
  search_command->add_option("--kind", search.kinds, "Only items of this kind")->allow_extra_args(false);
  search_command->add_flag("--json", search.json, "Hits as JSON, with all properties");
  search_command->footer(kQueryHelp);
  search_command->callback([&] {
    UnmarkQueryWords(search.words);
    command = [&] { return RunSearch(environment(), search); };
  });

  ShowArguments show;
  auto* show_command = app.add_subcommand("show", "Show one item chunk by chunk, as the filter emits it");
  show_command->add_option("URL", show.url, "The item's URL, as search prints it")->required();
  show_command->add_flag("--json", show.json, "The host's record as JSON");
  show_command->callback([&] { command = [&] { return RunShow(environment(), show); }; });

  ExportArguments exports;
  auto* export_command = app.add_subcommand("export", "Write what a query finds, or items by their URLs, to files");
  export_command->add_option("QUERY", exports.words, "What to find; or URLs, as search prints them")->required();
  export_command->add_option("--to", exports.to, "The folder for the files; made if it is not there")
      ->required()
      ->check(NotEmpty);
  export_command->add_option("--format", exports.format, "Of mails: eml (MIME) or msg; attachments stay what they are")
      ->check(CLI::IsMember({"eml", "msg"}))
      ->capture_default_str();
  export_command->add_option("-n,--limit", exports.limit, "At most so many items; without, all that are found")
      ->check(CLI::Range(1, 1000000000));
  export_command->add_flag("--json", exports.json, "What became of every item as JSON");
  export_command->footer(kQueryHelp);
  export_command->callback([&] {
    UnmarkQueryWords(exports.words);
    command = [&] { return RunExportItems(environment(), exports); };
  });

  OpenArguments open, print;
  print.print = true;
  for (auto* arguments : {&open, &print}) {
    auto* open_command =
        app.add_subcommand(arguments->print ? "print" : "open",
                           arguments->print ? "Print one item with the program that is registered for it"
                                            : "Open one item with the program that is registered for it");
    open_command->add_option("URL", arguments->words, "The item's URL, as search prints it; or a query with one hit")
        ->required();
    open_command->callback([&, arguments] {
      UnmarkQueryWords(arguments->words);
      command = [&, arguments] { return RunOpen(environment(), *arguments); };
    });
  }

  DumpArguments dump;
  auto* dump_command = app.add_subcommand("dump", "Write every item as a line of JSON, without an index");
  dump_command->add_option("FILE", dump.files, "Stores or folders of them; without, all vaults")->check(NotEmpty);
  dump_command->add_flag("--chunks", dump.chunks, "With the sequence of chunks");
  dump_command
      ->add_option("--timeout", dump.timeout_seconds, "Seconds without any answer before the protocol host is ended")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  dump_command->callback([&] { command = [&] { return RunDump(environment(), dump); }; });

  WhyArguments why;
  auto* why_command = app.add_subcommand("why", "Say what became of one item, and why something is not found");
  why_command->add_option("URL", why.item, "The item's URL, as search or index prints it; or its exact subject")
      ->required();
  why_command->add_flag("--json", why.json, "As JSON");
  why_command->callback([&] { command = [&] { return RunWhy(environment(), why); }; });

  CheckArguments check;
  auto* check_command = app.add_subcommand("check", "Check filters against the rules that every filter must keep");
  auto* check_urls = check_command->add_option("URL", check.urls,
                                               "Items to check; without, one of every kind and class in every vault");
  auto* check_all = check_command->add_flag("--all", check.all, "Every item of every vault");
  auto* check_demo = check_command->add_flag("--demo", check.demo, "The demonstration vault");
  auto* check_class = check_command->add_option("--clsid", check.clsid, "The filter of this class, {…}");
  auto* check_file = check_command->add_option(
      "--file", check.file, "The filter of this file's type, or the class of --clsid over this file");
  for (auto* other : {check_class, check_file})
    other->check(NotEmpty)->excludes(check_urls)->excludes(check_all)->excludes(check_demo);
  check_urls->excludes(check_all)->excludes(check_demo);
  check_command->add_flag("--json", check.json, "The result as JSON");
  check_command->callback([&] { command = [&] { return RunCheck(environment(), check); }; });

  WatchArguments watch;
  auto* watch_command =
      app.add_subcommand("watch", "Follow the vaults' files on disk and index what changes, until Ctrl-C");
  watch_command->add_option("--quiet", watch.quiet_seconds, "Seconds that a file must rest before it is looked into")
      ->check(CLI::Range(0.1, 3600.0))
      ->capture_default_str();
  watch_command->add_flag("--once", watch.once, "Index what has changed since the last time, and end");
  watch_command
      ->add_option("--timeout", watch.timeout_seconds, "Seconds without any answer before the protocol host is ended")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  watch_command->callback([&] { command = [&] { return RunWatch(environment(), watch); }; });

  DoctorArguments doctor;
  auto* doctor_command = app.add_subcommand("doctor", "Say whether all is well, what is wrong and what to do");
  doctor_command->add_flag(
      "--fix", doctor.fix,
      "Repair what is hoardex's own: registration, drives, leftovers, an index that cannot be read");
  doctor_command->add_flag("--json", doctor.json, "The checks as JSON");
  doctor_command->callback([&] { command = [&] { return RunDoctor(environment(), doctor); }; });

  bool vaults_json = false;
  std::vector<std::string> added, removed;
  auto* vaults_command = app.add_subcommand("vaults", "List, add or remove vaults");
  vaults_command->require_subcommand(0, 1);
  vaults_command->add_flag("--json", vaults_json, "The list as JSON");
  auto* list_command = vaults_command->add_subcommand("list", "List the vaults");
  list_command->add_flag("--json", vaults_json, "The list as JSON");
  auto* add_command = vaults_command->add_subcommand("add", "Make vaults of stores without indexing them yet");
  add_command->add_option("FILE", added, "Stores or folders of them, or mail in files")->required()->check(NotEmpty);
  auto* remove_command = vaults_command->add_subcommand("remove", "Forget vaults and their items; the originals stay");
  remove_command->add_option("NAME", removed, "Names of vaults")->required();
  vaults_command->callback([&] {
    command = [&] {
      if (add_command->parsed()) return RunVaultsAdd(environment(), added);
      if (remove_command->parsed()) return RunVaultsRemove(environment(), removed);
      return RunVaultsList(environment(), vaults_json);
    };
  });

  const auto fail = [](const std::string& sentence, int code) {
    std::fflush(stdout);
    std::fprintf(stderr, "hoardex: %s\n", PrintableText(sentence).c_str());
    return code;
  };
  auto words = MarkQueryWords(argc, argv);
  if (const std::string trouble = CommandTrouble(app, words); !trouble.empty()) return fail(trouble, kExitUsage);
  try {
    std::reverse(words.begin(), words.end());  // as CLI11 takes them
    app.parse(words);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
      return app.exit(error, std::cout, std::cerr), kExitOk;
    std::string command;
    for (const CLI::App* chosen : app.get_subcommands()) command = chosen->get_name() + " ";
    return fail(std::string(error.what()) + ". hoardex " + command + "--help tells more.", kExitUsage);
  }

  InstallSignalHandlers();
  LeaveFirstCore();
  try {
    const int code = command();
    // A closed output is the reader's choice; a full disk is not.
    if (std::fflush(stdout) != 0 && errno != EPIPE)
      return fail("The output cannot be written: " + std::string(std::strerror(errno)) + ".", kExitFailed);
    return code;
  } catch (const CommandError& error) {
    return fail(error.what(), error.code());
  } catch (const QueryError& error) {
    return fail(error.what(), kExitUsage);
  } catch (const HostError& error) {
    return Interrupted() ? fail("Stopped.", kExitInterrupted) : fail(error.what(), kExitFailed);
  } catch (const DatabaseError& error) {
    return fail("The index cannot be used: " + std::string(error.what()) + ".", kExitFailed);
  } catch (const std::exception& error) {
    return fail(std::string(error.what()) + ".", kExitFailed);
  }
}

}  // namespace hoardex
