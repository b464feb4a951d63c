// Memory runs out: at each operator new of the module's code, at each COM allocation, at each block of the provider.
#include <gtest/gtest.h>

#include "tests/module/fault_spy.h"

namespace faults {
namespace {

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
  DenyEach("new, crawl", 150, plan, seen, [&] { return scene_.Crawl(); }, {});
}

TEST_F(MemoryFaults, OfTheProvidersBlocks) {
  const auto seen = [] { return ProviderFaults::Allocations(); };
  DenyEach(
      "blocks, operations", 400, PlanBlocks, seen, [&] { return scene_.RunSteps(); }, kAnyPartOfASession);
  DenyEach(
      "blocks, crawl", 100, PlanBlocks, seen, [&] { return scene_.Crawl(); }, kAnyPartOfASession);
}

}  // namespace
}  // namespace faults
