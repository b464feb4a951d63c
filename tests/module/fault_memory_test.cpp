// Memory runs out: at each operator new of the module's code, at each COM allocation, at each block of the provider.
#include <gtest/gtest.h>

#include <objbase.h>

#include "tests/module/fault_shortage.h"

namespace faults {
namespace {

// Sees every CoTaskMemAlloc of the process, and may deny it.
class Spy final : public IMallocSpy {
 public:
  Spy() { CoRegisterMallocSpy(this); }
  ~Spy() { CoRevokeMallocSpy(); }
  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    *object = iid == IID_IMallocSpy || iid == IID_IUnknown ? this : nullptr;
    return *object ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T size) override {
    denied_ = IsOurs() && of_com.Denies();
    return denied_ ? 0 : size;
  }
  STDMETHODIMP_(void*) PostAlloc(void* block) override {
    // A request of no bytes may get a block all the same.
    if (denied_ && block) HeapFree(GetProcessHeap(), 0, block);
    return std::exchange(denied_, false) ? nullptr : (live_ += block != nullptr, block);
  }
  STDMETHODIMP_(void*) PreFree(void* block, BOOL) override {
    live_ -= block != nullptr;
    return block;
  }
  STDMETHODIMP_(void) PostFree(BOOL) override {}
  STDMETHODIMP_(SIZE_T) PreRealloc(void* block, SIZE_T size, void** real, BOOL) override {
    *real = block;
    return size;
  }
  STDMETHODIMP_(void*) PostRealloc(void* block, BOOL) override { return block; }
  STDMETHODIMP_(void*) PreGetSize(void* block, BOOL) override { return block; }
  STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T size, BOOL) override { return size; }
  STDMETHODIMP_(void*) PreDidAlloc(void* block, BOOL) override { return block; }
  STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int result) override { return result; }
  STDMETHODIMP_(void) PreHeapMinimize() override {}
  STDMETHODIMP_(void) PostHeapMinimize() override {}

  long live() const { return live_; }

 private:
  // Whether this program asks, rather than a library of the system that it called: those do not all expect to be
  // denied.
  static bool IsOurs() {
    void* frames[8] = {};
    const USHORT count = RtlCaptureStackBackTrace(0, static_cast<ULONG>(std::size(frames)), frames, nullptr);
    const HMODULE self = GetModuleHandleW(nullptr), com = GetModuleHandleW(L"combase.dll"),
                  ole = GetModuleHandleW(L"ole32.dll");
    USHORT i = 0;
    const auto module_at = [&](USHORT frame) {
      HMODULE module = nullptr;
      GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         static_cast<LPCWSTR>(frames[frame]), &module);
      return module;
    };
    while (i < count && module_at(i) == self) ++i;  // this spy
    while (i < count && (module_at(i) == com || module_at(i) == ole)) ++i;
    return i && i < count && module_at(i) == self;
  }

  bool denied_ = false;
  long live_ = 0;
};

class MemoryFaults : public testing::Test {
 protected:
  void SetUp() override { ProviderFaults::Clear(); }

  // Has the n-th allocation denied for each n of 1, 1 + stride, ... of those that `run` makes, and looks at what holds
  // afterwards. `plan` and `seen` are those of the kind of memory.
  template <class Plan, class Seen, class Run>
  void DenyEach(const char* kind, long runs, const Plan& plan, const Seen& seen, const Run& run,
                const Invariants::Left& left) {
    run();  // what is made once is there
    scene_.LeaveStaleProfile();
    plan(0);
    const auto reference = run();
    const long all = seen();
    ASSERT_GT(all, 10) << kind;
    const long stride = all / runs + 1;
    long tried = 0;
    for (long n = 1; n <= all && !HasFailure(); n += stride, ++tried) {
      SCOPED_TRACE(std::string(kind) + ", allocation " + std::to_string(n));
      scene_.LeaveStaleProfile();
      const Invariants invariants;
      plan(n);
      EXPECT_NO_THROW(run());
      EXPECT_GE(seen(), n) << "nothing was denied";
      plan(0);
      // The stale profile may be there again: what failed may have come before.
      invariants.ExpectAtMost(left, 1);
      EXPECT_TRUE(Scene::LogIsFree());
      EXPECT_EQ(run(), reference);
      EXPECT_EQ(ProviderFaults::Count().profiles, 0);
      scene_.NewLogLines();
    }
    printf("%s: %ld of %ld allocations denied\n", kind, tried, all);
  }
  static void PlanBlocks(long n) { ProviderFaults::Set({nullptr, 0, FALSE, kHoardexMapiAnswer, S_OK, 0, n}); }

  Scene& scene_ = Scene::Get();
};

TEST_F(MemoryFaults, OfTheModulesOwn) {
  const auto plan = [](long n) { of_new.Plan(n); };
  const auto seen = [] { return of_new.seen(); };
  // An object that is not made whole is taken down again: nothing stays.
  DenyEach("new, operations", 500, plan, seen, [&] { return scene_.RunSteps(); }, {});
  DenyEach("new, crawl", 2000, plan, seen, [&] { return scene_.Crawl(); }, {});
}

TEST_F(MemoryFaults, OfCom) {
  Spy spy;
  const auto run = [&] {
    const long before = spy.live();
    auto given = scene_.Crawl();
    EXPECT_LE(spy.live() - before, 2) << "memory for a value was not given back";
    return given;
  };
  DenyEach(
      "COM, crawl", 2000, [](long n) { of_com.Plan(n); }, [] { return of_com.seen(); }, run, {});
}

TEST_F(MemoryFaults, OfTheProvidersBlocks) {
  const auto seen = [] { return ProviderFaults::Allocations(); };
  DenyEach(
      "blocks, operations", 400, PlanBlocks, seen, [&] { return scene_.RunSteps(); }, kAnyPartOfASession);
  DenyEach(
      "blocks, crawl", 2000, PlanBlocks, seen, [&] { return scene_.Crawl(); }, kAnyPartOfASession);
}

}  // namespace
}  // namespace faults
