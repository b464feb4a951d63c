// A whole crawl through the module's COM objects, with every MAPI call of it going wrong in turn.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/mapi_extra.h"
#include "tests/module/fault_scenario.h"

namespace faults {
namespace {

class CrawlFaults : public testing::Test {
 protected:
  void SetUp() override {
    ProviderFaults::Clear();
    reference_ = scene_.Crawl();
    calls_ = ProviderFaults::CallsEntered();
    for (long n = 1; n <= calls_; ++n) names_.push_back(ProviderFaults::CallName(n));
    ASSERT_GT(calls_, 200);
    ASSERT_GT(reference_.size(), 100u);
    printf("%ld calls\n", calls_);
  }
  void Run(HoardexMapiFaultPlan plan, long n) {
    SCOPED_TRACE("call " + std::to_string(n) + ", " + names_[static_cast<size_t>(n) - 1] + ", fault " +
                 std::to_string(plan.fault) + " in column " + std::to_string(plan.column));
    plan.call = n;
    const Invariants invariants;
    ProviderFaults::Set(plan);
    const auto given = scene_.Crawl();
    EXPECT_GT(ProviderFaults::FaultsGiven(), 0);
    ProviderFaults::Clear();
    EXPECT_FALSE(given.empty());
    // Each item after the fault may build a session of its own, and fail again.
    const long items = plan.from_then_on ? 100 : 1;
    invariants.ExpectAtMost({items, items, items, items}, items);
    scene_.NewLogLines();
  }
  void ExpectRecovery() {
    EXPECT_EQ(scene_.Crawl(), reference_);
    EXPECT_EQ(ProviderFaults::Count().profiles, 0);
  }

  Scene& scene_ = Scene::Get();
  std::vector<std::wstring> reference_;
  std::vector<const char*> names_;
  long calls_ = 0;
};

TEST_F(CrawlFaults, EachCallAnswersWrongly) {
  for (const HRESULT code : {E_OUTOFMEMORY, S_OK}) {
    for (long n = 1; n <= calls_ && !HasFailure(); ++n) {
      Run({nullptr, 0, FALSE, kHoardexMapiAnswer, code, 0, 0}, n);
      if (n % 8 == 0) ExpectRecovery();
    }
  }
  for (long n = 1; n <= calls_ && !HasFailure(); n += 3)
    Run({nullptr, 0, TRUE, kHoardexMapiAnswer, static_cast<HRESULT>(MAPI_E_NOT_FOUND), 0, 0}, n);
  ExpectRecovery();
}

TEST_F(CrawlFaults, EachAnswerIsSpoilt) {
  for (long n = 1; n <= calls_ && !HasFailure(); ++n) {
    const std::string name = names_[static_cast<size_t>(n) - 1];
    const auto run = [&](HoardexMapiFault fault, ULONG column) {
      Run({nullptr, 0, FALSE, fault, static_cast<HRESULT>(MAPI_E_NOT_FOUND), column, 0}, n);
    };
    if (name == "IMAPITable::GetRowCount") run(kHoardexMapiHugeCount, 0);
    if (name != "IMAPITable::QueryRows" && name != "IMAPIProp::GetProps") continue;
    const bool one = n > 1 && !strcmp(names_[static_cast<size_t>(n) - 2], "HrGetOneProp");
    const ULONG columns = one ? 1 : name == "IMAPITable::QueryRows" ? 4 : 16;
    for (ULONG column = 0; column < columns; column += column < 3 ? 1 : 5)
      for (const auto fault : {kHoardexMapiErrorCell, kHoardexMapiWrongType, kHoardexMapiNullPointer})
        run(fault, column);
    run(kHoardexMapiNoRows, 0);
    if (name == "IMAPITable::QueryRows") run(kHoardexMapiNoColumns, 0), run(kHoardexMapiMoreRows, 0);
  }
  ExpectRecovery();
}

}  // namespace
}  // namespace faults
