// Filters for the file types that a machine without Windows Search still has: plain text and HTML.
#pragma once

#include <windows.h>

#include <filter.h>

#include <string_view>

namespace host {

// A new filter for files of this extension (without its dot) or MIME type; either may be empty. The caller loads it
// through IPersistStream and calls Init. Null when there is none for the type, or no memory.
IFilter* MakeBuiltInFilter(std::wstring_view extension, std::wstring_view content_type);

}  // namespace host
