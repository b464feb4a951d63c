// What the checked build lets a test see and do. Not in the released DLL.
#include "provider/memory.h"
#include "provider/object.h"

extern "C" {

// Objects of all kinds that exist now.
__declspec(dllexport) long WINAPI HoardexMapiLiveObjects() {
  long sum = 0;
  for (int kind = 0; kind < static_cast<int>(provider::Kind::kCount); ++kind)
    sum += provider::LiveObjects(static_cast<provider::Kind>(kind));
  return sum;
}

// Buffers that nobody has freed.
__declspec(dllexport) long WINAPI HoardexMapiLiveBuffers() {
  return provider::LiveBuffers();
}

// From now on the `countdown`-th call of `method` ("IMAPIProp::GetProps"; null: any) answers `result`. 0: none.
__declspec(dllexport) void WINAPI HoardexMapiFailCall(const char* method, long countdown, HRESULT result) {
  provider::SetFaultPlan({method, countdown, result});
}

// Calls since HoardexMapiFailCall.
__declspec(dllexport) long WINAPI HoardexMapiCallsEntered() {
  return provider::CallsEntered();
}

}  // extern "C"
