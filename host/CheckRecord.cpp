#include "host/CheckRecord.h"

#include <shlwapi.h>

#include <iterator>
#include <string_view>

#include "host/BuiltInFilter.h"
#include "host/FilterCheck.h"
#include "host/FilterRules.h"
#include "host/Policy.h"
#include "host/Text.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

std::wstring ExtensionOf(std::wstring_view name) {
  const size_t dot = name.rfind(L'.'), slash = name.find_last_of(L"/\\");
  if (dot == std::wstring_view::npos || (slash != std::wstring_view::npos && dot < slash)) return {};
  return std::wstring(name.substr(dot + 1));
}

std::wstring Braced(const CLSID& clsid) {
  wchar_t text[40] = {};
  StringFromGUID2(clsid, text, static_cast<int>(std::size(text)));
  return text;
}

// The filters of one item of the module.
class UrlSource final : public FilterSource {
 public:
  UrlSource(Session& session, const std::string& url) : session_(session), url_(url) {}
  ~UrlSource() override { Done(); }

  HRESULT Make(ComPtr<IFilter>* filter) override {
    Done();
    HRESULT hr = session_.CreateAccessor(url_, &accessor_);
    if (SUCCEEDED(hr)) hr = accessor_->BindToFilter(filter->ReleaseAndGetAddressOf());
    return SUCCEEDED(hr) && !*filter ? E_POINTER : hr;
  }
  void Done() override {
    if (accessor_) session_.CloseAccessor(accessor_.Get());
    accessor_.Reset();
  }

 private:
  Session& session_;
  const std::string& url_;
  ComPtr<IUrlAccessor> accessor_;
};

// The same with a handler of its own, for another thread.
class ThreadUrlSource final : public FilterSource {
 public:
  explicit ThreadUrlSource(const std::string& url) : url_source_(session_, url) {}
  HRESULT Open() { return session_.Open(); }
  HRESULT Make(ComPtr<IFilter>* filter) override { return url_source_.Make(filter); }
  void Done() override { url_source_.Done(); }

 private:
  Session session_;
  UrlSource url_source_;
};

// A registered class, or one of the host's own filters, over a file.
class FileSource final : public FilterSource {
 public:
  FileSource(std::wstring file, const CLSID& clsid) : file_(std::move(file)), clsid_(clsid) {}

  HRESULT Make(ComPtr<IFilter>* filter) override {
    HRESULT hr = MakeUnloaded(filter);
    return FAILED(hr) || file_.empty() ? hr : Load(filter->Get());
  }
  HRESULT MakeUnloaded(ComPtr<IFilter>* filter) override {
    if (clsid_ == CLSID_NULL) {
      *filter->ReleaseAndGetAddressOf() = MakeBuiltInFilter(ExtensionOf(file_), L"");
      return *filter ? S_OK : static_cast<HRESULT>(0x80040D16);  // GTHR_E_FILTER_NOT_FOUND
    }
    return CoCreateInstance(clsid_, nullptr, CLSCTX_INPROC_SERVER, IID_IFilter,
                            reinterpret_cast<void**>(filter->ReleaseAndGetAddressOf()));
  }

 private:
  HRESULT Load(IFilter* filter) {
    ComPtr<IPersistStream> from_stream;
    if (SUCCEEDED(filter->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(from_stream.GetAddressOf())))) {
      ComPtr<IStream> stream;
      const HRESULT hr = SHCreateStreamOnFileW(file_.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, &stream);
      return FAILED(hr) ? hr : from_stream->Load(stream.Get());
    }
    ComPtr<IPersistFile> from_file;
    if (SUCCEEDED(filter->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(from_file.GetAddressOf()))))
      return from_file->Load(file_.c_str(), STGM_READ);
    ComPtr<IPersistStorage> from_storage;
    if (SUCCEEDED(filter->QueryInterface(IID_IPersistStorage, reinterpret_cast<void**>(from_storage.GetAddressOf())))) {
      const HRESULT hr = StgOpenStorage(file_.c_str(), nullptr, STGM_READ | STGM_SHARE_DENY_WRITE, nullptr, 0,
                                        storage_.ReleaseAndGetAddressOf());
      return FAILED(hr) ? hr : from_storage->Load(storage_.Get());
    }
    return E_NOINTERFACE;
  }

  const std::wstring file_;
  const CLSID clsid_;
  ComPtr<IStorage> storage_;
};

std::wstring DefaultValue(const std::wstring& key) {
  wchar_t text[260];
  DWORD size = sizeof(text);
  return RegGetValueW(HKEY_CLASSES_ROOT, key.c_str(), nullptr, RRF_RT_REG_SZ, nullptr, text, &size) ? L"" : text;
}

