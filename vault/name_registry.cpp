#include "vault/name_registry.h"

#include <array>

#include "vault/append.h"
#include "vault/encoding.h"
#include "vault/error.h"

namespace vault {
namespace {

constexpr std::uint16_t kFirstNamed = 0x8000;
constexpr std::size_t kMostNames = 0x7FFF;
constexpr std::uint32_t kNameBuckets = 251;

std::span<const std::uint8_t> BytesOf(std::u16string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * 2};
}

}  // namespace

std::uint16_t NameRegistry::IdOf(const PropertyName& name) {
  if (const auto known = ids_.find(name); known != ids_.end()) return known->second;
  if (order_.size() == kMostNames) throw Error(ErrorCode::kUnwritable, "the store has too many named properties");
  const auto id = static_cast<std::uint16_t>(kFirstNamed + order_.size());
  order_.push_back(name);
  return ids_[name] = id;
}

// [MS-PST] 2.4.7.
PropertyMap NameRegistry::Map() const {
  std::vector<std::uint8_t> guids, entries, strings;
  std::map<std::uint32_t, std::vector<std::uint8_t>> buckets;
  std::map<Guid, std::uint16_t> sets{{MapiSet(0x00020328), 1}, {kPublicStringsSet, 2}};
  for (std::size_t i = 0; i < order_.size(); ++i) {
    const PropertyName& name = order_[i];
    const auto [set, is_new] = sets.try_emplace(name.set, static_cast<std::uint16_t>(sets.size() + 1));
    if (is_new) AppendValue(guids, name.set);
    const auto kind = static_cast<std::uint16_t>(set->second << 1 | (name.text.empty() ? 0 : 1));
    std::uint32_t id = 0, hash = 0;
    if (!name.text.empty()) {
      id = static_cast<std::uint32_t>(strings.size());
      hash = Crc(BytesOf(name.text));
      AppendValue(strings, static_cast<std::uint32_t>(name.text.size() * 2));
      const auto bytes = BytesOf(name.text);
      strings.insert(strings.end(), bytes.begin(), bytes.end());
      strings.resize((strings.size() + 3) / 4 * 4);
    } else {
      id = hash = name.id;
    }
    const auto add = [&](std::vector<std::uint8_t>& to, std::uint32_t first) {
      AppendValue(to, first);
      AppendValue(to, kind);
      AppendValue(to, static_cast<std::uint16_t>(i));
    };
    add(entries, id);
    add(buckets[(hash ^ kind) % kNameBuckets], hash);
  }
  PropertyMap map;
  AppendValue(map[std::uint16_t{0x0001}].bytes, kNameBuckets);
  map[std::uint16_t{0x0001}].type = PropType::kInt32;
  map[std::uint16_t{0x0002}] = {PropType::kBinary, guids};
  map[std::uint16_t{0x0003}] = {PropType::kBinary, entries};
  map[std::uint16_t{0x0004}] = {PropType::kBinary, strings};
  for (auto& [bucket, bytes] : buckets) {
    map[static_cast<std::uint16_t>(0x1000 + bucket)] = {PropType::kBinary, std::move(bytes)};
  }
  return map;
}

}  // namespace vault
