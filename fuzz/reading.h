// What the fuzz targets do with what they opened, and how they object.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "vault/property_set.h"
#include "vault/table.h"
#include "vault/text/code_pages.h"

// A promise of the code under test; breaking it is a finding.
#define FUZZ_CHECK(condition)                                                              \
  do {                                                                                     \
    if (!(condition)) {                                                                    \
      std::fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                        \
    }                                                                                      \
  } while (0)

namespace fuzz {

// Bytes that one input may make a target read. References in a store may all lead to the same large value, so reading
// every value in full would take the product of the two.
class Budget {
 public:
  explicit Budget(std::uint64_t bytes) : left_(bytes) {}
  bool Take(std::uint64_t bytes) {
    const bool enough = bytes <= left_;
    left_ -= enough ? bytes : left_;
    return enough;
  }
  bool empty() const { return left_ == 0; }

 private:
  std::uint64_t left_;
};
inline constexpr std::uint64_t kReadingBudget = 4 << 20;

// Reads a value in pieces and whole, and every element of a multi-value.
template <typename Owner>
void ReadValue(const Owner& owner, const vault::PropertyValue& value, Budget& budget) {
  try {
    auto reader = owner.Open(value);
    std::uint64_t at = 0;
    while (at < reader.size() && budget.Take(1)) {
      const auto piece = reader.Piece(at);
      FUZZ_CHECK(!piece.empty() && piece.size() <= reader.size() - at);
      if (!budget.Take(piece.size())) return;
      at += piece.size();
    }
    FUZZ_CHECK(at == reader.size() || budget.empty());
    value.AsInt64();
    value.AsDouble();
    if (budget.Take(value.bytes().size())) value.AsText();
    if (vault::IsMulti(value.type()) && !value.is_long()) {
      const vault::MultiValue elements(value.type(), value.bytes());
      for (std::size_t i = 0; i < elements.size() && budget.Take(1); ++i) elements[i];
    }
  } catch (const vault::Error&) {
    // A damaged value; the next one may be good.
  }
}

// Every property by walking, each found again by its id.
inline void ReadProperties(const vault::PropertySet& set, Budget& budget) {
  for (auto cursor = set.Walk(); cursor.Next() && budget.Take(1);) {
    if (cursor.error()) continue;
    ReadValue(set, cursor.value(), budget);
    try {
      const std::uint16_t id = cursor.value().id();
      set.Find(id);
      set.Int(id);
      if (budget.Take(1 << 12)) set.Text(id, 1 << 12);
      if (budget.Take(1 << 12)) set.Binary(id, 1 << 12);
    } catch (const vault::Error&) {
    }
  }
}

// Every cell of every row, and every row found again by its id.
inline void ReadTable(const vault::Table& table, Budget& budget) {
  for (auto cursor = table.Walk(); cursor.Next() && budget.Take(1);) {
    if (cursor.error()) continue;
    for (std::size_t i = 0; i < table.columns().size() && budget.Take(1); ++i) {
      try {
        if (const auto cell = cursor.row().Cell(i)) ReadValue(table, *cell, budget);
      } catch (const vault::Error&) {
      }
    }
    try {
      if (const auto row = table.FindRow(cursor.row().id())) FUZZ_CHECK(row->id() == cursor.row().id());
    } catch (const vault::Error&) {
    }
  }
}

// A short input again and again: work that grows faster than the input shows as a time-out.
inline std::vector<std::uint8_t> Repeated(std::span<const std::uint8_t> bytes) {
  constexpr std::size_t kShort = 64, kSize = 16 << 10;
  std::vector<std::uint8_t> result;
  bytes = bytes.first(std::min(bytes.size(), kShort));
  if (bytes.empty()) return result;
  result.reserve(kSize + kShort);
  while (result.size() < kSize) result.insert(result.end(), bytes.begin(), bytes.end());
  return result;
}

// Knows every code page, and takes each for one in which two bytes may be one character.
class AllCodePages : public vault::text::CodePages {
 public:
  bool Decode(unsigned code_page, vault::text::Bytes bytes, std::u16string& text) const override {
    if (code_page > 65536) return false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const bool pair = vault::text::IsLeadByte(code_page, bytes[i]) && i + 1 < bytes.size();
      text += static_cast<char16_t>(pair ? bytes[i] << 8 | bytes[i + 1] : bytes[i]);
      i += pair;
    }
    return true;
  }
};

}  // namespace fuzz
