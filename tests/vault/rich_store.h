// A store with something of everything that the format holds, and its comparison with what a reader finds.
#pragma once

#include <string>
#include <vector>

#include "vault/store.h"
#include "vault/writer.h"

namespace test {

// Bytes that differ with the seed and do not repeat.
std::vector<std::uint8_t> Pattern(std::size_t size, unsigned seed);

vault::StoreBuilder RichStore(vault::Encoding encoding);

// Compares all folders, messages, recipients, attachments and properties of a store with the builder that it was
// written from. What differs, one line each.
std::vector<std::string> Differences(const vault::Store& store, const vault::StoreBuilder& wanted);

}  // namespace test
