// Where the copy of an attachment goes.
#pragma once

#include <string>
#include <string_view>

// The part of an attachment's display name that may stand in a file name. The name comes from mail and is hostile:
// separators, characters no Windows file name holds, control characters, device names, trailing dots and blanks are
// replaced, and it is cut to `limit` characters, its extension kept.
std::wstring SafeFileName(std::wstring_view display_name, size_t limit);

// A path in the module's temporary folder that no other copy has: unique name, record key, safe display name. The
// folder is made if missing; the path is short enough for the shell's functions. Empty when there is no such folder.
std::wstring TemporaryFilePath(std::wstring_view record_key, std::wstring_view display_name);

// The path with the extension (with its dot) at its end, unless it ends so already; still short enough for the shell.
std::wstring WithExtension(std::wstring path, std::wstring_view extension);
