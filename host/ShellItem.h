// Items as the shell sees them: through their item IDs, context menus and streams.
#pragma once

#include <string>

#include "host/Session.h"

namespace host {

// Chooses the item's default command, or "print", from its context menu, as a click does:
// {"open": url, "verb", "result", "name"?}, or {"open", "verb", "error"} for a step before that. Needs COM.
Json OpenItem(const std::string& url, const std::string& verb);

// Writes the item to a file: "eml" is the message's MIME stream, "msg" and "content" the file that the module saves.
// No file is replaced: HRESULT_FROM_WIN32(ERROR_FILE_EXISTS). {"save": url, "result", "name"?} or {"save", "error"}.
Json SaveItem(const std::string& url, const std::string& path, const std::string& format);

}  // namespace host
