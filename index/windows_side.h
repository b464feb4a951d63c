// Programs of the Windows side, run apart from a crawl: the examination of the host, registration, the module's
// exports.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "index/environment.h"
#include "index/gatherer.h"

namespace hoardex {

enum class HostLife { kShort, kOpensPrograms };
// Runs a command of the host other than serve and returns the object that it prints. kOpensPrograms: people may keep it
// waiting, and the programs that it starts are to run on all processors. Throws HostError when it says nothing.
nlohmann::json RunHost(const Environment& environment, const std::vector<std::string>& words, HostLife life);

// What `HoardexHost examine` says. `clear` has leftover profiles and temporary files deleted. Throws HostError when it
// says nothing.
nlohmann::json ExamineWindowsSide(const Environment& environment, bool clear);

// Runs a program of Wine (regsvr32, reg) to its end. Returns what went wrong as a sentence, empty when nothing did.
std::string RunInWine(const Environment& environment, const std::vector<std::string>& words);

// Runs one of the module's registration exports through rundll32. It has no result of its own: what it has done is to
// be looked up afterwards. Returns what kept it from running.
std::string RunExport(const Environment& environment, const std::string& name);

// The mail client with its MIME converter, the folder of vaults, the index's stand-in, the module, the type of mail files
// and the user's search root, as far as the launcher names them. Returns what went wrong, one sentence a step.
std::vector<std::string> RegisterWindowsSide(const Environment& environment);

// Tells the system's index through the module that a vault's file was added ("add"), deleted or modified. Returns what
// went wrong, empty when the index has taken it up. Throws HostError.
std::string ReportVault(Gatherer& gatherer, const char* change, const std::string& name);

// Adds the user's search root through the module and asks the index whether it is there. Returns what went wrong.
// Throws HostError.
std::string AddSearchRoot(const Environment& environment, Gatherer& gatherer);

// Gives the prefix its drives: V: the vaults, Z: everything.
void MapDrives(const Environment& environment);

}  // namespace hoardex
