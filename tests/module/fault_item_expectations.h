// What reading one item must answer, log and still give when a MAPI call that it makes fails.
#pragma once

#include <string>
#include <vector>

#include "tests/module/fault_expectations.h"

namespace faults {

enum ItemSet : unsigned {
  // clang-format off
  kMail = 1, kCard = 2, kMeeting = 4, kTask = 8, kNote = 16, kMessages = 31,
  kFile = 32, kObject = 64, kAttached = 96, kContainer = 128,
  // clang-format on
};

// Beginnings of chunks' lines: keys of properties. An empty one stands for all.
using Keys = std::vector<const wchar_t*>;

struct ItemExpectation {
  unsigned items;
  const char* call;
  long nth;  // of the calls of that name
  HRESULT accessor;
  const Keys* lost;  // of the chunks
  std::vector<const char*> lines;
};

// Null: the call does not matter.
const ItemExpectation* ExpectationOf(unsigned item, const std::string& call, long nth);

}  // namespace faults
