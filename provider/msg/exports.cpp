// OpenIMsgSession, CloseIMsgSession, OpenIMsgOnIStg.
#include "provider/msg/message.h"

namespace {

using namespace provider;

constexpr ULONG kNoStorageCommit = 0x1;  // IMSG_NO_ISTG_COMMIT

// Groups messages for their caller; nothing hangs on it here.
struct Session {
  Counted<Kind::kInitialization> counted;
};

template <class Body, class... Out>
HRESULT Guarded(const char* function, Body&& body, Out*... outs) noexcept {
  ((outs ? void(*outs = {}) : void()), ...);
  try {
    const Call call(function);
    return Run(body, call);
  } catch (...) {
    return CurrentFailure().code;
  }
}

}  // namespace

extern "C" {

SCODE WINAPI HxOpenIMsgSession(LPMALLOC, ULONG, LPMSGSESS* session) {
  return Guarded(
      "OpenIMsgSession",
      [&] {
        Require(session != nullptr, MAPI_E_INVALID_PARAMETER);
        *session = reinterpret_cast<LPMSGSESS>(new Session);
      },
      session);
}

void WINAPI HxCloseIMsgSession(LPMSGSESS session) {
  Guarded("CloseIMsgSession", [] {});
  delete reinterpret_cast<Session*>(session);
}

SCODE WINAPI HxOpenIMsgOnIStg(LPMSGSESS, LPALLOCATEBUFFER, LPALLOCATEMORE, LPFREEBUFFER, LPMALLOC, LPVOID,
                              LPSTORAGE storage, MSGCALLRELEASE* released, ULONG data, ULONG flags,
                              LPMESSAGE* message) {
  return Guarded(
      "OpenIMsgOnIStg",
      [&] {
        Require(storage && message, MAPI_E_INVALID_PARAMETER);
        const auto strings = flags & MAPI_UNICODE ? msg::Strings::kUnicode : msg::Strings::kAnsi;
        *message = msg::CreateOnStorage(storage, strings, !(flags & kNoStorageCommit), {released, data}).Detach();
      },
      message);
}

}  // extern "C"
