// What the C++ runtime in a DLL of ours would keep when the DLL is unloaded: its reserve for exceptions (about 70 KB),
// an index of thread-local storage with each thread's exceptions in flight, and the semaphore under which static
// objects of functions are made. Hosts that load and unload for years would run out of them. These functions of the C++
// ABI take the place of the runtime's own, so they are part of a DLL's own objects.
#include <windows.h>

#include <cxxabi.h>

#include <cstdlib>

namespace __gnu_cxx {
void __freeres();
}

namespace {

// Held while a static object of a function is made, whichever it is. One that is made on a thread's attach must
// therefore have been made before, on the process's.
CRITICAL_SECTION g_section;
DWORD g_index = FLS_OUT_OF_INDEXES;

// In a process that ends, other libraries may still call this one after its own end; the system takes back what it has.
bool ProcessEnds() {
  using Answer = BOOLEAN(NTAPI*)();
  const auto ends = reinterpret_cast<Answer>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
  return ends && ends();
}

// Made before all other static objects, so that it goes last.
struct RuntimeState {
  RuntimeState() {
    InitializeCriticalSection(&g_section);
    g_index = FlsAlloc(&End);
  }
  ~RuntimeState() {
    if (ProcessEnds()) return;
    __gnu_cxx::__freeres();
    FlsFree(g_index);
    DeleteCriticalSection(&g_section);
  }
  // The system calls it for a thread that ends, and for all when the index goes.
  static void WINAPI End(void* exceptions) {
    if (exceptions) HeapFree(GetProcessHeap(), 0, exceptions);
  }
};
const RuntimeState g_state [[gnu::init_priority(101)]];

// The object has been made; the compiled code looks at the same byte.
unsigned char& Made(__cxxabiv1::__guard* guard) {
  return *reinterpret_cast<unsigned char*>(guard);
}
unsigned char& BeingMade(__cxxabiv1::__guard* guard) {
  return reinterpret_cast<unsigned char*>(guard)[1];
}

}  // namespace

namespace __cxxabiv1 {

// The calling thread's exceptions. Without memory for their list none can be thrown, as with the runtime's own.
extern "C" __cxa_eh_globals* __cxa_get_globals() noexcept {
  // The look-up clears the thread's last error, which code that is unwinding may still want to read.
  const DWORD error = GetLastError();
  void* exceptions = FlsGetValue(g_index);
  SetLastError(error);
  if (!exceptions) {
    constexpr SIZE_T kSize = 2 * sizeof(void*);  // the list's head, and how many are in flight
    exceptions = HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, kSize);
    if (!exceptions || !FlsSetValue(g_index, exceptions)) std::abort();
  }
  return static_cast<__cxa_eh_globals*>(exceptions);
}

extern "C" __cxa_eh_globals* __cxa_get_globals_fast() noexcept {
  return __cxa_get_globals();
}

// Whether the caller has to make the object; if so, it tells by one of the other two what became of it.
extern "C" int __cxa_guard_acquire(__guard* guard) {
  EnterCriticalSection(&g_section);
  if (!Made(guard)) {
    if (BeingMade(guard)) std::abort();  // by this thread, in the object's own constructor
    BeingMade(guard) = 1;
    return 1;
  }
  LeaveCriticalSection(&g_section);
  return 0;
}

extern "C" void __cxa_guard_release(__guard* guard) noexcept {
  __atomic_store_n(&Made(guard), 1, __ATOMIC_RELEASE);
  BeingMade(guard) = 0;
  LeaveCriticalSection(&g_section);
}

extern "C" void __cxa_guard_abort(__guard* guard) noexcept {
  BeingMade(guard) = 0;
  LeaveCriticalSection(&g_section);
}

}  // namespace __cxxabiv1
