#include "provider/property.h"

#include <algorithm>
#include <cstring>

#include "provider/object.h"

namespace provider {
namespace {

using vault::PropType;

template <class T>
T Scalar(std::span<const std::uint8_t> bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
  return value;
}

bool IsString(PropType type) {
  return type == PropType::kString8 || type == PropType::kUnicode;
}

// The element type and multi-value flag in which a stored value answers a request; nothing when it cannot.
std::optional<PropType> AnswerType(PropType stored, PropType wanted, ULONG flags) {
  const bool multi = vault::IsMulti(stored);
  const PropType element = vault::ElementType(stored);
  const auto with_flag = [multi](PropType type) {
    return static_cast<PropType>(static_cast<std::uint16_t>(type) | (multi ? MV_FLAG : 0));
  };
  if (wanted == PropType::kUnspecified) {
    if (!IsString(element)) return stored;
    return with_flag(flags & MAPI_UNICODE ? PropType::kUnicode : PropType::kString8);
  }
  if (wanted == stored) return stored;
  if (vault::IsMulti(wanted) == multi && IsString(element) && IsString(vault::ElementType(wanted))) return wanted;
  return {};
}

class Writer {
 public:
  Writer(Arena& arena, PropertyBag& bag) : arena_(arena), bag_(bag) {}

  // One value (not multi) of `stored` type at the union's place.
  void Write(PropType stored, PropType wanted, std::span<const std::uint8_t> bytes, _PV& out) {
    switch (wanted) {
      case PropType::kInt16:
        out.i = Scalar<short>(bytes);
        return;
      case PropType::kInt32:
        out.l = Scalar<LONG>(bytes);
        return;
      case PropType::kError:
        out.err = Scalar<SCODE>(bytes);
        return;
      case PropType::kFloat:
        out.flt = Scalar<float>(bytes);
        return;
      case PropType::kDouble:
      case PropType::kAppTime:
        out.dbl = Scalar<double>(bytes);
        return;
      case PropType::kCurrency:
        out.cur.int64 = Scalar<LONGLONG>(bytes);
        return;
      case PropType::kInt64:
        out.li.QuadPart = Scalar<LONGLONG>(bytes);
        return;
      case PropType::kTime:
        out.ft = Scalar<FILETIME>(bytes);
        return;
      case PropType::kBoolean:
        out.b = !bytes.empty() && bytes[0];
        return;
      case PropType::kGuid:
        out.lpguid = NewGuid(bytes);
        return;
      case PropType::kObject:
        out.x = 0;
        return;
      case PropType::kUnicode:
        out.lpszW = Wide(stored, bytes);
        return;
      case PropType::kString8:
        out.lpszA = Narrow8(stored, bytes);
        return;
      case PropType::kBinary:
        out.bin = Binary(bytes);
        return;
      default:
        Fail(MAPI_E_NOT_FOUND);
    }
  }

  void WriteMulti(PropType stored, PropType wanted, std::span<const std::uint8_t> bytes, _PV& out) {
    const vault::MultiValue values(stored, bytes);
    const PropType from = vault::ElementType(stored), to = vault::ElementType(wanted);
    switch (to) {
      case PropType::kInt16:
        return Fill(values, from, to, out.MVi.cValues, out.MVi.lpi, [](_PV& v) { return v.i; });
      case PropType::kInt32:
        return Fill(values, from, to, out.MVl.cValues, out.MVl.lpl, [](_PV& v) { return v.l; });
      case PropType::kFloat:
        return Fill(values, from, to, out.MVflt.cValues, out.MVflt.lpflt, [](_PV& v) { return v.flt; });
      case PropType::kDouble:
      case PropType::kAppTime:
        return Fill(values, from, to, out.MVdbl.cValues, out.MVdbl.lpdbl, [](_PV& v) { return v.dbl; });
      case PropType::kCurrency:
        return Fill(values, from, to, out.MVcur.cValues, out.MVcur.lpcur, [](_PV& v) { return v.cur; });
      case PropType::kInt64:
        return Fill(values, from, to, out.MVli.cValues, out.MVli.lpli, [](_PV& v) { return v.li; });
      case PropType::kTime:
        return Fill(values, from, to, out.MVft.cValues, out.MVft.lpft, [](_PV& v) { return v.ft; });
      case PropType::kGuid:
        return Fill(values, from, to, out.MVguid.cValues, out.MVguid.lpguid, [](_PV& v) { return *v.lpguid; });
      case PropType::kUnicode:
        return Fill(values, from, to, out.MVszW.cValues, out.MVszW.lppszW, [](_PV& v) { return v.lpszW; });
      case PropType::kString8:
        return Fill(values, from, to, out.MVszA.cValues, out.MVszA.lppszA, [](_PV& v) { return v.lpszA; });
      case PropType::kBinary:
        return Fill(values, from, to, out.MVbin.cValues, out.MVbin.lpbin, [](_PV& v) { return v.bin; });
      default:
        Fail(MAPI_E_NOT_FOUND);
    }
  }

