#include "index/imports.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "index/gatherer.h"
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
  // The pictures of a folder's files, which Windows leaves everywhere.
  return (extension == ".pst" || extension == ".db") && AsciiLower(path.filename().string()) != "thumbs.db";
}

bool HasStoreSignature(const fs::path& path) {
  char head[4] = {};
  std::ifstream(path, std::ios::binary).read(head, sizeof(head));
  return std::string_view(head, sizeof(head)) == "!BDN";
}

// A folder's own entries: is one of them a store, is one of them mail?
struct Contents {
  bool stores = false, mail = false;
};
Contents LookInto(const fs::path& folder) {
  Contents contents;
  std::error_code error;
  for (fs::directory_iterator it(folder, error); !error && it != fs::directory_iterator(); it.increment(error)) {
    std::error_code ignored;
    const bool directory = it->is_directory(ignored);
    const std::string name = AsciiLower(it->path().filename().string()), extension = it->path().extension().string();
    if (directory) {
      contents.mail = contents.mail || name == "cur";
    } else {
      contents.stores = contents.stores || HasStoreName(it->path());
      contents.mail = contents.mail || AsciiLower(extension) == ".eml" || AsciiLower(extension) == ".mbox";
    }
  }
  return contents;
}

std::string Identity(const fs::path& file) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0) return {};
  return std::to_string(status.st_size) + " " + std::to_string(status.st_ino) + " " +
         std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
}

// Paths are bytes, JSON is text: what is no plain ASCII, and "%", is written as "%" and two digits.
std::string Escaped(const std::string& path) {
  std::string out;
  for (const unsigned char c : path) {
    char code[4];
    std::snprintf(code, sizeof(code), "%%%02X", c);
    out += c < 0x20 || c > 0x7E || c == '%' ? std::string(code) : std::string(1, static_cast<char>(c));
  }
  return out;
}
std::string Unescaped(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i + 2 >= text.size()) {
      out += text[i];
      continue;
    }
    out += static_cast<char>(std::strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
    i += 2;
  }
  return out;
}

Import FromNotes(const fs::path& notes) {
  Import import;
  import.store = fs::path(notes).replace_extension(".db");
  try {
    std::ifstream in(notes);
    const json parsed = json::parse(in);
    import.source = Unescaped(parsed.at("source").get<std::string>());
    import.stamp = parsed.at("stamp").get<std::string>();
    import.written = parsed.at("written").get<std::string>();
    import.messages = parsed.at("messages").get<int64_t>();
    for (const json& loss : parsed.at("losses"))
      import.left_out.push_back({loss.at("file").get<std::string>(), loss.at("reason").get<std::string>()});
  } catch (const json::exception&) {
    import = Import();
    import.store = fs::path(notes).replace_extension(".db");
    import.error = "The notes on where it comes from are damaged; name the mail again (hoardex index FOLDER).";
  }
  return import;
}

// Whole and on the disk before it has its name. Throws std::system_error.
void WriteFile(const fs::path& path, const std::string& text) {
  const fs::path partial = path.string() + ".part";
  FileDescriptor file(open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  bool good = static_cast<bool>(file);
  for (size_t done = 0; good && done < text.size();) {
    const ssize_t count = write(file.get(), text.data() + done, text.size() - done);
    good = count > 0 || (count < 0 && errno == EINTR);
    if (count > 0) done += static_cast<size_t>(count);
  }
  if (!good || fsync(file.get()) != 0)
    throw std::system_error(errno, std::generic_category(), partial.string() + " cannot be written");
  fs::rename(partial, path);
}

// What mkvault says; {"error": …} where it says nothing that can be read.
json Ask(const std::vector<std::string>& command) {
  try {
    const Captured said = RunAndCapture(command);
    if (Interrupted()) return {{"error", "It was stopped."}};
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
  const Contents contents = LookInto(argument);
  return contents.mail || !contents.stores;
}

bool Imports::IsStores(const fs::path& argument) {
  std::error_code error;
  return fs::is_directory(argument, error) ? LookInto(argument).stores : !IsMail(argument);
}

void Imports::Sweep() const {
  std::error_code error;
  std::vector<fs::path> stale;
  for (fs::directory_iterator it(folder(), error); !error && it != fs::directory_iterator(); it.increment(error)) {
    const fs::path& path = it->path();
    const std::string extension = path.extension().string();
    // A store has its notes as soon as it is whole.
    if (extension != kNotes && (extension != ".db" || !fs::exists(fs::path(path).replace_extension(kNotes))))
      stale.push_back(path);
  }
  for (const fs::path& path : stale) fs::remove(path, error);
}

Import Imports::Bring(const fs::path& named) {
  std::error_code error;
  fs::path source = fs::canonical(named, error);
  if (error) source = fs::absolute(named);
  const std::string base = SafeVaultName(source.stem().string());
  Import import;
  for (const Import& known : List()) {
    // Damaged notes are written anew by the source that would have had their name.
    if (known.source == source || (known.source.empty() && import.store.empty() && known.store.stem() == base))
      import = known;
  }
  import.source = source;
  import.error.clear();
  const std::string& program = environment_.Require(environment_.mkvault);
  const json now = Ask({program, "--json", "--stamp", source.string()});
  if (now.contains("error")) {
    import.error = OneLine(now["error"].get<std::string>());
    return import;
  }
  if (!import.store.empty() && import.stamp == now.value("stamp", std::string()) &&
      import.written == Identity(import.store))
    return import;
  fs::create_directories(folder());
  if (import.store.empty()) {
    std::string name = base;
    for (int number = 2; fs::exists(folder() / (name + kNotes)); ++number) name = base + "-" + std::to_string(number);
    import.store = folder() / (name + ".db");
  }
  // Under a name of this process alone: a converter that outlives it cannot touch the store.
  const fs::path made = folder() / (".converting-" + std::to_string(getpid()));
  json report = Ask({program, "--json", "--from", source.string(), made.string()});
  if (report.contains("error")) {
    import.error = OneLine(report["error"].get<std::string>());
    return import;
  }
  report["source"] = Escaped(source.string());
  report["written"] = Identity(made);
  const fs::path notes = fs::path(import.store).replace_extension(kNotes);
  try {
    // A store and notes that do not belong together are noticed by what is noted of the store.
    fs::rename(made, import.store);
    WriteFile(notes, report.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
  } catch (const std::system_error& failure) {
    import.error = "It cannot be kept: " + OneLine(failure.what()) + ".";
    // Without notes it would be swept away later, from under its vault.
    if (!fs::exists(notes, error)) fs::remove(import.store, error);
    return import;
  }
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
