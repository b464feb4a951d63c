// Damage to stores, the same for the same numbers.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "tests/vault/store_surgeon.h"

namespace fuzz {

struct Mutated {
  std::vector<std::uint8_t> bytes;
  const char* kind;
  // Damage that a checksum shows: what it touches is refused, so it can hide nothing else.
  bool shows;
};

// One of all kinds of damage to `store`; `other` gives what is spliced in.
Mutated Mutate(const test::StoreSurgeon& store, const test::StoreSurgeon& other, std::mt19937_64& random);

}  // namespace fuzz
