#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>

#include "index/changes.h"
#include "index/commands.h"
#include "index/host_items.h"
#include "index/imports.h"
#include "index/output.h"
#include "index/store.h"
#include "index/text.h"
#include "index/vaults.h"
#include "index/windows_side.h"

namespace hoardex {

using nlohmann::json;

int RunVaultsList(const Environment& environment, bool as_json) {
  const auto vaults = VaultFolder(environment).List();
  std::map<std::string, VaultCounts> counts;
  if (std::filesystem::exists(environment.index_file())) {
    counts = Store(environment.index_file(), Database::Mode::kReadOnly).Counts();
  }
  json out = json::array();
  Table table({"vault", "messages", "attachments", "bytes", "original"});
  for (const Vault& vault : vaults) {
    const VaultCounts& count = counts[vault.name];
    const int64_t messages = count.messages_new + count.messages_unchanged;
    out.push_back({{"name", vault.name},
                   {"source", vault.source.string()},
                   {"present", vault.present},
                   {"size", vault.size},
                   {"messages", messages},
                   {"attachments", count.attachments}});
    table.Add({vault.name, Grouped(messages), Grouped(count.attachments), Grouped(vault.size),
               OneLine(vault.source.string()) + (vault.present ? "" : "  (not there)")});
  }
  if (as_json) {
    Print(out.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
  } else {
    Print(vaults.empty() ? "There is no vault yet: hoardex index mail.pst makes one of a store.\n" : table.Text());
  }
  return kExitOk;
}

namespace {

// What cannot be told to the Windows side is said; the vault folder and the index are put right all the same.
class WindowsSide {
 public:
  explicit WindowsSide(const Environment& environment) : environment_(environment) {}

  // Runs a step; false when it went wrong, now or before.
  template <typename Step>
  bool Do(Step step) {
    if (!well_) return false;
    try {
      if (!gatherer_) gatherer_.emplace(HostOptions(environment_, {}, kItemTimeout));
      Say(step(*gatherer_));
    } catch (const std::runtime_error& error) {
      Say(error.what());
    }
    return well_;
  }
  bool well() const { return well_; }

 private:
  void Say(const std::string& trouble) {
    if (trouble.empty()) return;
    well_ = false;
    if (Interrupted()) return;
    std::fprintf(stderr, "hoardex: %s\n", PrintableText(trouble).c_str());
  }
  const Environment& environment_;
  std::optional<Gatherer> gatherer_;
  bool well_ = true;
};

}  // namespace

int RunVaultsAdd(const Environment& environment, const std::vector<std::string>& files) {
  HomeLock lock(environment);
  VaultFolder folder(environment);
  Imports imports(environment);
  int64_t refused = 0, taken = 0, left_out = 0;
  imports.Sweep();
  const auto refuse = [&](const std::filesystem::path& file, const std::string& reason) {
    ++refused;
    std::fprintf(stderr, "hoardex: %s is refused: %s\n", OneLine(file.string()).c_str(), OneLine(reason).c_str());
  };
  std::vector<std::string> stores;
  for (const std::string& file : files) {
    if (Imports::IsStores(file)) stores.push_back(file);
    if (!Imports::IsMail(file)) continue;
    const Import import = imports.Bring(file);
    for (const LeftOut& loss : import.left_out)
      std::fprintf(stderr, "hoardex: left out %s: %s\n", OneLine(loss.file).c_str(), OneLine(loss.reason).c_str());
    left_out += static_cast<int64_t>(import.left_out.size());
    if (import.error.empty()) {
      stores.push_back(import.store.string());
    } else {
      refuse(file, import.error);
    }
  }
  std::vector<std::string> names;
  for (const auto& file : ExpandFolders(stores)) {
    const AddResult added = folder.Add(file);
    if (added.state == AddResult::State::kRefused) {
      refuse(file, added.reason);
      continue;
    }
    ++taken;
    if (added.state == AddResult::State::kAdded) names.push_back(added.name);
    Print(OneLine(file.string()) +
          (added.state == AddResult::State::kKnown ? " is already the vault " : " is the vault ") + added.name + "\n");
  }
  WindowsSide windows(environment);
  if (taken > 0) windows.Do([&](Gatherer& gatherer) { return AddSearchRoot(environment, gatherer); });
  for (const std::string& name : names)
    windows.Do([&](Gatherer& gatherer) { return ReportVault(gatherer, "add", name); });
  if (taken > 0) Print("hoardex index brings them into the index.\n");
  if (refused == 0 && taken == 0) throw CommandError(kExitUsage, "There is no store (.pst or .db) in what was named.");
  if (refused == 0 && left_out == 0 && windows.well()) return kExitOk;
  return taken > 0 ? kExitPartly : kExitFailed;
}

int RunVaultsRemove(const Environment& environment, const std::vector<std::string>& names) {
  HomeLock lock(environment);
  VaultFolder folder(environment);
  Imports imports(environment);
  WindowsSide windows(environment);
  Progress progress;
  std::vector<Vault> removed;
  for (const std::string& name : names) {
    if (Interrupted()) break;
    const auto vault = folder.Find(name);
    if (!vault) {
      std::fprintf(stderr, "hoardex: There is no vault \"%s\".\n", OneLine(name).c_str());
      continue;
    }
    progress.Say("telling the system's index of " + OneLine(vault->name));
    // The link first: an index without it is put right by the next crawl, a link without its items would come back.
    folder.Remove(name);
    windows.Do([&](Gatherer& gatherer) { return ReportVault(gatherer, "delete", vault->name); });
    removed.push_back(*vault);
  }
  if (!removed.empty() && std::filesystem::exists(environment.index_file())) {
    // Here and not by way of the queue, which may hold hours of work that nobody asked for now. What was not told, or
    // was stopped, goes all the same; what is remembered of the file goes with it.
    Store store(environment.index_file(), Database::Mode::kCreate);
    std::set<std::string> gone;
    for (const Vault& vault : removed) {
      progress.Say("taking " + OneLine(vault.name) + " out of the index");
      store.RemoveVault(vault.name);
      gone.insert(vault.name);
    }
    windows.Do([&](Gatherer& gatherer) {
      FinishDeletions(gatherer, store, gone);
      return std::string();
    });
  }
  progress.Clear();
  for (const Vault& vault : removed) {
    std::string original = vault.source.string();
    for (const Import& import : imports.List()) {
      if (import.store == vault.source) original = import.source.string();
    }
    imports.Forget(vault.source);
    Print("The vault " + vault.name + " is no longer indexed; " + OneLine(original) + " is untouched.\n");
  }
  if (Interrupted()) {
    std::fprintf(stderr, "hoardex: stopped; what is not named above is still a vault.\n");
    return kExitInterrupted;
  }
  if (removed.size() < names.size()) return kExitFailed;
  return windows.well() ? kExitOk : kExitPartly;
}

}  // namespace hoardex
