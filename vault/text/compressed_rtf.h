// PR_RTF_COMPRESSED to RTF ([MS-OXRTFCP]). Pure function; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace vault::text {

// Greatest RTF that is unpacked; what lies beyond is cut off.
constexpr std::size_t kRtfLimit = std::size_t{256} << 20;

// The RTF inside the value: LZFu unpacked, MELA copied. Nothing when the header is neither, and when there is not even
// a whole header. A stream that breaks off yields what came before; the checksum is not judged, because writers leave
// it wrong and readable text is worth more than its absence. Never more than `limit` bytes, nor than the header says.
std::optional<std::string> UnpackRtf(std::span<const std::uint8_t> packed, std::size_t limit = kRtfLimit);

}  // namespace vault::text
