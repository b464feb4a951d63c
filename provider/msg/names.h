// The named properties of a .msg file ([MS-OXMSG] 2.2.3): one table for the message and all that is embedded in it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "provider/object.h"

namespace provider::msg {

class NameTable {
 public:
  // The property id of a name, a new one where it is new. Throws MAPI_E_INVALID_PARAMETER for no name,
  // MAPI_E_NAMED_PROP_QUOTA_EXCEEDED when all ids are taken.
  std::uint16_t IdOf(const MAPINAMEID* name);
  // Writes the storage of names. Throws.
  void Write(IStorage* root) const;

 private:
  struct Name {
    GUID set;
    bool is_string;
    std::uint32_t number;
    std::wstring text;
    bool operator<(const Name& other) const;
  };
  std::uint16_t SetNumber(const GUID& set, std::vector<GUID>& sets) const;
  std::vector<Name> names_;
  std::map<Name, std::uint16_t> ids_;
};

}  // namespace provider::msg
