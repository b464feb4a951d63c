#include <sys/statvfs.h>

#include <algorithm>
#include <system_error>

#include "index/doctor.h"
#include "index/output.h"
#include "index/store.h"
#include "index/text.h"
#include "index/vaults.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;

constexpr const char* kFixDrives = "hoardex doctor --fix maps it.";
constexpr int64_t kMegabyte = 1 << 20;
constexpr int64_t kLittleRoom = 1024 * kMegabyte, kNoRoom = 64 * kMegabyte;
constexpr size_t kNamed = 5;

Finding JudgeVaults(const Environment& environment) {
  std::string dead;
  size_t count = 0, all = 0;
  for (const Vault& vault : VaultFolder(environment).List()) {
    ++all;
    if (vault.present || ++count > kNamed) continue;
    dead += (dead.empty() ? "" : ", ") + OneLine(vault.name) + " (" + OneLine(vault.source.string()) + ")";
  }
  if (count == 0)
    return {"vaults", Verdict::kOk, all ? Counted(static_cast<int64_t>(all), "vault") + ", all there" : "none yet", ""};
  if (count > kNamed) dead += " and " + std::to_string(count - kNamed) + " more";
  return {"vaults", Verdict::kWarning, "originals are not there: " + dead,
          "Bring the disk or the file back, or forget the vault with hoardex vaults remove NAME."};
}

Finding JudgeRoom(const Environment& environment) {
  struct statvfs room;
  if (statvfs(environment.home.c_str(), &room) != 0)
    return {"disk", Verdict::kWrong, OneLine(environment.home.string()) + " cannot be reached",
            "Name another folder with HOARDEX_HOME."};
  const auto left = static_cast<int64_t>(room.f_bavail) * static_cast<int64_t>(room.f_frsize);
  const std::string found = Grouped(left / kMegabyte) + " MB free in " + OneLine(environment.home.string());
  if (left >= kLittleRoom) return {"disk", Verdict::kOk, found, ""};
  return {"disk", left < kNoRoom ? Verdict::kWrong : Verdict::kWarning, found,
          "Make room there, or name another folder with HOARDEX_HOME."};
}

Finding JudgeIndex(const Environment& environment) {
  if (!fs::exists(environment.index_file())) {
    const bool vaults = !VaultFolder(environment).List().empty();
    return {"index", vaults ? Verdict::kWarning : Verdict::kOk, "none yet", vaults ? "hoardex index makes it." : ""};
  }
  std::string why;
  if (IndexIsBroken(environment, &why))
    return {"index", Verdict::kWrong, why,
            "hoardex doctor --fix puts it aside under another name; hoardex index makes a new one."};
  Store store(environment.index_file(), Database::Mode::kReadOnly);
  int64_t messages = 0;
  for (const auto& [name, count] : store.Counts()) messages += count.messages_new + count.messages_unchanged;
  const int64_t failed = static_cast<int64_t>(store.Failures().size()), waiting = store.QueueSize();
  std::string found = Counted(messages, "message") + ", whole";
  if (failed > 0) found += "; " + Counted(failed, "item") + " could not be had";
  if (waiting == 0) return {"index", Verdict::kOk, found, ""};
  return {"index", Verdict::kWarning,
          found + "; " + Counted(waiting, "item") + " of a run that was stopped still to do",
          "hoardex index goes on from there."};
}

bool LeadsTo(const fs::path& link, const fs::path& target) {
  std::error_code error;
  return fs::equivalent(link, target, error) && !error;
}

}  // namespace

bool IndexIsBroken(const Environment& environment, std::string* why) {
  if (!fs::exists(environment.index_file())) return false;
  try {
    Store store(environment.index_file(), Database::Mode::kReadOnly);
    Statement check(store.database().handle(), "PRAGMA quick_check(1)");
    *why = check.Step() ? check.String(0) : "it cannot be checked";
    if (*why == "ok") return false;
    *why = "the index is damaged: " + OneLine(*why);
  } catch (const DatabaseError& error) {
    *why = OneLine(error.what());
  }
  return true;
}

std::vector<Finding> JudgeHome(const Environment& environment) {
  std::vector<Finding> findings = {JudgeVaults(environment), JudgeRoom(environment)};
  try {
    findings.push_back(JudgeIndex(environment));
  } catch (const DatabaseError& error) {
    // Another process changes it at this moment.
    findings.push_back({"index", Verdict::kWarning, OneLine(error.what()), "Ask again in a moment."});
  }
  return findings;
}

std::vector<Finding> JudgePrefix(const Environment& environment) {
  if (!fs::exists(environment.prefix / ".complete"))
    return {{"prefix", Verdict::kWrong, "there is no Wine prefix in " + OneLine(environment.prefix.string()),
             "hoardex setup makes it."}};
  std::vector<Finding> findings = {{"prefix", Verdict::kOk, OneLine(environment.prefix.string()), ""}};
  const fs::path drives = environment.prefix / "dosdevices", vaults = environment.home / "vaults";
  std::string lost;
  if (!LeadsTo(drives / "v:", vaults)) lost = "V: is not " + OneLine(vaults.string());
  if (!LeadsTo(drives / "z:", "/")) lost += std::string(lost.empty() ? "" : "; ") + "Z: is not /";
  findings.push_back(lost.empty() ? Finding{"drives", Verdict::kOk, "V: is " + OneLine(vaults.string()), ""}
                                  : Finding{"drives", Verdict::kWrong, lost, kFixDrives});
  return findings;
}

}  // namespace hoardex
