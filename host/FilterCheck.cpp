#include "host/FilterCheck.h"

#include <filterr.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/FilterThreads.h"
#include "host/Text.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

// Without INDEXING_ONLY, which would forbid a second Init.
constexpr ULONG kFlags = IFILTER_INIT_CANON_PARAGRAPHS | IFILTER_INIT_CANON_HYPHENS | IFILTER_INIT_CANON_SPACES |
                         IFILTER_INIT_APPLY_INDEX_ATTRIBUTES | IFILTER_INIT_APPLY_OTHER_ATTRIBUTES |
                         IFILTER_INIT_SEARCH_LINKS;
constexpr ULONG kKnownOutFlags = IFILTER_FLAGS_OLE_PROPERTIES;
constexpr ULONG kUnwritten = 0xF5A9F5A9;
constexpr FULLPROPSPEC kNobodysProperty = {
    {0x3D2C7A51, 0x94E6, 0x4B08, {0xA1, 0x5F, 0x6E, 0x0B, 0xD7, 0x42, 0x89, 0x13}}, {PRSPEC_PROPID, {4711}}};

class Checker {
 public:
  Checker(FilterSource& source, const SourceForThread& for_thread, const ReadingCaps& caps)
      : source_(source), for_thread_(for_thread), caps_(caps) {}

  CheckResult RunEmpty() {
    {
      Instance instance(source_);
      const HRESULT hr = source_.MakeUnloaded(&instance.filter);
      if (hr != S_OK) Fail("CoCreateInstance", hr);
      if (hr == S_OK) CheckPersist(instance.filter.Get());
    }
    InitUnloaded();
    return std::move(result_);
  }

  CheckResult Run() {
    if (!ReadPlainly()) return std::move(result_);
    ReadAgain();
    ReadInPieces();
    AskValuesTwice();
    AskTheOther();
    AskForAttributes();
    InitInTheMiddle();
    LeaveArgumentsOut();
    InitUnloaded();
    if (for_thread_ && plain().ending == Ending::kEnd) CheckThreads(for_thread_, result_.reading, caps_, result_.tally);
    return std::move(result_);
  }

 private:
  // A filter, initialised; closed with the reading that it serves.
  class Instance {
   public:
    explicit Instance(FilterSource& source) : source_(source) {}
    ~Instance() {
      filter.Reset();
      source_.Done();
    }
    HRESULT Make() { return source_.Make(&filter); }
    HRESULT MakeAndInit() {
      const HRESULT hr = Make();
      ULONG flags = 0;
      return FAILED(hr) ? hr : filter->Init(kFlags, 0, nullptr, &flags);
    }
    ComPtr<IFilter> filter;

   private:
    FilterSource& source_;
  };

  void Note(Rule rule, bool kept, const std::string& seen = {}) { result_.tally.Note(rule, kept, seen); }
  Reading& plain() { return result_.reading; }
  // Readings that disturb the filter are kept short, and may give more chunks than it has.
  size_t probed() const { return std::min(result_.reading.chunks.size() + caps_.idle, caps_.probed); }

  bool Fail(const char* step, HRESULT hr) {
    result_.failed_step = step;
    result_.error = hr;
    return false;
  }

  bool ReadPlainly() {
    Instance instance(source_);
    HRESULT hr = instance.Make();
    if (FAILED(hr)) return Fail("BindToFilter", hr);
    ULONG flags = kUnwritten;
    hr = instance.filter->Init(kFlags, 0, nullptr, &flags);
    if (FAILED(hr)) return Fail("Init", hr);
    Note(Rule::kInitFlags, flags == kUnwritten ? false : !(flags & ~kKnownOutFlags),
         flags == kUnwritten ? "the flags were left alone" : "the flags are " + CodeText(static_cast<HRESULT>(flags)));
    FilterReader reader(instance.filter.Get(), result_.tally, caps_);
    plain() = reader.Run();
    if (plain().ending == Ending::kEnd) {
      for (int again = 0; again < 3; ++again) {
        STAT_CHUNK stat = {};
        const HRESULT then = instance.filter->GetChunk(&stat);
        Note(Rule::kChunksOver, then == FILTER_E_END_OF_CHUNKS,
             then == S_OK ? "after the end there is chunk " + std::to_string(stat.idChunk)
                          : "after the end GetChunk answered " + CodeText(then));
      }
    } else if (plain().ending == Ending::kCap) {
      Note(Rule::kChunksOver, false, "there is no end");
    }
    CheckPersist(instance.filter.Get());
    return true;
  }

