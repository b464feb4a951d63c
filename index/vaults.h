// The vault folder: links (or copies) of message stores under the names that the host sees.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "index/environment.h"
#include "index/store.h"

namespace hoardex {

// What the program vaultinfo says about a store.
struct VaultInfo {
  bool opens = false;
  std::string error;  // a sentence, when it does not open
  int64_t folders = 0, messages = 0, attachments = 0;
  // Messages that lie in the top folder itself, which browsing does not list; at most a few by name.
  int64_t top_message_count = 0;
  std::vector<std::string> top_subjects;
  std::string format, encoding;
  std::string text;  // what the program printed, as one line of JSON

  static VaultInfo FromJson(const std::string& text);
};

// Asks the program. Never throws: what goes wrong makes a VaultInfo that does not open.
VaultInfo InspectVault(const Environment& environment, const std::filesystem::path& file);

struct Vault {
  std::string name;  // "mail" of mail.db
  std::filesystem::path link, source;
  bool present = false;  // the original is there
  int64_t size = 0;
  std::string stamp;  // changes when the original does
};

struct AddResult {
  enum class State { kAdded, kKnown, kRefused };
  State state = State::kRefused;
  std::string name, reason;
  std::filesystem::path file;
  VaultInfo info;  // when added
};

class VaultFolder {
 public:
  explicit VaultFolder(const Environment& environment) : environment_(environment) {}

  // By name; temporary ones left out.
  std::vector<Vault> List() const;
  std::optional<Vault> Find(const std::string& name) const;

  // Links one store, after vaultinfo has opened it, under its own name or that with a number. The original is only
  // read.
  AddResult Add(const std::filesystem::path& file);
  // Takes the link (or copy) away; the original stays. False when there is no such vault.
  bool Remove(const std::string& name);

  // A link that no index sees and that lives as long as the process; stale ones of dead processes are cleared. One
  // process at a time has names that are the same in every run, so that what is told of an item can be compared.
  Vault LinkTemporarily(const std::filesystem::path& file, int number);
  void ClearTemporary();

 private:
  std::string FreeName(const std::filesystem::path& file) const;
  // What this process puts between the mark of temporary names and their numbers.
  std::string TemporaryOwner();
  const Environment& environment_;
  FileDescriptor steady_names_;  // locked by the one process that has them
};

// The demonstration store, made when it is not there. Throws CommandError.
std::filesystem::path MakeDemo(const Environment& environment);

// Every .pst and .db file of folders (not of their sub-folders), the files as they are; in a fixed order.
std::vector<std::filesystem::path> ExpandFolders(const std::vector<std::string>& arguments);

// True for the names of LinkTemporarily, which no index takes up.
bool IsTemporaryVault(std::string_view name);

// A name that can be a token of an item URL and a Windows file name.
std::string SafeVaultName(const std::string& stem);

}  // namespace hoardex
