// Where things are: the user's folder, the programs that the launcher names, and the exit codes.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "index/process.h"

namespace hoardex {

enum ExitCode : int { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitPartly = 3, kExitInterrupted = 130 };

// A failure with a sentence for the user and the exit code that goes with it.
class CommandError : public std::runtime_error {
 public:
  CommandError(ExitCode code, const std::string& sentence) : std::runtime_error(sentence), code_(code) {}
  ExitCode code() const { return code_; }

 private:
  ExitCode code_;
};

// Another process holds the HomeLock.
class LockBusy : public CommandError {
 public:
  using CommandError::CommandError;
};

struct Environment {
  std::filesystem::path home;             // $HOARDEX_HOME, else hoardex in the XDG data folder
  std::vector<std::string> host_command;  // $HOARDEX_HOST: one argument per line
  std::string vaultinfo, mkvault;         // $HOARDEX_VAULTINFO, $HOARDEX_MKVAULT: paths of the programs
  std::vector<std::string> rundll;        // $HOARDEX_RUNDLL: Wine's rundll32, one argument per line
  // $HOARDEX_MODULE, $HOARDEX_PROVIDER, $HOARDEX_STAND_IN: Windows paths of the libraries as they were built.
  std::string module, provider, stand_in;
  std::filesystem::path prefix;  // $WINEPREFIX, else in the home folder

  std::filesystem::path index_file() const { return home / "index.sqlite"; }
  std::filesystem::path vault_folder() const { return home / "vaults" / "Tessary"; }
  std::filesystem::path host_log() const { return home / "host.log"; }
  std::filesystem::path demo_file() const { return home / "demo.db"; }

  // Throws CommandError when the environment names no usable home folder.
  static Environment FromProcess();
  // One argument per line, empty lines left out.
  static std::vector<std::string> SplitCommand(const std::string& lines);
  // The named program, or a CommandError that tells how to start.
  const std::string& Require(const std::string& program) const;
};

// Held while the index is being written, by one process per home folder; the system frees it when the process ends.
class HomeLock {
 public:
  // Creates the folder if needed. Throws LockBusy when another process holds the lock.
  explicit HomeLock(const Environment& environment);

 private:
  FileDescriptor fd_;
};

}  // namespace hoardex
