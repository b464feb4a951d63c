// Makes a store in a process of its own, so that a message which ends the program that reads it costs that message
// only, and nothing half made is left behind however the work ends.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

#include "tools/mkvault/mail_import.h"

namespace mkvault {

// What the work said: an exit status, and the text for the standard output.
struct Said {
  int status = 1;
  std::string text;
};

struct Supervised {
  Said said;
  int signal = 0;            // the work was ended by it
  bool interrupted = false;  // `signal` came to this process, and was meant for it
  MailPlace place;           // what the work had last been at
};

// Runs `work` with a path beside `out` to write the store to, and a function to tell what it is at. When it comes to
// its end with status 0 or 3, the store takes the place of `out`; else everything that it wrote is removed. Throws
// std::system_error. Call from a process with one thread.
Supervised RunSupervised(const std::filesystem::path& out,
                         const std::function<Said(const std::filesystem::path&, const ImportOptions&)>& work,
                         ImportOptions options);

}  // namespace mkvault
