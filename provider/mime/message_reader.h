// What MIME needs of a message, read through MAPI from whatever provider it comes from.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "provider/object.h"

namespace provider::mime {

struct Person {
  std::u16string name, address;
  LONG type = 0;  // MAPI_TO and its like
};

// Several properties of one object, of which any may be missing.
class Properties {
 public:
  Properties(IMAPIProp* object, std::initializer_list<ULONG> tags);
  ~Properties();
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  // The property if it is there with this type.
  const SPropValue* Find(ULONG tag) const;
  std::u16string Text(ULONG tag) const;  // PT_UNICODE; empty when missing
  LONG Long(ULONG tag, LONG otherwise) const;

 private:
  ULONG count_ = 0;
  LPSPropValue values_ = nullptr;
};

// The whole of a long property; nothing when it is missing. Throws when it is longer than 1 GB.
std::optional<std::vector<std::uint8_t>> ReadLong(IMAPIProp* object, ULONG tag);

std::vector<Person> Recipients(IMessage* message);
// From and, where another one sent it, Sender.
Person Author(const Properties& properties);
Person Sender(const Properties& properties);

std::u16string PlainBody(IMessage* message);
// Stored as such, or wrapped in compressed RTF; empty when there is none.
std::u16string HtmlBody(IMessage* message);

// Attachments' numbers in the order of the table.
std::vector<ULONG> Attachments(IMessage* message);

}  // namespace provider::mime
