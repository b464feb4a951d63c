// The Windows Search group policy on e-mail attachments.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

struct GroupPolicy {
  DWORD prevent_attachments = 0;     // attachments are not indexed when it equals 1
  std::wstring excluded_extensions;  // lower-case, each followed by ";"

  bool AttachmentsPrevented() const { return prevent_attachments == 1; }
  // Whether `key`, lower-cased by the caller, occurs in the excluded extensions. An empty key never does.
  bool Excludes(const std::wstring& key) const {
    return !key.empty() && excluded_extensions.find(key) != std::wstring::npos;
  }
};

// Resets the process-wide values and reads them anew. Any thread; readers go on with the values they hold.
void DetectWDSGroupPolicy();

// The values as last read.
std::shared_ptr<const GroupPolicy> CurrentGroupPolicy();
