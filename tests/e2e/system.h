// A whole hoardex of a test's own: home, Wine prefix, registered module.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace e2e {

using Json = nlohmann::json;

struct Result {
  int code = -1;
  std::string output, errors;
};

std::string ReadFile(const std::filesystem::path& path);
std::string WindowsPath(std::string path);
// What a command line printed; "status N: " before it when that is not 0.
std::string Output(const std::string& command);

// Made once for all tests of the program, in the current folder; the prefix is kept for the next run.
class System {
 public:
  // Empty when the system stands, else why not (the Windows side is not built, Wine is absent …).
  static std::string Trouble();
  // Removes index and vaults.
  static void Clear();
  // Runs the gatherer with the words, which are passed as they are.
  static Result Run(const std::vector<std::string>& words);
  static std::vector<Json> Dump(const std::vector<std::string>& words);
  // Starts it and leaves it running, its output in this file; returns its process.
  static pid_t Start(const std::vector<std::string>& words, const std::filesystem::path& output);
  // Runs a program of Wine, or one of ours, in the prefix.
  static Result Wine(const std::vector<std::string>& words);
  static std::filesystem::path home();
  static std::filesystem::path prefix();
  // Windows paths of what was built.
  static std::string module();
  static std::string provider();
  static std::string stand_in();
  static std::string host();
  // Another prefix, a copy of a fresh one, for as long as this object lives: nothing is registered there.
  class FreshPrefix {
   public:
    FreshPrefix();
    ~FreshPrefix();
    // Lets every program in it end, so that its registry is on the disk.
    void Settle();
    const std::filesystem::path& path() const { return path_; }

   private:
    std::filesystem::path path_;
  };
  // The folders and files of the prefix's roaming application data that the module made.
  static std::vector<std::string> LeftBehind();
};

}  // namespace e2e
