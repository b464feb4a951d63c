// One object of a .msg file ([MS-OXMSG] 2.1, 2.4): its property stream, and the streams of its longer values.
#pragma once

#include <array>
#include <map>
#include <span>
#include <string>

#include "provider/object.h"

namespace provider::msg {

// All strings of a file are of one kind.
enum class Strings { kUnicode, kAnsi };

// "__substg1.0_" and the tag.
std::wstring ValueName(ULONG tag);
// Both replace what is there. Throw.
Ref<IStorage> CreateStorage(IStorage* parent, const std::wstring& name);
void WriteStream(IStorage* parent, const std::wstring& name, std::span<const std::uint8_t> bytes);

class PropertyStorage {
 public:
  // What lies behind a property of type PT_OBJECT.
  enum class ObjectKind : std::uint32_t { kMessage = 1, kStorage = 4 };

  PropertyStorage(Ref<IStorage> storage, Strings strings) : storage_(std::move(storage)), strings_(strings) {}

  // Keeps short values, and writes the others at once. An empty string takes the property away: older clients refuse a
  // file with one. False for a type that a file cannot hold. Throws.
  bool Set(const SPropValue& value);
  void SetLong(ULONG tag, std::int32_t number);
  // Also takes away the streams of the value.
  void Remove(std::uint16_t id);
  bool Has(std::uint16_t id) const { return entries_.contains(id); }

  // A value that the caller writes; it must be complete when Write is called. Strings in the kind of the file, without
  // a terminator.
  Ref<IStream> CreateValue(ULONG tag);
  Ref<IStorage> CreateObject(ULONG tag, ObjectKind kind);
  // The tag under which a file of this kind holds a string.
  ULONG Stored(ULONG tag) const;

  // Writes the property stream. May be called again.
  void Write(std::span<const std::uint8_t> header);

  IStorage* storage() const { return storage_.get(); }
  Strings strings() const { return strings_; }

 private:
  struct Entry {
    ULONG tag = 0;
    std::array<std::uint8_t, 8> value{};
    Ref<IStream> stream;  // of a value whose size is not yet known
    bool stored = false;  // outside the property stream
    ULONG parts = 0;      // streams of a value with several
  };
  void SetBytes(ULONG tag, std::span<const std::uint8_t> bytes, std::size_t terminator);
  void SetSize(Entry& entry, std::uint64_t size);
  static std::wstring PartName(ULONG tag, ULONG part);
  // A new entry in the place of what the id had.
  Entry& Put(ULONG tag);
  template <class Count, class Each>
  void SetMany(ULONG tag, ULONG count, Count&& lengths, Each&& bytes);
  void SetStrings(const SPropValue& value);

  Ref<IStorage> storage_;
  Strings strings_;
  std::map<std::uint16_t, Entry> entries_;
};

}  // namespace provider::msg
