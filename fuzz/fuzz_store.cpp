// A whole file: everything that the public interface can read. The mutator changes decoded pages and blocks and makes
// their checksums right again, so that most mutations reach the layers behind them.
#include <cstring>
#include <random>

#include "fuzz/reading.h"
#include "tests/support/store_walk.h"
#include "tests/vault/store_surgeon.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Subnodes may be shared so that embedded messages multiply; a caller stops somewhere, too.
  fuzz::Budget steps(20'000);
  try {
    test::WalkStore(*vault::Store::OpenBytes({data, size}), [&] { return steps.Take(1); });
  } catch (const vault::Error&) {
  }
  return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned seed) {
  std::minstd_rand random(seed);
  test::StoreSurgeon store(std::vector<std::uint8_t>(data, data + size));
  if (store.parts().empty() || random() % 16 == 0) return LLVMFuzzerMutate(data, size, max_size);
  const auto mutate = [](std::span<std::uint8_t> bytes) { LLVMFuzzerMutate(bytes.data(), bytes.size(), bytes.size()); };
  for (auto rounds = 1 + random() % 3; rounds > 0; --rounds) {
    const auto& part = store.parts()[random() % store.parts().size()];
    store.Change(part, [&](std::span<std::uint8_t> plain) {
      const std::size_t length = std::min<std::size_t>(plain.size(), 1 + random() % 64);
      // Structure lies mostly at the ends.
      const std::size_t room = plain.size() - length;
      const std::size_t at = std::array{std::size_t{0}, room, room ? random() % room : 0}[random() % 3];
      mutate(plain.subspan(at, length));
    });
  }
  if (random() % 16 == 0) mutate(std::span(store.bytes()).subspan(8, store.layout().header_size - 8));
  if (random() % 8) {
    for (const auto& part : store.parts()) store.Seal(part);
    store.SealHeader();
  }
  std::memcpy(data, store.bytes().data(), size);
  return size;
}
