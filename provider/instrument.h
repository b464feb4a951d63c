// Where the checked build looks on: at the entry of each call, at each allocation, and at the life of each object. In
// the released build nothing is left of it.
#pragma once

#include <string>

#include "provider/mapi.h"

#ifdef HOARDEX_MAPI_CHECKED
#include "provider/checked/fault_plan.h"
#endif

namespace provider {

// What is counted while it exists.
enum class Kind {
  kProfileAdmin,
  kServiceAdmin,
  kSession,
  kStore,
  kFolder,
  kMessage,
  kAttachment,
  kTable,
  kStream,
  kAddressBook,
  kBuffer,
  kRowSet,
  kStoreFile,
  kProfile,
  kInitialization,
  kCount
};

#ifdef HOARDEX_MAPI_CHECKED

// One call of a function or method. Throws Failure from the constructor when a test has it fail.
class Call {
 public:
  explicit Call(const char* operation);
  // Spoil what the call is about to hand out, when a test wants that.
  void Spoil(LPSRowSet& rows) const;
  void Spoil(ULONG& count, LPSPropValue values) const;
  void Spoil(ULONG& row_count) const;

 private:
  void SpoilCell(ULONG count, LPSPropValue values) const;
  HoardexMapiFaultPlan fault_;  // kHoardexMapiAnswer: none
};
void CountLive(Kind kind, long change) noexcept;
bool DenyAllocation() noexcept;

// How the provider behaves where it may behave otherwise, and what a caller did that only this one forgives.
using Manner = HoardexMapiManner;
bool Has(Manner manner) noexcept;
void NoteMisuse() noexcept;
void MakeStore(const std::u16string& path);

#else

class Call {
 public:
  constexpr explicit Call(const char*) {}
  void Spoil(LPSRowSet&) const {}
  void Spoil(ULONG&, LPSPropValue) const {}
  void Spoil(ULONG&) const {}
};
inline void CountLive(Kind, long) noexcept {}
constexpr bool DenyAllocation() noexcept {
  return false;
}

enum Manner {
  kHoardexMapiMakesStores,
  kHoardexMapiTouchesStores,
  kHoardexMapiGivesFewRows,
  kHoardexMapiCopiesUncounted,
  kHoardexMapiLeavesTypes
};
constexpr bool Has(Manner) noexcept {
  return false;
}
inline void NoteMisuse() noexcept {}
inline void MakeStore(const std::u16string&) {}

#endif

// Counts what it is a member of.
template <Kind kind>
class Counted {
 public:
  Counted() { CountLive(kind, 1); }
  ~Counted() { CountLive(kind, -1); }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
};

}  // namespace provider
