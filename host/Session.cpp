#include "host/Session.h"

#include <filterr.h>

#include <atomic>
#include <string_view>

#include "host/BuiltInFilter.h"
#include "host/Handler.h"
#include "host/ItemReader.h"
#include "host/Text.h"

using Microsoft::WRL::ComPtr;

namespace host {
namespace {

constexpr HRESULT kFilterNotFound = static_cast<HRESULT>(0x80040D16);  // GTHR_E_FILTER_NOT_FOUND

// Hands the handler the filters of file types, as the search host's site does: the content type decides before the
// extension. Classes by identifier are the system's, which this machine has not.
class Site final : public IProtocolHandlerSite {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    const bool ours = iid == IID_IUnknown || iid == __uuidof(IProtocolHandlerSite);
    *object = ours ? static_cast<IProtocolHandlerSite*>(this) : nullptr;
    if (!ours) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (!left) delete this;
    return left;
  }
  STDMETHODIMP GetFilter(CLSID*, LPCWSTR content_type, LPCWSTR extension, IFilter** filter) override {
    if (!filter) return E_POINTER;
    std::wstring_view plain = extension ? extension : L"";
    if (!plain.empty() && plain.front() == L'.') plain.remove_prefix(1);
    *filter = MakeBuiltInFilter(plain, content_type ? content_type : L"");
    return *filter ? S_OK : kFilterNotFound;
  }

 private:
  ~Site() = default;
  std::atomic<ULONG> references_ = 1;
};

}  // namespace

const char* KindOf(std::string_view url) {
  // zkoffline3x://{SID}/default/ path of the vault / folders / message.zkm / key / name
  const size_t root_end = url.find("/default");
  if (root_end == std::string_view::npos) return "unknown";
  std::string_view rest = url.substr(root_end + 8);
  while (!rest.empty() && rest.front() == '/') rest.remove_prefix(1);
  while (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
  if (rest.empty()) return "root";
  const size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return "vault";
  const size_t message = rest.find(".zkm", slash);
  if (message == std::string_view::npos) return "folder";
  return message + 4 == rest.size() ? "message" : "attachment";
}

Json ErrorOf(const char* step, HRESULT code) {
  Json error = {{"step", step}, {"code", CodeText(code)}};
  const std::string name = CodeName(code);
  if (!name.empty()) error["name"] = name;
  return error;
}

Session::~Session() {
  if (protocol_) protocol_->ShutDown();
}

HRESULT Session::Open() {
  CLSID clsid;
  HRESULT hr = HandlerClass(&clsid);
  if (FAILED(hr)) return hr;
  ComPtr<ISearchProtocol> protocol;
  hr = MakeHandler(clsid, __uuidof(ISearchProtocol), reinterpret_cast<void**>(protocol.ReleaseAndGetAddressOf()));
  if (FAILED(hr)) return hr;
  *site_.ReleaseAndGetAddressOf() = new Site;  // its first reference is ours
  TIMEOUT_INFO timeouts = {sizeof(TIMEOUT_INFO), 60'000, 60'000};
  PROXY_INFO proxy = {};
  proxy.dwSize = sizeof(proxy);
  hr = protocol->Init(&timeouts, site_.Get(), &proxy);
  if (SUCCEEDED(hr)) protocol_ = protocol;
  return hr;
}

HRESULT Session::CreateAccessor(const std::string& url, IUrlAccessor** accessor) {
  // The protocol takes a terminated string, which would end there.
  if (url.find('\0') != std::string::npos) return E_INVALIDARG;
  AUTHENTICATION_INFO authentication = {};
  authentication.dwSize = sizeof(authentication);
  INCREMENTAL_ACCESS_INFO incremental = {};
  incremental.dwSize = sizeof(incremental);
  ITEM_INFO item = {};
  item.dwSize = sizeof(item);
  item.pcwszApplicationName = L"Windows";
  item.pcwszCatalogName = L"SystemIndex";
  return protocol_->CreateAccessor(FromUtf8(url).c_str(), &authentication, &incremental, &item, accessor);
}

void Session::CloseAccessor(IUrlAccessor* accessor) {
  protocol_->CloseAccessor(accessor);
}

bool Session::HasFilter(const std::wstring& extension) const {
  ComPtr<IFilter> filter;
  return SUCCEEDED(site_->GetFilter(nullptr, nullptr, extension.c_str(), &filter));
}

Json Session::Read(const std::string& url, bool with_chunks) {
  Json record = {{"url", url}, {"kind", KindOf(url)}};
  ComPtr<IUrlAccessor> accessor;
  const HRESULT hr = CreateAccessor(url, &accessor);
  if (FAILED(hr)) {
    record["error"] = ErrorOf("CreateAccessor", hr);
    return record;
  }
  try {
    ReadItem(accessor.Get(), with_chunks, record);
  } catch (const std::bad_alloc&) {
    record["error"] = ErrorOf("GetChunk", E_OUTOFMEMORY);
  }
  CloseAccessor(accessor.Get());
  return record;
}

}  // namespace host
