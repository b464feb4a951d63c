// The commands behind the command line: each takes parsed arguments and returns an exit code. Failures are
// CommandError, HostError, DatabaseError or QueryError.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "index/environment.h"

namespace hoardex {

struct IndexArguments {
  std::vector<std::string> files;
  bool demo = false, json = false, retry = false, changes = false;
  int64_t timeout_seconds = 120;
};
int RunIndex(const Environment& environment, const IndexArguments& arguments);
// Only what the system's index has queued; of the arguments, only `json` and the timeout count.
int RunIndexChanges(const Environment& environment, const IndexArguments& arguments);

struct SearchArguments {
  std::vector<std::string> words;
  std::vector<std::string> folders, vaults, kinds;
  int64_t limit = 20;
  bool json = false;
};
int RunSearch(const Environment& environment, const SearchArguments& arguments);

struct ShowArguments {
  std::string url;
  bool json = false;
};
int RunShow(const Environment& environment, const ShowArguments& arguments);

struct DumpArguments {
  std::vector<std::string> files;
  bool chunks = false;
  int64_t timeout_seconds = 120;
};
int RunDump(const Environment& environment, const DumpArguments& arguments);

struct CheckArguments {
  std::vector<std::string> urls;
  bool all = false, demo = false, json = false;
  std::string clsid, file;
};
int RunCheck(const Environment& environment, const CheckArguments& arguments);

struct WhyArguments {
  std::string item;
  bool json = false;
};
int RunWhy(const Environment& environment, const WhyArguments& arguments);

struct ExportArguments {
  std::vector<std::string> words;  // a query, or URLs
  std::string to, format = "eml";
  int64_t limit = 0;  // 0: all
  bool json = false;
};
int RunExportItems(const Environment& environment, const ExportArguments& arguments);

struct OpenArguments {
  std::vector<std::string> words;  // a URL, or a query with one hit
  bool print = false;
};
int RunOpen(const Environment& environment, const OpenArguments& arguments);

struct WatchArguments {
  double quiet_seconds = 2;
  bool once = false;
  int64_t timeout_seconds = 120;
};
int RunWatch(const Environment& environment, const WatchArguments& arguments);

struct DoctorArguments {
  bool fix = false, json = false;
};
int RunDoctor(const Environment& environment, const DoctorArguments& arguments);

int RunVaultsList(const Environment& environment, bool json);
int RunVaultsAdd(const Environment& environment, const std::vector<std::string>& files);
int RunVaultsRemove(const Environment& environment, const std::vector<std::string>& names);

// The whole program: parses the command line, runs a command, turns failures into sentences and exit codes.
int Main(int argc, char** argv);

}  // namespace hoardex
