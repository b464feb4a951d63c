#include "index/vaults.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "index/text.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::string_view kSuffix = ".db", kTemporary = "~dump-";
constexpr size_t kLongestName = 100;

std::string Replaced(std::string text, std::string_view what, std::string_view with) {
  const std::string folded = AsciiLower(text);
  size_t at = 0, shift = 0;
  while ((at = folded.find(what, at)) != std::string::npos) {
    text.replace(at + shift, what.size(), with);
    shift += with.size() - what.size();
    at += what.size();
  }
  return text;
}

bool IsDeviceName(const std::string& name) {
  static const std::set<std::string> kDevices{"con", "prn", "aux", "nul"};
  const std::string lower = AsciiLower(name);
  if (kDevices.contains(lower)) return true;
  return lower.size() == 4 && (lower.starts_with("com") || lower.starts_with("lpt")) && lower[3] >= '1' &&
         lower[3] <= '9';
}

// The link itself: relative paths would be taken from the vault folder.
void LinkOrCopy(const fs::path& source, const fs::path& link) {
  std::error_code error;
  if (fs::is_regular_file(source)) {
    fs::create_symlink(source, link, error);
    if (!error) return;
  }
  // A file system without links, or a source that can be read only once.
  fs::path partial = link;
  partial += ".part";
  fs::copy_file(source, partial, fs::copy_options::overwrite_existing);
  fs::rename(partial, link);
}

Vault Describe(const fs::path& link) {
  Vault vault;
  vault.name = link.stem().string();
  vault.link = link;
  std::error_code error;
  vault.source = fs::is_symlink(link, error) ? fs::read_symlink(link, error) : link;
  struct stat status;
  vault.present = stat(link.c_str(), &status) == 0;
  if (vault.present) {
    vault.size = status.st_size;
    vault.stamp = std::to_string(status.st_size) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
                  std::to_string(status.st_mtim.tv_nsec);
  }
  return vault;
}

}  // namespace

VaultInfo VaultInfo::FromJson(const std::string& text) {
  VaultInfo info;
  const json parsed = json::parse(text, nullptr, false);
  if (!parsed.is_object()) {
    info.error = "It cannot be examined.";
    return info;
  }
  info.text = parsed.dump(-1, ' ', false, json::error_handler_t::replace);
  const auto string = [&](const char* key) {
    const auto it = parsed.find(key);
    return it != parsed.end() && it->is_string() ? OneLine(it->get<std::string>()) : std::string();
  };
  const auto number = [&](const char* key) {
    const auto it = parsed.find(key);
    return it != parsed.end() && it->is_number() ? it->get<int64_t>() : 0;
  };
  info.opens = parsed.contains("opens") && parsed["opens"].is_boolean() && parsed["opens"].get<bool>();
  info.error = string("error");
  if (!info.opens && info.error.empty()) info.error = "It cannot be opened.";
  info.format = string("format");
  info.encoding = string("encoding");
  info.folders = number("folders");
  info.messages = number("messages");
  info.attachments = number("attachments");
  info.top_message_count = number("top_message_count");
  if (const auto it = parsed.find("top_messages"); it != parsed.end() && it->is_array()) {
    for (const json& message : *it) {
      if (message.is_object()) info.top_subjects.push_back(OneLine(message.value("subject", std::string())));
    }
  }
  return info;
}

VaultInfo InspectVault(const Environment& environment, const fs::path& file) {
  const std::string& program = environment.Require(environment.vaultinfo);
  VaultInfo failed;
  // Opening a pipe or a device would wait for ever.
  std::error_code unreachable;
  const fs::file_status status = fs::status(file, unreachable);
  if (status.type() != fs::file_type::regular) {
    failed.error = fs::exists(status)                          ? "It is not a file."
                   : status.type() == fs::file_type::not_found ? "It is not there."
                                                               : "It cannot be reached: " + unreachable.message() + ".";
    return failed;
  }
  try {
    const Captured captured = RunAndCapture({program, file.string()});
    VaultInfo info = VaultInfo::FromJson(captured.out);
    if (captured.status != 0 && info.opens) info.opens = false;
    if (!info.opens && info.error.empty()) info.error = "It cannot be opened.";
    return info;
  } catch (const std::system_error& error) {
    failed.error = "It cannot be examined: " + std::string(error.what()) + ".";
  }
  return failed;
}

bool IsTemporaryVault(std::string_view name) {
  return name.starts_with(kTemporary);
}

std::string SafeVaultName(const std::string& stem) {
  std::string name;
  for (size_t i = 0; i < stem.size();) {
    const size_t first = i;
    const char32_t c = DecodeUtf8(stem, &i);
    constexpr std::string_view kForbidden = "\\/:*?\"<>|[]";
    const bool bad = c < 0x20 || c == 0x7F || c == 0xFFFD ||
                     (c < 0x80 && kForbidden.find(static_cast<char>(c)) != std::string_view::npos);
    if (name.size() + (i - first) > kLongestName) break;
    name += bad ? "_" : stem.substr(first, i - first);
  }
  // The URL grammar looks for these two within the whole URL.
  name = Replaced(Replaced(name, ".db", "_db"), ".zkm", "_zkm");
  while (!name.empty() && (name.back() == '.' || name.back() == ' ')) name.pop_back();
  while (!name.empty() && (name.front() == ' ' || name.front() == '~')) name.erase(0, 1);
  if (name.empty()) name = "vault";
  return IsDeviceName(name) ? name + "_" : name;
}

