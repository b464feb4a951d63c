// Where in a file each message lies: every byte that reading it depends on.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "tests/vault/store_surgeon.h"

namespace fuzz {

struct Range {
  std::uint64_t offset;
  std::size_t size;
};

struct Footprint {
  std::vector<Range> ranges;
  // The message's own properties; empty for the store.
  std::uint64_t first_block = 0;

  // Whether all of it is the same in `changed`, which may be shorter.
  bool IsIntact(std::span<const std::uint8_t> good, std::span<const std::uint8_t> changed) const;
};

struct Footprints {
  Footprint store;  // what opening the store depends on
  std::map<vault::Nid, Footprint> messages;
};

// Follows the trees of a good store on its own, without the reader that is to be judged by the result.
Footprints FindFootprints(const test::StoreSurgeon& store);

}  // namespace fuzz
