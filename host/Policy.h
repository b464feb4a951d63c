// The group policy on attachments, as the registry has it.
#pragma once

#include <string>

namespace host {

struct AttachmentPolicy {
  bool prevented = false;  // no attachment is indexed
  std::wstring excluded;   // extensions that are not, as they are written, each followed by ";"

  // True when attachments of this extension (without its dot) are kept out.
  bool Bars(const std::wstring& extension) const;
};

AttachmentPolicy ReadAttachmentPolicy();

}  // namespace host
