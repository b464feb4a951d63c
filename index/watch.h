// Follows the vault files on disk: those that the links in the vault folder lead to, and the links themselves. Changes
// are found by looking (a stamp a file); inotify says when, so that nothing is missed where it is silent: on network
// file systems, after an overflow of its queue, for what was replaced as a whole. One thread.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "index/environment.h"
#include "index/process.h"
#include "index/vaults.h"

namespace hoardex {

enum class VaultChange { kAdded, kDeleted, kModified };

struct VaultEvent {
  VaultChange change;
  std::string name;   // of the vault
  std::string stamp;  // of the file as it was found quiet, as Vault has it; empty when deleted
};

struct WatchOptions {
  std::chrono::milliseconds quiet{2000};    // a file that changed within this time is still being written
  std::chrono::milliseconds period{30000};  // between two looks when nothing is heard
};

class VaultWatch {
 public:
  using Clock = std::chrono::steady_clock;

  // `known`: vaults with the stamp that they had when they were indexed. What differs from it is an event, once quiet.
  // Without inotify (too many instances), looks at the files every period only: see trouble().
  VaultWatch(const Environment& environment, std::map<std::string, std::string> known, WatchOptions options);

  // Waits until there is an event, at most `timeout`, and returns what is quiet now; each event once. A signal ends the
  // wait early. A vault whose file went away with its disk is none: what was indexed of it stays.
  std::vector<VaultEvent> Wait(std::chrono::milliseconds timeout);

  // Events that could not be dealt with come again with the next look.
  void Forget(const VaultEvent& event);

  const std::string& trouble() const { return trouble_; }
  size_t vault_count() const { return seen_.size(); }

 private:
  struct Seen {
    std::string stamp;     // what was told of last: empty when the vault was not there
    std::string identity;  // what the last look found: the stamp and which file it is
    std::string told;      // the identity that was told of
    std::filesystem::path folder;
    uint64_t device = 0;  // of the folder while the file was in it
    bool present = false, gone = false;
    Clock::time_point changed{};
  };

  void Look();
  void LookAt(const Vault& vault, Seen& seen, Clock::time_point now);
  std::vector<VaultEvent> Quiet(Clock::time_point now);
  void WatchFolders();
  // Takes what inotify has; true when something may concern a vault.
  bool TakeNotices();

  const Environment& environment_;
  const WatchOptions options_;
  std::map<std::string, Seen> seen_;
  FileDescriptor notices_;
  std::map<std::filesystem::path, int> watched_;
  std::string trouble_;
  Clock::time_point looked_{};
  bool look_again_ = true;
};

}  // namespace hoardex
