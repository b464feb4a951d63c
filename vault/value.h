// One property value as a view, and the reader for values that lie in blocks of their own.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "vault/types.h"

namespace vault {

class Database;
class DataTree;

// A value of a property context or a table cell: a tag and either the bytes themselves or a reference to a long value.
// A view: it lives as long as the PropertySet, Table (or a copy of either) that it came from. Trivially copyable.
class PropertyValue {
 public:
  PropertyValue() = default;
  PropertyValue(PropTag tag, std::span<const std::uint8_t> bytes) : tag_(tag), bytes_(bytes) {}
  PropertyValue(PropTag tag, Nid long_value) : tag_(tag), long_value_(long_value) {}

  PropTag tag() const { return tag_; }
  std::uint16_t id() const { return IdOf(tag_); }
  PropType type() const { return PropTypeOf(tag_); }

  // True for a value in blocks of its own: bytes() is empty, open it through the set or table that it came from.
  bool is_long() const { return long_value_ != 0; }
  // The subnode that holds a long value; 0 otherwise.
  Nid long_value() const { return long_value_; }

  // Little-endian scalars in their natural size; strings without a closing NUL (UTF-16LE, or 8-bit characters of
  // the message's code page); binaries; GUIDs; multi-values packed as in MultiValue; objects: 8 bytes, subnode and
  // size.
  std::span<const std::uint8_t> bytes() const { return bytes_; }

  // Any integer, time, currency or boolean, sign-extended. 0 when the value has no such bytes.
  std::int64_t AsInt64() const;
  std::int32_t AsInt32() const { return static_cast<std::int32_t>(AsInt64()); }
  bool AsBool() const { return AsInt64() != 0; }
  // kFloat, kDouble or kAppTime.
  double AsDouble() const;
  // The characters of a short kUnicode value; kString8 is widened as Windows-1252. Empty for other types.
  std::u16string AsText() const;

 private:
  PropTag tag_ = 0;
  Nid long_value_ = 0;
  std::span<const std::uint8_t> bytes_;
};

// Reads a value in pieces, wherever it lies; memory use is one block. Keeps the file (and the heap) alive.
// Not for use by two threads at once; move-only.
class ValueReader {
 public:
  ValueReader() = default;  // empty value
  ValueReader(ValueReader&&) = default;
  ValueReader& operator=(ValueReader&&) = default;

  // Bytes of the value; a string's closing NUL is not counted.
  std::uint64_t size() const { return size_; }

  // Copies up to `to.size()` bytes from `offset`; returns how many (0 at or behind the end). Throws Error.
  std::size_t ReadAt(std::uint64_t offset, std::span<std::uint8_t> to);

  // The bytes from `offset` to the end of the block they lie in: at least 1 byte unless offset >= size(). Valid until
  // the next call on this reader. Walks a value without copying: for (o = 0; o < size(); o += p.size()). Throws Error.
  std::span<const std::uint8_t> Piece(std::uint64_t offset);

  // The whole value; at most `limit` bytes of it. For values known to be small.
  std::vector<std::uint8_t> ReadAll(std::uint64_t limit = ~std::uint64_t{0});

  // For the reader's own layers: bytes kept alive by `owner`, or the data of node `nid` from its block `root` on.
  ValueReader(std::shared_ptr<const void> owner, std::span<const std::uint8_t> bytes);
  ValueReader(std::shared_ptr<const Database> db, Bid root, Nid nid, PropType type);

 private:
  std::span<const std::uint8_t> LoadBlock(std::uint64_t index);

  std::shared_ptr<const void> owner_;
  std::span<const std::uint8_t> bytes_;   // a value that lies in one piece
  std::shared_ptr<const DataTree> tree_;  // or in blocks
  std::uint64_t size_ = 0;
  std::uint64_t block_index_ = 0;  // of block_, when that is not empty
  std::span<const std::uint8_t> block_;
  std::vector<std::uint8_t> buffer_;
};

// Elements of a multi-value ([MS-PST] 2.3.3.4). A view of the bytes it is given.
class MultiValue {
 public:
  // Throws Error(kBadProperty) when the bytes contradict themselves.
  MultiValue(PropType type, std::span<const std::uint8_t> bytes);
  std::size_t size() const { return count_; }
  // Element `i` < size(): bytes as in PropertyValue::bytes(). Throws Error when its offsets are wrong.
  std::span<const std::uint8_t> operator[](std::size_t i) const;

 private:
  PropType element_;
  std::span<const std::uint8_t> bytes_;
  std::size_t count_ = 0;
};

// A stored subject may begin with U+0001 and U+(n + 1), n the length of its prefix ("RE: ").
struct Subject {
  std::u16string_view text;       // the whole subject without the two lead characters
  std::size_t prefix_length = 0;  // characters of `text` that are the prefix
  std::u16string_view prefix() const { return text.substr(0, prefix_length); }
  std::u16string_view normalized() const { return text.substr(prefix_length); }
};
// Never fails; a mark that points past the end counts as prefix length 0. A subject without a mark gets its prefix by
// the rule of MAPI: up to three characters that are neither digits nor blanks, then ':' and a blank.
Subject ParseSubject(std::u16string_view stored);

// Text conversion: invalid input becomes U+FFFD.
std::u16string Utf16FromUtf8(std::string_view text);
std::string Utf8FromUtf16(std::u16string_view text);
// Windows-1252 (the usual code page of old stores); 65001 is UTF-8. Other code pages are taken as Windows-1252: a
// caller that has the platform's converter should use it on the raw bytes.
std::u16string Utf16FromBytes(std::span<const std::uint8_t> text, std::uint32_t codepage = 1252);

}  // namespace vault
