// The queue of changes that the index's stand-in keeps, for the one that works them off. Asked of the stand-in's search
// manager by QueryInterface; the index of Windows has none. Local to the process.
#pragma once

#include "platform/searchmanager.h"

struct QUEUED_CHANGE {
  ULONGLONG id;  // grows from change to change, and is below 2^53
  SEARCH_KIND_OF_CHANGE change;
  LPWSTR url;  // CoTaskMemFree
};

struct IHoardexChangeQueue : IUnknown {
  // The oldest changes, at most `most`; the array and its URLs are the caller's, to be freed with CoTaskMemFree (NULL
  // when there are none). `more`: others wait behind them. Takes nothing away.
  virtual HRESULT STDMETHODCALLTYPE Read(ULONG most, QUEUED_CHANGE** changes, ULONG* count, BOOL* more) = 0;
  // Takes the changes up to and including this one away, for good when it returns. S_FALSE when there were none.
  virtual HRESULT STDMETHODCALLTYPE TakeAway(ULONGLONG last) = 0;
};

__CRT_UUID_DECL(IHoardexChangeQueue, 0x6E2F0B6E, 0x3C41, 0x4D0E, 0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D)
