// What every kind of item offers, as tables: when a step applies, the property it emits, its kind of chunk, and how its
// value is made. GetChunk walks the rows of an item's sequence and GetValue uses the row that GetChunk announced last.
// docs/items.md is written from these tables.
#pragma once

#include <windows.h>

#include <span>

#include "module/filter/HoardexFilter.h"
#include "module/filter/PropertyKeys.h"

// Of a row.
inline constexpr unsigned kIfNotEmpty = 1;      // the string must hold something
inline constexpr unsigned kIfAppointment = 2;   // the item must be an appointment
inline constexpr unsigned kWorkstationId = 4;   // a chunk id of its own only on a workstation of Vista or later
inline constexpr unsigned kMovesOnByValue = 8;  // GetValue goes on to the next step, and does not fail for a string

struct ItemSequence {
  enum class Outcome {
    kGive,       // the chunk
    kSkip,       // the step
    kUntouched,  // S_OK with nothing in the caller's structure; the step is used up all the same
    kEnd,
  };
  using Prepare = Outcome (*)(CHoardexFilter& filter);
  // `element` is the property that the row's condition found, null for rows without one.
  using Make = HRESULT (*)(CHoardexFilter& filter, const SPropValue* element, PROPVARIANT& value);

  // What decides about a step when its property is there, and in words when it then is given.
  struct Rule {
    Prepare prepare;
    const char* words;
  };

  struct Row {
    PropertySource source;  // kNone: no property is needed
    ULONG index;
    ULONG match;  // a property type (16 bits) or a whole tag
    unsigned flags;
    const Property* property;
    Make make;  // null: the chunk is text, and has no value
    const Rule* rule = nullptr;
    const wchar_t* out_of_memory = nullptr;  // the line for a value that could not be allocated

    CHUNKSTATE state() const { return make ? CHUNK_VALUE : CHUNK_TEXT; }
    bool MatchesTag() const { return match > 0xFFFF; }
    // Whether the condition holds; sets `element`.
    bool Applies(const CHoardexFilter& filter, const SPropValue** element) const;
  };
  const char* item;
  std::span<const Row> rows;
  int CHoardexFilter::*counter;
  int first;      // the counter's value at the first row
  bool walks;     // GetChunk goes on to the next step; else GetValue does, and the same chunk is offered until then
  bool traces;    // each step that is come to is logged, and so is the step whose value could not be allocated
  Prepare enter;  // before each chunk
  HRESULT (*leave)(CHoardexFilter& filter, STAT_CHUNK* stat);  // where there is no row left
  // GetValue where there is no row, or a row without a value; null: the value is empty.
  HRESULT (*beyond)(CHoardexFilter& filter, PROPVARIANT** value);
  void (*before_value)(CHoardexFilter& filter);  // null: nothing

  const Row* At(int position) const {
    const int step = position - first;
    return step >= 0 && step < static_cast<int>(rows.size()) ? &rows[static_cast<size_t>(step)] : nullptr;
  }

  // The sequence of a URL's kind; null for what is none of our items.
  static const ItemSequence* Of(CHoardexURL::Kind kind);
};
