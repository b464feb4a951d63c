#include <cstring>
#include <string_view>

#include "provider/table.h"

namespace provider {
namespace {

constexpr int kDeepest = 64;
constexpr std::size_t kLargestCompared = std::size_t{1} << 20;

class Evaluator {
 public:
  Evaluator(PropertyBag& row, ScratchArena& arena) : row_(row), arena_(arena) {}

  bool Matches(const SRestriction& r, int depth) {
    Require(depth < kDeepest, MAPI_E_TOO_COMPLEX);
    switch (r.rt) {
      case RES_AND:
        for (ULONG i = 0; i < r.res.resAnd.cRes; ++i)
          if (!Matches(r.res.resAnd.lpRes[i], depth + 1)) return false;
        return true;
      case RES_OR:
        for (ULONG i = 0; i < r.res.resOr.cRes; ++i)
          if (Matches(r.res.resOr.lpRes[i], depth + 1)) return true;
        return false;
      case RES_NOT:
        return !Matches(*r.res.resNot.lpRes, depth + 1);
      case RES_COMMENT:
        return !r.res.resComment.lpRes || Matches(*r.res.resComment.lpRes, depth + 1);
      case RES_PROPERTY:
        return Property(r.res.resProperty);
      case RES_CONTENT:
        return Content(r.res.resContent);
      case RES_COMPAREPROPS:
        return Compare(r.res.resCompareProps);
      case RES_BITMASK:
        return BitMask(r.res.resBitMask);
      case RES_SIZE:
        return Size(r.res.resSize);
      case RES_EXIST:
        return row_.Find(vault::IdOf(r.res.resExist.ulPropTag)).has_value();
      default:
        Fail(MAPI_E_TOO_COMPLEX);
    }
  }

 private:
  bool Get(ULONG tag, SPropValue& value) {
    return WriteProperty(row_, tag, MAPI_UNICODE, arena_, value, kLargestCompared);
  }

  static bool Holds(ULONG relation, LONG order) {
    switch (relation) {
      case RELOP_LT:
        return order < 0;
      case RELOP_LE:
        return order <= 0;
      case RELOP_GT:
        return order > 0;
      case RELOP_GE:
        return order >= 0;
      case RELOP_EQ:
        return order == 0;
      case RELOP_NE:
        return order != 0;
      default:
        Fail(MAPI_E_TOO_COMPLEX);
    }
  }

  bool Property(const SPropertyRestriction& r) {
    // The value is fetched in the type that it is compared with, so that both kinds of strings work.
    SPropValue value;
    return Get(PROP_TAG(PROP_TYPE(r.lpProp->ulPropTag), PROP_ID(r.ulPropTag)), value) &&
           Holds(r.relop, CompareValues(value, *r.lpProp));
  }

  bool Compare(const SComparePropsRestriction& r) {
    SPropValue a, b;
    return Get(r.ulPropTag1, a) && Get(r.ulPropTag2, b) && Holds(r.relop, CompareValues(a, b));
  }

  bool BitMask(const SBitMaskRestriction& r) {
    SPropValue value;
    if (!Get(PROP_TAG(PT_LONG, PROP_ID(r.ulPropTag)), value)) return false;
    const bool any = (static_cast<ULONG>(value.Value.l) & r.ulMask) != 0;
    return r.relBMR == BMR_EQZ ? !any : any;
  }

  bool Size(const SSizeRestriction& r) {
    const auto value = row_.Find(vault::IdOf(r.ulPropTag));
    if (!value) return false;
    const std::uint64_t size = value->size();
    return Holds(r.relop, size < r.cb ? -1 : size > r.cb ? 1 : 0);
  }

  static bool Contains(std::string_view text, std::string_view sought, ULONG level) {
    switch (level & 0xFFFF) {
      case FL_FULLSTRING:
        return text == sought;
      case FL_PREFIX:
        return text.starts_with(sought);
      case FL_SUBSTRING:
        return text.find(sought) != std::string_view::npos;
      default:
        Fail(MAPI_E_TOO_COMPLEX);
    }
  }
  static bool Contains(std::wstring text, std::wstring sought, ULONG level) {
    if (level & (FL_IGNORECASE | FL_LOOSE)) {
      CharLowerBuffW(text.data(), static_cast<DWORD>(text.size()));
      CharLowerBuffW(sought.data(), static_cast<DWORD>(sought.size()));
    }
    switch (level & 0xFFFF) {
      case FL_FULLSTRING:
        return text == sought;
      case FL_PREFIX:
        return text.starts_with(sought);
      case FL_SUBSTRING:
        return text.find(sought) != std::wstring::npos;
      default:
        Fail(MAPI_E_TOO_COMPLEX);
    }
  }

  bool Content(const SContentRestriction& r) {
    const SPropValue& sought = *r.lpProp;
    const ULONG type = PROP_TYPE(sought.ulPropTag);
    SPropValue value;
    if (type == PT_BINARY) {
      if (!Get(PROP_TAG(PT_BINARY, PROP_ID(r.ulPropTag)), value)) return false;
      const auto view = [](const SBinary& b) { return std::string_view(reinterpret_cast<const char*>(b.lpb), b.cb); };
      return Contains(view(value.Value.bin), view(sought.Value.bin), r.ulFuzzyLevel);
    }
    Require(type == PT_UNICODE || type == PT_STRING8, MAPI_E_TOO_COMPLEX);
    if (!Get(PROP_TAG(PT_UNICODE, PROP_ID(r.ulPropTag)), value)) return false;
    const std::u16string wanted =
        type == PT_UNICODE ? FromCaller(sought.Value.lpszW, MAPI_UNICODE) : FromCaller(sought.Value.lpszA, 0);
    return Contains(std::wstring(value.Value.lpszW), AsWide(wanted), r.ulFuzzyLevel);
  }

  PropertyBag& row_;
  ScratchArena& arena_;
};

}  // namespace

bool Matches(const SRestriction& restriction, PropertyBag& row, ScratchArena& arena) {
  return Evaluator(row, arena).Matches(restriction, 0);
}

}  // namespace provider
