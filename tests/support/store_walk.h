// Reads a whole store through the public interface.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vault/store.h"

namespace test {

struct Walked {
  std::uint64_t folders = 0, messages = 0, attachments = 0, recipients = 0, values = 0, bytes = 0;
  std::vector<std::string> errors;  // at most 100
  std::string digest;               // over every value in the order of the walk
};

// Every property, row, cell and attachment of every folder and message that the node tree knows, embedded messages
// included. Damage goes into `errors`; stops early (without a digest) when `go_on` says false.
Walked WalkStore(
    const vault::Store& store, const std::function<bool()>& go_on = [] { return true; });

// A digest over every value that WalkStore would read of one message. Throws vault::Error when it cannot be opened;
// what is damaged inside is left out.
std::string DigestOfMessage(const vault::Store& store, vault::Nid nid);

}  // namespace test
