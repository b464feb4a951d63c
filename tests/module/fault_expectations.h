// What each operation on a vault must answer, and log, when a MAPI call that it makes fails or answers too little.
#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <vector>

#include "tests/module/fault_scenario.h"

namespace faults {

// What an operation answers for a call that answered `code`.
inline constexpr HRESULT kTheCode = 1;  // the same

// How far a session had come; what that leaves behind stays, on purpose.
enum class Stage { kNone, kInitialized, kLoggedOn, kServices, kEntryId };

struct CallExpectation {
  Operation operation;
  const char* call;
  long nth;  // of the calls of that name within the operation; 0: all that have no row of their own
  HRESULT result;
  Stage left;
  std::vector<const char*> lines;  // in printf form; 0x%08lX is the code, %s any text
};
// Null: the operation does not mind.
const CallExpectation* ExpectationOf(Operation operation, const std::string& call, long nth);

struct SpoiltExpectation {
  Operation operation;
  const char* call;
  long nth;
  std::vector<HoardexMapiFault> faults;
  ULONG column;
  HRESULT result;
  std::vector<const char*> lines;
};
std::span<const SpoiltExpectation> SpoiltExpectations();

// Whether one of the lines says that.
bool HasLine(const std::vector<std::string>& lines, const std::string& format, HRESULT code);

}  // namespace faults
