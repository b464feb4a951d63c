#include "module/core/UserSid.h"

#include <sddl.h>

#include <memory>
#include <vector>

#include "module/core/UrlGrammar.h"

namespace {

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
struct LocalMemory {
  void operator()(void* memory) const { LocalFree(memory); }
};

// The thread's last error, which a failed call has set.
HRESULT LastError() {
  const DWORD error = GetLastError();
  return error == ERROR_SUCCESS ? E_FAIL : HRESULT_FROM_WIN32(error);
}

}  // namespace

HRESULT GetUserSIDString(wchar_t* buffer, DWORD count) {
  if (!buffer || !count) return E_INVALIDARG;
  buffer[0] = 0;
  HANDLE opened = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &opened)) return LastError();
  const std::unique_ptr<void, HandleCloser> token(opened);

  // Asked without a buffer, the call tells the size and must say that there was none.
  DWORD size = 0;
  if (GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size)) return E_UNEXPECTED;
  if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return LastError();
  std::vector<BYTE> user(size);
  if (!GetTokenInformation(token.get(), TokenUser, user.data(), size, &size)) return LastError();

  wchar_t* converted = nullptr;
  if (!ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid, &converted))
    return LastError();
  const std::unique_ptr<wchar_t, LocalMemory> sid(converted);
  const std::wstring braced = std::wstring(L"{").append(sid.get()).append(L"}");
  if (braced.size() >= count) return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  braced.copy(buffer, braced.size());
  buffer[braced.size()] = 0;
  return S_OK;
}

std::wstring UserRootUrl(const wchar_t* braced_sid) {
  return std::wstring(url::kScheme).append(L"://").append(braced_sid).append(L"/").append(url::kRootMarker);
}
