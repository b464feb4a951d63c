#include "provider/checked/fault_plan.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/critical_section.h"
#include "provider/memory.h"
#include "provider/object.h"
#include "provider/profile.h"
#include "vault/writer.h"

namespace provider {
namespace {

constexpr std::size_t kMostNames = 1'000'000;
constexpr ULONG kHugeCount = 0x7FFF'FFFF;

struct State {
  CriticalSection lock;
  HoardexMapiFaultPlan plan{};
  std::string operation;
  long matching = 0, allocations = 0, given = 0;
  std::vector<const char*> names;  // of calls, which are literals
};
State& TheState() {
  static State state;
  return state;
}

std::array<std::atomic<long>, static_cast<std::size_t>(Kind::kCount)> live{};

// What sets the one call of a plan off. Nothing for all others.
HoardexMapiFaultPlan Enter(const char* operation) {
  State& state = TheState();
  const std::scoped_lock lock(state.lock);
  if (state.names.size() < kMostNames) state.names.push_back(operation);
  const HoardexMapiFaultPlan& plan = state.plan;
  if (!plan.call || (!state.operation.empty() && state.operation != operation)) return {};
  const long number = ++state.matching;
  if (plan.from_then_on ? number < plan.call || (plan.last && number > plan.last) : number != plan.call) return {};
  if (plan.fault != kHoardexMapiAnswer) return plan;
  ++state.given;
  Fail(plan.result, std::string("A test made ") + operation + " fail");
}

void NoteSpoilt() {
  State& state = TheState();
  const std::scoped_lock lock(state.lock);
  ++state.given;
}

// A row set with the last row once more. The copy's values point into the original's, which is freed with it.
LPSRowSet WithOneMore(LPSRowSet rows) {
  const SRow& last = rows->aRow[rows->cRows - 1];
  MapiArena set, row;
  auto* longer = static_cast<LPSRowSet>(set.Allocate(CbNewSRowSet(rows->cRows + 1)));
  auto* values = static_cast<LPSPropValue>(row.Copy(last.lpProps, last.cValues * sizeof(SPropValue)));
  longer->cRows = rows->cRows + 1;
  std::memcpy(longer->aRow, rows->aRow, rows->cRows * sizeof(SRow));
  longer->aRow[rows->cRows] = {0, last.cValues, values};
  row.Release();
  MarkRowSet(set.Release());
  FreeBuffer(rows);
  return longer;
}

unsigned MannersOfEnvironment() {
  char text[16] = {};
  GetEnvironmentVariableA("HOARDEX_MAPI_MANNERS", text, sizeof text);
  return static_cast<unsigned>(std::strtoul(text, nullptr, 10));
}
std::atomic<unsigned>& Manners() {
  static std::atomic<unsigned> manners = MannersOfEnvironment();
  return manners;
}
std::atomic<long> misuses = 0;

}  // namespace

bool Has(HoardexMapiManner manner) noexcept {
  return (Manners() & manner) != 0;
}

void NoteMisuse() noexcept {
  ++misuses;
}

void MakeStore(const std::u16string& path) {
  vault::StoreBuilder("made by its service").Write(std::filesystem::path(path));
}

Call::Call(const char* operation) : fault_(Enter(operation)) {}

void Call::SpoilCell(ULONG count, LPSPropValue values) const {
  if (fault_.column >= count) return;
  SPropValue& value = values[fault_.column];
  const ULONG type = PROP_TYPE(value.ulPropTag);
  switch (fault_.fault) {
    case kHoardexMapiErrorCell:
      value.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(value.ulPropTag));
      value.Value.err = fault_.result;
      break;
    case kHoardexMapiWrongType:
      value.ulPropTag = PROP_TAG(type == PT_LONG ? ULONG{PT_BOOLEAN} : ULONG{PT_LONG}, PROP_ID(value.ulPropTag));
      value.Value = {};
      value.Value.l = 1;
      break;
    case kHoardexMapiNullPointer:
      if (type == PT_UNICODE || type == PT_STRING8) value.Value.lpszW = nullptr;
      if (type == PT_BINARY) value.Value.bin.lpb = nullptr;
      break;
    default:
      return;
  }
}

