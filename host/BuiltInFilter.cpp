#include "host/BuiltInFilter.h"

#include <filterr.h>
#include <ntquery.h>
#include <objidl.h>
#include <propsys.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <string>
#include <vector>

#include "host/WindowsCodePages.h"
#include "vault/text/code_pages.h"
#include "vault/text/html.h"

namespace host {
namespace {

enum class Format { kText, kHtml };

struct Type {
  const wchar_t* extension;
  Format format;
};
constexpr Type kTypes[] = {
    {L"txt", Format::kText},   {L"text", Format::kText},  {L"log", Format::kText},  {L"csv", Format::kText},
    {L"tsv", Format::kText},   {L"md", Format::kText},    {L"rst", Format::kText},  {L"json", Format::kText},
    {L"xml", Format::kText},   {L"yml", Format::kText},   {L"yaml", Format::kText}, {L"ini", Format::kText},
    {L"cfg", Format::kText},   {L"conf", Format::kText},  {L"c", Format::kText},    {L"cc", Format::kText},
    {L"cpp", Format::kText},   {L"cxx", Format::kText},   {L"h", Format::kText},    {L"hpp", Format::kText},
    {L"cs", Format::kText},    {L"java", Format::kText},  {L"js", Format::kText},   {L"ts", Format::kText},
    {L"css", Format::kText},   {L"py", Format::kText},    {L"rb", Format::kText},   {L"pl", Format::kText},
    {L"php", Format::kText},   {L"go", Format::kText},    {L"rs", Format::kText},   {L"sh", Format::kText},
    {L"bat", Format::kText},   {L"cmd", Format::kText},   {L"ps1", Format::kText},  {L"sql", Format::kText},
    {L"vb", Format::kText},    {L"swift", Format::kText}, {L"kt", Format::kText},   {L"diff", Format::kText},
    {L"patch", Format::kText}, {L"ics", Format::kText},   {L"vcf", Format::kText},  {L"htm", Format::kHtml},
    {L"html", Format::kHtml},  {L"xhtml", Format::kHtml},
};

constexpr FULLPROPSPEC kContents = {{0xB725F130, 0x47EF, 0x101A, {0xA5, 0xF1, 0x02, 0x60, 0x8C, 0x9E, 0xEB, 0xAC}},
                                    {PRSPEC_PROPID, {19}}};
constexpr FULLPROPSPEC kTitle = {{0xF29F85E0, 0x4FF9, 0x1068, {0xAB, 0x91, 0x08, 0x00, 0x2B, 0x27, 0xB3, 0xD9}},
                                 {PRSPEC_PROPID, {2}}};

// What an attachment's content may weigh; more is cut, so that one file cannot take the host's memory.
constexpr ULONGLONG kMaxContent = 256ull << 20;
constexpr DWORD kReadStep = 1 << 16;

std::u16string DecodePlainText(vault::text::Bytes bytes, const vault::text::CodePages& pages) {
  using namespace vault::text;
  unsigned page = CP_ACP;
  size_t mark = 0;
  const auto starts = [&](std::initializer_list<uint8_t> with) {
    return bytes.size() >= with.size() && std::equal(with.begin(), with.end(), bytes.begin());
  };
  // UTF-16 without a mark shows in every second byte of Western text being zero.
  const auto zeros_at = [&](size_t first) {
    const size_t count = std::min<size_t>(bytes.size(), 512);
    size_t zeros = 0;
    for (size_t i = first; i < count; i += 2) zeros += bytes[i] == 0;
    return count >= 4 && zeros * 4 > count;
  };
  if (starts({0xEF, 0xBB, 0xBF})) {
    page = kCodePageUtf8, mark = 3;
  } else if (starts({0xFF, 0xFE})) {
    page = kCodePageUtf16Le, mark = 2;
  } else if (starts({0xFE, 0xFF})) {
    page = kCodePageUtf16Be, mark = 2;
  } else if (zeros_at(1)) {
    page = kCodePageUtf16Le;
  } else if (zeros_at(0)) {
    page = kCodePageUtf16Be;
  } else if (LooksLikeUtf8(bytes)) {
    page = kCodePageUtf8;
  }
  std::u16string text;
  Decode(page == CP_ACP ? GetACP() : page, bytes.subspan(mark), pages, text);
  return text;
}

// The document's title, which its text leaves out.
std::u16string TitleOf(const std::u16string& html) {
  const auto find = [&](std::u16string_view tag, size_t from) {
    const auto same = [](char16_t a, char16_t b) { return (a >= u'A' && a <= u'Z' ? char16_t(a + 32) : a) == b; };
    const auto at = std::search(html.begin() + static_cast<ptrdiff_t>(from), html.end(), tag.begin(), tag.end(), same);
    return at == html.end() ? std::u16string::npos : static_cast<size_t>(at - html.begin());
  };
  const size_t open = find(u"<title", 0);
  if (open == std::u16string::npos) return {};
  const size_t begin = html.find(u'>', open);
  const size_t end = begin == std::u16string::npos ? begin : find(u"</title", begin);
  if (end == std::u16string::npos) return {};
  return vault::text::HtmlToText(std::u16string_view(html).substr(begin + 1, end - begin - 1));
}

class BuiltInFilter final : public IFilter, public IPersistStream {
 public:
  explicit BuiltInFilter(Format format) : format_(format) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == IID_IFilter) *object = static_cast<IFilter*>(this);
    if (iid == IID_IPersist || iid == IID_IPersistStream) *object = static_cast<IPersistStream*>(this);
    if (!*object) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (!left) delete this;
    return left;
  }

