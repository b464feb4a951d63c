#include "winprops/SerializedStorage.h"

#include <algorithm>
#include <cstring>

namespace winprops {
namespace {

constexpr std::uint32_t kVersion = 0x53505331;
constexpr std::size_t kStorageHeader = 24, kEndMark = 4, kValueHeader = 9, kTypeHeader = 4;

bool HasNames(const FormatId& format) {
  return std::memcmp(format.data(), kNamedFormat, format.size()) == 0;
}

std::uint32_t Read32(std::span<const std::byte> at) {
  std::uint32_t number = 0;
  for (std::size_t i = 4; i-- > 0;) number = number << 8 | std::to_integer<std::uint32_t>(at[i]);
  return number;
}

// Takes a part off the front that begins with its own size; nothing when it is cut or smaller than `least`. A size of
// zero is the end: an empty part.
std::optional<std::span<const std::byte>> Part(std::span<const std::byte>& rest, std::size_t least) {
  if (rest.size() < kEndMark) return std::nullopt;
  const std::size_t size = Read32(rest);
  if (!size) return std::span<const std::byte>{};
  if (size < least || size > rest.size()) return std::nullopt;
  const auto part = rest.first(size);
  rest = rest.subspan(size);
  return part;
}

bool ParseValue(std::span<const std::byte> part, Value& value) {
  const std::size_t word = Read32(part.subspan(4));
  part = part.subspan(kValueHeader);
  if (HasNames(value.format)) {
    if (word < 2 || word % 2 || word > part.size()) return false;
    for (std::size_t i = 0; i + 2 < word; i += 2)
      value.name.push_back(
          static_cast<char16_t>(std::to_integer<unsigned>(part[i]) | std::to_integer<unsigned>(part[i + 1]) << 8));
    part = part.subspan(word);
  } else {
    value.id = static_cast<std::uint32_t>(word);
  }
  if (part.size() < kTypeHeader) return false;
  value.type = static_cast<std::uint16_t>(Read32(part) & 0xFFFF);
  part = part.subspan(kTypeHeader);
  value.data.assign(part.begin(), part.end());
  return true;
}

class Writer {
 public:
  void Put32(std::size_t number) {
    for (int shift = 0; shift < 32; shift += 8) out_.push_back(static_cast<std::byte>(number >> shift & 0xFF));
  }
  void Put(std::span<const std::byte> bytes) { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
  void PutByte(unsigned byte) { out_.push_back(static_cast<std::byte>(byte)); }
  // Begins a part with room for its size, and fills that in.
  std::size_t Begin() {
    Put32(0);
    return out_.size() - 4;
  }
  void End(std::size_t begin) {
    const std::size_t size = out_.size() - begin;
    for (std::size_t i = 0; i < 4; ++i) out_[begin + i] = static_cast<std::byte>(size >> (8 * i) & 0xFF);
  }
  std::vector<std::byte> Take() { return std::move(out_); }

 private:
  std::vector<std::byte> out_;
};

void WriteValue(Writer& out, const Value& value) {
  const std::size_t begin = out.Begin();
  if (HasNames(value.format)) {
    out.Put32(2 * (value.name.size() + 1));
    out.PutByte(0);
    for (const char16_t c : value.name) {
      out.PutByte(c & 0xFF);
      out.PutByte(c >> 8);
    }
    out.PutByte(0);
    out.PutByte(0);
  } else {
    out.Put32(value.id);
    out.PutByte(0);
  }
  out.Put32(value.type);
  out.Put(value.data);
  for (std::size_t padding = value.data.size(); padding % 4; ++padding) out.PutByte(0);
  out.End(begin);
}

}  // namespace

std::optional<std::vector<Value>> Parse(std::span<const std::byte> form) {
  std::vector<Value> values;
  if (form.empty()) return values;
  for (;;) {
    const auto storage = Part(form, kStorageHeader + kEndMark);
    if (!storage) return std::nullopt;
    if (storage->empty()) return values;
    if (Read32(storage->subspan(4)) != kVersion) return std::nullopt;
    FormatId format;
    std::copy_n(storage->begin() + 8, format.size(), format.begin());
    for (auto rest = storage->subspan(kStorageHeader);;) {
      const auto part = Part(rest, kValueHeader + kTypeHeader);
      if (!part) return std::nullopt;
      if (part->empty()) break;
      Value value;
      value.format = format;
      if (!ParseValue(*part, value)) return std::nullopt;
      values.push_back(std::move(value));
    }
  }
}

std::vector<std::byte> Serialize(std::span<const Value> values) {
  Writer out;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const auto same = [&](const Value& value) { return value.format == values[i].format; };
    if (std::any_of(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(i), same)) continue;
    const std::size_t begin = out.Begin();
    out.Put32(kVersion);
    out.Put(values[i].format);
    for (const Value& value : values)
      if (same(value)) WriteValue(out, value);
    out.Put32(0);
    out.End(begin);
  }
  out.Put32(0);
  return out.Take();
}

}  // namespace winprops
