// IMessage on a compound file: the writing half of IMsg. Properties, recipients, attachments and embedded messages go
// into the file as they are set; SaveChanges writes the streams that list them.
#pragma once

#include "provider/msg/names.h"
#include "provider/msg/property_storage.h"

namespace provider::msg {

// Asks a message of this kind, by QueryInterface, to compute its plain text: the text of its source, kept in case the
// copy leaves PR_BODY out. A file's PR_BODY is computed when it is saved, as a store's is.
struct IComputedBody : IUnknown {
  // A PT_UNICODE property or PT_NULL. The value is copied.
  virtual void STDMETHODCALLTYPE OfferBody(IStream* text) = 0;
};
inline constexpr IID kComputedBody = {0x6E2F0B70, 0x3C41, 0x4D0E, {0x9A, 0x57, 0x2B, 0x80, 0xC1, 0x64, 0xE7, 0x1D}};

// What is called when the last reference to a message goes.
struct Released {
  MSGCALLRELEASE* call = nullptr;
  ULONG data = 0;
};

// A new message on an empty storage, which it holds. Throws MAPI_E_NO_SUPPORT when a message is there already: files
// are only written.
Ref<IMessage> CreateOnStorage(IStorage* storage, Strings strings, bool commit, Released released);

}  // namespace provider::msg
