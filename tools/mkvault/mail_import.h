// Writes a store of the mail that lies in files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/mkvault/mail_source.h"
#include "vault/encoding.h"
#include "vault/types.h"

namespace mkvault {

struct MailLoss {
  std::filesystem::path file;
  std::string reason;  // a sentence
};

struct MailImport {
  std::uint64_t messages = 0, folders = 0;
  std::vector<MailLoss> losses;
};

struct StoreIdentity {
  std::string name;
  vault::Guid uid{};
  vault::Encoding encoding = vault::Encoding::kPermute;
};

// Writes the store `path`, with the source's folders below its top; messages of the source itself go to a folder
// "Mail". What cannot be read or is no message is left out and named. Throws vault::Error when the store cannot be
// written.
MailImport ImportMail(const MailFolder& mail, const std::filesystem::path& path, const StoreIdentity& identity);

}  // namespace mkvault
