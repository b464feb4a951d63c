// Takes the place of the system's MAPI stub: passes the look-up of a component on to the test program that loaded it.
#include <windows.h>

#include <cstring>

extern "C" __declspec(dllexport) BOOL STDMETHODCALLTYPE
    FGetComponentPath(LPSTR component, LPSTR qualifier, LPSTR path, DWORD size, BOOL install) {
  const FARPROC address = GetProcAddress(GetModuleHandleW(nullptr), "AnswerComponentPath");
  decltype(&FGetComponentPath) answer;
  memcpy(&answer, &address, sizeof(answer));
  return answer(component, qualifier, path, size, install);
}
