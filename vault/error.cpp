#include "vault/error.h"

#include <cinttypes>
#include <cstdio>

namespace vault {
namespace {

std::string WithPlace(const std::string& sentence, const std::optional<std::uint64_t>& offset, std::uint32_t nid) {
  char place[64] = "";
  if (offset && nid) {
    std::snprintf(place, sizeof place, " (file offset 0x%" PRIX64 ", node 0x%" PRIX32 ")", *offset, nid);
  } else if (offset) {
    std::snprintf(place, sizeof place, " (file offset 0x%" PRIX64 ")", *offset);
  } else if (nid) {
    std::snprintf(place, sizeof place, " (node 0x%" PRIX32 ")", nid);
  }
  return sentence + place;
}

}  // namespace

Error::Error(ErrorCode code, const std::string& sentence, std::optional<std::uint64_t> offset, std::uint32_t nid)
    : std::runtime_error(WithPlace(sentence, offset, nid)),
      code_(code),
      sentence_(sentence),
      offset_(offset),
      nid_(nid) {}

}  // namespace vault
