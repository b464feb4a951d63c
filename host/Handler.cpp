#include "host/Handler.h"

#include <objbase.h>

#include <string>

#include "platform/searchmanager.h"

namespace host {
namespace {

constexpr wchar_t kScheme[] = L"zkoffline3x";
constexpr wchar_t kHandlersKey[] = L"SOFTWARE\\Microsoft\\Windows Search\\ProtocolHandlers";

// A class object that makes nothing. One for all threads, without a count.
class Refusal final : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (!object) return E_POINTER;
    const bool ours = iid == IID_IUnknown || iid == IID_IClassFactory;
    *object = ours ? static_cast<IClassFactory*>(this) : nullptr;
    return ours ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown*, REFIID, void** object) override {
    if (object) *object = nullptr;
    return REGDB_E_CLASSNOTREG;
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

// While it lives, the index's class on this thread's apartment is one that makes nothing: class objects of the process
// come before registered servers.
class IndexOutOfReach {
 public:
  IndexOutOfReach()
      : result_(CoRegisterClassObject(CLSID_CSearchManager, &refusal_, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                      &cookie_)) {}
  ~IndexOutOfReach() {
    if (SUCCEEDED(result_)) CoRevokeClassObject(cookie_);
  }
  IndexOutOfReach(const IndexOutOfReach&) = delete;
  IndexOutOfReach& operator=(const IndexOutOfReach&) = delete;

  HRESULT result() const { return result_; }

 private:
  static inline Refusal refusal_;
  DWORD cookie_ = 0;
  HRESULT result_;
};

}  // namespace

HRESULT HandlerClass(CLSID* clsid) {
  wchar_t prog_id[128];
  DWORD size = sizeof(prog_id);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kHandlersKey, kScheme, RRF_RT_REG_SZ, nullptr, prog_id, &size) !=
          ERROR_SUCCESS ||
      !*prog_id)
    return REGDB_E_CLASSNOTREG;
  return CLSIDFromProgID(prog_id, clsid);
}

HRESULT MakeHandler(REFCLSID clsid, REFIID iid, void** object) {
  const IndexOutOfReach index;
  return FAILED(index.result()) ? index.result() : CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid, object);
}

}  // namespace host
