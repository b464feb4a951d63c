// The body, the alternatives and the attachments of a MIME message.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/mkvault/mail_source.h"
#include "vault/writer.h"

namespace mkvault {

// Adds bodies and attachments of `message`; `depth` is the number of messages around it.
void AddParts(GMimeMessage* message, int depth, vault::MessageBuilder& out);

// Everything of a message, as FromMime does, into a message that is there.
void Describe(GMimeMessage* message, const MailFlags& flags, std::int64_t modified, int depth,
              vault::MessageBuilder& out);

// Text that says it is UTF-8, or windows-1252 where it is not.
std::string ToUtf8(std::string_view text);

// Lines ended by CR LF.
std::string WithLineEnds(std::string_view text);

}  // namespace mkvault