  STDMETHODIMP GetClassID(CLSID* clsid) override { return clsid ? (*clsid = CLSID_NULL, S_OK) : E_POINTER; }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Save(IStream*, BOOL) override { return E_NOTIMPL; }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER*) override { return E_NOTIMPL; }

  // Reads everything at once and lets the stream go, so that the file is not kept open.
  STDMETHODIMP Load(IStream* stream) override {
    if (!stream) return E_POINTER;
    try {
      std::vector<uint8_t> bytes;
      for (ULONG read = kReadStep; read == kReadStep && bytes.size() < kMaxContent;) {
        const size_t had = bytes.size();
        bytes.resize(had + kReadStep);
        const HRESULT hr = stream->Read(bytes.data() + had, kReadStep, &read);
        if (FAILED(hr)) return hr;
        bytes.resize(had + read);
      }
      const WindowsCodePages pages;
      parts_.clear();
      if (format_ == Format::kText) {
        parts_.push_back({kContents, CHUNK_TEXT, DecodePlainText(bytes, pages), true});
      } else {
        const std::u16string html = vault::text::DecodeHtml(bytes, 0, pages);
        std::u16string title = TitleOf(html);
        if (!title.empty()) parts_.push_back({kTitle, CHUNK_VALUE, std::move(title), true});
        parts_.push_back({kContents, CHUNK_TEXT, vault::text::HtmlToText(html), true});
      }
      loaded_ = true;
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }

  // Attributes that are named are the only ones; without any, the flags decide, and the contents come always.
  STDMETHODIMP_(SCODE) Init(ULONG flags, ULONG count, const FULLPROPSPEC* attributes, ULONG* out_flags) override {
    if (count && !attributes) return E_INVALIDARG;
    if (!loaded_) return E_FAIL;
    constexpr ULONG kAll = IFILTER_INIT_APPLY_INDEX_ATTRIBUTES | IFILTER_INIT_APPLY_OTHER_ATTRIBUTES;
    for (Part& part : parts_) {
      const auto same = [&](const FULLPROPSPEC& wanted) { return IsSame(wanted, part.property); };
      part.wanted =
          count ? std::any_of(attributes, attributes + count, same) : part.state == CHUNK_TEXT || (flags & kAll) != 0;
    }
    if (out_flags) *out_flags = 0;
    current_ = -1;
    given_ = 0;
    return S_OK;
  }
  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK* stat) override {
    if (!stat) return E_POINTER;
    const int count = static_cast<int>(parts_.size());
    while (current_ < count && (++current_ == count || !parts_[static_cast<size_t>(current_)].wanted)) {
    }
    given_ = 0;
    if (current_ >= count) return FILTER_E_END_OF_CHUNKS;
    *stat = {};
    stat->idChunk = stat->idChunkSource = static_cast<ULONG>(current_ + 1);
    stat->breakType = CHUNK_EOP;
    stat->flags = Current()->state;
    stat->locale = GetSystemDefaultLCID();
    stat->attribute = Current()->property;
    return S_OK;
  }
  STDMETHODIMP_(SCODE) GetText(ULONG* count, WCHAR* buffer) override {
    if (!count || !buffer) return E_POINTER;
    const Part* part = Current();
    if (!part || part->state != CHUNK_TEXT) return FILTER_E_NO_TEXT;
    const size_t left = part->text.size() - given_;
    if (!left) return FILTER_E_NO_MORE_TEXT;
    const size_t give = std::min<size_t>(left, *count);
    std::copy_n(part->text.begin() + static_cast<ptrdiff_t>(given_), give, buffer);
    given_ += give;
    *count = static_cast<ULONG>(give);
    return give == left ? FILTER_S_LAST_TEXT : S_OK;
  }
  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT** value) override {
    if (!value) return E_POINTER;
    *value = nullptr;
    const Part* part = Current();
    if (!part || part->state != CHUNK_VALUE) return FILTER_E_NO_VALUES;
    if (given_) return FILTER_E_NO_MORE_VALUES;
    auto* made = static_cast<PROPVARIANT*>(CoTaskMemAlloc(sizeof(PROPVARIANT)));
    auto* text = static_cast<wchar_t*>(CoTaskMemAlloc((part->text.size() + 1) * sizeof(wchar_t)));
    if (!made || !text) {
      CoTaskMemFree(made);
      CoTaskMemFree(text);
      return E_OUTOFMEMORY;
    }
    std::copy(part->text.begin(), part->text.end(), text);
    text[part->text.size()] = 0;
    PropVariantInit(made);
    made->vt = VT_LPWSTR;
    made->pwszVal = text;
    *value = made;
    given_ = 1;
    return S_OK;
  }
  STDMETHODIMP_(SCODE) BindRegion(FILTERREGION, REFIID, void**) override { return E_NOTIMPL; }

 private:
  struct Part {
    FULLPROPSPEC property;
    CHUNKSTATE state;
    std::u16string text;
    bool wanted = true;
  };
  static bool IsSame(const FULLPROPSPEC& a, const FULLPROPSPEC& b) {
    return a.guidPropSet == b.guidPropSet && a.psProperty.ulKind == PRSPEC_PROPID &&
           a.psProperty.propid == b.psProperty.propid;
  }
  ~BuiltInFilter() = default;

  const Part* Current() const {
    return current_ >= 0 && current_ < static_cast<int>(parts_.size()) ? &parts_[static_cast<size_t>(current_)]
                                                                       : nullptr;
  }

  std::atomic<ULONG> references_ = 1;
  const Format format_;
  bool loaded_ = false;
  std::vector<Part> parts_;
  int current_ = -1;
  size_t given_ = 0;  // characters of the current text, or 1 once the value is gone
};

}  // namespace

IFilter* MakeBuiltInFilter(std::wstring_view extension, std::wstring_view content_type) {
  const auto same = [](std::wstring_view a, const wchar_t* b) {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b, -1, TRUE) == CSTR_EQUAL;
  };
  const std::wstring_view mime = content_type.substr(0, content_type.find(L';'));
  if (same(mime, L"text/html")) return new (std::nothrow) BuiltInFilter(Format::kHtml);
  if (same(mime, L"text/plain")) return new (std::nothrow) BuiltInFilter(Format::kText);
  for (const Type& type : kTypes)
    if (same(extension, type.extension)) return new (std::nothrow) BuiltInFilter(type.format);
  return nullptr;
}

}  // namespace host
