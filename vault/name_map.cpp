#include "vault/name_map.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "vault/bytes.h"
#include "vault/property_set.h"

namespace vault {
namespace {

constexpr std::uint16_t kGuidStream = 0x0002, kEntryStream = 0x0003, kStringStream = 0x0004;
constexpr std::uint16_t kFirstNamed = 0x8000;
constexpr std::size_t kMaxNameStream = 16 << 20;  // bytes of one stream; a real map has a few kilobytes
constexpr std::size_t kEntrySize = 8;
constexpr Guid kMapi = {0x28, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kPublicStrings = {0x29, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};

std::uint64_t HashOf(std::uint32_t id) {
  return id;
}
std::uint64_t HashOf(std::u16string_view name) {
  return std::uint64_t{1} << 63 | std::hash<std::u16string_view>()(name);
}

}  // namespace

NameMap::NameMap(const PropertySet& properties) {
  guids_ = properties.Binary(kGuidStream, kMaxNameStream).value_or(std::vector<std::uint8_t>{});
  const auto strings = properties.Binary(kStringStream, kMaxNameStream).value_or(std::vector<std::uint8_t>{});
  strings_.resize(strings.size() / 2);
  if (!strings_.empty()) std::memcpy(strings_.data(), strings.data(), strings_.size() * 2);
  const auto entries = properties.Binary(kEntryStream, kMaxNameStream).value_or(std::vector<std::uint8_t>{});
  for (std::size_t at = 0; at + kEntrySize <= entries.size(); at += kEntrySize) {
    const Entry entry{Load32(entries.data() + at), Load16(entries.data() + at + 4)};
    const std::uint16_t index = Load16(entries.data() + at + 6);
    if (index >= kFirstNamed || !SetOf(entry)) continue;
    const auto id = static_cast<std::uint16_t>(kFirstNamed + index);
    const bool is_string = entry.set & 1;
    const auto name = StringOf(entry);
    if (is_string && !name.data()) continue;
    if (by_property_.emplace(id, entry).second) by_name_.emplace(is_string ? HashOf(name) : HashOf(entry.id), id);
  }
}

std::optional<Guid> NameMap::SetOf(const Entry& entry) const {
  const std::size_t index = entry.set >> 1;
  if (index < 3) return index == 1 ? kMapi : index == 2 ? kPublicStrings : Guid{};
  Guid guid;
  const std::size_t at = (index - 3) * guid.size();
  if (at + guid.size() > guids_.size()) return std::nullopt;
  std::memcpy(guid.data(), guids_.data() + at, guid.size());
  return guid;
}

std::u16string_view NameMap::StringOf(const Entry& entry) const {
  const std::size_t at = entry.id / 2;  // byte length (4), then the characters
  if (!(entry.set & 1) || entry.id % 2 || at + 2 > strings_.size()) return {};
  const std::size_t length = (strings_[at] | std::size_t{strings_[at + 1]} << 16) / 2;
  if (length > strings_.size() - at - 2) return {};
  return {strings_.data() + at + 2, length};
}

std::optional<std::uint16_t> NameMap::FindId(const Guid& set, std::uint32_t id) const {
  const auto [begin, end] = by_name_.equal_range(HashOf(id));
  for (auto it = begin; it != end; ++it) {
    const Entry& entry = by_property_.at(it->second);
    if (!(entry.set & 1) && entry.id == id && SetOf(entry) == set) return it->second;
  }
  return std::nullopt;
}

std::optional<std::uint16_t> NameMap::FindId(const Guid& set, std::u16string_view name) const {
  const auto [begin, end] = by_name_.equal_range(HashOf(name));
  for (auto it = begin; it != end; ++it) {
    const Entry& entry = by_property_.at(it->second);
    if ((entry.set & 1) && StringOf(entry) == name && SetOf(entry) == set) return it->second;
  }
  return std::nullopt;
}

std::optional<NameMap::Name> NameMap::NameOf(std::uint16_t property_id) const {
  const auto found = by_property_.find(property_id);
  if (found == by_property_.end()) return std::nullopt;
  const Entry& entry = found->second;
  Name name{*SetOf(entry), entry.id};
  if (entry.set & 1) name.id = StringOf(entry);
  return name;
}

std::vector<std::uint16_t> NameMap::Ids() const {
  std::vector<std::uint16_t> ids;
  ids.reserve(by_property_.size());
  for (const auto& [id, entry] : by_property_) ids.push_back(id);
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace vault
