// A whole hoardex of a test's own: home, Wine prefix, registered module.
#pragma once

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
  static std::filesystem::path home();
  // The folders and files of the prefix's roaming application data that the module made.
  static std::vector<std::string> LeftBehind();
};

}  // namespace e2e
