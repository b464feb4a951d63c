// The layout of the shell item ID that stands for one item: a delegate item ID around a serialised property storage.
// The shell keeps these IDs in shortcuts and lists, so the layout never changes, and what comes back may be anything.
// Portable: no Windows header here, so that it is also compiled and fuzzed natively. Little-endian, S = storage size:
//
//   0  2  S + 17, the size of the ID       6   4  signature        14      1  0
//   2  2  0                                10  2  S                15      S  storage
//   4  2  S + 11, the inner size           12  2  version, 1       15 + S  2  0
//
// and the two zero bytes that end every list of IDs. A host that allocates IDs fills the first six bytes itself, and
// may keep bytes of its own behind the inner part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace itemid {

inline constexpr std::uint32_t kSignature = 0x2A573C37;
inline constexpr std::uint16_t kVersion = 1;

// Bytes of the ID with the end of its list, and of its part from the signature on, for a storage of so many bytes.
constexpr std::size_t BlockSize(std::size_t storage) {
  return storage + 19;
}
constexpr std::size_t InnerSize(std::size_t storage) {
  return storage + 11;
}
// Whether the sizes fit their fields.
constexpr bool Fits(std::size_t storage) {
  return BlockSize(storage) <= 0x10001;
}

// Fills the first six bytes, which a host that allocates IDs itself fills on its own.
void WriteOuter(std::byte* id, std::size_t storage);
// Fills the part from the signature on, of an ID that begins at `id`. The storage must fit.
void WriteInner(std::byte* id, std::uint32_t signature, std::span<const std::byte> storage);

// The storage in the last ID of a list, which must be one of ours in every size and mark; nothing otherwise. Reads no
// byte beyond `readable` and none beyond what the sizes in the list cover. No list need be taken for longer than
// kLongestList.
inline constexpr std::size_t kLongestList = 1 << 20;
std::optional<std::span<const std::byte>> Storage(const std::byte* list, std::size_t readable, std::uint32_t signature);

}  // namespace itemid
