// The serialised form of a property store ([MS-PROPSTORE]), as IPersistSerializedPropStorage carries it: storages one
// after another, each with the values of one format id, ended by a storage size of zero. Portable.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace winprops {

using FormatId = std::array<std::byte, 16>;  // as it lies in memory

// The format id whose values have names; all others have numbers.
inline constexpr unsigned char kNamedFormat[] = {0x05, 0xD5, 0xCD, 0xD5, 0x9C, 0x2E, 0x1B, 0x10,
                                                 0x93, 0x97, 0x08, 0x00, 0x2B, 0x2C, 0xF9, 0xAE};

struct Value {
  FormatId format{};
  std::uint32_t id = 0;         // where the format has numbers
  std::u16string name;          // where it has names
  std::uint16_t type = 0;       // the VARTYPE
  std::vector<std::byte> data;  // as it lies in the form, padding included
};

// Every value of the form; nothing when a size, version or mark is wrong. What follows the end is not looked at. No
// bytes at all are an empty store.
std::optional<std::vector<Value>> Parse(std::span<const std::byte> form);

// One storage for each format id, in the order in which they come first. An empty store is the end mark alone.
std::vector<std::byte> Serialize(std::span<const Value> values);

}  // namespace winprops
