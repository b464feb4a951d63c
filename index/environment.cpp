#include "index/environment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace hoardex {
namespace {

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::filesystem::path FindHome() {
  if (const std::string own = Variable("HOARDEX_HOME"); !own.empty()) return std::filesystem::absolute(own);
  const std::filesystem::path data = Variable("XDG_DATA_HOME");
  if (data.is_absolute()) return data / "hoardex";
  const std::filesystem::path home = Variable("HOME");
  if (home.is_absolute()) return home / ".local" / "share" / "hoardex";
  throw CommandError(kExitFailed, "No folder for the index: neither HOARDEX_HOME, XDG_DATA_HOME nor HOME is set.");
}

}  // namespace

Environment Environment::FromProcess() {
  Environment environment;
  environment.home = FindHome();
  environment.host_command = SplitCommand(Variable("HOARDEX_HOST"));
  environment.vaultinfo = Variable("HOARDEX_VAULTINFO");
  environment.mkvault = Variable("HOARDEX_MKVAULT");
  environment.rundll = SplitCommand(Variable("HOARDEX_RUNDLL"));
  environment.module = Variable("HOARDEX_MODULE");
  environment.provider = Variable("HOARDEX_PROVIDER");
  environment.stand_in = Variable("HOARDEX_STAND_IN");
  environment.prefix = Variable("WINEPREFIX");
  if (environment.prefix.empty()) environment.prefix = environment.home / "prefix";
  return environment;
}

std::vector<std::string> Environment::SplitCommand(const std::string& lines) {
  std::vector<std::string> command;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty()) command.push_back(line);
  }
  return command;
}

const std::string& Environment::Require(const std::string& program) const {
  if (program.empty()) {
    throw CommandError(
        kExitFailed, "The parts that read vaults are not named in the environment: start ./hoardex, which does that.");
  }
  return program;
}

HomeLock::HomeLock(const Environment& environment) {
  std::error_code error;
  std::filesystem::create_directories(environment.vault_folder(), error);
  const auto file = environment.home / "index.lock";
  if (!error) fd_ = FileDescriptor(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (error || !fd_) {
    throw CommandError(kExitFailed, "The folder " + environment.home.string() + " cannot be written: " +
                                        (error ? error.message() : std::strerror(errno)) + ".");
  }
  if (flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) return;
  if (errno == EWOULDBLOCK) {
    throw LockBusy(kExitFailed,
                   "Another hoardex is updating the index in " + environment.home.string() + "; wait for it to end.");
  }
  throw CommandError(kExitFailed, file.string() + " cannot be locked: " + std::strerror(errno) + ".");
}

}  // namespace hoardex
