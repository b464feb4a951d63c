#include "vault/property_set.h"

#include "vault/heap.h"

namespace vault {
namespace {

constexpr unsigned kKeySize = 2, kRecordSize = 6;  // property id; type and value

// Types whose value is a reference to a heap item or subnode.
bool IsByReference(PropType type) {
  const PropType element = ElementType(type);
  return IsMulti(type) || element == PropType::kUnicode || element == PropType::kString8 ||
         element == PropType::kBinary || element == PropType::kObject || FixedSize(element) > 4;
}

}  // namespace

PropertySet::PropertySet(std::shared_ptr<const Heap> heap)
    : heap_(std::move(heap)), tree_(*heap_, heap_->root(), kKeySize, kRecordSize) {}

PropertyValue PropertySet::Decode(std::uint16_t id, std::span<const std::uint8_t> record) const {
  const auto type = static_cast<PropType>(Load16(record.data()));
  const PropTag tag = MakeTag(id, type);
  const unsigned size = FixedSize(type);
  if (size > 0 && size <= 4) return {tag, record.subspan(2, size)};
  if (!IsByReference(type)) {
    throw Error(ErrorCode::kBadProperty, "property " + std::to_string(id) + " has a type that does not exist",
                std::nullopt, heap_->nid());
  }
  const PropertyValue value = heap_->Resolve(tag, Load32(record.data() + 2));
  if (size > 0 && (value.is_long() || (value.bytes().size() != size && !value.bytes().empty()))) {
    throw Error(ErrorCode::kBadProperty, "property " + std::to_string(id) + " has the wrong size for its type",
                std::nullopt, heap_->nid());
  }
  return value;
}

std::optional<PropertyValue> PropertySet::Find(std::uint16_t id) const {
  if (!heap_) return std::nullopt;
  const auto record = tree_.Find(*heap_, id);
  if (!record) return std::nullopt;
  return Decode(id, *record);
}

PropertySet::Cursor PropertySet::Walk() const {
  Cursor cursor;
  cursor.set_ = this;
  cursor.at_ = tree_.Walk();
  return cursor;
}

bool PropertySet::Cursor::Next() {
  error_.reset();
  if (!set_->heap_ || !at_.Next(*set_->heap_)) return false;
  if (at_.error()) {
    error_ = *at_.error();
    return true;
  }
  try {
    value_ = set_->Decode(static_cast<std::uint16_t>(at_.key()), at_.record());
  } catch (const Error& error) {
    error_ = error;
  }
  return true;
}

ValueReader PropertySet::Open(const PropertyValue& value) const {
  return Heap::OpenValue(heap_, value);
}

std::optional<std::int64_t> PropertySet::Int(std::uint16_t id) const {
  const auto value = Find(id);
  if (!value || FixedSize(value->type()) == 0 || value->type() == PropType::kGuid) return std::nullopt;
  return value->AsInt64();
}

std::optional<std::u16string> PropertySet::Text(std::uint16_t id, std::size_t limit) const {
  const auto value = Find(id);
  if (!value) return std::nullopt;
  const bool wide = value->type() == PropType::kUnicode;
  if (!wide && value->type() != PropType::kString8) return std::nullopt;
  if (!value->is_long() && wide && value->bytes().size() / 2 <= limit) return value->AsText();
  const auto bytes = Open(*value).ReadAll(wide ? std::uint64_t{limit} * 2 : limit);
  if (wide) return PropertyValue(value->tag(), bytes).AsText();
  return Utf16FromBytes(bytes, static_cast<std::uint32_t>(Int(prop::kMessageCodepage).value_or(1252)));
}

std::optional<std::vector<std::uint8_t>> PropertySet::Binary(std::uint16_t id, std::size_t limit) const {
  const auto value = Find(id);
  if (!value || value->type() != PropType::kBinary) return std::nullopt;
  return Open(*value).ReadAll(limit);
}

}  // namespace vault
