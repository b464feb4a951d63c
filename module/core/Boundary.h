// The one place where exceptions end: every interface operation runs its body through Guard.
#pragma once

#include <comdef.h>

#include <utility>

#include "module/core/SCLog.h"

namespace boundary {

// Runs `body` and returns its HRESULT. A COM error is logged under `operation` ("CClass::Operation()") and its code
// returned; anything else is logged and gives E_FAIL. Nothing is thrown on.
template <class Body>
HRESULT Guard(const wchar_t* source, int line, const wchar_t* operation, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const _com_error& error) {
    logging::Write(source, line, SCLog::kOrdinary, L"%s - Exception with error [0x%08X]", operation, error.Error());
    return error.Error();
  } catch (...) {
    logging::Write(source, line, SCLog::kOrdinary, L"%s - Exception occurred", operation);
    return E_FAIL;
  }
}

}  // namespace boundary

#define ZK_GUARD(operation, ...) return ::boundary::Guard(kLogSource, __LINE__, operation, __VA_ARGS__)
