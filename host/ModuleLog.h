// What the module writes to its log while something is being done.
#pragma once

#include <string>
#include <vector>

namespace host {

// The lines of this process that were written since the object was made. One at a time.
class ModuleLog {
 public:
  ModuleLog();
  // Without line ends, as UTF-8. The log starts over at some size; then the lines are told by their times.
  std::vector<std::string> Lines() const;

 private:
  std::string before_, begin_;
};

}  // namespace host
