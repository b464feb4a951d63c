// The seventy steps of a message: when each applies, the property it emits, and how its value is made. GetChunk walks
// the table and GetValue uses the same row.
#pragma once

#include <windows.h>

#include <propsys.h>

#include "module/filter/HoardexFilter.h"

struct MessageSequence {
  static constexpr int kSteps = 70;
  static constexpr int kFirstStep = -50;  // value of the filter's step counter at step 0

  enum class Outcome { kGive, kSkip, kUntouched, kEnd };

  using Prepare = Outcome (*)(CHoardexFilter& filter);
  // `element` is the property that the row's condition found, null for rows without one.
  using Make = HRESULT (*)(CHoardexFilter& filter, const SPropValue* element, PROPVARIANT& value);

  struct Row {
    PropertySet CHoardexFilter::*set;  // null: no property is needed
    ULONG index;
    ULONG match;  // a property type (16 bits) or a whole tag
    unsigned flags;
    const PROPERTYKEY* key;
    Make make;        // null: the step has no value
    Prepare prepare;  // null: the chunk is given whenever the condition holds
  };
  static constexpr unsigned kNonEmpty = 1;     // the string must hold something
  static constexpr unsigned kAppointment = 2;  // the item must be an appointment

  static const Row& At(int step);
  // Whether the row's condition holds; sets `element`.
  static bool Applies(const Row& row, const CHoardexFilter& filter, const SPropValue** element);

 private:
  static const Row kRows[kSteps];

  static HRESULT Text(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT NarrowText(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Time(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Truth(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Short(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Long(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Read(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Hexadecimal(CHoardexFilter&, const SPropValue* element, PROPVARIANT& value);
  static HRESULT Address(CHoardexFilter& filter, const SPropValue* element, PROPVARIANT& value);
  static HRESULT False(CHoardexFilter&, const SPropValue*, PROPVARIANT& value);
  static HRESULT RootName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT Subject(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT KindText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT TypeName(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT TypeText(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT Flagged(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT HasNames(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  static HRESULT Link(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value);
  template <std::wstring CHoardexFilter::*member>
  static HRESULT Member(CHoardexFilter& filter, const SPropValue*, PROPVARIANT& value) {
    return variant::SetString(value, filter.*member);
  }

  static Outcome IsAttachmentStep(CHoardexFilter& filter);
  static Outcome BodyStep(CHoardexFilter& filter);
  static Outcome FlagStep(CHoardexFilter& filter);
  static Outcome NamesStep(CHoardexFilter& filter);
  static Outcome HasAttachmentStep(CHoardexFilter& filter);
  static Outcome LinkStep(CHoardexFilter& filter);
};
