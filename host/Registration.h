// What stands in the registry of the module's registration, beside what its registration writes.
#pragma once

#include <windows.h>

#include <optional>
#include <string>

#include "host/Session.h"

namespace host {

// {"entries": how many there are, "differing": [{"key","name","expected","found"}]}; `found` is null for an entry that
// is not there, `name` empty for a key's default value. Only reads.
Json ExamineRegistration();

// The in-process server that COM would load for a class: {"path","exists","bitness","threading"}, all but `exists`
// absent where there is none.
Json ExamineServer(const CLSID& clsid);

// {"path","exists","bitness"}: 64 or 32 by the header of the file, 0 for what is no library of this processor.
Json ExamineLibrary(const std::wstring& path);

// The item types that have no name to be shown.
Json ExamineItemTypes();

// A string or number of the registry as text, nothing when it is not there. With expansion of %variables%.
std::optional<std::wstring> RegistryText(HKEY hive, const std::wstring& key, const wchar_t* name);

}  // namespace host
