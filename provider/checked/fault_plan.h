// What the checked build of the provider (HoardexMapiChecked.dll) lets a test see and do: which calls were made, what
// is alive, and one call of all that fails or answers with less than it should. The released DLL has none of it.
//
// A plan and its counters are the process's, not a thread's. All functions may be called from any thread; a call that
// is under way when the plan changes keeps to the old one. Nothing here is itself a MAPI call.
#pragma once

#include <windows.h>

// What becomes of the call that a plan picks.
enum HoardexMapiFault {
  // Does nothing, hands out nothing, and answers `result`: a failure, or a success with nothing behind it. Functions
  // that free or answer nothing do their work all the same.
  kHoardexMapiAnswer,
  // The rest let the call succeed and spoil what it hands out; they touch rows of IMAPITable::QueryRows and values of
  // IMAPIProp::GetProps, and every other call is left alone.
  kHoardexMapiErrorCell,    // `column` is PT_ERROR with `result` as its value, in all rows
  kHoardexMapiWrongType,    // `column` has another type, and a value that is no pointer
  kHoardexMapiNullPointer,  // `column` keeps its tag, but its string or bytes are null
  kHoardexMapiNoRows,       // no rows; no values
  kHoardexMapiNoColumns,    // rows without columns; rows only
  kHoardexMapiMoreRows,     // one row more than asked for, a copy of the last; rows only
  kHoardexMapiHugeCount,    // IMAPITable::GetRowCount alone: far more rows than there are
};

struct HoardexMapiFaultPlan {
  const char* operation;  // "MAPILogonEx", "IMAPIProp::GetProps"; null: any. Copied
  long call;              // which call of the operation, from 1; 0: none
  BOOL from_then_on;      // and all that follow it
  HoardexMapiFault fault;
  HRESULT result;
  ULONG column;
  long allocation;  // besides: the n-th block that the provider allocates, for itself or a caller; 0: none
  long last = 0;    // with from_then_on: the last call that is picked; 0: there is none
};

// What documented MAPI does, or may do, where this provider is kinder. None unless a test, or the environment variable
// HOARDEX_MAPI_MANNERS (a number), asks for it.
enum HoardexMapiManner : unsigned {
  kHoardexMapiMakesStores = 1,      // a service that is configured with a path makes a store there unless there is one,
                                    // over whatever else is there
  kHoardexMapiTouchesStores = 2,    // each opening of a store changes its file's time
  kHoardexMapiGivesFewRows = 4,     // QueryRows hands out two rows at most, whatever it is asked for
  kHoardexMapiCopiesUncounted = 8,  // IStream::CopyTo leaves both counts alone
  kHoardexMapiLeavesTypes = 16,     // OpenEntry leaves the type alone
};

// What exists now, in this process; `profiles` are all of the user's.
struct HoardexMapiLiveCounts {
  long profile_admins, service_admins, sessions, stores, folders, messages, attachments, tables, streams, address_books;
  long buffers, row_sets;  // a row set is one of the buffers, as is each of its rows
  long store_files;        // open and mapped
  long open_profiles;      // in use here, deleted or not
  long initializations;    // MAPIInitialize without its MAPIUninitialize
  long profiles;
};

extern "C" {

// Replaces the plan and starts all counters afresh. Null: no faults.
__declspec(dllexport) void WINAPI HoardexMapiSetFaultPlan(const HoardexMapiFaultPlan* plan);

// Calls of functions and methods entered since then: all but AddRef and Release. A call that another one makes counts,
// too, behind it.
__declspec(dllexport) long WINAPI HoardexMapiCallsEntered();
// The name of the n-th of them (from 1), for ever valid; null for a number that none has, or beyond a million.
__declspec(dllexport) const char* WINAPI HoardexMapiCallName(long call);
// Calls that the plan made fail or spoiled, and blocks that it denied.
__declspec(dllexport) long WINAPI HoardexMapiFaultsGiven();
// Blocks allocated since then.
__declspec(dllexport) long WINAPI HoardexMapiAllocations();

__declspec(dllexport) void WINAPI HoardexMapiSetManners(unsigned manners);
// Calls that would have ended a process with another MAPI library: a pointer to bytes that is null although they are
// counted. For the life of the process.
__declspec(dllexport) long WINAPI HoardexMapiMisuses();

__declspec(dllexport) void WINAPI HoardexMapiCountLive(HoardexMapiLiveCounts* counts);

}  // extern "C"
