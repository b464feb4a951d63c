// SHA-256 by GLib, in the form that expected results have it.
#pragma once

#include <glib.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace test {

class Sha256 {
 public:
  void Add(std::span<const std::uint8_t> bytes) {
    g_checksum_update(sum_.get(), bytes.data(), static_cast<gssize>(bytes.size()));
  }
  // Lower-case hexadecimal; call once.
  std::string Finish() { return g_checksum_get_string(sum_.get()); }

 private:
  struct Free {
    void operator()(GChecksum* sum) const { g_checksum_free(sum); }
  };
  std::unique_ptr<GChecksum, Free> sum_{g_checksum_new(G_CHECKSUM_SHA256)};
};

inline std::string Sha256Of(std::span<const std::uint8_t> bytes) {
  Sha256 sum;
  sum.Add(bytes);
  return sum.Finish();
}

}  // namespace test
