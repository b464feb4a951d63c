// CSearchManager, the catalog "SystemIndex" and its change sink.
#pragma once

#include "platform/changequeue.h"
#include "winindex/ComObject.h"

namespace winindex {

// Answers for IHoardexChangeQueue, too.
ComPtr<ISearchManager> MakeSearchManager();

}  // namespace winindex
