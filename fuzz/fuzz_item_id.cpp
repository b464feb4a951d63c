// Lists of shell item IDs, as they come back from shortcuts, and the property storage in the last one. The first byte
// cuts that many bytes off what may be read.
#include <algorithm>
#include <cstring>

#include "fuzz/reading.h"
#include "module/shell/ItemIdLayout.h"
#include "winprops/SerializedStorage.h"

namespace {

// An ID made around the storage gives it back, and nothing that is cut off it does.
void CheckRoundTrip(std::span<const std::byte> storage) {
  std::vector<std::byte> id(itemid::BlockSize(storage.size()));
  itemid::WriteOuter(id.data(), storage.size());
  itemid::WriteInner(id.data(), itemid::kSignature, storage);
  const auto again = itemid::Storage(id.data(), id.size(), itemid::kSignature);
  FUZZ_CHECK(again && std::ranges::equal(*again, storage));
  FUZZ_CHECK(!itemid::Storage(id.data(), id.size() - 1, itemid::kSignature));
  FUZZ_CHECK(!itemid::Storage(id.data(), id.size(), itemid::kSignature + 1));
  // Bytes of a host's own behind the inner part change nothing.
  const std::size_t total = id.size();
  if (total > 0xFFFF) return;
  id.insert(id.end() - 2, 2, std::byte{0xEE});
  id[0] = static_cast<std::byte>(total);
  id[1] = static_cast<std::byte>(total >> 8);
  const auto behind = itemid::Storage(id.data(), id.size(), itemid::kSignature);
  FUZZ_CHECK(behind && std::ranges::equal(*behind, storage));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (!size) return 0;
  // A block of its own, so that a read behind it is seen.
  const std::size_t cut = std::min<std::size_t>(data[0], size - 1);
  const std::vector<std::byte> list(reinterpret_cast<const std::byte*>(data) + 1,
                                    reinterpret_cast<const std::byte*>(data) + size - cut);
  const auto storage = itemid::Storage(list.data(), list.size(), itemid::kSignature);
  if (storage) {
    FUZZ_CHECK(storage->data() >= list.data() && storage->data() + storage->size() <= list.data() + list.size());
    CheckRoundTrip(*storage);
  }
  // What is no ID may still be a storage.
  const auto values = winprops::Parse(storage ? *storage : std::span<const std::byte>(list));
  if (!values) return 0;
  std::size_t bytes = 0;
  for (const winprops::Value& value : *values) bytes += value.data.size() + 2 * value.name.size();
  FUZZ_CHECK(bytes <= list.size());
  const auto form = winprops::Serialize(*values);
  const auto again = winprops::Parse(form);
  FUZZ_CHECK(again && again->size() == values->size() && winprops::Serialize(*again) == form);
  return 0;
}