  void CheckPersist(IFilter* filter) {
    ComPtr<IPersist> persist;
    const IID* wanted[] = {&IID_IPersistStream, &IID_IPersistFile, &IID_IPersistStorage};
    for (const IID* iid : wanted)
      if (!persist) filter->QueryInterface(*iid, reinterpret_cast<void**>(persist.ReleaseAndGetAddressOf()));
    if (!persist) return Note(Rule::kPersist, false, "neither a stream, a file nor a storage can be loaded");
    CLSID clsid;
    const HRESULT hr = persist->GetClassID(&clsid);
    Note(Rule::kPersist, hr == S_OK, "GetClassID answered " + CodeText(hr));
  }

  void ReadAgain() {
    Instance instance(source_);
    const HRESULT hr = instance.MakeAndInit();
    if (FAILED(hr)) return Note(Rule::kSameAgain, false, "the second filter cannot be had: " + CodeText(hr));
    const std::string difference = Difference(plain(), Quietly(instance.filter.Get()).Run());
    Note(Rule::kSameAgain, difference.empty(), difference);
  }

  FilterReader Quietly(IFilter* filter) {
    FilterReader reader(filter, result_.tally, caps_);
    reader.set_noting(false);
    return reader;
  }

  bool HasText() const {
    return std::any_of(result_.reading.chunks.begin(), result_.reading.chunks.end(),
                       [](const ReadChunk& chunk) { return chunk.state == CHUNK_TEXT; });
  }

  void ReadInPieces() {
    if (!HasText()) return;
    const std::vector<ULONG> sizes[] = {{1}, {2}, {3}, {1, 7, 64}, {65536}};
    for (const auto& buffers : sizes) {
      Instance instance(source_);
      if (FAILED(instance.MakeAndInit())) return;
      // The rules of text are looked at with every size; those of chunks have been.
      RuleTally texts;
      FilterReader reader(instance.filter.Get(), texts, caps_);
      reader.set_buffers(buffers);
      const Reading reading = reader.Run(plain().chunks.size());
      for (Rule rule : {Rule::kTextResults, Rule::kTextOver, Rule::kTextBounds, Rule::kTextTerminator})
        if (texts[rule].checked) Note(rule, !texts[rule].broken, texts[rule].seen);
      const auto is_text = [](const ReadChunk& chunk) { return chunk.state == CHUNK_TEXT; };
      auto seen = reading.chunks.begin();
      for (const ReadChunk& chunk : plain().chunks) {
        if (!is_text(chunk)) continue;
        seen = std::find_if(seen, reading.chunks.end(), is_text);
        const bool same = seen != reading.chunks.end() && seen->text == chunk.text;
        Note(Rule::kTextPieces, same,
             chunk.Describe() + ": another text by buffers of " + std::to_string(buffers.front()));
        if (seen != reading.chunks.end()) ++seen;
      }
    }
  }

  void AskValuesTwice() {
    Instance instance(source_);
    if (FAILED(instance.MakeAndInit())) return;
    FilterReader reader = Quietly(instance.filter.Get());
    reader.set_probe([&](const ReadChunk& chunk) {
      if (chunk.state != CHUNK_VALUE) return true;
      ReadChunk first = chunk;
      const HRESULT hr = reader.ReadValue(first);
      if (FAILED(hr)) return false;  // noted by the plain reading
      for (Rule rule : {Rule::kValueOnce, Rule::kValuesOver}) {
        PROPVARIANT* value = nullptr;
        const HRESULT then = instance.filter->GetValue(&value);
        if (SUCCEEDED(then) && value) {
          PropVariantClear(value);
          CoTaskMemFree(value);
        }
        Note(rule, then == FILTER_E_NO_MORE_VALUES,
             chunk.Describe() + ": GetValue answered " + (then == S_OK ? "with a value" : CodeText(then)) + " again");
      }
      return false;
    });
    reader.Run(probed());
  }

  void AskTheOther() {
    Instance instance(source_);
    if (FAILED(instance.MakeAndInit())) return;
    FilterReader reader = Quietly(instance.filter.Get());
    size_t place = 0;
    reader.set_probe([&](const ReadChunk& chunk) {
      const ReadChunk* expected = place < plain().chunks.size() ? &plain().chunks[place++] : nullptr;
      ReadChunk seen = chunk;
      HRESULT hr;
      if (chunk.state == CHUNK_TEXT) {
        PROPVARIANT* value = nullptr;
        hr = instance.filter->GetValue(&value);
        if (SUCCEEDED(hr) && value) {
          PropVariantClear(value);
          CoTaskMemFree(value);
        }
        reader.ReadText(seen);
      } else {
        WCHAR buffer[256];
        ULONG count = static_cast<ULONG>(std::size(buffer)) - 1;
        hr = instance.filter->GetText(&count, buffer);
        reader.ReadValue(seen);
      }
      const bool text = chunk.state == CHUNK_TEXT, refused = hr == (text ? FILTER_E_NO_VALUES : FILTER_E_NO_TEXT);
      const bool harmless = expected && expected->SameAs(seen);
      Note(text ? Rule::kValueOfText : Rule::kTextOfValue, refused && harmless,
           chunk.Describe() + (refused ? ": it came out otherwise afterwards"
                                       : std::string(text ? ": GetValue" : ": GetText") + " answered " + CodeText(hr)));
      return false;
    });
    reader.Run(std::min(probed(), plain().chunks.size()));
  }

