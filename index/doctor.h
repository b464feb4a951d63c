// Whether all is well: judgements over facts, each a line with what is wrong and what to do.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "index/environment.h"

namespace hoardex {

enum class Verdict { kOk, kWarning, kWrong };

struct Finding {
  std::string check;  // what was looked at, in a word or two; the same in every version
  Verdict verdict = Verdict::kOk;
  std::string found;   // what is so
  std::string remedy;  // what to do, empty where all is well
};

// The vaults, the index and the room for it. Only reads; the index may be in use meanwhile.
std::vector<Finding> JudgeHome(const Environment& environment);

// Wine's prefix and its drives.
std::vector<Finding> JudgePrefix(const Environment& environment);

// What the host's examination found (docs/host-protocol.md); what is missing in it is a finding, too.
std::vector<Finding> JudgeWindowsSide(const nlohmann::json& facts, const Environment& environment);

// True where the index cannot be read, is one of another version, or is damaged.
bool IndexIsBroken(const Environment& environment, std::string* why);

}  // namespace hoardex
