// SHA-256 (FIPS 180-4), for comparing contents with recorded digests.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace test {

class Sha256 {
 public:
  void Add(std::span<const std::uint8_t> bytes);
  // Lower-case hexadecimal; call once.
  std::string Finish();

 private:
  void Compress(const std::uint8_t* block);

  std::array<std::uint32_t, 8> state_ = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                         0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::array<std::uint8_t, 64> pending_{};
  std::uint64_t length_ = 0;
};

inline std::string Sha256Of(std::span<const std::uint8_t> bytes) {
  Sha256 sum;
  sum.Add(bytes);
  return sum.Finish();
}

}  // namespace test
