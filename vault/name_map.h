// Names of named properties ([MS-PST] 2.4.7).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

#include "vault/types.h"

namespace vault {

class PropertySet;

// Both directions of the store's name-to-id map. Immutable after construction; names are views of the map's own
// copy of the streams (bounded by kMaxNameStream). A broken entry is left out.
class NameMap {
 public:
  // A name: a property set and a number or a string.
  struct Name {
    Guid set;
    std::variant<std::uint32_t, std::u16string_view> id;
  };

  NameMap() = default;  // no names
  // Reads the map's streams. Throws Error when they cannot be read at all.
  explicit NameMap(const PropertySet& properties);
  NameMap(const NameMap&) = delete;
  NameMap& operator=(const NameMap&) = delete;

  // The property id (0x8000 and above) of a name; nullopt when the store has none. Strings compare exactly.
  std::optional<std::uint16_t> FindId(const Guid& set, std::uint32_t id) const;
  std::optional<std::uint16_t> FindId(const Guid& set, std::u16string_view name) const;
  // The name of a property id; nullopt when it has none.
  std::optional<Name> NameOf(std::uint16_t property_id) const;
  // Every property id that has a name, ascending.
  std::vector<std::uint16_t> Ids() const;

 private:
  struct Entry {
    std::uint32_t id;   // number, or offset of the string
    std::uint16_t set;  // index of the property set << 1 | is string
  };
  std::optional<Guid> SetOf(const Entry& entry) const;
  std::u16string_view StringOf(const Entry& entry) const;

  std::vector<std::uint8_t> guids_;
  std::vector<char16_t> strings_;  // the string stream
  std::unordered_map<std::uint16_t, Entry> by_property_;
  std::unordered_multimap<std::uint64_t, std::uint16_t> by_name_;  // hash of the name -> property id
};

}  // namespace vault
