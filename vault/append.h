// Little-endian stores into bytes that are being written.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "vault/bytes.h"

namespace vault {

template <typename T>
void PutValue(std::uint8_t* to, const T& value) {
  std::memcpy(to, &value, sizeof value);
}

template <typename T>
void AppendValue(std::vector<std::uint8_t>& to, const T& value) {
  to.resize(to.size() + sizeof value);
  PutValue(to.data() + to.size() - sizeof value, value);
}

}  // namespace vault
