#include "host/ItemReader.h"

#include <filterr.h>

#include <vector>

#include "host/PropertyNames.h"
#include "host/Text.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr ULONG kTextBuffer = 32 * 1024;
// A filter that keeps answering without a new chunk (attachments under a policy) is let go after so many calls.
constexpr int kMaxIdleCalls = 64;
constexpr ULONG kInitFlags = IFILTER_INIT_CANON_PARAGRAPHS | IFILTER_INIT_CANON_HYPHENS | IFILTER_INIT_CANON_SPACES |
                             IFILTER_INIT_APPLY_INDEX_ATTRIBUTES | IFILTER_INIT_APPLY_OTHER_ATTRIBUTES |
                             IFILTER_INIT_INDEXING_ONLY | IFILTER_INIT_SEARCH_LINKS;
constexpr PROPID kUrlWithTime = 12;
constexpr GUID kGatherer = {0x0B63E343, 0x9CCC, 0x11D0, {0xBC, 0xDB, 0x00, 0x80, 0x5F, 0xCC, 0xCE, 0x04}};

bool IsLink(const FULLPROPSPEC& property) {
  return property.psProperty.ulKind == PRSPEC_PROPID && property.psProperty.propid == kUrlWithTime &&
         property.guidPropSet == kGatherer;
}

// Frees a value that a filter handed out.
class Value {
 public:
  ~Value() {
    if (!value_) return;
    PropVariantClear(value_);
    CoTaskMemFree(value_);
  }
  PROPVARIANT** out() { return &value_; }
  const PROPVARIANT* get() const { return value_; }

 private:
  PROPVARIANT* value_ = nullptr;
};

// A listing gives a child that has no time of its own the time of the listing: the filter is asked between `begin` and
// now. Such a time would differ from run to run, and say nothing.
bool IsTimeOfRun(const FILETIME& time, const FILETIME& begin) {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return CompareFileTime(&time, &begin) >= 0 && CompareFileTime(&time, &now) <= 0;
}

Json LinkOf(const PROPVARIANT& value, const FILETIME& begin) {
  Json link = Json::object();
  if (value.vt != (VT_VECTOR | VT_VARIANT) || value.capropvar.cElems != 2) return link;
  const PROPVARIANT* elements = value.capropvar.pElems;
  if (elements[0].vt != VT_LPWSTR || !elements[0].pwszVal || !*elements[0].pwszVal) return link;
  link["url"] = ToUtf8(elements[0].pwszVal);
  if (elements[1].vt == VT_FILETIME && IsTimeOfRun(elements[1].filetime, begin)) {
    link["undated"] = true;
    return link;
  }
  const std::string time = elements[1].vt == VT_FILETIME ? ToIso8601(elements[1].filetime) : std::string();
  if (!time.empty()) link["modified"] = time;
  return link;
}

// Reads the filter's chunks into the record, one after another.
class ChunkReader {
 public:
  ChunkReader(IFilter* filter, bool with_chunks, Json& record)
      : filter_(filter), with_chunks_(with_chunks), record_(record), buffer_(kTextBuffer + 1) {
    GetSystemTimeAsFileTime(&begin_);
  }

  void Run() {
    STAT_CHUNK stat = {};
    int idle = 0;
    for (;;) {
      // Cleared so that an answer that leaves the structure alone is seen; the id stays as it was, because one kind of
      // chunk may keep it.
      stat.flags = static_cast<CHUNKSTATE>(0);
      const HRESULT hr = filter_->GetChunk(&stat);
      if (hr == FILTER_E_END_OF_CHUNKS) break;
      if (hr == FILTER_E_EMBEDDING_UNAVAILABLE || hr == FILTER_E_LINK_UNAVAILABLE) {
        if (++idle > kMaxIdleCalls) break;
        continue;
      }
      if (FAILED(hr)) {
        record_["error"] = ErrorOf("GetChunk", hr);
        break;
      }
      if (!stat.flags) {
        if (++idle > kMaxIdleCalls) break;
        continue;
      }
      idle = 0;
      if (!ReadChunk(stat)) break;
    }
    record_["properties"] = std::move(properties_);
    if (with_chunks_) record_["chunks"] = std::move(chunks_);
    if (!text_.empty()) record_["text"] = ToUtf8(text_);
    if (!links_.empty()) record_["links"] = std::move(links_);
  }

