// The checker of filters over filters that misbehave in one way each.
#include <gtest/gtest.h>

#include <filterr.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <vector>

#include "host/CheckRecord.h"
#include "host/FilterCheck.h"
#include "tests/support/class_double.h"
#include "tests/support/filter_double.h"

namespace {

using Microsoft::WRL::ComPtr;

// clang-format off
enum class Fault {
  kNone, kSameId, kUnknownState, kUnknownBreak, kForeignSource, kLeavesChunkAlone, kOddResult, kNeverEnds,
  kAnswersForEver, kChunksAfterTheEnd, kTextAfterTheLast, kTextForEver, kTextComesBack, kNoText, kWritesTooMuch,
  kTellsTooMuch, kTerminates, kLosesTextInPieces, kValueTwice, kValueComesBack, kStaticValue, kOddValueType,
  kValueOfText, kTextOfValue, kLosesValueAfterText, kIgnoresAttributes, kInitGoesOn, kChanges, kLeavesFlags,
  kTakesNoArguments, kWorksUnloaded, kTakesNull, kOddLocale, kNoBreaks, kNoPersist, kOneThreadOnly
};
// clang-format on

constexpr GUID kSummary = {0xF29F85E0, 0x4FF9, 0x1068, {0xAB, 0x91, 0x08, 0x00, 0x2B, 0x27, 0xB3, 0xD9}};
constexpr ULONG kMagic = 4;

// Title, contents, author: a model filter but for its fault.
class FaultyFilter final : public FilterDouble {
 public:
  FaultyFilter(Fault fault, bool loaded) : fault_(fault), loaded_(loaded) {}

  STDMETHODIMP GetClassID(CLSID* clsid) override { return *clsid = kSummary, S_OK; }
  STDMETHODIMP Load(IStream*) override { return S_OK; }

  STDMETHODIMP_(SCODE) Init(ULONG flags, ULONG count, const FULLPROPSPEC* wanted, ULONG* out) override {
    if (!loaded_ && fault_ != Fault::kWorksUnloaded) return E_FAIL;
    if (count && !wanted && fault_ != Fault::kTakesNoArguments) return E_INVALIDARG;
    if (fault_ != Fault::kLeavesFlags) *out = 0;
    if (fault_ != Fault::kInitGoesOn) current_ = 0;
    pids_.clear();
    const bool all = fault_ == Fault::kIgnoresAttributes || (!count && (flags & IFILTER_INIT_APPLY_INDEX_ATTRIBUTES));
    for (ULONG pid : {2, 19, 4}) {
      bool asked = all;
      for (ULONG i = 0; wanted && i < count; ++i)
        asked |= wanted[i].guidPropSet == kSummary && wanted[i].psProperty.propid == pid;
      if (asked) pids_.push_back(pid);
    }
    return S_OK;
  }

  STDMETHODIMP_(SCODE) GetChunk(STAT_CHUNK* stat) override {
    if (!stat) return fault_ == Fault::kTakesNull ? S_OK : E_POINTER;
    if (fault_ == Fault::kAnswersForEver) return FILTER_E_EMBEDDING_UNAVAILABLE;
    if (fault_ == Fault::kOneThreadOnly && GetCurrentThreadId() != thread_) return FILTER_E_END_OF_CHUNKS;
    const size_t count = pids_.size();
    if (current_ >= count && fault_ == Fault::kChunksAfterTheEnd && !ended_)
      return ended_ = true, FILTER_E_END_OF_CHUNKS;
    if (current_ >= count && fault_ != Fault::kNeverEnds && !ended_) return FILTER_E_END_OF_CHUNKS;
    ++current_;
    if (current_ == 2 && fault_ == Fault::kLeavesChunkAlone) return S_OK;
    if (current_ == 2 && fault_ == Fault::kOddResult) return S_FALSE;
    *stat = {};
    stat->idChunk = stat->idChunkSource = fault_ == Fault::kSameId ? 7 : static_cast<ULONG>(current_);
    if (fault_ == Fault::kForeignSource) stat->idChunkSource = 99;
    stat->breakType = fault_ == Fault::kNoBreaks ? CHUNK_NO_BREAK : CHUNK_EOP;
    if (fault_ == Fault::kUnknownBreak) stat->breakType = static_cast<CHUNK_BREAKTYPE>(9);
    pid_ = pids_.empty() ? 2 : pids_[(current_ - 1) % pids_.size()];
    stat->flags = IsText() ? CHUNK_TEXT : CHUNK_VALUE;
    if (fault_ == Fault::kUnknownState && !IsText()) stat->flags = static_cast<CHUNKSTATE>(CHUNK_TEXT | CHUNK_VALUE);
    stat->locale = fault_ == Fault::kOddLocale ? 0x3FFF : 0x409;
    stat->attribute.guidPropSet = kSummary;
    stat->attribute.psProperty.ulKind = PRSPEC_PROPID;
    stat->attribute.psProperty.propid = pid_;
    given_ = 0;
    value_given_ = text_asked_ = text_over_ = false;
    values_asked_ = 0;
    return S_OK;
  }

