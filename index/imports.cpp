#include "index/imports.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "index/process.h"
#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr char kNotes[] = ".json";  // beside each store: where it comes from

bool HasStoreName(const fs::path& path) {
  const std::string extension = AsciiLower(path.extension().string());
  return extension == ".pst" || extension == ".db" || extension == ".ost";
}

bool HasStoreSignature(const fs::path& path) {
  char head[4] = {};
  std::ifstream(path, std::ios::binary).read(head, sizeof(head));
  return std::string_view(head, sizeof(head)) == "!BDN";
}

Import FromNotes(const fs::path& notes) {
  Import import;
  import.store = fs::path(notes).replace_extension(".db");
  std::ifstream in(notes);
  const json parsed = json::parse(in, nullptr, false);
  if (!parsed.is_object()) return import;
  import.source = parsed.value("source", std::string());
  import.stamp = parsed.value("stamp", std::string());
  import.messages = parsed.value("messages", int64_t{0});
  if (const auto losses = parsed.find("losses"); losses != parsed.end() && losses->is_array()) {
    for (const json& loss : *losses)
      import.left_out.push_back({loss.value("file", std::string()), loss.value("reason", std::string())});
  }
  return import;
}

// What mkvault says; {"error": …} where it says nothing that can be read.
json Ask(const std::vector<std::string>& command) {
  try {
    const Captured said = RunAndCapture(command);
    json parsed = json::parse(said.out, nullptr, false);
    if (parsed.is_object() && (parsed.contains("stamp") || parsed.contains("error"))) return parsed;
    return {{"error", "The conversion failed: " + OneLine(said.out.empty() ? "it ended early" : said.out) + "."}};
  } catch (const std::system_error& error) {
    return {{"error", std::string("It cannot be converted: ") + error.what() + "."}};
  }
}

}  // namespace

bool Imports::IsMail(const fs::path& argument) {
  std::error_code error;
  const fs::file_status status = fs::status(argument, error);
  if (fs::is_regular_file(status)) return !HasStoreName(argument) && !HasStoreSignature(argument);
  if (!fs::is_directory(status)) return false;
  for (fs::directory_iterator it(argument, error); !error && it != fs::directory_iterator(); it.increment(error)) {
    std::error_code ignored;
    if (HasStoreName(it->path()) && !it->is_directory(ignored)) return false;
  }
  return true;
}

Import Imports::Bring(const fs::path& named) {
  std::error_code error;
  fs::path source = fs::canonical(named, error);
  if (error) source = fs::absolute(named);
  Import import;
  import.source = source;
  for (const Import& known : List())
    if (known.source == source) import = known;
  const std::string& program = environment_.Require(environment_.mkvault);
  const json now = Ask({program, "--json", "--stamp", source.string()});
  if (now.contains("error")) {
    import.error = OneLine(now["error"].get<std::string>());
    return import;
  }
  if (!import.store.empty() && import.stamp == now.value("stamp", std::string()) && fs::exists(import.store))
    return import;
  if (import.store.empty()) {
    fs::create_directories(folder());
    const std::string base = SafeVaultName(source.stem().string());
    std::string name = base;
    for (int number = 2; fs::exists(folder() / (name + ".db")) || fs::exists(folder() / (name + kNotes)); ++number)
      name = base + "-" + std::to_string(number);
    import.store = folder() / (name + ".db");
  }
  json made = Ask({program, "--json", "--from", source.string(), import.store.string()});
  if (made.contains("error")) {
    import.error = OneLine(made["error"].get<std::string>());
    return import;
  }
  // The store first: without its notes it is made again, and with old ones too.
  made["source"] = source.string();
  const fs::path notes = fs::path(import.store).replace_extension(kNotes), partial = notes.string() + ".part";
  std::ofstream(partial) << made.dump(2, ' ', false, json::error_handler_t::replace) << "\n";
  fs::rename(partial, notes);
  return FromNotes(notes);
}

std::vector<Import> Imports::List() const {
  std::vector<Import> imports;
  std::error_code error;
  for (fs::directory_iterator it(folder(), error); !error && it != fs::directory_iterator(); it.increment(error))
    if (it->path().extension() == kNotes) imports.push_back(FromNotes(it->path()));
  std::sort(imports.begin(), imports.end(), [](const Import& a, const Import& b) { return a.store < b.store; });
  return imports;
}

void Imports::Forget(const fs::path& store) {
  if (store.parent_path() != folder()) return;
  std::error_code ignored;
  fs::remove(fs::path(store).replace_extension(kNotes), ignored);
  fs::remove(store, ignored);
}

}  // namespace hoardex
