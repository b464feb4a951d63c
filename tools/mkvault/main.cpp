// mkvault: makes stores out of nothing, or of mail that lies in files.
//
// Exit status: 0 written, 1 failed, 2 usage, 3 written, but something of the source was left out (and is named).
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/mkvault/demo.h"
#include "tools/mkvault/generate.h"
#include "tools/mkvault/mail_import.h"
#include "tools/mkvault/supervised.h"
#include "vault/error.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr int kWritten = 0, kFailed = 1, kUsage = 2, kPartly = 3;
constexpr std::size_t kMostSkipped = 50;  // messages that end the process which reads them

struct Arguments {
  bool demo = false, as_json = false;
  std::int64_t messages = -1;
  double attachments = 0.15;
  mkvault::GenerateOptions generate;
  std::string from, stamp, name, out;
  vault::Encoding encoding = vault::Encoding::kPermute;
};

using mkvault::Said;

std::string Line(const json& value) {
  return value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

Said Demo(const Arguments& arguments, const fs::path& out) {
  vault::StoreBuilder store("Archive of Jane Miller", arguments.encoding);
  mkvault::AddMail(store);
  mkvault::AddItems(store);
  store.Write(out);
  return {kWritten, {}};
}

Said Messages(const Arguments& arguments, const fs::path& out) {
  mkvault::GenerateOptions options = arguments.generate;
  options.messages = static_cast<std::uint64_t>(arguments.messages);
  options.attachments = static_cast<std::uint32_t>(arguments.attachments * 10'000 + 0.5);
  options.encoding = arguments.encoding;
  mkvault::Generate(out, options);
  return {kWritten, {}};
}

Said Stamp(const Arguments& arguments) {
  const auto mail = mkvault::FindMail(arguments.stamp);
  return {kWritten, Line({{"stamp", mkvault::StampOf(mail)}, {"files", mail.top.FileCount()}})};
}

Said From(const Arguments& arguments, const mkvault::MailSource& mail, const fs::path& out,
          const mkvault::ImportOptions& options) {
  const fs::path source = fs::absolute(arguments.from).lexically_normal();
  const std::string stamp = mkvault::StampOf(mail);
  mkvault::StoreIdentity identity;
  const fs::path last = source.has_filename() ? source.filename() : source.parent_path().filename();
  identity.name = arguments.name.empty() ? last.string() : arguments.name;
  // Another content gives other identifiers, so that no item of it is taken for one of the store that it replaces.
  identity.uid = vault::MakeStoreUid(source.string() + stamp);
  identity.encoding = arguments.encoding;
  const auto result = mkvault::ImportMail(mail, out, identity, options);
  const int status = result.losses.empty() ? kWritten : kPartly;
  if (arguments.as_json) {
    json losses = json::array();
    for (const auto& loss : result.losses) losses.push_back({{"file", loss.file.string()}, {"reason", loss.reason}});
    return {status, Line({{"stamp", stamp},
                          {"messages", result.messages},
                          {"folders", result.folders},
                          {"others", mail.others},
                          {"losses", std::move(losses)}})};
  }
  std::string text;
  for (const auto& loss : result.losses) text += "left out " + loss.file.string() + ": " + loss.reason + "\n";
  text += arguments.out + ": " + std::to_string(result.messages) + " messages in " + std::to_string(result.folders) +
          " folders";
  if (mail.others) text += "; " + std::to_string(mail.others) + " other files are no mail";
  return {status, text + "\n"};
}

Said Failure(const Arguments& arguments, const std::string& sentence) {
  if (arguments.as_json) return {kFailed, Line({{"error", sentence}})};
  std::fprintf(stderr, "mkvault: %s\n", sentence.c_str());
  return {kFailed, {}};
}

// Why nothing may be written there; empty when it may.
std::string Objection(const Arguments& arguments, const mkvault::MailSource& mail) {
  std::error_code error;
  const fs::file_status status = fs::status(arguments.out, error);
  if (fs::exists(status) && !fs::is_regular_file(status)) return "It is not a file, and stays as it is.";
  if (fs::exists(status) && mkvault::IsPartOf(mail, arguments.out)) return "It is part of the mail to be read.";
  return {};
}

Said Make(const Arguments& arguments) {
  mkvault::MailSource mail;
  if (!arguments.from.empty()) mail = mkvault::FindMail(fs::absolute(arguments.from).lexically_normal());
  if (const std::string objection = Objection(arguments, mail); !objection.empty())
    return Failure(arguments, arguments.out + " cannot be written: " + objection);
  const auto work = [&](const fs::path& out, const mkvault::ImportOptions& options) -> Said {
    try {
      if (arguments.demo) return Demo(arguments, out);
      if (arguments.messages >= 0) return Messages(arguments, out);
      return From(arguments, mail, out, options);
    } catch (const std::exception& error) {
      return Failure(arguments, error.what());
    }
  };
  mkvault::ImportOptions options;
  for (;;) {
    const mkvault::Supervised run = mkvault::RunSupervised(arguments.out, work, options);
    if (run.interrupted) return {128 + run.signal, {}};
    if (!run.signal) return run.said;
    // The same message twice is no cure.
    if (arguments.from.empty() || options.skipped.size() >= kMostSkipped || !options.skipped.insert(run.place).second)
      return Failure(arguments, "It was ended by signal " + std::to_string(run.signal) + ".");
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Makes message stores: a demonstration, or one of the mail in files.", "mkvault");
  Arguments arguments;
  auto* what = app.add_option_group("what");
  what->require_option(1);
  what->add_flag("--demo", arguments.demo, "The demonstration store: a small archive with items of every kind");
  auto* messages =
      what->add_option("--messages", arguments.messages, "An invented archive of so many items of all kinds")
          ->check(CLI::Range(std::int64_t{0}, std::int64_t{100'000'000}));
  what->add_option("--from", arguments.from,
                   "A maildir, a mailbox (mbox), a message (.eml), or a folder of mailboxes and messages");
  what->add_option("--stamp", arguments.stamp, "Writes no store: prints what changes when the mail of --from changes");
  app.add_option("--seed", arguments.generate.seed, "With --messages: other numbers give other archives")
      ->needs(messages)
      ->capture_default_str();
  app.add_option("--attachments", arguments.attachments, "With --messages: the share of mails that have some, 0 to 1")
      ->needs(messages)
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  app.add_option("--folders", arguments.generate.folders,
                 "With --messages: folders for mail; by their number otherwise")
      ->needs(messages)
      ->check(CLI::Range(1, 5000));
  app.add_option("--name", arguments.name, "The store's display name; the source's file name otherwise");
  const std::map<std::string, vault::Encoding> encodings = {
      {"none", vault::Encoding::kNone}, {"permute", vault::Encoding::kPermute}, {"cyclic", vault::Encoding::kCyclic}};
  app.add_option("--encoding", arguments.encoding, "How the store's data are encoded: none, permute or cyclic")
      ->transform(CLI::CheckedTransformer(encodings, CLI::ignore_case));
  app.add_flag("--json", arguments.as_json, "Reports as a line of JSON");
  app.add_option("OUT", arguments.out, "The store to write; one that is there is replaced");
  try {
    app.parse(argc, argv);
    if (arguments.stamp.empty() == arguments.out.empty())
      throw CLI::ValidationError("OUT", arguments.out.empty() ? "is required" : "does not go with --stamp");
    if (!std::isfinite(arguments.attachments)) throw CLI::ValidationError("--attachments", "is no number");
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kWritten : kUsage;
  }
  Said said;
  try {
    said = arguments.stamp.empty() ? Make(arguments) : Stamp(arguments);
  } catch (const std::exception& error) {
    said = Failure(arguments, error.what());
  }
  std::fputs(said.text.c_str(), stdout);
  if (std::fflush(stdout) != 0) {
    std::fprintf(stderr, "mkvault: what there is to say cannot be written: %s\n", std::strerror(errno));
    return kFailed;
  }
  return said.status;
}
