// Everything that one accessor says of its item.
#pragma once

#include "host/Session.h"

namespace host {

// Fills size, times, properties, text and links of `record`, and its error if a step fails; what came before the
// failure stays.
void ReadItem(IUrlAccessor* accessor, bool with_chunks, Json& record);

// The JSON form of a property's value; null for one that is empty or of a type that no filter should give.
Json ValueOf(const PROPVARIANT& value);

}  // namespace host