  void AskForAttributes() {
    AskForAttribute(kNobodysProperty);
    if (!plain().chunks.empty()) AskForAttribute(plain().chunks.front().attribute);
  }

  void AskForAttribute(const FULLPROPSPEC& attribute) {
    Instance instance(source_);
    if (FAILED(instance.Make())) return;
    ULONG flags = 0;
    const HRESULT hr = instance.filter->Init(0, 1, &attribute, &flags);
    if (FAILED(hr)) return Note(Rule::kAttributes, false, "Init with an attribute answered " + CodeText(hr));
    const Reading reading = Quietly(instance.filter.Get()).Run(probed());
    for (const ReadChunk& chunk : reading.chunks)
      if (chunk.attribute.guidPropSet != attribute.guidPropSet ||
          chunk.attribute.psProperty.ulKind != attribute.psProperty.ulKind ||
          (attribute.psProperty.ulKind == PRSPEC_PROPID &&
           chunk.attribute.psProperty.propid != attribute.psProperty.propid))
        return Note(Rule::kAttributes, false, chunk.Describe() + " was not asked for");
    Note(Rule::kAttributes, true);
  }

  void InitInTheMiddle() {
    Instance instance(source_);
    if (FAILED(instance.MakeAndInit()) || plain().chunks.empty()) return;
    const size_t half = std::clamp<size_t>(plain().chunks.size() / 2, 1, caps_.probed);
    Quietly(instance.filter.Get()).Run(half);
    ULONG flags = 0;
    const HRESULT hr = instance.filter->Init(kFlags, 0, nullptr, &flags);
    if (FAILED(hr)) return Note(Rule::kInitAgain, false, "the second Init answered " + CodeText(hr));
    const std::string difference = Difference(plain(), Quietly(instance.filter.Get()).Run());
    Note(Rule::kInitAgain, difference.empty(), difference);
  }

  void LeaveArgumentsOut() {
    {
      Instance instance(source_);
      if (FAILED(instance.Make())) return;
      ULONG flags = 0;
      const HRESULT hr = instance.filter->Init(0, 1, nullptr, &flags);
      Note(Rule::kInitArguments, hr == E_INVALIDARG, "Init answered " + CodeText(hr));
    }
    Instance instance(source_);
    if (FAILED(instance.MakeAndInit())) return;
    IFilter* filter = instance.filter.Get();
    const auto refused = [&](const char* call, HRESULT hr) {
      Note(Rule::kNullArguments, FAILED(hr), std::string(call) + " without its arguments answered " + CodeText(hr));
    };
    refused("GetChunk", filter->GetChunk(nullptr));
    FilterReader reader = Quietly(filter);
    bool asked_text = false, asked_value = false;
    reader.set_probe([&](const ReadChunk& chunk) {
      WCHAR buffer[2];
      ULONG count = 1;
      if (chunk.state == CHUNK_TEXT && !std::exchange(asked_text, true)) {
        refused("GetText", filter->GetText(nullptr, buffer));
        refused("GetText", filter->GetText(&count, nullptr));
      } else if (chunk.state == CHUNK_VALUE && !std::exchange(asked_value, true)) {
        refused("GetValue", filter->GetValue(nullptr));
      }
      return true;
    });
    const std::string difference = Difference(plain(), reader.Run());
    Note(Rule::kNullArguments, difference.empty(), difference);
  }

  void InitUnloaded() {
    Instance instance(source_);
    if (source_.MakeUnloaded(&instance.filter) != S_OK) return;
    ULONG flags = 0;
    const HRESULT hr = instance.filter->Init(kFlags, 0, nullptr, &flags);
    Note(Rule::kInitUnloaded, FAILED(hr), "Init answered " + CodeText(hr));
  }

  FilterSource& source_;
  const SourceForThread for_thread_;
  const ReadingCaps caps_;
  CheckResult result_;
};

}  // namespace

CheckResult CheckFilter(FilterSource& source, const SourceForThread& for_thread, const ReadingCaps& caps) {
  return Checker(source, for_thread, caps).Run();
}

CheckResult CheckEmptyFilter(FilterSource& source) {
  return Checker(source, {}, {}).RunEmpty();
}

}  // namespace host
