// One reading of a filter, call by call, with caps: whatever the filter answers, it comes to an end.
#pragma once

#include <windows.h>

#include <filter.h>
#include <objidl.h>

#include <functional>
#include <string>
#include <vector>

#include "host/FilterRules.h"

namespace host {

// Calls after which a filter is given up.
struct ReadingCaps {
  size_t chunks = 200'000;        // chunks of one reading
  size_t idle = 64;               // answers in a row that bring nothing
  size_t characters = 256 << 20;  // of one text
  size_t probed = 400;            // chunks of a reading that asks more than is usual
};

struct ReadChunk {
  ULONG id = 0;
  CHUNKSTATE state = {};
  CHUNK_BREAKTYPE break_type = CHUNK_NO_BREAK;
  ULONG source = 0;
  LCID locale = 0;
  std::string property;
  FULLPROPSPEC attribute = {};
  std::string value;  // as JSON; a time of the run itself is "now"
  VARTYPE type = VT_EMPTY;
  std::wstring text;

  // The same content: everything but ids.
  bool SameAs(const ReadChunk& other) const {
    return state == other.state && break_type == other.break_type && locale == other.locale &&
           property == other.property && type == other.type && value == other.value && text == other.text;
  }
  std::string Describe() const;  // "chunk 12, System.Subject"
};

enum class Ending { kEnd, kStopped, kFailed, kCap };

struct Reading {
  std::vector<ReadChunk> chunks;
  Ending ending = Ending::kEnd;
  HRESULT last = S_OK;
  std::string cap;  // which cap ended it
};

// How a reading differs from another: empty when it does not. `limit` chunks are compared.
std::string Difference(const Reading& expected, const Reading& seen, size_t limit = SIZE_MAX);

// Reads a filter and notes what it answers in a tally. One filter, one thread.
class FilterReader {
 public:
  FilterReader(IFilter* filter, RuleTally& tally, const ReadingCaps& caps)
      : filter_(filter), tally_(tally), caps_(caps) {
    GetSystemTimeAsFileTime(&begin_);
  }

  // Buffers of GetText: the sizes are used in turn.
  void set_buffers(std::vector<ULONG> sizes) { buffers_ = std::move(sizes); }
  // Called at every chunk before it is read; the chunk is read afterwards all the same, unless it says false.
  using Probe = std::function<bool(const ReadChunk& chunk)>;
  void set_probe(Probe probe) { probe_ = std::move(probe); }
  // Whether rules are noted; a reading that serves another question notes only what it asks.
  void set_noting(bool noting) { noting_ = noting; }
  // When the item was first read; times of the run itself are later.
  void set_begin(const FILETIME& begin) { begin_ = begin; }

  // To the end, or to `most` chunks.
  Reading Run(size_t most = SIZE_MAX);

  HRESULT ReadValue(ReadChunk& chunk);
  // Reads the text of the current chunk. Returns the last answer.
  HRESULT ReadText(ReadChunk& chunk);

 private:
  void Note(Rule rule, bool kept, const std::string& seen) {
    if (noting_) tally_.Note(rule, kept, seen);
  }
  void NoteChunk(const ReadChunk& chunk, const ReadChunk* before);

  IFilter* filter_;
  RuleTally& tally_;
  const ReadingCaps& caps_;
  std::vector<ULONG> buffers_ = {4096};
  Probe probe_;
  bool noting_ = true;
  FILETIME begin_;
};

}  // namespace host
