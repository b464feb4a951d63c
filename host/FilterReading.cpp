#include "host/FilterReading.h"

#include <filterr.h>

#include <algorithm>

#include "host/ItemReader.h"
#include "host/PropertyNames.h"

namespace host {
namespace {

constexpr WCHAR kGuard = 0xF5A9;
// A filter may overrun its buffer; so far it is seen, and does no harm.
constexpr size_t kGuards = 64;
// Small buffers are slow: after so many characters the text goes on by large ones.
constexpr size_t kSmallPieces = 20'000;
constexpr ULONG kLargeBuffer = 4096;

constexpr HRESULT kNoChunk[] = {FILTER_E_EMBEDDING_UNAVAILABLE, FILTER_E_LINK_UNAVAILABLE, FILTER_E_PASSWORD,
                                FILTER_E_ACCESS};
// States that the interface knows: text, value, and a value that stays the filter's own.
constexpr DWORD kStates[] = {CHUNK_TEXT, CHUNK_VALUE, 4};

std::string CodeWords(HRESULT code) {
  if (code == S_OK) return "S_OK";
  const std::string name = CodeName(code);
  return name.empty() ? CodeText(code) : name;
}

template <class List, class T>
bool Contains(const List& list, T wanted) {
  return std::find(std::begin(list), std::end(list), wanted) != std::end(list);
}

bool IsString(VARTYPE type) {
  return type == VT_LPWSTR || type == VT_BSTR || type == VT_LPSTR || type == (VT_VECTOR | VT_LPWSTR);
}

// A time of the run itself differs from run to run, so it is written as what it is.
std::string ValueWords(const PROPVARIANT& value, const FILETIME& begin) {
  FILETIME end;
  GetSystemTimeAsFileTime(&end);
  const auto words = [&](const PROPVARIANT& element) -> Json {
    if (element.vt == VT_FILETIME && CompareFileTime(&element.filetime, &begin) >= 0 &&
        CompareFileTime(&element.filetime, &end) <= 0)
      return "now";
    return ValueOf(element);
  };
  Json json;
  if (value.vt == (VT_VECTOR | VT_VARIANT)) {
    json = Json::array();
    for (ULONG i = 0; i < value.capropvar.cElems; ++i) json.push_back(words(value.capropvar.pElems[i]));
  } else {
    json = words(value);
  }
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The blocks of a value that its receiver frees.
bool IsTaskMemory(const PROPVARIANT* value) {
  Microsoft::WRL::ComPtr<IMalloc> allocator;
  if (FAILED(CoGetMalloc(1, &allocator))) return true;
  const auto ours = [&](void* block) { return !block || allocator->DidAlloc(block) != 0; };
  if (!ours(const_cast<PROPVARIANT*>(value))) return false;
  if (value->vt == VT_LPWSTR) return ours(value->pwszVal);
  if (value->vt != (VT_VECTOR | VT_VARIANT)) return true;
  if (!ours(value->capropvar.pElems)) return false;
  for (ULONG i = 0; i < value->capropvar.cElems; ++i) {
    const PROPVARIANT& element = value->capropvar.pElems[i];
    if (element.vt == VT_LPWSTR && !ours(element.pwszVal)) return false;
  }
  return true;
}

// Types that a property store keeps.
bool IsStorable(const PROPVARIANT& value) {
  PROPVARIANT copy;
  PropVariantInit(&copy);
  const bool storable = SUCCEEDED(PropVariantCopy(&copy, &value));
  PropVariantClear(&copy);
  return storable;
}

}  // namespace

std::string ReadChunk::Describe() const {
  return "chunk " + std::to_string(id) + (property.empty() ? "" : ", " + property);
}

std::string Difference(const Reading& expected, const Reading& seen, size_t limit) {
  const size_t count = std::min(limit, expected.chunks.size());
  for (size_t i = 0; i < count; ++i) {
    const std::string place = "at place " + std::to_string(i + 1) + " ";
    if (i >= seen.chunks.size()) return place + "there is nothing instead of " + expected.chunks[i].Describe();
    const ReadChunk &a = expected.chunks[i], &b = seen.chunks[i];
    if (a.property != b.property) return place + "there is " + b.Describe() + " instead of " + a.Describe();
    if (!a.SameAs(b)) return place + "the content of " + b.Describe() + " is another";
  }
  if (limit == SIZE_MAX && seen.chunks.size() > count)
    return "after the last there is still " + seen.chunks[count].Describe();
  return {};
}

Reading FilterReader::Run(size_t most) {
  Reading reading;
  size_t idle = 0;
  STAT_CHUNK stat = {};
  while (reading.chunks.size() < most) {
    stat.flags = static_cast<CHUNKSTATE>(0);
    stat.breakType = CHUNK_NO_BREAK;
    reading.last = filter_->GetChunk(&stat);
    if (reading.last == FILTER_E_END_OF_CHUNKS) {
      Note(Rule::kChunkResults, true, {});
      Note(Rule::kChunksEnd, true, {});
      return reading;
    }
    const bool skipped = Contains(kNoChunk, reading.last), filled = reading.last == S_OK && stat.flags;
    Note(Rule::kChunkResults, skipped || filled,
         reading.last == S_OK ? "S_OK, but the chunk was left alone" : "GetChunk answered " + CodeWords(reading.last));
    if (!filled) {
      if (FAILED(reading.last) && !skipped) {
        reading.ending = Ending::kFailed;
        return reading;
      }
      if (reading.last == S_OK) Note(Rule::kChunkIds, false, "no id: the chunk was left alone");
      if (++idle < caps_.idle) continue;
      reading.cap = "given up after " + std::to_string(caps_.idle) + " answers in a row without a chunk";
    } else if (reading.chunks.size() >= caps_.chunks) {
      reading.cap = "given up after " + std::to_string(caps_.chunks) + " chunks";
    }
    if (!reading.cap.empty()) {
      Note(Rule::kChunksEnd, false, reading.cap);
      reading.ending = Ending::kCap;
      return reading;
    }
    idle = 0;
    ReadChunk chunk;
    chunk.id = stat.idChunk;
    chunk.state = stat.flags;
    chunk.break_type = stat.breakType;
    chunk.source = stat.idChunkSource;
    chunk.locale = stat.locale;
    chunk.property = PropertyName(stat.attribute);
    chunk.attribute = stat.attribute;
    NoteChunk(chunk, reading.chunks.empty() ? nullptr : &reading.chunks.back());
    const bool go_on = !probe_ || probe_(chunk);
    if (go_on && chunk.state == CHUNK_TEXT) ReadText(chunk);
    if (go_on && chunk.state != CHUNK_TEXT) ReadValue(chunk);
    if (noting_ && (chunk.state == CHUNK_TEXT || IsString(chunk.type)))
      Note(Rule::kLocale, chunk.locale == 0 || IsValidLocale(chunk.locale, LCID_SUPPORTED),
           chunk.Describe() + " has the locale " + CodeText(static_cast<HRESULT>(chunk.locale)));
    reading.chunks.push_back(std::move(chunk));
  }
  reading.ending = Ending::kStopped;
  return reading;
}

void FilterReader::NoteChunk(const ReadChunk& chunk, const ReadChunk* before) {
  if (!noting_) return;
  const ULONG last = before ? before->id : 0;
  Note(Rule::kChunkIds, chunk.id > last, chunk.Describe() + (last ? " comes after chunk " + std::to_string(last) : ""));
  const bool known = Contains(kStates, static_cast<DWORD>(chunk.state)) && chunk.break_type >= CHUNK_NO_BREAK &&
                     chunk.break_type <= CHUNK_EOC;
  Note(Rule::kChunkState, known,
       chunk.Describe() + " has the state " + std::to_string(chunk.state) + " and the break type " +
           std::to_string(chunk.break_type));
  Note(Rule::kChunkSource, chunk.source == chunk.id,
       chunk.Describe() + " has the source " + std::to_string(chunk.source));
  if (before && before->property != chunk.property)
    Note(Rule::kBreaks, chunk.break_type != CHUNK_NO_BREAK, chunk.Describe() + " has no break");
}

HRESULT FilterReader::ReadText(ReadChunk& chunk) {
  std::vector<WCHAR> buffer;
  size_t idle = 0, piece = 0;
  bool last_text = false;
  HRESULT hr = S_OK;
  for (;;) {
    const ULONG room = chunk.text.size() > kSmallPieces ? kLargeBuffer : buffers_[piece++ % buffers_.size()];
    buffer.assign(room + kGuards, kGuard);
    ULONG count = room;
    hr = filter_->GetText(&count, buffer.data());
    if (hr == FILTER_E_NO_MORE_TEXT) break;
    const bool known = hr == S_OK || hr == FILTER_S_LAST_TEXT;
    Note(Rule::kTextResults, known && !last_text,
         chunk.Describe() + ": GetText answered " + CodeWords(hr) + (last_text ? " after LAST_TEXT" : ""));
    if (!known || last_text) break;
    const auto end = buffer.begin() + static_cast<ptrdiff_t>(room);
    const auto written = std::find_if(buffer.rbegin(), buffer.rend() - room, [](WCHAR c) { return c != kGuard; });
    const auto overrun = written.base() - end;
    const bool terminator = overrun == 1 && !*end;
    Note(Rule::kTextTerminator, !terminator,
         chunk.Describe() + ": a terminator past a buffer of " + std::to_string(room));
    // What lies between what was written and what was said, was not written.
    const bool honest = count <= room && std::find(buffer.begin(), buffer.begin() + count, kGuard) ==
                                             buffer.begin() + static_cast<ptrdiff_t>(count);
    Note(Rule::kTextBounds, (overrun == 0 || terminator) && honest,
         chunk.Describe() + ": " + std::to_string(count) + " characters told and " + std::to_string(overrun) +
             " written past a buffer of " + std::to_string(room));
    if (count > room) count = room;
    chunk.text.append(buffer.data(), count);
    idle = count ? 0 : idle + 1;
    if (chunk.text.size() > caps_.characters || idle >= caps_.idle) {
      Note(Rule::kTextResults, false,
           chunk.Describe() + ": given up after " +
               (idle ? std::to_string(idle) + " answers in a row without text" : "too much text"));
      break;
    }
    last_text = hr == FILTER_S_LAST_TEXT;
  }
  Note(Rule::kTextThere, !chunk.text.empty(), chunk.Describe() + " has no character");
  for (int again = 0; again < 2 && hr == FILTER_E_NO_MORE_TEXT; ++again) {
    ULONG count = kLargeBuffer;
    buffer.assign(kLargeBuffer + kGuards, kGuard);
    const HRESULT then = filter_->GetText(&count, buffer.data());
    Note(Rule::kTextOver, then == FILTER_E_NO_MORE_TEXT, chunk.Describe() + ": GetText answered " + CodeWords(then));
  }
  return hr;
}

HRESULT FilterReader::ReadValue(ReadChunk& chunk) {
  PROPVARIANT* value = nullptr;
  const HRESULT hr = filter_->GetValue(&value);
  if (FAILED(hr) || !value) {
    Note(Rule::kValueOnce, false,
         chunk.Describe() + ": GetValue answered " + CodeWords(hr) + (hr ? "" : " without one"));
    return FAILED(hr) ? hr : E_POINTER;
  }
  chunk.type = value->vt;
  chunk.value = ValueWords(*value, begin_);
  const bool task_memory = IsTaskMemory(value), storable = task_memory && IsStorable(*value);
  // A filter may keep a value as its own when it was told that it may.
  if (static_cast<DWORD>(chunk.state) == 4) return hr;
  // What is not the allocator's is not given to it.
  const bool cleared = task_memory && SUCCEEDED(PropVariantClear(value));
  if (task_memory) CoTaskMemFree(value);
  Note(Rule::kValueMemory, task_memory && storable && cleared,
       chunk.Describe() + (!task_memory ? ": not the task allocator's"
                           : !storable  ? ": of a type that cannot be stored"
                                        : ": cannot be cleared"));
  return hr;
}

}  // namespace host
