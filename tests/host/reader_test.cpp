// What the host makes of an accessor's answers, good and bad.
#include <gtest/gtest.h>

#include <filterr.h>
#include <windows.h>

#include <vector>

#include "host/ItemReader.h"
#include "host/Text.h"
#include "tests/support/filter_double.h"

namespace {

constexpr GUID kStorage = {0xB725F130, 0x47EF, 0x101A, {0xA5, 0xF1, 0x02, 0x60, 0x8C, 0x9E, 0xEB, 0xAC}};

// Answers of GetChunk, one after another; text chunks write a terminator past the count, as filters may.
struct Step {
  HRESULT result;
  CHUNKSTATE state;
  ULONG pid;
  std::wstring text;
};

class ScriptedFilter final : public FilterDouble {
 public:
  explicit ScriptedFilter(std::vector<Step> steps) : steps_(std::move(steps)) { AddRef(); }
  STDMETHODIMP_(SCODE) Init(ULONG, ULONG, const FULLPROPSPEC*, ULONG*) override { return init; }
  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK* stat) override {
    ++calls;
    if (forever) return S_OK;  // and leaves the structure alone
    if (next_ >= steps_.size()) return FILTER_E_END_OF_CHUNKS;
    const Step& step = steps_[next_++];
    if (step.result != S_OK || !step.state) return step.result;
    stat->idChunk = static_cast<ULONG>(next_);
    stat->flags = step.state;
    stat->attribute = {kStorage, {PRSPEC_PROPID, {step.pid}}};
    given_ = false;
    return S_OK;
  }
  STDMETHODIMP_(SCODE) GetText(ULONG* count, WCHAR* buffer) override {
    const std::wstring& text = steps_[next_ - 1].text;
    if (given_) return FILTER_E_NO_MORE_TEXT;
    given_ = true;
    text.copy(buffer, *count);
    buffer[std::min<size_t>(text.size(), *count)] = 0;
    *count = static_cast<ULONG>(std::min<size_t>(text.size(), *count));
    return S_OK;
  }
  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT** value) override {
    *value = nullptr;
    const Step& step = steps_[next_ - 1];
    if (step.text == L"fail") return E_OUTOFMEMORY;
    *value = static_cast<PROPVARIANT*>(CoTaskMemAlloc(sizeof(PROPVARIANT)));
    PropVariantInit(*value);
    (*value)->vt = VT_LPWSTR;
    (*value)->pwszVal = static_cast<wchar_t*>(CoTaskMemAlloc((step.text.size() + 1) * sizeof(wchar_t)));
    wcscpy((*value)->pwszVal, step.text.c_str());
    return S_OK;
  }

  HRESULT init = S_OK;
  bool forever = false;
  int calls = 0;

 private:
  std::vector<Step> steps_;
  size_t next_ = 0;
  bool given_ = false;
};

class ScriptedAccessor final : public IUrlAccessor {
 public:
  explicit ScriptedAccessor(IFilter* filter) : filter_(filter) {}
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP AddRequestParameter(PROPSPEC*, PROPVARIANT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetDocFormat(WCHAR[], DWORD, DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP GetCLSID(CLSID*) override { return E_NOTIMPL; }
  STDMETHODIMP GetHost(WCHAR[], DWORD, DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP IsDirectory() override { return S_FALSE; }
  STDMETHODIMP GetSize(ULONGLONG* size) override { return *size = 7, S_OK; }
  STDMETHODIMP GetLastModified(FILETIME* time) override { return *time = {~0u, ~0u}, S_OK; }  // beyond the calendar
  STDMETHODIMP GetFileName(WCHAR[], DWORD, DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSecurityDescriptor(BYTE*, DWORD, DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP GetRedirectedURL(WCHAR[], DWORD, DWORD*) override { return E_NOTIMPL; }
  STDMETHODIMP GetSecurityProvider(CLSID*) override { return E_NOTIMPL; }
  STDMETHODIMP BindToStream(IStream**) override { return E_NOTIMPL; }
  STDMETHODIMP BindToFilter(IFilter** filter) override { return *filter = filter_, filter_ ? S_OK : E_FAIL; }

 private:
  IFilter* filter_;
};

host::Json Read(IFilter* filter) {
  ScriptedAccessor accessor(filter);
  host::Json record = host::Json::object();
  host::ReadItem(&accessor, true, record);
  return record;
}

TEST(ItemReader, KeepsWhatCameBeforeAFailureAndNamesTheStep) {
  const CHUNKSTATE none = static_cast<CHUNKSTATE>(0);
  const std::wstring lone = L"half \xd83d";
  ScriptedFilter filter({{S_OK, CHUNK_VALUE, 10, lone},
                         {FILTER_E_EMBEDDING_UNAVAILABLE, none, 0, L""},
                         {S_OK, none, 0, L""},
                         {S_OK, CHUNK_TEXT, 19, std::wstring(40'000, L'x')},
                         {S_OK, CHUNK_VALUE, 4, L"fail"},
                         {S_OK, CHUNK_VALUE, 5, L"never reached"}});
  const host::Json record = Read(&filter);
  EXPECT_EQ(record["error"]["step"], "GetValue");
  EXPECT_EQ(record["error"]["code"], "0x8007000E");
  EXPECT_EQ(record["error"]["name"], "E_OUTOFMEMORY");
  EXPECT_TRUE(record["properties"].contains("System.ItemNameDisplay"));
  EXPECT_EQ(record["chunks"].size(), 3u);
  EXPECT_EQ(record["size"], 7);
  EXPECT_FALSE(record.contains("modified"));
  EXPECT_EQ(record["text"].get<std::string>().size(), 32u * 1024);
  EXPECT_FALSE(record.dump(-1, ' ', false, host::Json::error_handler_t::replace).empty());
}

TEST(ItemReader, LetsAFilterGoThatNeverEnds) {
  ScriptedFilter filter({});
  filter.forever = true;
  EXPECT_TRUE(Read(&filter)["properties"].empty());
  EXPECT_LT(filter.calls, 1000);
  ScriptedFilter refused({});
  refused.init = E_FAIL;
  EXPECT_EQ(Read(&refused)["error"]["step"], "Init");
  EXPECT_EQ(Read(nullptr)["error"]["step"], "BindToFilter");
}

TEST(HostText, WritesTimesAndCodesInOneForm) {
  FILETIME time = {0xD53E8000 + 1234567, 0x019DB1DE};  // 1970-01-01 and a fraction of a second
  EXPECT_EQ(host::ToIso8601(time), "1970-01-01T00:00:00.1234567Z");
  EXPECT_EQ(host::ToIso8601({0xFFFFFFFF, 0xFFFFFFFF}), "");
  EXPECT_EQ(host::CodeText(E_FAIL), "0x80004005");
  EXPECT_EQ(host::CodeName(0x12345678), "");
  EXPECT_EQ(host::FromUtf8(host::ToUtf8(L"\x3b1\xd83d\xde00")), L"\x3b1\xd83d\xde00");
}

}  // namespace
