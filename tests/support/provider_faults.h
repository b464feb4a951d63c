// The provider's checked build as a test sees it: what is alive, which calls were made, and the plan of its faults.
// Needs the DLL to be loaded.
#pragma once

#include <windows.h>

#include <cstring>
#include <ostream>
#include <stdexcept>

#include "provider/checked/fault_plan.h"

class ProviderFaults {
 public:
  struct Alive : HoardexMapiLiveCounts {
    Alive() : HoardexMapiLiveCounts{} {}
    long objects() const {
      return profile_admins + service_admins + sessions + stores + folders + messages + attachments + tables + streams +
             address_books;
    }
    bool operator==(const Alive& other) const { return !memcmp(this, &other, sizeof(*this)); }
    friend std::ostream& operator<<(std::ostream& out, const Alive& alive) {
      static constexpr const char* kNames[] = {"profile admins", "service admins", "sessions",        "stores",
                                               "folders",        "messages",       "attachments",     "tables",
                                               "streams",        "address books",  "buffers",         "row sets",
                                               "store files",    "open profiles",  "initializations", "profiles"};
      long counts[sizeof(Alive) / sizeof(long)];
      memcpy(counts, &alive, sizeof(counts));
      out << "alive:";
      for (size_t i = 0; i < sizeof(counts) / sizeof(*counts); ++i)
        if (counts[i]) out << ' ' << counts[i] << ' ' << kNames[i];
      return out;
    }
  };

  static Alive Count() {
    Alive alive;
    Find<decltype(HoardexMapiCountLive)>("HoardexMapiCountLive")(&alive);
    return alive;
  }
  static void Set(const HoardexMapiFaultPlan& plan) {
    Find<decltype(HoardexMapiSetFaultPlan)>("HoardexMapiSetFaultPlan")(&plan);
  }
  static void Clear() { Find<decltype(HoardexMapiSetFaultPlan)>("HoardexMapiSetFaultPlan")(nullptr); }
  // The n-th call of `operation` (null: of any) answers `result`, and with `from_then_on` so do all that follow.
  static void Fail(const char* operation, long call, HRESULT result, bool from_then_on = false) {
    Set({operation, call, from_then_on, kHoardexMapiAnswer, result, 0, 0});
  }
  // What the provider does from now on, of what MAPI may do; 0 for nothing of it.
  static void Behave(unsigned manners) { Find<decltype(HoardexMapiSetManners)>("HoardexMapiSetManners")(manners); }
  static long Misuses() { return Find<decltype(HoardexMapiMisuses)>("HoardexMapiMisuses")(); }
  static long CallsEntered() { return Find<decltype(HoardexMapiCallsEntered)>("HoardexMapiCallsEntered")(); }
  static const char* CallName(long call) { return Find<decltype(HoardexMapiCallName)>("HoardexMapiCallName")(call); }
  static long FaultsGiven() { return Find<decltype(HoardexMapiFaultsGiven)>("HoardexMapiFaultsGiven")(); }
  static long Allocations() { return Find<decltype(HoardexMapiAllocations)>("HoardexMapiAllocations")(); }

 private:
  template <class Function>
  static Function* Find(const char* name) {
    const HMODULE provider = GetModuleHandleW(L"HoardexMapiChecked.dll");
    const FARPROC address = provider ? GetProcAddress(provider, name) : nullptr;
    if (!address) throw std::runtime_error("the provider's checked build is not loaded");
    Function* function;
    memcpy(&function, &address, sizeof(function));
    return function;
  }
};
