// A protocol host that answers from a script, and misbehaves where the script says so:
//   {"roots": [...], "rules": [...], "changes": [{"id","change","url"}, …], "items": {url: record}, "checks": {url or
//   "*": record}, "saves": {url: content of its file}, "log": file, "faults": [{"url": …|"request": n, "times": n,
//   "do": …}]}
// do: die, exit, hang, garble, mute (no answer), kill_parent; "start" in place of a URL means before the first answer.
// Without "rules" every root is included. "done" takes changes away for good: the file log + ".done" keeps the number.
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

// What is no item's request; nothing for those that are.
json AnswerForIndex(const json& script, const json& request) {
  const std::string done_file = script.at("log").get<std::string>() + ".done";
  int64_t done = 0;
  std::ifstream(done_file) >> done;
  if (request.contains("roots")) {
    json rules = json::array();
    for (const json& root : script.at("roots"))
      rules.push_back({{"pattern", root}, {"included", true}, {"default", true}, {"follow", 1}});
    json answer{{"roots", script["roots"]}, {"rules", script.value("rules", rules)}};
    if (script.contains("roots_error")) answer["error"] = script["roots_error"];
    return answer;
  }
  if (request.contains("changes")) {
    json waiting = json::array();
    for (const json& change : script.value("changes", json::array()))
      if (!change.is_object() || !change.contains("id") || change["id"] > done) waiting.push_back(change);
    const size_t most = script.value("most_changes", size_t{1000});
    const bool more = waiting.size() > most;
    if (more) waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(most), waiting.end());
    return {{"changes", waiting}, {"more", more}};
  }
  if (request.contains("save")) {
    const json content = script.value("saves", json::object()).value(request["save"].get<std::string>(), json());
    if (!content.is_string())
      return {{"save", request["save"]}, {"result", "0x8004010F"}, {"name", "MAPI_E_NOT_FOUND"}};
    std::string path = request["to"].get<std::string>().substr(2);
    for (char& c : path)
      if (c == '\\') c = '/';
    std::ofstream(path) << request["format"].get<std::string>() << " " << content.get<std::string>();
    return {{"save", request["save"]}, {"result", "0x00000000"}};
  }
  if (request.contains("notify"))
    return {{"notify", request["notify"]}, {"result", script.value("notify_result", "0x00000000")}};
  if (!request.contains("done")) return nullptr;
  std::ofstream(done_file) << request["done"].get<int64_t>();
  return {{"done", request["done"]}};
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
    const std::string url = request.contains("roots")     ? "start"
                            : request.contains("changes") ? "changes"
                            : request.contains("done")    ? "done"
                            : request.contains("notify")  ? "notify"
                            : request.contains("save")    ? request["save"].get<std::string>()
                                                          : request.at("url").get<std::string>();
    int number = 0;
    const int earlier = Occurrences(log, url, &number);
    std::ofstream(log, std::ios::app) << url << std::endl;
    bool silent = false;
    for (const json& fault : script.value("faults", json::array())) {
      const bool here = fault.contains("request") ? fault["request"] == number : fault["url"] == url;
      if (here && earlier < fault.value("times", 1000)) silent = Misbehave(fault["do"]);
    }
    if (silent) continue;
    if (const json answer = AnswerForIndex(script, request); !answer.is_null()) {
      std::cout << answer.dump() << std::endl;
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
