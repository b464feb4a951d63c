// Stores of any size for measuring and testing: an invented office's archive.
#pragma once

#include <cstdint>
#include <filesystem>

#include "vault/encoding.h"

namespace mkvault {

struct GenerateOptions {
  std::uint64_t messages = 1000;  // items of all kinds together, without embedded ones
  std::uint64_t seed = 1;
  std::uint32_t attachments = 1500;  // ten-thousandths of the mails that have some
  std::uint32_t folders = 0;         // for mail, Inbox included; 0: as many as suit the messages
  vault::Encoding encoding = vault::Encoding::kPermute;
};

// Writes exactly that many messages: about nine of ten are mails, the others appointments, contacts, tasks, notes and
// journal entries. The same options give the same bytes on every machine. Memory does not grow with the store (see
// vault/store_stream.h). Throws vault::Error.
void Generate(const std::filesystem::path& path, const GenerateOptions& options);

}  // namespace mkvault