  STDMETHODIMP_(SCODE) GetText(ULONG* count, WCHAR* buffer) override {
    if (!count || !buffer) return fault_ == Fault::kTakesNull ? S_OK : E_POINTER;
    text_asked_ = true;
    if (!IsText()) return fault_ == Fault::kTextOfValue ? FILTER_E_NO_MORE_TEXT : FILTER_E_NO_TEXT;
    if (fault_ == Fault::kTextForEver) return *count = 0, S_OK;
    if (given_ == Text().size()) {
      const bool back = fault_ == Fault::kTextAfterTheLast || (fault_ == Fault::kTextComesBack && text_over_);
      text_over_ = true;
      if (!back) return FILTER_E_NO_MORE_TEXT;
      *count = 1;
      *buffer = L'x';
      return S_OK;
    }
    const ULONG room = *count;
    const size_t give = std::min<size_t>(Text().size() - given_, room);
    std::copy_n(Text().begin() + static_cast<ptrdiff_t>(given_), give, buffer);
    if (fault_ == Fault::kWritesTooMuch) std::fill_n(buffer + room, kMagic, L'!');
    if (fault_ == Fault::kTerminates) buffer[give] = 0;
    given_ += fault_ == Fault::kLosesTextInPieces && give == room ? std::min(give + 1, Text().size() - given_) : give;
    *count = static_cast<ULONG>(fault_ == Fault::kTellsTooMuch ? give + kMagic : give);
    return given_ == Text().size() ? FILTER_S_LAST_TEXT : S_OK;
  }

  STDMETHODIMP_(SCODE) GetValue(PROPVARIANT** value) override {
    if (!value) return fault_ == Fault::kTakesNull ? S_OK : E_POINTER;
    *value = nullptr;
    if (IsText() && fault_ != Fault::kValueOfText) return FILTER_E_NO_VALUES;
    if (fault_ == Fault::kLosesValueAfterText && text_asked_) value_given_ = true;
    const int asked = ++values_asked_;
    const bool back = fault_ == Fault::kValueTwice || (fault_ == Fault::kValueComesBack && asked > 2);
    if (value_given_ && !back) return FILTER_E_NO_MORE_VALUES;
    value_given_ = true;
    static PROPVARIANT own;
    own.vt = VT_I4;
    if (fault_ == Fault::kStaticValue) return *value = &own, S_OK;
    auto* made = static_cast<PROPVARIANT*>(CoTaskMemAlloc(sizeof(PROPVARIANT)));
    PropVariantInit(made);
    made->vt = fault_ == Fault::kOddValueType ? VARTYPE{0x0FEE} : VARTYPE{VT_LPWSTR};
    const std::wstring text = fault_ == Fault::kChanges ? std::to_wstring(++changes) : L"value";
    made->pwszVal = static_cast<wchar_t*>(CoTaskMemAlloc((text.size() + 1) * sizeof(wchar_t)));
    wcscpy(made->pwszVal, text.c_str());
    *value = made;
    return S_OK;
  }

