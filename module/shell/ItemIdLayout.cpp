#include "module/shell/ItemIdLayout.h"

#include <algorithm>
#include <cstring>

namespace itemid {
namespace {

constexpr std::size_t kOuterSize = 2, kInnerSize = 4, kSignatureAt = 6, kStorageSize = 10, kVersionAt = 12,
                      kReserved = 14, kStorage = 15, kTrailer = 2;

template <class Number>
Number Read(const std::byte* at) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i)
    number = static_cast<Number>(number | static_cast<Number>(static_cast<Number>(at[i]) << (8 * i)));
  return number;
}

template <class Number>
void Write(std::byte* at, Number number) {
  for (std::size_t i = 0; i < sizeof(Number); ++i) at[i] = static_cast<std::byte>((number >> (8 * i)) & 0xFF);
}

std::uint16_t Word(const std::byte* at) {
  return Read<std::uint16_t>(at);
}

// The last ID of the list, its own size word included.
std::optional<std::span<const std::byte>> Last(const std::byte* list, std::size_t readable) {
  std::span<const std::byte> last;
  for (std::size_t at = 0;; at += last.size()) {
    if (readable - at < kTrailer) return std::nullopt;
    const std::size_t size = Word(list + at);
    if (!size) break;
    // The next size word must be there, too.
    if (size < kTrailer || readable - at < size + kTrailer) return std::nullopt;
    last = {list + at, size};
  }
  return last.empty() ? std::nullopt : std::optional(last);
}

}  // namespace

void WriteOuter(std::byte* id, std::size_t storage) {
  Write(id, static_cast<std::uint16_t>(BlockSize(storage) - kTrailer));
  Write(id + kOuterSize, std::uint16_t{0});
  Write(id + kInnerSize, static_cast<std::uint16_t>(InnerSize(storage)));
}

void WriteInner(std::byte* id, std::uint32_t signature, std::span<const std::byte> storage) {
  Write(id + kSignatureAt, signature);
  Write(id + kStorageSize, static_cast<std::uint16_t>(storage.size()));
  Write(id + kVersionAt, kVersion);
  id[kReserved] = std::byte{0};
  if (!storage.empty()) memcpy(id + kStorage, storage.data(), storage.size());
  Write(id + kStorage + storage.size(), std::uint16_t{0});
}

std::optional<std::span<const std::byte>> Storage(const std::byte* list, std::size_t readable,
                                                  std::uint32_t signature) {
  if (!list) return std::nullopt;
  const auto last = Last(list, readable);
  if (!last || last->size() < kStorage + kTrailer) return std::nullopt;
  const std::byte* id = last->data();
  const std::size_t storage = Word(id + kStorageSize), inner = Word(id + kInnerSize);
  // What lies behind the inner part is the host's, whatever its outer word says.
  const bool sizes = inner == InnerSize(storage) && kSignatureAt + inner <= last->size();
  if (!sizes || Read<std::uint32_t>(id + kSignatureAt) != signature || Word(id + kVersionAt) != kVersion ||
      id[kReserved] != std::byte{0} || Word(id + kStorage + storage) != 0)
    return std::nullopt;
  return std::span(id + kStorage, storage);
}

}  // namespace itemid
