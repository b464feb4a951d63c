// What a filter's class must bear of threads.
#pragma once

#include "host/FilterCheck.h"

namespace host {

// Compares what other threads read with `expected`: first several at once, each with a source of its own in an
// apartment of its own; then two threads of the multithreaded apartment that use one filter in turn.
void CheckThreads(const SourceForThread& for_thread, const Reading& expected, const ReadingCaps& caps,
                  RuleTally& tally);

}  // namespace host
