#include "index/watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace hoardex {
namespace {

namespace fs = std::filesystem;

constexpr uint32_t kInterest = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM |
                               IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

// A folder that may not be there yet: the nearest one above it, where it would appear.
fs::path NearestFolder(fs::path folder) {
  std::error_code error;
  while (!fs::is_directory(folder, error) && folder.has_relative_path()) folder = folder.parent_path();
  return folder;
}

// Which file it is: one that takes another's place with the same size and time differs.
std::string IdentityOf(const Vault& vault) {
  struct stat status;
  if (!vault.present || stat(vault.link.c_str(), &status) != 0) return {};
  return vault.stamp + " " + std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

uint64_t DeviceOf(const fs::path& folder) {
  struct stat status;
  return stat(folder.c_str(), &status) == 0 ? status.st_dev : 0;
}

}  // namespace

VaultWatch::VaultWatch(const Environment& environment, std::map<std::string, std::string> known, WatchOptions options)
    : environment_(environment), options_(options), notices_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!notices_)
    trouble_ = std::string("The system gives no notice of changes (") + std::strerror(errno) +
               "); the files are looked at from time to time.";
  std::map<std::string, Vault> there;
  for (Vault& vault : VaultFolder(environment).List()) there.emplace(vault.name, vault);
  for (auto& [name, stamp] : known) {
    Seen& seen = seen_[name];
    seen.stamp = stamp;
    // Whether it is the very same file is not known from before; its stamp is.
    if (const auto found = there.find(name); found != there.end() && found->second.stamp == stamp)
      seen.told = IdentityOf(found->second);
    else
      seen.told = stamp;
  }
}

std::vector<VaultEvent> VaultWatch::Wait(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (true) {
    auto now = Clock::now();
    if (look_again_ || now - looked_ >= options_.period) Look();
    now = Clock::now();
    std::vector<VaultEvent> events = Quiet(now);
    if (!events.empty() || now >= deadline) return events;
    // Until something is heard, something becomes quiet, or it is time to look.
    auto until = std::min(deadline, looked_ + options_.period);
    for (const auto& [name, seen] : seen_)
      if (seen.told != seen.identity && (seen.present || seen.gone))
        until = std::min(until, seen.changed + options_.quiet);
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(std::max(until - now, Clock::duration::zero()));
    pollfd fd{notices_.get(), POLLIN, 0};
    const int ready = poll(&fd, notices_ ? 1 : 0, static_cast<int>(rest.count()));
    if (ready < 0) return {};
    look_again_ = ready > 0 ? TakeNotices() : until < deadline;
  }
}

void VaultWatch::Look() {
  look_again_ = false;
  // The watches first: what happens after them is heard.
  WatchFolders();
  looked_ = Clock::now();
  std::set<std::string> listed;
  for (const Vault& vault : VaultFolder(environment_).List()) {
    listed.insert(vault.name);
    LookAt(vault, seen_[vault.name], looked_);
  }
  // A link that has been taken away is a vault that has been taken away.
  for (auto& [name, seen] : seen_) {
    if (listed.contains(name)) continue;
    if (!std::exchange(seen.gone, true) || seen.present) seen.changed = looked_;
    seen.present = false;
    seen.identity.clear();
  }
}

void VaultWatch::LookAt(const Vault& vault, Seen& seen, Clock::time_point now) {
  const std::string identity = IdentityOf(vault);
  const fs::path folder = vault.source.parent_path();
  if (!identity.empty()) {
    if (seen.identity != identity || !seen.present) seen.changed = now;
    seen.folder = folder;
    seen.device = DeviceOf(folder);
    seen.present = true;
    seen.gone = false;
    seen.identity = identity;
    return;
  }
  // Its folder is still there and on the same disk: the file itself has been deleted. Else the disk is away.
  const bool deleted = seen.device != 0 && seen.folder == folder && DeviceOf(folder) == seen.device;
  if (seen.present || (deleted && !seen.gone)) seen.changed = now;
  seen.present = false;
  seen.gone = seen.gone || deleted;
  seen.identity.clear();
}

std::vector<VaultEvent> VaultWatch::Quiet(Clock::time_point now) {
  std::vector<VaultEvent> events;
  for (auto it = seen_.begin(); it != seen_.end();) {
    Seen& seen = it->second;
    if (seen.told == seen.identity || !(seen.present || seen.gone) || now - seen.changed < options_.quiet) {
      // Neither there nor told of: nothing to remember.
      const bool forgotten = seen.gone && seen.told.empty() && seen.device == 0;
      it = forgotten ? seen_.erase(it) : std::next(it);
      continue;
    }
    const VaultChange change = !seen.present       ? VaultChange::kDeleted
                               : seen.told.empty() ? VaultChange::kAdded
                                                   : VaultChange::kModified;
    // The identity begins with the stamp and ends with the file's number.
    events.push_back({change, it->first, seen.present ? seen.identity.substr(0, seen.identity.rfind(' ')) : ""});
    seen.stamp = events.back().stamp;
    seen.told = seen.identity;
    ++it;
  }
  return events;
}

void VaultWatch::Forget(const VaultEvent& event) {
  const auto found = seen_.find(event.name);
  if (found == seen_.end()) return;
  // As it was before: unknown when it was added, there when it was deleted, another file when it was modified.
  found->second.told = event.change == VaultChange::kAdded ? "" : "?";
  found->second.changed = Clock::now();
}

void VaultWatch::WatchFolders() {
  if (!notices_) return;
  std::set<fs::path> wanted = {NearestFolder(environment_.vault_folder())};
  for (const Vault& vault : VaultFolder(environment_).List()) {
    if (vault.source.is_absolute()) wanted.insert(NearestFolder(vault.source.parent_path()));
  }
  for (const fs::path& folder : wanted) {
    const int watch = inotify_add_watch(notices_.get(), folder.c_str(), kInterest);
    if (watch >= 0) {
      watched_[folder] = watch;
    } else if (trouble_.empty()) {
      trouble_ =
          folder.string() + " cannot be watched (" + std::strerror(errno) + "); it is looked at from time to time.";
    }
  }
  for (auto it = watched_.begin(); it != watched_.end();) {
    const int watch = it->second;
    if (wanted.contains(it->first)) {
      ++it;
      continue;
    }
    it = watched_.erase(it);
    const auto same = [&](const auto& other) { return other.second == watch; };
    if (std::none_of(watched_.begin(), watched_.end(), same)) inotify_rm_watch(notices_.get(), watch);
  }
}

bool VaultWatch::TakeNotices() {
  std::set<std::string> names;
  for (const Vault& vault : VaultFolder(environment_).List()) names.insert(vault.source.filename().string());
  bool concerned = false;
  alignas(inotify_event) char buffer[1 << 16];
  for (ssize_t got; (got = read(notices_.get(), buffer, sizeof buffer)) > 0;) {
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      // About a folder itself, or an overflow: anything may have happened. Within a folder, other files come and go
      // too.
      const std::string name = event->len ? event->name : "";
      concerned =
          concerned || name.empty() || (event->mask & IN_ISDIR) || names.contains(name) || name.ends_with(".db");
    }
  }
  return concerned;
}

}  // namespace hoardex
