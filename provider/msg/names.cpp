#include "provider/msg/names.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <tuple>

#include "provider/msg/property_storage.h"
#include "provider/strings.h"
#include "vault/encoding.h"

namespace provider::msg {
namespace {

#ifndef MAPI_E_NAMED_PROP_QUOTA_EXCEEDED
constexpr SCODE MAPI_E_NAMED_PROP_QUOTA_EXCEEDED = MAKE_MAPI_E(0x900);
#endif
constexpr std::uint16_t kFirstId = 0x8000, kBuckets = 0x1F, kFirstBucket = 0x1000;
constexpr std::size_t kMostNames = 0x7FFF;
constexpr ULONG kSets = 0x00020102, kEntries = 0x00030102, kStrings = 0x00040102, kBinary = 0x0102;
// Numbers below this one stand for sets that are not listed.
constexpr std::uint16_t kMapiSet = 1, kPublicStrings = 2, kFirstListed = 3;
constexpr GUID kMapi = {0x00020328, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kPublic = {0x00020329, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kInternetHeaders = {0x00020386, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

template <class T>
void Append(std::vector<std::uint8_t>& bytes, const T& value) {
  const auto* from = reinterpret_cast<const std::uint8_t*>(&value);
  bytes.insert(bytes.end(), from, from + sizeof(value));
}

std::uint32_t Checksum(const std::wstring& text, const GUID& set) {
  std::wstring hashed = text;
  if (set == kInternetHeaders) CharLowerBuffW(hashed.data(), static_cast<DWORD>(hashed.size()));
  const auto bytes = BytesOf(AsUtf16(hashed));
  return vault::Crc({bytes.data(), bytes.size()});
}

}  // namespace

bool NameTable::Name::operator<(const Name& other) const {
  if (const int order = std::memcmp(&set, &other.set, sizeof(set))) return order < 0;
  return std::tie(is_string, number, text) < std::tie(other.is_string, other.number, other.text);
}

std::uint16_t NameTable::IdOf(const MAPINAMEID* name) {
  Require(name && name->lpguid && (name->ulKind != MNID_STRING || name->Kind.lpwstrName), MAPI_E_INVALID_PARAMETER);
  Name wanted{*name->lpguid, name->ulKind == MNID_STRING, 0, {}};
  if (wanted.is_string) {
    wanted.text = name->Kind.lpwstrName;
  } else {
    wanted.number = static_cast<std::uint32_t>(name->Kind.lID);
  }
  if (const auto found = ids_.find(wanted); found != ids_.end()) return found->second;
  Require(names_.size() < kMostNames, MAPI_E_NAMED_PROP_QUOTA_EXCEEDED);
  const auto id = static_cast<std::uint16_t>(kFirstId + names_.size());
  names_.push_back(wanted);
  ids_.emplace(std::move(wanted), id);
  return id;
}

std::uint16_t NameTable::SetNumber(const GUID& set, std::vector<GUID>& sets) const {
  if (set == kMapi) return kMapiSet;
  if (set == kPublic) return kPublicStrings;
  const auto found = std::find(sets.begin(), sets.end(), set);
  const auto number = static_cast<std::uint16_t>(kFirstListed + (found - sets.begin()));
  if (found == sets.end()) sets.push_back(set);
  return number;
}

void NameTable::Write(IStorage* root) const {
  std::vector<GUID> sets;
  std::vector<std::uint8_t> entries, strings;
  std::map<std::uint16_t, std::vector<std::uint8_t>> buckets;
  for (std::size_t i = 0; i < names_.size(); ++i) {
    const Name& name = names_[i];
    const auto set = static_cast<std::uint16_t>(SetNumber(name.set, sets) << 1 | (name.is_string ? 1 : 0));
    const auto index = static_cast<std::uint16_t>(i);
    // The list names a string by its place, the buckets by its checksum.
    std::uint32_t listed = name.number, hashed = name.number;
    if (name.is_string) {
      listed = static_cast<std::uint32_t>(strings.size());
      hashed = Checksum(name.text, name.set);
      const auto text = BytesOf(AsUtf16(name.text));
      Append(strings, static_cast<std::uint32_t>(text.size()));
      strings.insert(strings.end(), text.begin(), text.end());
      while (strings.size() % 4) strings.push_back(0);
    }
    Append(entries, listed);
    Append(entries, set);
    Append(entries, index);
    auto& bucket = buckets[static_cast<std::uint16_t>(kFirstBucket + (hashed ^ set) % kBuckets)];
    Append(bucket, hashed);
    Append(bucket, set);
    Append(bucket, index);
  }
  std::vector<std::uint8_t> listed_sets;
  for (const GUID& set : sets) Append(listed_sets, set);
  const Ref<IStorage> storage = CreateStorage(root, L"__nameid_version1.0");
  WriteStream(storage.get(), ValueName(kSets), listed_sets);
  WriteStream(storage.get(), ValueName(kEntries), entries);
  WriteStream(storage.get(), ValueName(kStrings), strings);
  for (const auto& [number, bucket] : buckets)
    WriteStream(storage.get(), ValueName(static_cast<ULONG>(number) << 16 | kBinary), bucket);
}

}  // namespace provider::msg
