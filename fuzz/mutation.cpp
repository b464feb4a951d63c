#include "fuzz/mutation.h"

#include <algorithm>
#include <cstring>

namespace fuzz {
namespace {

using test::StoreSurgeon;

class Mutator {
 public:
  Mutator(const StoreSurgeon& store, const StoreSurgeon& other, std::mt19937_64& random)
      : store_(store), other_(other), random_(random) {}

  Mutated Run() {
    const Kind& kind = kKinds[Below(std::size(kKinds))];
    // Much damage at once hides what little damage would show.
    const std::size_t rounds = std::size_t{1} << Below(4);
    for (std::size_t i = 0; i < rounds && !store_.bytes().empty(); ++i) (this->*kind.damage)();
    return {std::move(store_.bytes()), kind.name, kind.shows};
  }

 private:
  using Part = StoreSurgeon::Part;
  struct Kind {
    const char* name;
    void (Mutator::*damage)();
    bool shows;
  };
  static const Kind kKinds[11];

  std::size_t Below(std::size_t end) { return end ? static_cast<std::size_t>(random_() % end) : 0; }
  const Part* AnyPart(const StoreSurgeon& of) {
    return of.parts().empty() ? nullptr : &of.parts()[Below(of.parts().size())];
  }
  const Part* AnyPart(bool page) {
    for (int tries = 0; tries < 20; ++tries) {
      const Part* const part = AnyPart(store_);
      if (part && part->is_page == page) return part;
    }
    return nullptr;
  }
  std::vector<std::uint8_t>& bytes() { return store_.bytes(); }

  // A place in the file: mostly one that something leads to.
  std::size_t Place() {
    const Part* const part = Below(4) ? AnyPart(store_) : nullptr;
    return part ? part->offset + Below(store_.WholeSize(*part)) : Below(bytes().size());
  }

  void FlipBits() { bytes()[Place()] ^= 1 << Below(8); }
  void OverwriteRun() {
    const std::size_t at = Place(), end = std::min(bytes().size(), at + 1 + Below(512));
    std::generate(bytes().begin() + static_cast<std::ptrdiff_t>(at), bytes().begin() + static_cast<std::ptrdiff_t>(end),
                  [&] { return static_cast<std::uint8_t>(random_()); });
  }
  void ZeroRange() {
    const std::size_t at = Below(2) ? Place() / 512 * 512 : Place();
    const std::size_t end = std::min(bytes().size(), at + (std::size_t{1} << Below(15)));
    std::fill(bytes().begin() + static_cast<std::ptrdiff_t>(at), bytes().begin() + static_cast<std::ptrdiff_t>(end), 0);
  }
  void CutOff() {
    const std::size_t size = Below(2) ? Place() : bytes().size() - Below(std::min<std::size_t>(bytes().size(), 8192));
    bytes().resize(std::min(bytes().size(), Below(2) ? size / 512 * 512 : size));
  }

  void Swap(std::size_t a, std::size_t b, std::size_t size) {
    size = std::min({size, bytes().size() - a, bytes().size() - b, a < b ? b - a : a - b});
    std::swap_ranges(bytes().begin() + static_cast<std::ptrdiff_t>(a),
                     bytes().begin() + static_cast<std::ptrdiff_t>(a + size),
                     bytes().begin() + static_cast<std::ptrdiff_t>(b));
  }
  void SwapParts(bool pages) {
    const Part *const a = AnyPart(pages), *const b = AnyPart(pages);
    if (a && b) Swap(a->offset, b->offset, std::max(store_.WholeSize(*a), store_.WholeSize(*b)));
  }
  void SwapPages() { SwapParts(true); }
  void SwapBlocks() { SwapParts(false); }