 private:
  static inline std::atomic<int> changes = 0;
  static const std::wstring& Text() {
    static const std::wstring text = L"The quick brown fox jumps over the lazy dog, time and again, until it is dark.";
    static const std::wstring none;
    return empty_text ? none : text;
  }
  bool IsText() const { return pid_ == 19; }
  bool persists() const override { return fault_ != Fault::kNoPersist; }

  const Fault fault_;
  const bool loaded_;
  const DWORD thread_ = GetCurrentThreadId();
  std::vector<ULONG> pids_;
  size_t current_ = 0, given_ = 0;
  ULONG pid_ = 0;
  int values_asked_ = 0;
  bool value_given_ = false, text_asked_ = false, text_over_ = false, ended_ = false;

 public:
  static inline bool empty_text = false;
};

class FaultySource final : public host::FilterSource {
 public:
  explicit FaultySource(Fault fault) : fault_(fault) {}
  HRESULT Make(ComPtr<IFilter>* filter) override {
    return *filter->ReleaseAndGetAddressOf() = new FaultyFilter(fault_, true), S_OK;
  }
  HRESULT MakeUnloaded(ComPtr<IFilter>* filter) override {
    return *filter->ReleaseAndGetAddressOf() = new FaultyFilter(fault_, false), S_OK;
  }

