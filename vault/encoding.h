// Checksums and the data encodings of the personal-folder store format ([MS-PST] 5.1 to 5.5). Pure functions.
#pragma once

#include <cstdint>
#include <span>

namespace vault {

// bCryptMethod of the header.
enum class Encoding : std::uint8_t { kNone = 0, kPermute = 1, kCyclic = 2 };

// CRC-32 of the format: reflected polynomial 0xEDB88320, start value 0, no final inversion.
std::uint32_t Crc(std::span<const std::uint8_t> bytes);

// wSig of a page or block trailer for the page or block `bid` at file offset `offset`.
std::uint16_t Signature(std::uint64_t offset, std::uint64_t bid);

// Decodes the bytes of an external data block into `plain`, which holds stored.size() bytes and may be stored.data().
void Decode(Encoding encoding, std::uint64_t bid, std::span<const std::uint8_t> stored, std::uint8_t* plain);

// The inverse of Decode, with the same rules.
void Encode(Encoding encoding, std::uint64_t bid, std::span<const std::uint8_t> plain, std::uint8_t* stored);

}  // namespace vault
