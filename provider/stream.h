// A property as a read-only IStream.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "provider/object.h"
#include "provider/property.h"

namespace provider {

// Reads the value where it lies, in pieces; memory use is one block. Any thread.
Ref<IStream> MakeStream(Value value);
// Over bytes that were converted for this caller.
Ref<IStream> MakeStream(std::vector<std::uint8_t> bytes);

// A compound file of `bytes` as read-only storage. Throws.
Ref<IStorage> MakeStorage(const std::vector<std::uint8_t>& bytes);

}  // namespace provider
