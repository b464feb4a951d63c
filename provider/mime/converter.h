// IConverterSession: messages as MIME text. Takes messages of any provider.
#pragma once

#include "platform/converter.h"
#include "provider/object.h"

namespace provider::mime {

struct Options {
  ENCODINGTYPE encoding = IET_BASE64;  // of text; attachments are base64
  ULONG flags = 0;                     // CCSF_*
};

// Writes the message, headers first. Throws.
void Write(IMessage* message, IStream* stream, const Options& options);

Ref<IConverterSession> MakeConverter();

}  // namespace provider::mime
