// Mailboxes in mbox format: messages one after the other, each behind an envelope line "From sender date".
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>
#include <vector>

namespace mkvault {

// Whether a line has the form of an envelope: "From ", and a time of day and a year behind it. A sentence that begins
// with "From " seldom has them.
bool IsEnvelope(std::string_view line);

// Bytes of the file from the first after an envelope to the next one's beginning.
struct MessageSpan {
  std::int64_t begin, end;
};

// The messages of a mailbox. An envelope stands at the beginning or behind an empty line. Reads the file once, in
// pieces. Empty when the file cannot be read or holds none.
std::vector<MessageSpan> SplitMailbox(const std::filesystem::path& file);

}  // namespace mkvault
