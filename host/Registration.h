// What stands in the registry of the module's registration, beside what its registration writes.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "host/Session.h"

namespace host {

// {"entries": how many there are, "differing": [{"key","name","expected","found"}]}; `found` is null for an entry that
// is not there, `name` empty for a key's default value or the key as such. A value of another type is named with both
// types. Only reads.
Json ExamineRegistration();

// The server of a class: {"title","exists"}; with one in process {"path","bitness","threading"}; "program" where there
// is one out of process: its command line or application ID.
Json ExamineServer(const CLSID& clsid);

// {"path","exists","bitness"}: 64 or 32 by the header of the file, 0 for what is no library of this processor.
Json ExamineLibrary(const std::wstring& path);

// The item types that have no name to be shown.
Json ExamineItemTypes();

// A string or number of the registry as text, nothing when it is not there. With expansion of %variables%.
std::optional<std::wstring> RegistryText(HKEY hive, const std::wstring& key, const wchar_t* name);

}  // namespace host
