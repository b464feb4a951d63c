// The properties of a store, folder, message or attachment: a property context ([MS-PST] 2.3.3) as a view.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vault/error.h"
#include "vault/tree_on_heap.h"
#include "vault/value.h"

namespace vault {

class Heap;

// Copies are cheap and share the decoded heap; const operations may run on several threads. Keeps the file mapped.
// The heap's blocks are decoded when first touched and stay until the last copy goes: the bound is the heap's own
// size (nothing at all for stores without encoding, whose bytes are read in place).
class PropertySet {
 public:
  PropertySet() = default;  // no properties
  // Opens the context that lies in `heap`. Throws Error when it is none.
  explicit PropertySet(std::shared_ptr<const Heap> heap);

  // By property id, whatever type is stored. Throws Error(kBadProperty...) when it is there but broken.
  std::optional<PropertyValue> Find(std::uint16_t id) const;

  // Walks all properties in ascending order of their ids. A broken one is reported and passed over:
  //   for (auto cursor = set.Walk(); cursor.Next();) if (cursor.error()) ...; else use(cursor.value());
  class Cursor {
   public:
    bool Next();
    const PropertyValue& value() const { return value_; }
    // Set when this step met a broken property (or a broken part of the tree) instead of a value.
    const Error* error() const { return error_ ? &*error_ : nullptr; }

   private:
    friend class PropertySet;
    const PropertySet* set_ = nullptr;
    TreeOnHeap::Cursor at_;
    PropertyValue value_;
    std::optional<Error> error_;
  };
  // The cursor lives no longer than the set.
  Cursor Walk() const;

  // Opens any value of this set, long or short, for reading in pieces. Throws Error.
  ValueReader Open(const PropertyValue& value) const;

  // Conveniences; nullopt when the property is missing or has another type. They throw Error as Find does.
  std::optional<std::int64_t> Int(std::uint16_t id) const;  // integers, booleans, times (FILETIME)
  // kUnicode, or kString8 in the code page of PR_MESSAGE_CODEPAGE (see Utf16FromBytes); at most `limit` characters.
  std::optional<std::u16string> Text(std::uint16_t id, std::size_t limit = 1 << 24) const;
  std::optional<std::vector<std::uint8_t>> Binary(std::uint16_t id, std::size_t limit = 1 << 26) const;

 private:
  PropertyValue Decode(std::uint16_t id, std::span<const std::uint8_t> record) const;
  std::shared_ptr<const Heap> heap_;
  TreeOnHeap tree_;
};

}  // namespace vault
