// mkvault: makes stores out of nothing, or of mail that lies in files.
//
// Exit status: 0 written, 1 failed, 2 usage, 3 written, but something of the source was left out (and is named).
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/mkvault/demo.h"
#include "tools/mkvault/generate.h"
#include "tools/mkvault/mail_import.h"
#include "vault/error.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr int kWritten = 0, kFailed = 1, kUsage = 2, kPartly = 3;

struct Arguments {
  bool demo = false, as_json = false;
  std::int64_t messages = -1;
  double attachments = 0.15;
  mkvault::GenerateOptions generate;
  std::string from, stamp, name, out;
  vault::Encoding encoding = vault::Encoding::kPermute;
};

void PrintJson(const json& value) {
  std::puts(value.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

int Demo(const Arguments& arguments) {
  vault::StoreBuilder store("Archive of Jane Miller", arguments.encoding);
  mkvault::AddMail(store);
  mkvault::AddItems(store);
  store.Write(arguments.out);
  return kWritten;
}

int Messages(const Arguments& arguments) {
  mkvault::GenerateOptions options = arguments.generate;
  options.messages = static_cast<std::uint64_t>(arguments.messages);
  options.attachments = static_cast<std::uint32_t>(arguments.attachments * 10'000 + 0.5);
  options.encoding = arguments.encoding;
  mkvault::Generate(arguments.out, options);
  return kWritten;
}

int Stamp(const Arguments& arguments) {
  const auto mail = mkvault::FindMail(arguments.stamp);
  PrintJson({{"stamp", mkvault::StampOf(mail)}, {"files", mail.FileCount()}});
  return kWritten;
}

int From(const Arguments& arguments) {
  const fs::path source = fs::absolute(arguments.from).lexically_normal();
  const auto mail = mkvault::FindMail(source);
  const std::string stamp = mkvault::StampOf(mail);
  mkvault::StoreIdentity identity;
  const fs::path last = source.has_filename() ? source.filename() : source.parent_path().filename();
  identity.name = arguments.name.empty() ? last.string() : arguments.name;
  // Another content gives other identifiers, so that no item of it is taken for one of the store that it replaces.
  identity.uid = vault::MakeStoreUid(source.string() + stamp);
  identity.encoding = arguments.encoding;
  const auto result = mkvault::ImportMail(mail, arguments.out, identity);
  if (arguments.as_json) {
    json losses = json::array();
    for (const auto& loss : result.losses) losses.push_back({{"file", loss.file.string()}, {"reason", loss.reason}});
    PrintJson(
        {{"stamp", stamp}, {"messages", result.messages}, {"folders", result.folders}, {"losses", std::move(losses)}});
  } else {
    for (const auto& loss : result.losses)
      std::fprintf(stderr, "mkvault: left out %s: %s\n", loss.file.c_str(), loss.reason.c_str());
    std::printf("%s: %llu messages in %llu folders\n", arguments.out.c_str(),
                static_cast<unsigned long long>(result.messages), static_cast<unsigned long long>(result.folders));
  }
  return result.losses.empty() ? kWritten : kPartly;
}

int Fail(const Arguments& arguments, const std::string& sentence) {
  if (arguments.as_json) {
    PrintJson({{"error", sentence}});
  } else {
    std::fprintf(stderr, "mkvault: %s\n", sentence.c_str());
  }
  return kFailed;
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
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kWritten : kUsage;
  }
  try {
    if (arguments.demo) return Demo(arguments);
    if (arguments.messages >= 0) return Messages(arguments);
    return arguments.from.empty() ? Stamp(arguments) : From(arguments);
  } catch (const std::exception& error) {
    return Fail(arguments, error.what());
  }
}