  // What follows makes checksums right again.
  std::size_t TellingPlace(std::size_t size) {
    const std::size_t near = Below(2) ? Below(std::min<std::size_t>(size, 64)) : Below(size);
    return Below(3) ? near : size - 1 - near;
  }
  void TellingValues() {
    static constexpr std::uint8_t kTelling[] = {0x00, 0x01, 0x02, 0x1F, 0x20, 0x40, 0x7C,
                                                0x7F, 0x80, 0xB5, 0xBC, 0xEC, 0xFE, 0xFF};
    const Part* const part = AnyPart(store_);
    if (!part) return;
    store_.Change(*part, [&](std::span<std::uint8_t> plain) {
      for (std::size_t at = TellingPlace(plain.size()), n = 1 + Below(4); n > 0 && at < plain.size(); --n, ++at) {
        plain[at] = Below(2) ? kTelling[Below(sizeof kTelling)] : static_cast<std::uint8_t>(random_());
      }
    });
  }
  void FlipPlainBits() {
    const Part* const part = AnyPart(store_);
    if (!part) return;
    store_.Change(*part, [&](std::span<std::uint8_t> plain) { plain[TellingPlace(plain.size())] ^= 1 << Below(8); });
  }
  // References that lead elsewhere, above all back: circles, and many ways to one place.
  void Redirect() {
    const Part *const part = AnyPart(store_), *const target = AnyPart(store_), *const second = AnyPart(store_);
    if (!part) return;
    const unsigned w = store_.layout().word;
    store_.Change(*part, [&](std::span<std::uint8_t> plain) {
      // Known ids, or all of them alike.
      for (std::size_t at = 0; at + w <= plain.size(); at += 4) {
        const std::uint64_t word = store_.layout().Word(plain.data() + at);
        if (word == 0 || (word != second->bid && word != second->offset && Below(16))) continue;
        const bool known = std::any_of(store_.parts().begin(), store_.parts().end(),
                                       [&](const Part& p) { return p.bid == word || p.offset == word; });
        if (!known) continue;
        const std::uint64_t value = word % 512 ? target->bid : target->offset;
        std::memcpy(plain.data() + at, &value, w);
      }
    });
  }

  void SpliceRange() {
    const std::size_t unit = Below(2) ? 512 : 64;
    const std::size_t at = Place() / unit * unit;
    const std::size_t size = std::min(
        {(1 + Below(64)) * unit, bytes().size() - at, other_.bytes().size() - std::min(other_.bytes().size(), at)});
    if (size) std::memcpy(bytes().data() + at, other_.bytes().data() + at, size);
  }
  void SplicePart() {
    const Part *const part = AnyPart(store_), *const from = AnyPart(other_);
    if (!part || !from) return;
    const auto donor = other_.Plain(*from);
    store_.Change(*part, [&](std::span<std::uint8_t> plain) {
      std::copy_n(donor.begin(), std::min(donor.size(), plain.size()), plain.begin());
    });
  }

  StoreSurgeon store_;
  const StoreSurgeon& other_;
  std::mt19937_64& random_;
};

const Mutator::Kind Mutator::kKinds[11] = {
    {"flipped bits", &Mutator::FlipBits, true},
    {"overwritten run", &Mutator::OverwriteRun, true},
    {"zeroed range", &Mutator::ZeroRange, true},
    {"cut off", &Mutator::CutOff, true},
    {"swapped pages", &Mutator::SwapPages, true},
    {"swapped blocks", &Mutator::SwapBlocks, true},
    {"telling values, sealed", &Mutator::TellingValues, false},
    {"flipped bits, sealed", &Mutator::FlipPlainBits, false},
    {"redirected, sealed", &Mutator::Redirect, false},
    {"spliced range", &Mutator::SpliceRange, false},
    {"spliced parts, sealed", &Mutator::SplicePart, false},
};

}  // namespace

Mutated Mutate(const StoreSurgeon& store, const StoreSurgeon& other, std::mt19937_64& random) {
  return Mutator(store, other, random).Run();
}

}  // namespace fuzz
