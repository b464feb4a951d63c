// Writes a store of the mail that lies in files.
#pragma once

#include <compare>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "tools/mkvault/mail_source.h"
#include "vault/encoding.h"
#include "vault/types.h"

namespace mkvault {

struct MailImport {
  std::uint64_t messages = 0, folders = 0;
  std::vector<MailLoss> losses;
};

struct StoreIdentity {
  std::string name;
  vault::Guid uid{};
  vault::Encoding encoding = vault::Encoding::kPermute;
};

// A message of the source: its file's number in the order of reading, and its own number in that file, from 0.
struct MailPlace {
  std::uint64_t file = 0, message = 0;
  auto operator<=>(const MailPlace&) const = default;
};

struct ImportOptions {
  // Messages not to be read at all.
  std::set<MailPlace> skipped;
  // Told before a message is read.
  std::function<void(MailPlace)> at = [](MailPlace) {};
};

// Writes the store `path`, with the source's folders below its top; messages of the source itself go to a folder
// "Mail". What cannot be read or is no message is left out and named, what is skipped too. Throws vault::Error when the
// store cannot be written.
MailImport ImportMail(const MailSource& mail, const std::filesystem::path& path, const StoreIdentity& identity,
                      const ImportOptions& options = {});

}  // namespace mkvault
