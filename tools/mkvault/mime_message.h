// A mail message (RFC 5322 with MIME, RFC 2045-2049) as a message of a store.
#pragma once

#include <gmime/gmime.h>

#include <cstdint>
#include <memory>

#include "tools/mkvault/mail_source.h"
#include "vault/writer.h"

namespace mkvault {

// Owns one reference to an object of GLib.
struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
};
template <class T>
using Owned = std::unique_ptr<T, Unref>;

// How everything is parsed: headers without a declared character set are UTF-8 or windows-1252. Made on first use,
// lives as long as the process. Not to be freed.
GMimeParserOptions* ParserOptions();

// Sender, recipients, times, identifiers, bodies, attachments (embedded messages as such) and the headers as they
// stood. `modified` is a file time that stands in where the message has no date. Nothing of the message is dropped: a
// text that has no place as a body becomes an attachment. One thread at a time.
vault::MessageBuilder FromMime(GMimeMessage* message, const MailFlags& flags, std::int64_t modified);

}  // namespace mkvault