 private:
  template <class T, class Pick>
  void Fill(const vault::MultiValue& values, PropType from, PropType to, ULONG& count, T*& array, Pick pick) {
    T* filled = arena_.AllocateArray<T>(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
      _PV one{};
      Write(from, to, values[i], one);
      filled[i] = pick(one);
    }
    count = static_cast<ULONG>(values.size());
    array = filled;
  }

  wchar_t* Wide(PropType stored, std::span<const std::uint8_t> bytes) {
    if (stored == PropType::kUnicode) {
      auto* text = arena_.AllocateArray<wchar_t>(bytes.size() / 2 + 1);
      std::memcpy(text, bytes.data(), bytes.size() / 2 * 2);
      text[bytes.size() / 2] = 0;
      return text;
    }
    return CopyWide(Widen(bag_.CodePage(), bytes), arena_);
  }
  char* Narrow8(PropType stored, std::span<const std::uint8_t> bytes) {
    if (stored == PropType::kUnicode) return CopyNarrow(Narrow(Utf16FromLittleEndian(bytes)), arena_);
    const unsigned page = bag_.CodePage();
    if (page && page != GetACP()) return CopyNarrow(Narrow(Widen(page, bytes)), arena_);
    return CopyNarrow({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, arena_);
  }
  SBinary Binary(std::span<const std::uint8_t> bytes) {
    return {static_cast<ULONG>(bytes.size()), static_cast<LPBYTE>(arena_.Copy(bytes.data(), bytes.size()))};
  }
  GUID* NewGuid(std::span<const std::uint8_t> bytes) {
    auto* guid = arena_.AllocateArray<GUID>(1);
    *guid = Scalar<GUID>(bytes);
    return guid;
  }

  Arena& arena_;
  PropertyBag& bag_;  // asked for its code page only when there are 8-bit strings: a table row opens its item for that
};

// Bytes of a value in the form that the caller asked for, near enough to judge its size without converting it.
std::uint64_t AnsweredSize(const Value& value, PropType answer) {
  const bool widens =
      vault::ElementType(value.type()) == PropType::kString8 && vault::ElementType(answer) == PropType::kUnicode;
  return widens ? value.size() * 2 : value.size();
}

void Write(PropertyBag& bag, ULONG tag, ULONG flags, Arena& arena, SPropValue& out, std::size_t largest) {
  const std::optional<Value> value = bag.Find(vault::IdOf(tag));
  if (!value) Fail(MAPI_E_NOT_FOUND);
  const auto answer = AnswerType(value->type(), static_cast<PropType>(PROP_TYPE(tag)), flags);
  if (!answer) Fail(MAPI_E_NOT_FOUND);
  if (*answer != PropType::kObject && AnsweredSize(*value, *answer) > largest) Fail(MAPI_E_NOT_ENOUGH_MEMORY);
  std::vector<std::uint8_t> read;
  auto bytes = value->bytes;
  if (value->reader && *answer != PropType::kObject) {
    read = value->Read();
    bytes = read;
  }
  Writer writer(arena, bag);
  if (vault::IsMulti(*answer)) {
    writer.WriteMulti(value->type(), *answer, bytes, out.Value);
  } else {
    writer.Write(value->type(), *answer, bytes, out.Value);
  }
  out.ulPropTag = PROP_TAG(static_cast<ULONG>(*answer), PROP_ID(tag));
}

template <class T>
LONG Order(const T& a, const T& b) {
  return a < b ? -1 : b < a ? 1 : 0;
}

LONG OrderBinary(const SBinary& a, const SBinary& b) {
  const int order = std::memcmp(a.lpb, b.lpb, std::min(a.cb, b.cb));
  return order ? order : Order(a.cb, b.cb);
}

}  // namespace

Value Value::Owned(vault::PropTag tag, std::vector<std::uint8_t> content) {
  auto owned = std::make_shared<const std::vector<std::uint8_t>>(std::move(content));
  Value value = Of(tag, *owned);
  value.owner = std::move(owned);
  return value;
}
Value Value::Text(std::uint16_t id, std::u16string_view text) {
  return Shared(vault::MakeTag(id, PropType::kUnicode), std::make_shared<const std::u16string>(text));
}
Value Value::Shared(vault::PropTag tag, std::shared_ptr<const std::u16string> text) {
  Value value = Of(tag, BytesOf(*text));
  value.owner = std::move(text);
  return value;
}
Value Value::Int(std::uint16_t id, std::int32_t number) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&number);
  return Owned(vault::MakeTag(id, PropType::kInt32), {bytes, bytes + sizeof number});
}
Value Value::Bool(std::uint16_t id, bool truth) {
  return Owned(vault::MakeTag(id, PropType::kBoolean), {static_cast<std::uint8_t>(truth)});
}

