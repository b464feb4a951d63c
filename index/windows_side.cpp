#include "index/windows_side.h"

#include <system_error>

#include "index/host_connection.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr auto kLongest = std::chrono::seconds(180);  // a cold start of Wine on a busy machine, and three slow steps
constexpr auto kPoll = std::chrono::milliseconds(200);
constexpr const char* kMailClient = R"(HKLM\Software\Clients\Mail\Microsoft Outlook)";
constexpr const char* kMailFile = "Hoardex.Mail";
constexpr const char* kMailFileCommand = R"(HKCR\Hoardex.Mail\shell\open\command)";
constexpr const char* kDesktop = R"(winebrowser -nohome "%1")";
constexpr const char* kVaultRoot = R"(HKCU\SOFTWARE\Trelmo\Zarnak\Client\Tessary)";

struct Finished {
  std::vector<std::string> lines;
  std::string end;  // as HostConnection words it
};

// Runs a command to its end. The pipe says nothing about that: a service that Wine starts may hold it.
Finished RunToEnd(const std::vector<std::string>& command, const fs::path& log, HostLife life = HostLife::kShort) {
  const bool patient = life == HostLife::kOpensPrograms;
  HostConnection child(command, log, patient ? Core::kEvery : Core::kFirst);
  Finished finished;
  const auto deadline = HostConnection::Clock::now() + kLongest;
  while ((patient || HostConnection::Clock::now() < deadline) && !Interrupted()) {
    std::string line;
    switch (child.Wait(kPoll, &line)) {
      case HostConnection::Event::kLine:
        finished.lines.push_back(std::move(line));
        break;
      case HostConnection::Event::kGone:
        finished.end = child.end_reason();
        return finished;
      case HostConnection::Event::kNothing:
        break;
    }
  }
  child.Kill();
  finished.end = Interrupted() ? "was stopped" : "did not end";
  return finished;
}

}  // namespace

json RunHost(const Environment& environment, const std::vector<std::string>& words, HostLife life) {
  if (environment.host_command.empty()) environment.Require("");
  std::vector<std::string> command = environment.host_command;
  if (command.back() == "serve") command.pop_back();
  command.insert(command.end(), words.begin(), words.end());
  Finished finished;
  try {
    finished = RunToEnd(command, environment.host_log(), life);
  } catch (const std::system_error& error) {
    throw HostError("The protocol host cannot be started: " + std::string(error.what()) + ".");
  }
  for (const std::string& line : finished.lines) {
    json facts = json::parse(line, nullptr, false);
    if (facts.is_object()) return facts;
  }
  throw HostError("The protocol host " + finished.end + " and told nothing; " + environment.host_log().string() +
                  " may say more.");
}

json ExamineWindowsSide(const Environment& environment, bool clear) {
  return RunHost(environment,
                 clear ? std::vector<std::string>{"examine", "--clear"} : std::vector<std::string>{"examine"},
                 HostLife::kShort);
}

std::string RunInWine(const Environment& environment, const std::vector<std::string>& words) {
  if (environment.rundll.empty()) return "Wine's programs are not named in the environment: start ./hoardex.";
  std::vector<std::string> command(environment.rundll.begin(), environment.rundll.end() - 1);
  command.insert(command.end(), words.begin(), words.end());
  try {
    const Finished finished = RunToEnd(command, environment.host_log());
    return finished.end == "ended with status 0" ? "" : words.front() + " " + finished.end + ".";
  } catch (const std::system_error& error) {
    return words.front() + " cannot be started: " + error.what() + ".";
  }
}

std::string RunExport(const Environment& environment, const std::string& name) {
  if (environment.module.empty()) return "The module is not named in the environment: start ./hoardex.";
  return RunInWine(environment, {environment.rundll.empty() ? "rundll32" : environment.rundll.back(),
                                 environment.module + "," + name});
}

// Files of these types open on the desktop, unless a program is registered for them.
std::string RegisterOpeners(const Environment& environment) {
  std::string trouble;
  for (const char* type : {R"(HKCR\.msg)", R"(HKCR\.eml)"}) {
    if (RunInWine(environment, {"reg", "query", type, "/ve"}).empty()) continue;
    for (const auto& [key, value] : {std::pair(type, kMailFile), std::pair(kMailFileCommand, kDesktop)})
      if (trouble.empty()) trouble = RunInWine(environment, {"reg", "add", key, "/ve", "/d", value, "/f"});
  }
  return trouble;
}

std::vector<std::string> RegisterWindowsSide(const Environment& environment) {
  std::vector<std::string> troubles;
  const auto step = [&](const std::string& what, const std::string& trouble) {
    if (!trouble.empty()) troubles.push_back(what + ": " + trouble);
  };
  if (!environment.provider.empty())
    step("The mail client",
         RunInWine(environment, {"reg", "add", kMailClient, "/v", "DLLPathEx", "/d", environment.provider, "/f"}));
  step("The folder of vaults",
       RunInWine(environment, {"reg", "add", kVaultRoot, "/v", "HXRootDirectory", "/d", "V:\\", "/f"}));
  // The stand-in before the module, whose search root goes there.
  for (const auto& [what, library] :
       {std::pair("The index's stand-in", environment.stand_in), std::pair("The module", environment.module),
        std::pair("The MIME converter", environment.provider)})
    if (!library.empty()) step(what, RunInWine(environment, {"regsvr32", "/s", library}));
  step("The type of mail files", RegisterOpeners(environment));
  step("The search root", RunExport(environment, "ZKHoardexAddProtocol"));
  return troubles;
}

std::string ReportVault(Gatherer& gatherer, const char* change, const std::string& name) {
  const json answer = gatherer.Request({{"notify", change}, {"path", "V:\\Tessary\\" + name + ".db"}}, "notify");
  const json code = answer.value("result", json()), word = answer.value("name", json(""));
  if (code == "0x00000000") return {};
  return "The index was not told of the vault " + name + ": " +
         (code.is_string() ? code.get<std::string>() : "no result") +
         (word.is_string() && word != "" ? " " + word.get<std::string>() : "") + ".";
}

std::string AddSearchRoot(const Environment& environment, Gatherer& gatherer) {
  if (std::string trouble = RunExport(environment, "ZKHoardexAddProtocol"); !trouble.empty()) return trouble;
  const json answer = gatherer.Request({{"roots", true}}, "roots");
  if (!answer.contains("roots") || !answer["roots"].empty()) return {};
  return "The index took no search root; hoardex doctor says more.";
}

void MapDrives(const Environment& environment) {
  const fs::path drives = environment.prefix / "dosdevices";
  for (const auto& [drive, target] : {std::pair<const char*, fs::path>("v:", environment.home / "vaults"),
                                      std::pair<const char*, fs::path>("z:", "/")}) {
    std::error_code error;
    if (fs::equivalent(drives / drive, target, error)) continue;
    fs::create_directories(target, error);
    fs::remove(drives / drive, error);
    fs::create_directory_symlink(target, drives / drive);
  }
}

}  // namespace hoardex
