// The names of named properties of a store being written ([MS-PST] 2.4.7).
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "vault/writer.h"

namespace vault {

// Numbers the names that the store's items use in the order of their first use.
class NameRegistry {
 public:
  // The property id that stands for the name in this store. Throws Error(kUnwritable) for more than 32,767 names.
  std::uint16_t IdOf(const PropertyName& name);
  // The properties of the store's name map.
  PropertyMap Map() const;

 private:
  std::map<PropertyName, std::uint16_t> ids_;
  std::vector<PropertyName> order_;
};

}  // namespace vault
