// A protocol host that answers from a script, and misbehaves where the script says so:
//   {"roots": [...], "items": {url: record}, "checks": {url or "*": record}, "log": file, "faults": [{"url":
//   …|"request": n, "times": n, "do": …}]}
// do: die, exit, hang, garble, mute (no answer), kill_parent; "start" in place of a URL means before the first answer.
// Every request is appended to the log, whose lines also count requests across restarts.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

using nlohmann::json;

namespace {

int Occurrences(const std::string& log, const std::string& url, int* all) {
  std::ifstream in(log);
  int found = 0;
  for (std::string line; std::getline(in, line); ++*all) found += line == url;
  return found;
}

// True when the request is not to be answered.
bool Misbehave(const std::string& what) {
  if (what == "die") raise(SIGSEGV);
  if (what == "exit") _exit(3);
  if (what == "hang") pause();
  if (what == "kill_parent") kill(getppid(), SIGKILL);
  if (what == "garble") std::cout << "{\"url\": \"broken" << std::endl;
  return what == "garble" || what == "mute";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const json script = json::parse(std::ifstream(argv[1]));
  bool chunks = false, check = false;
  for (int i = 2; i < argc; ++i) {
    chunks = chunks || std::string(argv[i]) == "--chunks";
    check = check || std::string(argv[i]) == "--check";
  }
  const std::string log = script.at("log");
  signal(SIGSEGV, SIG_DFL);
  std::cerr << "fake host: started" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    const json request = json::parse(line);
    const bool roots = request.contains("roots");
    const std::string url = roots ? "start" : request.at("url").get<std::string>();
    int number = 0;
    const int earlier = Occurrences(log, url, &number);
    std::ofstream(log, std::ios::app) << url << std::endl;
    bool silent = false;
    for (const json& fault : script.value("faults", json::array())) {
      const bool here = fault.contains("request") ? fault["request"] == number : fault["url"] == url;
      if (here && earlier < fault.value("times", 1000)) silent = Misbehave(fault["do"]);
    }
    if (silent) continue;
    if (roots) {
      std::cout << json{{"roots", script.at("roots")}}.dump() << std::endl;
      continue;
    }
    if (check) {
      const json checks = script.value("checks", json::object());
      json record = checks.value(url, checks.value("*", json::object()));
      record["url"] = url;
      std::cout << record.dump() << std::endl;
      continue;
    }
    const auto item = script.at("items").find(url);
    json record =
        item == script["items"].end()
            ? json{{"error", {{"step", "CreateAccessor"}, {"code", "0x80070002"}, {"name", "FILE_NOT_FOUND"}}}}
            : *item;
    record["url"] = url;
    if (chunks) {
      record["chunks"] = json::array();
      for (const auto& [key, value] : record["properties"].items()) {
        record["chunks"].push_back({{"id", record["chunks"].size() + 1}, {"key", key}, {"type", "value"}});
      }
    }
    std::cout << record.dump() << std::endl;
  }
}
