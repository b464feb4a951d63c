// The mail client whose MAPI the module uses, and what the module may have left in it.
#pragma once

#include <string>

#include "host/Session.h"

namespace host {

// {"key": whether it is registered, "component": its installer component, "path","exists","bitness"}. Only reads.
Json ExamineMailClient();

// Loads the client's library and asks it: {"code","name"} of the load, {"missing":[exports]}, {"profiles":[names]}: the
// temporary profiles of the module that nobody uses any more, {"in_use":n} while another process has the module loaded;
// {"step","code","name"} as "error" when they cannot be listed. With `clear`, the unused ones are deleted. Whatever the
// library does, it does to this process. COM must be initialised.
Json AskMailClient(bool clear);

// The files in the module's folder of temporary copies: {"folder","files":[names],"in_use":n}. All are in
// use while another process has the module loaded. With `clear`, the others are deleted, and the folder when nothing is
// left in it.
Json ExamineTemporaryFiles(bool clear);

}  // namespace host