std::vector<Vault> VaultFolder::List() const {
  std::vector<Vault> vaults;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(environment_.vault_folder(), error)) {
    const fs::path& path = entry.path();
    if (path.extension() == kSuffix && !IsTemporaryVault(path.filename().string())) vaults.push_back(Describe(path));
  }
  std::sort(vaults.begin(), vaults.end(), [](const Vault& a, const Vault& b) { return a.name < b.name; });
  return vaults;
}

std::optional<Vault> VaultFolder::Find(const std::string& name) const {
  for (Vault& vault : List()) {
    if (AsciiLower(vault.name) == AsciiLower(name)) return std::move(vault);
  }
  return std::nullopt;
}

std::string VaultFolder::FreeName(const fs::path& file) const {
  std::set<std::string> taken;
  for (const Vault& vault : List()) taken.insert(AsciiLower(vault.name));
  const std::string base = SafeVaultName(file.stem().string());
  std::string name = base;
  for (int number = 2; taken.contains(AsciiLower(name)); ++number) name = base + "-" + std::to_string(number);
  return name;
}

AddResult VaultFolder::Add(const fs::path& file) {
  AddResult result;
  result.file = file;
  std::error_code error;
  const fs::path source = fs::canonical(file, error);
  if (error) {
    result.reason = error == std::errc::no_such_file_or_directory ? "There is no such file."
                                                                  : "It cannot be reached: " + error.message() + ".";
    return result;
  }
  for (const Vault& vault : List()) {
    if (vault.source == source || fs::equivalent(vault.link, source, error)) {
      result.state = AddResult::State::kKnown;
      result.name = vault.name;
      return result;
    }
  }
  result.info = InspectVault(environment_, source);
  if (!result.info.opens) {
    result.reason = result.info.error;
    return result;
  }
  try {
    fs::create_directories(environment_.vault_folder());
    result.name = FreeName(source);
    LinkOrCopy(source, environment_.vault_folder() / (result.name + std::string(kSuffix)));
    result.state = AddResult::State::kAdded;
  } catch (const fs::filesystem_error& failure) {
    result.reason = "It can be neither linked nor copied: " + failure.code().message() + ".";
  }
  return result;
}

bool VaultFolder::Remove(const std::string& name) {
  const auto vault = Find(name);
  return vault && fs::remove(vault->link);
}

std::string VaultFolder::TemporaryOwner() {
  if (!steady_names_) {
    FileDescriptor lock(open((environment_.home / "dump.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) steady_names_ = std::move(lock);
  }
  return std::to_string(steady_names_ ? 0 : getpid());
}

Vault VaultFolder::LinkTemporarily(const fs::path& file, int number) {
  fs::create_directories(environment_.vault_folder());
  const std::string name = std::string(kTemporary) + TemporaryOwner() + "-" + std::to_string(number);
  const fs::path link = environment_.vault_folder() / (name + std::string(kSuffix));
  LinkOrCopy(fs::canonical(file), link);
  return Describe(link);
}

void VaultFolder::ClearTemporary() {
  const bool steady = TemporaryOwner() == "0";
  std::error_code error;
  std::vector<fs::path> stale;
  for (const auto& entry : fs::directory_iterator(environment_.vault_folder(), error)) {
    const std::string name = entry.path().filename().string();
    if (!IsTemporaryVault(name)) continue;
    const pid_t owner = static_cast<pid_t>(std::strtol(name.c_str() + kTemporary.size(), nullptr, 10));
    if ((steady && owner == 0) || owner == getpid() || (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH))
      stale.push_back(entry.path());
  }
  for (const fs::path& path : stale) fs::remove(path, error);
}

fs::path MakeDemo(const Environment& environment) {
  if (fs::exists(environment.demo_file())) return environment.demo_file();
  fs::path partial = environment.demo_file();
  partial += ".part";
  const Captured made = RunAndCapture({environment.Require(environment.mkvault), "--demo", partial.string()});
  if (made.status != 0)
    throw CommandError(kExitFailed, "The demonstration vault could not be made: " + OneLine(made.out));
  fs::rename(partial, environment.demo_file());
  return environment.demo_file();
}

std::vector<fs::path> ExpandFolders(const std::vector<std::string>& arguments) {
  std::vector<fs::path> files;
  for (const std::string& argument : arguments) {
    std::error_code error;
    if (!fs::is_directory(argument, error)) {
      files.emplace_back(argument);
      continue;
    }
    std::vector<fs::path> found;
    fs::directory_iterator entries(argument, error);
    if (error) {
      files.emplace_back(argument);  // it is refused with the reason when it is examined
      continue;
    }
    for (const auto& entry : entries) {
      const std::string extension = AsciiLower(entry.path().extension().string());
      if (extension != ".pst" && extension != ".db") continue;
      // What only looks like a store (a broken link, a pipe) is refused by name; a folder of that name is none.
      std::error_code ignored;
      if (!entry.is_directory(ignored)) found.push_back(entry.path());
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

}  // namespace hoardex