 private:
  const Fault fault_;
};

host::CheckResult Check(Fault fault) {
  FaultyFilter::empty_text = fault == Fault::kNoText;
  host::ReadingCaps caps;
  caps.chunks = 500;
  FaultySource source(fault);
  return host::CheckFilter(
      source, [fault] { return std::make_unique<FaultySource>(fault); }, caps);
}

std::set<std::string> Broken(const host::CheckResult& result) {
  std::set<std::string> names;
  for (int i = 0; i < static_cast<int>(host::Rule::kCount); ++i) {
    const auto rule = static_cast<host::Rule>(i);
    if (!result.tally[rule].broken) continue;
    names.insert(host::InfoOf(rule).name);
    EXPECT_NE(result.tally[rule].seen, "");
  }
  return names;
}

TEST(FilterCheck, FindsEachMisbehaviourByItsRule) {
  struct Case {
    Fault fault;
    std::set<std::string> broken;
  };
  const Case cases[] = {
      {Fault::kNone, {}},
      {Fault::kSameId, {"chunk-ids"}},
      {Fault::kUnknownState, {"chunk-state"}},
      {Fault::kUnknownBreak, {"chunk-state"}},
      {Fault::kForeignSource, {"chunk-source"}},
      {Fault::kLeavesChunkAlone, {"chunk-results", "chunk-ids"}},
      {Fault::kOddResult, {"chunk-results"}},
      {Fault::kNeverEnds, {"chunks-end", "chunks-over", "attributes"}},
      {Fault::kAnswersForEver, {"chunks-end", "chunks-over"}},
      {Fault::kChunksAfterTheEnd, {"chunks-over"}},
      {Fault::kTextAfterTheLast, {"text-results"}},
      {Fault::kTextForEver, {"text-results", "text-there"}},
      {Fault::kTextComesBack, {"text-over"}},
      {Fault::kNoText, {"text-there"}},
      {Fault::kWritesTooMuch, {"text-bounds"}},
      {Fault::kTellsTooMuch, {"text-bounds", "text-pieces"}},
      {Fault::kTerminates, {"text-terminator"}},
      {Fault::kLosesTextInPieces, {"text-pieces"}},
      {Fault::kValueTwice, {"value-once", "values-over"}},
      {Fault::kValueComesBack, {"values-over"}},
      {Fault::kStaticValue, {"value-memory"}},
      {Fault::kOddValueType, {"value-memory"}},
      {Fault::kValueOfText, {"value-of-text"}},
      {Fault::kTextOfValue, {"text-of-value"}},
      {Fault::kLosesValueAfterText, {"text-of-value"}},
      {Fault::kIgnoresAttributes, {"attributes"}},
      {Fault::kInitGoesOn, {"init-again"}},
      {Fault::kChanges, {"same-again", "init-again", "text-of-value", "null-arguments", "threads", "free-threads"}},
      {Fault::kLeavesFlags, {"init-flags"}},
      {Fault::kTakesNoArguments, {"init-arguments"}},
      {Fault::kWorksUnloaded, {"init-unloaded"}},
      {Fault::kTakesNull, {"null-arguments"}},
      {Fault::kOddLocale, {"locale"}},
      {Fault::kNoBreaks, {"breaks"}},
      {Fault::kNoPersist, {"persist"}},
      {Fault::kOneThreadOnly, {"free-threads"}},
  };
  for (const Case& c : cases) {
    const host::CheckResult result = Check(c.fault);
    EXPECT_EQ(Broken(result), c.broken) << "fault " << static_cast<int>(c.fault);
    EXPECT_EQ(result.failed_step, nullptr);
  }
}

TEST(FilterCheck, NamesTheCapThatEndedIt) {
  EXPECT_NE(Check(Fault::kNeverEnds).tally[host::Rule::kChunksEnd].seen.find("500 chunks"), std::string::npos);
  EXPECT_NE(Check(Fault::kAnswersForEver).tally[host::Rule::kChunksEnd].seen.find("in a row"), std::string::npos);
}

TEST(FilterCheck, WaivesByNameAndKindOnly) {
  using host::Rule;
  EXPECT_NE(host::WaiverOf(Rule::kChunksOver, host::kMessageItem, false), nullptr);
  EXPECT_EQ(host::WaiverOf(Rule::kChunksOver, host::kFolderItem, true), nullptr);
  EXPECT_EQ(host::WaiverOf(Rule::kChunksEnd, host::kAttachmentItem, false), nullptr) << "only under the policy";
  EXPECT_NE(host::WaiverOf(Rule::kChunksEnd, host::kAttachmentItem, true), nullptr);
  for (int i = 0; i < static_cast<int>(Rule::kCount); ++i)
    EXPECT_EQ(host::WaiverOf(static_cast<Rule>(i), host::kForeignFilter, true), nullptr);
}

TEST(FilterCheck, TakesAClassOrTheTypeOfAFile) {
  ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
  constexpr CLSID kClass = {0x5AF0C0D1, 0x7B1E, 0x4E0C, {0x9D, 0x34, 0x21, 0x60, 0xB8, 0x5C, 0x1F, 0x77}};
  auto registered = std::make_unique<ClassDouble>(kClass, [](REFIID iid, void** object) {
    ComPtr<IFilter> filter;
    *filter.GetAddressOf() = new FaultyFilter(Fault::kSameId, true);
    return filter->QueryInterface(iid, object);
  });
  const host::Json faulty = host::CheckFile("", "{5AF0C0D1-7B1E-4E0C-9D34-2160B85C1F77}");
  EXPECT_FALSE(host::Conforms(faulty)) << "it initialises with nothing loaded";
  for (const host::Json& rule : faulty["rules"]) {
    EXPECT_EQ(rule["broken"], rule["rule"] == "init-unloaded" ? 1 : 0);
  }
  registered.reset();
  const host::Json gone = host::CheckFile("", "{5AF0C0D1-7B1E-4E0C-9D34-2160B85C1F77}");
  EXPECT_EQ(gone["error"]["name"], "REGDB_E_CLASSNOTREG") << gone;
  EXPECT_EQ(host::CheckFile("", "nonsense")["error"]["name"], "CO_E_CLASSSTRING");
  EXPECT_TRUE(host::CheckFile("C:\\absent.odd", "").contains("error"));
  wchar_t folder[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  const std::wstring page = std::wstring(folder) + L"hoardex-check.html";
  FILE* file = _wfopen(page.c_str(), L"wb");
  fputs("<title>A page</title><p>with words", file);
  fclose(file);
  const host::Json own = host::CheckFile(host::ToUtf8(page), "");
  EXPECT_TRUE(host::Conforms(own)) << own;
  EXPECT_EQ(own["chunks"], 2);
  DeleteFileW(page.c_str());
  CoUninitialize();
}

}  // namespace
