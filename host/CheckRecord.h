// Checks of filters as records: what is asked for by a name, and answered by one JSON object.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "host/Session.h"

namespace host {

// Checks items of the module.
class ItemChecker {
 public:
  explicit ItemChecker(Session& session) : session_(session) {}

  // {"url","kind","type","chunks","rules":[{"rule","text","checked","broken","seen","warning","waiver"}]}, or "error".
  // Threads are tried at the first item of every kind: each of them opens the vault anew.
  Json Check(const std::string& url);

 private:
  Session& session_;
  std::set<std::string> tried_;
};

// Checks a filter over a file: the class `clsid`, else the one that is registered for the file's type, else the host's
// own. Without a file, only what can be asked of an empty filter. The record's url is `file`.
Json CheckFile(const std::string& file, const std::string& clsid);

// True when no rule of the record is broken without a waiver, and nothing failed.
bool Conforms(const Json& record);

}  // namespace host