 private:
  bool ReadChunk(const STAT_CHUNK& stat) {
    const bool is_text = stat.flags == CHUNK_TEXT;
    const std::string name = PropertyName(stat.attribute);
    Json chunk;
    if (with_chunks_) chunk = {{"id", stat.idChunk}, {"key", name}, {"type", is_text ? "text" : "value"}};
    const bool go_on = is_text ? ReadText(stat, chunk) : ReadValue(stat, name, chunk);
    if (with_chunks_) chunks_.push_back(std::move(chunk));
    return go_on;
  }

  bool ReadText(const STAT_CHUNK& stat, Json& chunk) {
    if (stat.breakType != CHUNK_NO_BREAK && !text_.empty() && text_.back() != L'\n') text_ += L'\n';
    const size_t had = text_.size();
    for (;;) {
      // The buffer has one character more than is told: a filter may write a terminator past the count.
      ULONG count = kTextBuffer;
      const HRESULT hr = filter_->GetText(&count, buffer_.data());
      if (hr == FILTER_E_NO_MORE_TEXT) break;
      if (FAILED(hr)) {
        record_["error"] = ErrorOf("GetText", hr);
        return false;
      }
      text_.append(buffer_.data(), count < kTextBuffer ? count : kTextBuffer);
      if (hr == FILTER_S_LAST_TEXT) break;
    }
    if (with_chunks_) chunk["characters"] = text_.size() - had;
    return true;
  }

  bool ReadValue(const STAT_CHUNK& stat, const std::string& name, Json& chunk) {
    Value value;
    const HRESULT hr = filter_->GetValue(value.out());
    if (hr == FILTER_E_NO_MORE_VALUES || hr == FILTER_E_NO_VALUES) return true;
    if (FAILED(hr)) {
      record_["error"] = ErrorOf("GetValue", hr);
      return false;
    }
    if (!value.get()) return true;
    if (IsLink(stat.attribute)) {
      Json link = LinkOf(*value.get(), begin_);
      if (with_chunks_) chunk["value"] = link;
      if (!link.empty()) links_.push_back(std::move(link));
      return true;
    }
    Json made = ValueOf(*value.get());
    if (with_chunks_) chunk["value"] = made;
    if (!made.is_null()) properties_[name] = std::move(made);
    return true;
  }

  IFilter* filter_;
  const bool with_chunks_;
  Json& record_;
  std::vector<wchar_t> buffer_;
  FILETIME begin_;
  Json properties_ = Json::object();
  Json chunks_ = Json::array();
  Json links_ = Json::array();
  std::wstring text_;
};

}  // namespace

Json ValueOf(const PROPVARIANT& value) {
  switch (value.vt) {
    case VT_LPWSTR:
      return value.pwszVal ? ToUtf8(value.pwszVal) : std::string();
    case VT_BSTR:
      return value.bstrVal ? ToUtf8(value.bstrVal) : std::string();
    case VT_FILETIME: {
      const std::string time = ToIso8601(value.filetime);
      return time.empty() ? Json() : Json(time);
    }
    case VT_BOOL:
      return value.boolVal != VARIANT_FALSE;
    case VT_UI1:
      return value.bVal;
    case VT_UI2:
      return value.uiVal;
    case VT_I2:
      return value.iVal;
    case VT_UI4:
      return value.ulVal;
    case VT_I4:
      return value.lVal;
    case VT_UI8:
      return value.uhVal.QuadPart;
    case VT_I8:
      return value.hVal.QuadPart;
    case VT_R8:
      return value.dblVal;
    case VT_VECTOR | VT_LPWSTR: {
      Json list = Json::array();
      for (ULONG i = 0; i < value.calpwstr.cElems; ++i) list.push_back(ToUtf8(value.calpwstr.pElems[i]));
      return list;
    }
    default:
      return nullptr;
  }
}

void ReadItem(IUrlAccessor* accessor, bool with_chunks, Json& record) {
  const bool directory = accessor->IsDirectory() == S_OK;
  FILETIME modified = {};
  if (accessor->GetLastModified(&modified) == S_OK) {
    const std::string time = ToIso8601(modified);
    if (!time.empty()) record["modified"] = time;
  }
  ULONGLONG size = 0;
  if (!directory && SUCCEEDED(accessor->GetSize(&size))) record["size"] = size;
  ComPtr<IFilter> filter;
  HRESULT hr = accessor->BindToFilter(&filter);
  if (FAILED(hr) || !filter) {
    record["error"] = ErrorOf("BindToFilter", FAILED(hr) ? hr : E_POINTER);
    return;
  }
  ULONG flags = 0;
  hr = filter->Init(kInitFlags, 0, nullptr, &flags);
  if (FAILED(hr)) {
    record["error"] = ErrorOf("Init", hr);
    return;
  }
  ChunkReader(filter.Get(), with_chunks, record).Run();
}

}  // namespace host
