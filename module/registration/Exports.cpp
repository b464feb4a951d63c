// What an installer and the archiving client call by name: see include/HoardexPH.h. Nothing is thrown and nothing
// returned; the log says how it went.
#include "module/registration/Exports.h"

#include "module/core/Boundary.h"
#include "module/core/ComScope.h"
#include "module/registration/DesktopSearch.h"
#include "module/registration/SearchRoot.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexPH";

template <class Body>
void RunExport(const wchar_t* operation, Body&& body) noexcept {
  const ComScope com;
  boundary::Guard(kLogSource, __LINE__, operation, [&]() -> HRESULT {
    body();
    return S_OK;
  });
}

}  // namespace

extern "C" {

void STDAPICALLTYPE ZKHoardexAddProtocol() {
  RunExport(L"ZKHoardexAddProtocol()", [] {
    ZK_LOG(L"ZKHoardexAddProtocol() - Start the process of registering Hoardex's protocol handler for WDS 3.x");
    const HRESULT hr = CreateDeleteRegSearchRootAndDefaultScope(true);
    ZK_LOG(
        L"ZKHoardexAddProtocol() - Registering Hoardex's protocol handler for WDS 3.x returned with a value of "
        L"[0x%08lX]",
        hr);
  });
}

void STDAPICALLTYPE ZKHoardexRemoveProtocol() {
  RunExport(L"ZKHoardexRemoveProtocol()", [] {
    ZK_LOG(L"ZKHoardexRemoveProtocol() - Start the process of de-registering Hoardex's protocol handler for WDS 3.x");
    const HRESULT hr = CreateDeleteRegSearchRootAndDefaultScope(false);
    ZK_LOG(
        L"ZKHoardexRemoveProtocol() - De-registering Hoardex's protocol handler for WDS 3.x returned with a value of "
        L"[0x%08lX]",
        hr);
  });
}

void STDAPICALLTYPE ZKHoardexRemoveAllProtocol() {
  RunExport(L"ZKHoardexRemoveAllProtocol()", [] { RemoveAllSearchRoots(); });
}

void STDAPICALLTYPE UpdateWDSRegKeyForHX() {
  RunExport(L"UpdateWDSRegKeyForHX()", [] { UpdateWDSRegKey(); });
}

void STDAPICALLTYPE DeleteWDSRegKeyForHX() {
  RunExport(L"DeleteWDSRegKeyForHX()", [] { DeleteWDSRegKey(); });
}
}
