#include "provider/prop_object.h"

#include <cstring>

#include "provider/store_file.h"

namespace provider {
namespace {

using vault::PropType;

std::vector<ULONG> AllTags(PropertyBag& bag, ULONG flags) {
  std::vector<vault::PropTag> stored;
  bag.List(stored);
  std::vector<ULONG> tags;
  std::vector<bool> seen(0x10000);
  for (const vault::PropTag tag : stored) {
    if (seen[vault::IdOf(tag)]) continue;
    seen[vault::IdOf(tag)] = true;
    tags.push_back(CallerTag(tag, flags));
  }
  return tags;
}

SPropTagArray* NewTagArray(std::size_t count, Arena& arena) {
  auto* array = static_cast<SPropTagArray*>(arena.Allocate(CbNewSPropTagArray(static_cast<ULONG>(count))));
  array->cValues = static_cast<ULONG>(count);
  return array;
}

vault::Guid GuidOf(const GUID* guid) {
  vault::Guid bytes{};
  if (guid) std::memcpy(bytes.data(), guid, bytes.size());
  return bytes;
}

std::optional<PropertyName> NameOf(const MAPINAMEID* name) {
  if (!name || !name->lpguid) return {};
  PropertyName answer{GuidOf(name->lpguid), static_cast<std::uint32_t>(name->Kind.lID)};
  if (name->ulKind == MNID_STRING) answer.id = FromCaller(name->Kind.lpwstrName, MAPI_UNICODE);
  return answer;
}

}  // namespace

HRESULT GetProps(PropertyBag& bag, LPSPropTagArray tags, ULONG flags, ULONG* count, LPSPropValue* values) {
  Require(count && values, MAPI_E_INVALID_PARAMETER);
  Require(!tags || tags->cValues, MAPI_E_INVALID_PARAMETER);
  const std::vector<ULONG> wanted =
      tags ? std::vector<ULONG>(tags->aulPropTag, tags->aulPropTag + tags->cValues) : AllTags(bag, flags);
  MapiArena arena;
  auto* filled = arena.AllocateArray<SPropValue>(wanted.size());
  bool complete = true;
  for (std::size_t i = 0; i < wanted.size(); ++i) complete &= WriteProperty(bag, wanted[i], flags, arena, filled[i]);
  arena.Release();
  *count = static_cast<ULONG>(wanted.size());
  *values = filled;
  return complete ? S_OK : MAPI_W_ERRORS_RETURNED;
}

void GetPropList(PropertyBag& bag, ULONG flags, LPSPropTagArray* tags) {
  Require(tags != nullptr, MAPI_E_INVALID_PARAMETER);
  const std::vector<ULONG> all = AllTags(bag, flags);
  MapiArena arena;
  SPropTagArray* array = NewTagArray(all.size(), arena);
  std::copy(all.begin(), all.end(), array->aulPropTag);
  arena.Release();
  *tags = array;
}

Ref<IStream> OpenStream(PropertyBag& bag, ULONG tag, ULONG flags) {
  auto value = bag.Find(vault::IdOf(tag));
  if (!value) Fail(MAPI_E_NOT_FOUND);
  PropType wanted = static_cast<PropType>(PROP_TYPE(tag));
  if (wanted == PropType::kUnspecified) wanted = static_cast<PropType>(PROP_TYPE(CallerTag(value->tag(), flags)));
  const auto is_string = [](PropType type) { return type == PropType::kUnicode || type == PropType::kString8; };
  if (is_string(wanted) && is_string(value->type())) {
    const bool ansi_page = !bag.CodePage() || bag.CodePage() == GetACP();
    if (wanted == value->type() && (wanted == PropType::kUnicode || ansi_page)) return MakeStream(std::move(*value));
    const std::u16string text = TextOf(*value, bag.CodePage());
    if (wanted == PropType::kUnicode) {
      const auto bytes = BytesOf(text);
      return MakeStream(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
    }
    const std::string narrow = Narrow(text);
    return MakeStream(std::vector<std::uint8_t>(narrow.begin(), narrow.end()));
  }
  Require(wanted == value->type() && (wanted == PropType::kBinary || wanted == PropType::kObject), MAPI_E_NOT_FOUND);
  return MakeStream(std::move(*value));
}

HRESULT GetNamesFromIds(StoreFile& file, PropertyBag& bag, LPSPropTagArray* tags, LPGUID set, ULONG, ULONG* count,
                        LPMAPINAMEID** names) {
  Require(tags && count && names, MAPI_E_INVALID_PARAMETER);
  std::vector<ULONG> ids;
  if (*tags) {
    ids.assign((*tags)->aulPropTag, (*tags)->aulPropTag + (*tags)->cValues);
  } else {
    for (const ULONG tag : AllTags(bag, 0))
      if (PROP_ID(tag) >= 0x8000) ids.push_back(tag);
  }
  MapiArena arena;
  auto** array = arena.AllocateArray<MAPINAMEID*>(ids.size());
  bool complete = true;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    array[i] = nullptr;
    const auto name = file.NameOfId(vault::IdOf(ids[i]));
    if (!name || (set && GuidOf(set) != name->set)) {
      complete = false;
      continue;
    }
    auto* entry = arena.AllocateArray<MAPINAMEID>(1);
    *entry = {};
    entry->lpguid = static_cast<GUID*>(arena.Copy(name->set.data(), sizeof(GUID)));
    if (const auto* number = std::get_if<std::uint32_t>(&name->id)) {
      entry->ulKind = MNID_ID;
      entry->Kind.lID = static_cast<LONG>(*number);
    } else {
      entry->ulKind = MNID_STRING;
      entry->Kind.lpwstrName = CopyWide(std::get<std::u16string>(name->id), arena);
    }
    array[i] = entry;
  }
  if (!*tags) {
    MapiArena tag_arena;
    SPropTagArray* answer = NewTagArray(ids.size(), tag_arena);
    std::copy(ids.begin(), ids.end(), answer->aulPropTag);
    tag_arena.Release();
    *tags = answer;
  }
  arena.Release();
  *count = static_cast<ULONG>(ids.size());
  *names = array;
  return complete ? S_OK : MAPI_W_ERRORS_RETURNED;
}

HRESULT GetIdsFromNames(StoreFile& file, ULONG count, LPMAPINAMEID* names, ULONG flags, LPSPropTagArray* tags) {
  Require(tags != nullptr, MAPI_E_INVALID_PARAMETER);
  Require(count && names, MAPI_E_TOO_BIG);  // all names of a store are too many to be asked for
  MapiArena arena;
  SPropTagArray* array = NewTagArray(count, arena);
  bool complete = true;
  for (ULONG i = 0; i < count; ++i) {
    const auto name = NameOf(names[i]);
    const auto id = name ? file.IdOfName(*name, flags & MAPI_CREATE) : std::nullopt;
    array->aulPropTag[i] = id ? PROP_TAG(PT_UNSPECIFIED, *id) : PROP_TAG(PT_ERROR, 0);
    complete &= id.has_value();
  }
  arena.Release();
  *tags = array;
  return complete ? S_OK : MAPI_W_ERRORS_RETURNED;
}

}  // namespace provider
