// The Windows Search group policy on e-mail attachments.
#pragma once

#include <windows.h>

#include <string_view>

struct GroupPolicy {
  DWORD prevent_attachments = 0;          // attachments are not indexed when it equals 1
  std::wstring_view excluded_extensions;  // lower-case, each followed by ";"

  bool AttachmentsPrevented() const { return prevent_attachments == 1; }
  // Whether `key`, lower-cased by the caller, occurs in the excluded extensions. An empty key never does.
  bool Excludes(std::wstring_view key) const {
    return !key.empty() && excluded_extensions.find(key) != std::wstring_view::npos;
  }
};

// Reads the process-wide values anew and publishes them once they are complete. Any thread; waits for none, and readers
// go on with the values they hold.
void DetectWDSGroupPolicy();

// The values as last read, never null. What it points to stands until the module is unloaded.
const GroupPolicy* CurrentGroupPolicy();

// Gives back all that was read, when the module is unloaded and nobody holds values any more. Afterwards the policy is
// as if there were none.
void ReleaseGroupPolicies();
