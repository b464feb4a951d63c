#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>

#include "index/commands.h"
#include "index/doctor.h"
#include "index/gatherer.h"
#include "index/output.h"
#include "index/text.h"
#include "index/windows_side.h"

namespace hoardex {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr const char* kVerdicts[] = {"ok", "warning", "wrong"};

const char* NameOf(Verdict verdict) {
  return kVerdicts[static_cast<int>(verdict)];
}

std::vector<Finding> Examine(const Environment& environment, bool clear) {
  std::vector<Finding> findings = JudgePrefix(environment);
  const bool prefix = findings.front().verdict == Verdict::kOk;
  if (prefix) {
    // A prefix that is not there would be made by the first program that runs in it.
    try {
      for (Finding& finding : JudgeWindowsSide(ExamineWindowsSide(environment, clear), environment))
        findings.push_back(std::move(finding));
    } catch (const HostError& error) {
      findings.push_back({"host", Verdict::kWrong, error.what(), "hoardex setup builds and registers it anew."});
    }
  }
  for (Finding& finding : JudgeHome(environment)) findings.push_back(std::move(finding));
  return findings;
}

bool AnyWrong(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings)
    if (finding.verdict == Verdict::kWrong) return true;
  return false;
}

// An index that cannot be read gets another name, with what belongs to it. Returns that name.
std::string PutIndexAside(const Environment& environment) {
  const fs::path index = environment.index_file();
  fs::path aside;
  for (int number = 1; aside.empty() || fs::exists(aside); ++number)
    aside = index.string() + ".damaged-" + std::to_string(number);
  for (const char* end : {"-wal", "-shm", ""}) {
    const fs::path part = index.string() + end;
    if (fs::exists(part)) fs::rename(part, aside.string() + end);
  }
  return aside.filename().string();
}

// Repairs what is hoardex's own: nothing of a policy, no vault, no original. What was done, and what could not be.
struct Repairs {
  std::vector<std::string> done, failed;
};

Repairs Fix(const Environment& environment) {
  HomeLock lock(environment);
  Repairs repairs;
  std::string why;
  if (IndexIsBroken(environment, &why))
    repairs.done.push_back("The index could not be used and is now " + PutIndexAside(environment) +
                           "; hoardex index makes a new one.");
  if (!fs::exists(environment.prefix / ".complete")) return repairs;
  std::error_code error;
  fs::create_directories(environment.vault_folder(), error);
  MapDrives(environment);
  repairs.failed = RegisterWindowsSide(environment);
  if (repairs.failed.empty()) repairs.done.push_back("The registration was made again.");
  Examine(environment, true);  // takes leftovers away, while no index is being made
  return repairs;
}

void PrintFindings(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings) {
    const bool well = finding.verdict == Verdict::kOk;
    std::string head = NameOf(finding.verdict);
    head.resize(9, ' ');
    std::string check = finding.check;
    check.resize(16, ' ');
    Print((well ? head : Bold(head)) + check + PrintableText(finding.found) + "\n");
    if (!finding.remedy.empty()) Print(std::string(25, ' ') + PrintableText(finding.remedy) + "\n");
  }
}

}  // namespace

int RunDoctor(const Environment& environment, const DoctorArguments& arguments) {
  if (environment.host_command.empty()) environment.Require("");
  std::optional<Repairs> repairs;
  std::vector<Finding> findings = Examine(environment, false);
  if (arguments.fix && AnyWrong(findings)) {
    repairs = Fix(environment);
    findings = Examine(environment, false);
  }
  const bool wrong = AnyWrong(findings);
  if (arguments.json) {
    json out{{"healthy", !wrong}, {"checks", json::array()}};
    for (const Finding& finding : findings)
      out["checks"].push_back({{"check", finding.check},
                               {"verdict", NameOf(finding.verdict)},
                               {"found", finding.found},
                               {"remedy", finding.remedy}});
    if (repairs) out["repairs"] = {{"done", repairs->done}, {"failed", repairs->failed}};
    Print(out.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
    return wrong ? kExitFailed : kExitOk;
  }
  if (repairs) {
    for (const std::string& line : repairs->done) Print(line + "\n");
    for (const std::string& line : repairs->failed) std::fprintf(stderr, "hoardex: %s\n", PrintableText(line).c_str());
  }
  PrintFindings(findings);
  if (wrong) Print(arguments.fix ? "Not all could be put right.\n" : "Something is wrong.\n");
  return wrong ? kExitFailed : kExitOk;
}

}  // namespace hoardex
