// IMAPIProp::CopyTo from an item of a store to any other object.
#pragma once

#include "provider/object.h"

namespace provider::msg {

// The arguments of CopyTo that matter here.
struct CopyRequest {
  LPSPropTagArray excluded = nullptr;  // by id; also PR_MESSAGE_RECIPIENTS and PR_MESSAGE_ATTACHMENTS. May be null.
  LPCIID interface_id = nullptr;
  void* destination = nullptr;
  ULONG flags = 0;
};

// Copies properties, recipients, attachments and what is embedded in them. Properties that belong to the place where
// an item lies are left out; what a destination refuses is a problem, not a failure. The destination is not saved, its
// attachments are. Throw.
void CopyMessage(IMessage* from, const CopyRequest& request, LPSPropProblemArray* problems);
void CopyAttachment(IAttach* from, const CopyRequest& request, LPSPropProblemArray* problems);

}  // namespace provider::msg
