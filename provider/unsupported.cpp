// Functions that callers look up but that have no meaning for a store that is only read.
#include "provider/object.h"

namespace {

template <class... Out>
HRESULT Unsupported(const char* function, Out*... outs) noexcept {
  ((outs ? void(*outs = {}) : void()), ...);
  try {
    const provider::Call call(function);
    return MAPI_E_NO_SUPPORT;
  } catch (...) {
    return provider::CurrentFailure().code;
  }
}

}  // namespace

extern "C" {

HRESULT WINAPI HxWrapStoreEntryID(ULONG, LPTSTR, ULONG, LPENTRYID, ULONG*, LPENTRYID*) {
  return Unsupported("WrapStoreEntryID");
}
SCODE WINAPI HxCreateIProp(LPCIID, ALLOCATEBUFFER*, ALLOCATEMORE*, FREEBUFFER*, LPVOID, LPPROPDATA*) {
  return Unsupported("CreateIProp");
}
SCODE WINAPI HxCreateTable(LPCIID, ALLOCATEBUFFER*, ALLOCATEMORE*, FREEBUFFER*, LPVOID, ULONG, ULONG, LPSPropTagArray,
                           LPTABLEDATA*) {
  return Unsupported("CreateTable");
}
HRESULT WINAPI HxValidateParameters(ULONG, LPVOID*) {
  return Unsupported("HrValidateParameters");
}
HRESULT WINAPI HxBuildDisplayTable(LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, HINSTANCE, UINT, LPDTPAGE,
                                   ULONG, LPMAPITABLE*, LPTABLEDATA*) {
  return Unsupported("BuildDisplayTable");
}
HRESULT WINAPI HxValidateIPMSubtree(LPMDB, ULONG, ULONG*, LPSPropValue*, LPMAPIERROR*) {
  return Unsupported("HrValidateIPMSubtree");
}
HRESULT WINAPI HxDispatchNotifications(ULONG) {
  return Unsupported("HrDispatchNotifications");
}
HRESULT WINAPI HxOpenTnefStreamEx(LPVOID, LPSTREAM, LPTSTR, ULONG, LPMESSAGE, WORD, LPADRBOOK, LPVOID*) {
  return Unsupported("OpenTnefStreamEx");
}
HRESULT WINAPI HxOpenStreamOnFile(LPALLOCATEBUFFER, LPFREEBUFFER, ULONG, LPTSTR, LPTSTR, LPSTREAM*) {
  return Unsupported("OpenStreamOnFile");
}
HRESULT WINAPI HxOpenFormMgr(LPMAPISESSION, LPVOID*) {
  return Unsupported("MAPIOpenFormMgr");
}
HRESULT WINAPI HxRTFSync(LPMESSAGE, ULONG, WINBOOL*) {
  return Unsupported("RTFSync");
}
HRESULT WINAPI HxWrapCompressedRTFStream(LPSTREAM, ULONG, LPSTREAM*) {
  return Unsupported("WrapCompressedRTFStream");
}
HRESULT WINAPI HxOpenLocalFormContainer(LPVOID*) {
  return Unsupported("MAPIOpenLocalFormContainer");
}

}  // extern "C"