// The class that is registered for the type of the file, by the documented way from an extension to its filter.
CLSID RegisteredFilter(const std::wstring& file) {
  const std::wstring extension = L"." + ExtensionOf(file);
  std::wstring handler = DefaultValue(extension + L"\\PersistentHandler");
  if (handler.empty()) {
    const std::wstring type = DefaultValue(extension);
    const std::wstring clsid = type.empty() ? L"" : DefaultValue(type + L"\\CLSID");
    if (!clsid.empty()) handler = DefaultValue(L"CLSID\\" + clsid + L"\\PersistentHandler");
  }
  CLSID clsid = CLSID_NULL;
  if (handler.empty()) return clsid;
  const std::wstring filter =
      DefaultValue(L"CLSID\\" + handler + L"\\PersistentAddinsRegistered\\{89BCB740-6119-101A-BCB7-00DD010655AF}");
  return FAILED(CLSIDFromString(filter.c_str(), &clsid)) ? CLSID_NULL : clsid;
}

Json RulesJson(const RuleTally& tally, unsigned kind, bool barred) {
  Json rules = Json::array();
  for (int i = 0; i < static_cast<int>(Rule::kCount); ++i) {
    const Rule rule = static_cast<Rule>(i);
    const RuleTally::Count& count = tally[rule];
    Json entry = {
        {"rule", InfoOf(rule).name}, {"text", InfoOf(rule).text}, {"checked", count.checked}, {"broken", count.broken}};
    if (count.broken) entry["seen"] = count.seen;
    if (InfoOf(rule).only_warning) entry["warning"] = true;
    if (const char* reason = WaiverOf(rule, kind, barred)) entry["waiver"] = reason;
    rules.push_back(std::move(entry));
  }
  return rules;
}

void Fill(Json& record, const CheckResult& result, unsigned kind, bool barred) {
  record["kind"] = NameOfKind(kind);
  if (result.failed_step) {
    record["error"] = ErrorOf(result.failed_step, result.error);
    return;
  }
  for (const ReadChunk& chunk : result.reading.chunks)
    if (chunk.property == "System.ItemType") record["type"] = Json::parse(chunk.value, nullptr, false);
  record["chunks"] = result.reading.chunks.size();
  record["rules"] = RulesJson(result.tally, kind, barred);
}

unsigned KindBit(const std::string& url, Session& session) {
  const std::string_view kind = KindOf(url);
  if (kind == "root") return kRootItem;
  if (kind == "vault") return kVaultItem;
  if (kind == "folder") return kFolderItem;
  if (kind == "message") return kMessageItem;
  if (kind != "attachment") return 0;
  return session.HasFilter(ExtensionOf(FromUtf8(url))) ? kAttachmentItem : kBareAttachmentItem;
}

}  // namespace

Json ItemChecker::Check(const std::string& url) {
  Json record = {{"url", url}, {"kind", "unknown"}};
  const unsigned kind = KindBit(url, session_);
  UrlSource source(session_, url);
  SourceForThread for_thread;
  if (tried_.insert(NameOfKind(kind)).second)
    for_thread = [&url]() -> std::unique_ptr<FilterSource> {
      auto made = std::make_unique<ThreadUrlSource>(url);
      if (FAILED(made->Open())) return nullptr;
      return made;
    };
  const CheckResult result = CheckFilter(source, for_thread);
  const bool attachment = kind == kAttachmentItem || kind == kBareAttachmentItem;
  const bool barred = ReadAttachmentPolicy().Bars(attachment ? ExtensionOf(FromUtf8(url)) : L"");
  Fill(record, result, kind, barred);
  if (result.failed_step) tried_.erase(NameOfKind(kind));
  return record;
}

Json CheckFile(const std::string& file, const std::string& clsid_text) {
  Json record = {{"url", file}};
  const std::wstring path = FromUtf8(file);
  CLSID clsid = CLSID_NULL;
  if (!clsid_text.empty()) {
    if (FAILED(CLSIDFromString(FromUtf8(clsid_text).c_str(), &clsid))) {
      record["error"] = ErrorOf("CLSIDFromString", CO_E_CLASSSTRING);
      return record;
    }
  } else {
    clsid = RegisteredFilter(path);
  }
  const auto make = [&] { return std::make_unique<FileSource>(path, clsid); };
  const std::unique_ptr<FilterSource> source = make();
  record["filter"] = clsid == CLSID_NULL ? "the host's own" : ToUtf8(Braced(clsid));
  if (path.empty()) {
    Fill(record, CheckEmptyFilter(*source), kForeignFilter, false);
  } else {
    Fill(record, CheckFilter(*source, make), kForeignFilter, false);
  }
  return record;
}

bool Conforms(const Json& record) {
  if (record.contains("error")) return false;
  for (const Json& rule : record["rules"])
    if (rule["broken"] != 0 && !rule.contains("waiver") && !rule.contains("warning")) return false;
  return true;
}

}  // namespace host