Value Value::View() const {
  Value value = Of(tag_, bytes);
  value.owner = owner;
  return value;
}

std::vector<std::uint8_t> Value::Read(std::uint64_t limit) const {
  if (!reader)
    return {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(bytes.size(), limit))};
  return reader->ReadAll(limit);
}

std::optional<Value> FindStored(const vault::PropertySet& set, std::uint16_t id) {
  const auto stored = set.Find(id);
  if (!stored) return {};
  Value value = Value::Of(stored->tag(), stored->bytes());
  if (stored->is_long()) value.reader = set.Open(*stored);
  return value;
}

void ListStored(const vault::PropertySet& set, std::vector<vault::PropTag>& tags) {
  for (auto cursor = set.Walk(); cursor.Next();) {
    if (!cursor.error()) tags.push_back(cursor.value().tag());
  }
}

std::u16string TextOf(const Value& value, unsigned code_page, std::uint64_t limit) {
  if (!IsString(value.type())) return {};
  std::vector<std::uint8_t> read;
  auto bytes = value.bytes;
  if (value.reader || value.size() > limit) {
    read = value.Read(limit);
    bytes = read;
  }
  return value.type() == PropType::kUnicode ? Utf16FromLittleEndian(bytes) : Widen(code_page, bytes);
}

bool WriteProperty(PropertyBag& bag, ULONG tag, ULONG flags, Arena& arena, SPropValue& out, std::size_t largest) {
  out = {};
  SCODE error = MAPI_E_NOT_FOUND;
  try {
    Write(bag, tag, flags, arena, out, largest);
    return true;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (...) {
    error = CurrentFailure().code;
  }
  out.ulPropTag = PROP_TAG(PT_ERROR, PROP_ID(tag));
  out.Value = {};
  out.Value.err = error;
  return false;
}

ULONG CallerTag(vault::PropTag stored, ULONG flags) {
  const auto type = AnswerType(vault::PropTypeOf(stored), PropType::kUnspecified, flags);
  return PROP_TAG(static_cast<ULONG>(*type), vault::IdOf(stored));
}

LONG CompareValues(const SPropValue& a, const SPropValue& b) {
  const auto type = static_cast<PropType>(PROP_TYPE(a.ulPropTag));
  if (PROP_TYPE(a.ulPropTag) != PROP_TYPE(b.ulPropTag)) return Order(PROP_TYPE(a.ulPropTag), PROP_TYPE(b.ulPropTag));
  switch (type) {
    case PropType::kInt16:
      return Order(a.Value.i, b.Value.i);
    case PropType::kInt32:
      return Order(a.Value.l, b.Value.l);
    case PropType::kError:
      return Order(a.Value.err, b.Value.err);
    case PropType::kBoolean:
      return Order(a.Value.b != 0, b.Value.b != 0);
    case PropType::kFloat:
      return Order(a.Value.flt, b.Value.flt);
    case PropType::kDouble:
    case PropType::kAppTime:
      return Order(a.Value.dbl, b.Value.dbl);
    case PropType::kCurrency:
      return Order(a.Value.cur.int64, b.Value.cur.int64);
    case PropType::kInt64:
      return Order(a.Value.li.QuadPart, b.Value.li.QuadPart);
    case PropType::kTime:
      return CompareFileTime(&a.Value.ft, &b.Value.ft);
    case PropType::kGuid:
      return std::memcmp(a.Value.lpguid, b.Value.lpguid, sizeof(GUID));
    case PropType::kBinary:
      return OrderBinary(a.Value.bin, b.Value.bin);
    case PropType::kUnicode:
      return CompareStringW(LOCALE_INVARIANT, NORM_IGNORECASE, a.Value.lpszW, -1, b.Value.lpszW, -1) - CSTR_EQUAL;
    case PropType::kString8:
      return CompareStringA(LOCALE_INVARIANT, NORM_IGNORECASE, a.Value.lpszA, -1, b.Value.lpszA, -1) - CSTR_EQUAL;
    default:
      return 0;
  }
}

}  // namespace provider