void Call::Spoil(LPSRowSet& rows) const {
  if (fault_.fault == kHoardexMapiAnswer || fault_.fault == kHoardexMapiHugeCount) return;
  NoteSpoilt();
  if (fault_.fault == kHoardexMapiMoreRows) {
    if (rows->cRows) rows = WithOneMore(rows);
    return;
  }
  for (ULONG i = 0; i < rows->cRows; ++i) {
    SRow& row = rows->aRow[i];
    if (fault_.fault == kHoardexMapiNoRows) FreeBuffer(row.lpProps);
    if (fault_.fault == kHoardexMapiNoColumns) row.cValues = 0;
    if (fault_.fault != kHoardexMapiNoRows) SpoilCell(row.cValues, row.lpProps);
  }
  if (fault_.fault == kHoardexMapiNoRows) rows->cRows = 0;
}

void Call::Spoil(ULONG& count, LPSPropValue values) const {
  if (fault_.fault == kHoardexMapiAnswer || fault_.fault > kHoardexMapiNoRows) return;
  NoteSpoilt();
  if (fault_.fault == kHoardexMapiNoRows) {
    count = 0;
  } else {
    SpoilCell(count, values);
  }
}

void Call::Spoil(ULONG& row_count) const {
  if (fault_.fault != kHoardexMapiHugeCount) return;
  NoteSpoilt();
  row_count = kHugeCount;
}

void CountLive(Kind kind, long change) noexcept {
  live[static_cast<std::size_t>(kind)] += change;
}

bool DenyAllocation() noexcept {
  State& state = TheState();
  const std::scoped_lock lock(state.lock);
  ++state.allocations;
  const HoardexMapiFaultPlan& plan = state.plan;
  if (!plan.allocation) return false;
  if (plan.from_then_on ? state.allocations < plan.allocation : state.allocations != plan.allocation) return false;
  ++state.given;
  return true;
}

}  // namespace provider

using provider::TheState;

extern "C" {

void WINAPI HoardexMapiSetFaultPlan(const HoardexMapiFaultPlan* plan) {
  provider::State& state = TheState();
  const std::scoped_lock lock(state.lock);
  state.plan = plan ? *plan : HoardexMapiFaultPlan{};
  state.operation = plan && plan->operation ? plan->operation : "";
  state.matching = state.allocations = state.given = 0;
  state.names.clear();
}

long WINAPI HoardexMapiCallsEntered() {
  const std::scoped_lock lock(TheState().lock);
  return static_cast<long>(TheState().names.size());
}

const char* WINAPI HoardexMapiCallName(long call) {
  const std::scoped_lock lock(TheState().lock);
  const auto& names = TheState().names;
  return call > 0 && static_cast<std::size_t>(call) <= names.size() ? names[static_cast<std::size_t>(call) - 1]
                                                                    : nullptr;
}

long WINAPI HoardexMapiFaultsGiven() {
  const std::scoped_lock lock(TheState().lock);
  return TheState().given;
}

long WINAPI HoardexMapiAllocations() {
  const std::scoped_lock lock(TheState().lock);
  return TheState().allocations;
}

void WINAPI HoardexMapiSetManners(unsigned manners) {
  provider::Manners() = manners;
}

long WINAPI HoardexMapiMisuses() {
  return provider::misuses;
}

void WINAPI HoardexMapiCountLive(HoardexMapiLiveCounts* counts) {
  // One field for each kind, in their order, and behind them the profiles.
  constexpr std::size_t kKinds = provider::live.size();
  long fields[kKinds + 1];
  static_assert(sizeof fields == sizeof *counts);
  for (std::size_t i = 0; i < kKinds; ++i) fields[i] = provider::live[i];
  fields[kKinds] = static_cast<long>(provider::profiles::Names().size());
  std::memcpy(counts, fields, sizeof fields);
}

}  // extern "C"
