#include <atomic>

#include "module/core/HoardexPH.h"

namespace module {
namespace {

// The process's CHoardexPHModule: one per loaded module.
struct CHoardexPHModule {
  HINSTANCE instance = nullptr;
  std::atomic<LONG> locks = 0;
};
constinit CHoardexPHModule g_Module;

}  // namespace

HINSTANCE Instance() {
  return g_Module.instance;
}
void SetInstance(HINSTANCE instance) {
  g_Module.instance = instance;
}
void Lock() {
  ++g_Module.locks;
}
void Unlock() {
  --g_Module.locks;
}
LONG LockCount() {
  return g_Module.locks;
}

}  // namespace module
