// The durable queue of changes: one line a change, added at the end.
#pragma once

#include <string>
#include <vector>

#include "platform/changequeue.h"

namespace winindex {

struct Change {
  SEARCH_KIND_OF_CHANGE kind = SEARCH_CHANGE_MODIFY;
  std::wstring url;
};
struct NumberedChange : Change {
  ULONGLONG id = 0;
};

// All of them are on the disk when it returns. Throws Failure.
void QueueChanges(const std::vector<Change>& changes);
// Oldest first. Lines that are no changes are left out.
std::vector<NumberedChange> QueuedChanges();
// Takes the changes up to and including `last` away; false when there were none.
bool TakeChangesAway(ULONGLONG last);
// Takes all away, whatever the file holds. Throws Failure.
void ForgetChanges();

}  // namespace winindex
