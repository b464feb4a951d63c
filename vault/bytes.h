// Little-endian loads from unaligned bytes.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace vault {

static_assert(std::endian::native == std::endian::little, "the store format is read in place");

template <typename T>
T Load(const std::uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}
inline std::uint16_t Load16(const std::uint8_t* from) {
  return Load<std::uint16_t>(from);
}
inline std::uint32_t Load32(const std::uint8_t* from) {
  return Load<std::uint32_t>(from);
}
inline std::uint64_t Load64(const std::uint8_t* from) {
  return Load<std::uint64_t>(from);
}

}  // namespace vault
