// Properties on their way from the store to a MAPI caller.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "provider/mapi.h"
#include "provider/memory.h"
#include "provider/strings.h"
#include "vault/property_set.h"

namespace provider {

// A value whose caller-side form is larger than this answers MAPI_E_NOT_ENOUGH_MEMORY to GetProps and QueryRows and is
// read through OpenProperty. One block of a store holds 8 KB; twice that keeps every ordinary header, subject and short
// body in one call, and a table of many rows from pulling in whole bodies.
constexpr std::size_t kLargestValue = 16 * 1024;

// A value in the store's own encoding (vault::PropertyValue::bytes), with its stored type in `tag`. For one thread.
struct Value {
  vault::PropTag tag() const { return tag_; }
  std::uint16_t id() const { return vault::IdOf(tag_); }
  vault::PropType type() const { return vault::PropTypeOf(tag_); }

  static Value Of(vault::PropTag tag, std::span<const std::uint8_t> view) {
    Value value;
    value.tag_ = tag;
    value.bytes = view;
    return value;
  }
  static Value Owned(vault::PropTag tag, std::vector<std::uint8_t> bytes);
  static Value Text(std::uint16_t id, std::u16string_view text);
  static Value Shared(vault::PropTag tag, std::shared_ptr<const std::u16string> text);
  static Value Int(std::uint16_t id, std::int32_t number);
  static Value Bool(std::uint16_t id, bool truth);

  // A short value: the bytes, valid as long as the bag that it came from, and this.
  std::span<const std::uint8_t> bytes;
  std::shared_ptr<const void> owner;  // of computed bytes
  // A value that lies in blocks of its own and has not been read; `bytes` is empty.
  mutable std::optional<vault::ValueReader> reader;

  std::uint64_t size() const { return reader ? reader->size() : bytes.size(); }
  // The same short value once more; it depends on the same bytes.
  Value View() const;
  // All bytes, read if need be; at most `limit`.
  std::vector<std::uint8_t> Read(std::uint64_t limit = ~std::uint64_t{0}) const;

  vault::PropTag tag_ = 0;
};

// The properties of one object or table row. Any thread. What a method throws is a Failure or a vault::Error.
class PropertyBag {
 public:
  virtual ~PropertyBag() = default;
  // By id, whatever the stored type; nothing when the object lacks it.
  virtual std::optional<Value> Find(std::uint16_t id) = 0;
  // Tags in the stored types, for GetPropList; a computed property that is also stored may come twice.
  virtual void List(std::vector<vault::PropTag>& tags) = 0;
  // The code page of 8-bit strings.
  virtual unsigned CodePage() { return 0; }
};

// A stored value of `set`, long or short.
std::optional<Value> FindStored(const vault::PropertySet& set, std::uint16_t id);
void ListStored(const vault::PropertySet& set, std::vector<vault::PropTag>& tags);

// Text of a stored string value, either kind.
std::u16string TextOf(const Value& value, unsigned code_page, std::uint64_t limit = ~std::uint64_t{0});

// Fills `out` with property `tag` of the bag as GetProps and QueryRows answer it: a type of PT_UNSPECIFIED takes the
// stored one (strings by MAPI_UNICODE in `flags`), strings convert, and whatever goes wrong with this one property
// becomes a PT_ERROR in its place. False for PT_ERROR. Throws only std::bad_alloc.
bool WriteProperty(PropertyBag& bag, ULONG tag, ULONG flags, Arena& arena, SPropValue& out,
                   std::size_t largest = kLargestValue);

// A tag as a caller sees it: strings by MAPI_UNICODE in `flags`.
ULONG CallerTag(vault::PropTag stored, ULONG flags);

// Orders two values of the same type as MAPI does: < 0, 0, > 0. Strings compare without regard to case.
LONG CompareValues(const SPropValue& a, const SPropValue& b);

}  // namespace provider
