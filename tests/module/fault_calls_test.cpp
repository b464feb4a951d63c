// Every MAPI call that the module makes fails once, fails for good, or answers less than it should.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "platform/mapi_extra.h"
#include "tests/module/fault_expectations.h"

namespace faults {
namespace {

constexpr HRESULT Code(ULONG code) {
  return static_cast<HRESULT>(code);
}

// One call of the reference run.
struct CallSite {
  size_t step;
  std::string name;
  long nth;  // of its name within the step
};

class CallFaults : public testing::Test {
 protected:
  void SetUp() override {
    scene_.LeaveStaleProfile();
    ProviderFaults::Clear();
    reference_ = scene_.RunSteps();
    long call = 0;
    for (size_t step = 0; step < reference_.size(); ++step) {
      EXPECT_EQ(reference_[step].result, S_OK);
      std::map<std::string, long> seen;
      for (; call < reference_[step].last_call; ++call) {
        const std::string name = ProviderFaults::CallName(call + 1);
        sites_.push_back({step, name, ++seen[name]});
      }
    }
    ASSERT_GT(sites_.size(), 100u);
    scene_.NewLogLines();
  }

  Operation OperationAt(size_t step) const { return scene_.steps()[step].operation; }

  std::vector<StepResult> Run(const HoardexMapiFaultPlan& plan) {
    scene_.LeaveStaleProfile();
    ProviderFaults::Set(plan);
    auto results = scene_.RunSteps();
    EXPECT_GT(ProviderFaults::FaultsGiven(), 0);
    ProviderFaults::Clear();
    return results;
  }
  // The same without a fault gives what it always gave, and no profile that an earlier run left.
  void ExpectRecovery() {
    scene_.LeaveStaleProfile();
    EXPECT_EQ(scene_.RunSteps(), reference_);
    EXPECT_EQ(ProviderFaults::Count().profiles, 0);
    scene_.NewLogLines();
  }
  // All but the step with the fault, and those that a missing session kept from running, went as ever.
  void ExpectOthersUnharmed(const std::vector<StepResult>& results, size_t faulty) {
    const bool session = results[0].result == S_OK;
    for (size_t step = 0; step < results.size(); ++step) {
      if (step == faulty || (!session && OperationAt(step) != Operation::kClean)) continue;
      EXPECT_EQ(results[step], reference_[step]) << "step " << step;
    }
  }
  static HRESULT SessionResult(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
      const size_t at = line.find("CMapiForWDS::Setup() returned with value [");
      if (at != std::string::npos) return Code(std::stoul(line.substr(line.find('[', at) + 1), nullptr, 16));
    }
    return S_FALSE;
  }
  // Profiles that stay when the call fails: the stale one, if the run did not get to delete it, and the session's own,
  // if that could not be deleted. The next session deletes both.
  long ProfilesAfter(size_t n) const {
    size_t first = 0;
    while (sites_[first].name != "IProfAdmin::DeleteProfile") ++first;
    return (n <= first) + (sites_[n].name == "IProfAdmin::DeleteProfile" && sites_[n].nth == 3);
  }
  static Invariants::Left LeftAt(Stage stage) {
    return {stage >= Stage::kLoggedOn, stage >= Stage::kServices, stage >= Stage::kEntryId,
            stage >= Stage::kInitialized};
  }

  Scene& scene_ = Scene::Get();
  std::vector<StepResult> reference_;
  std::vector<CallSite> sites_;
};

TEST_F(CallFaults, EachCallFailsOnce) {
  for (const HRESULT code : {Code(MAPI_E_NETWORK_ERROR), Code(MAPI_E_NOT_FOUND), Code(E_OUTOFMEMORY)}) {
    for (size_t n = 0; n < sites_.size() && !HasFailure(); ++n) {
      const CallSite& site = sites_[n];
      SCOPED_TRACE("call " + std::to_string(n + 1) + ", " + site.name + " " + std::to_string(site.nth) + " of step " +
                   std::to_string(site.step));
      const Operation operation = OperationAt(site.step);
      const CallExpectation* expected = ExpectationOf(operation, site.name, site.nth);
      const Invariants invariants;
      const auto results = Run({nullptr, static_cast<long>(n) + 1, FALSE, kHoardexMapiAnswer, code, 0, 0});
      const auto lines = scene_.NewLogLines();

      const HRESULT wanted = !expected ? S_OK : expected->result == kTheCode ? code : expected->result;
      const HRESULT result = operation == Operation::kSession ? SessionResult(lines) : results[site.step].result;
      EXPECT_EQ(result, wanted);
      for (const char* line : expected ? expected->lines : std::vector<const char*>()) {
        EXPECT_TRUE(HasLine(lines, line, code)) << line;
      }
      // A listing that fails lists nothing; a path that fails leaves the listing.
      const bool in_path = expected && !expected->lines.empty() && strstr(expected->lines[0], "GetFolderPath");
      const auto& names = results[site.step].names;
      EXPECT_EQ(names, SUCCEEDED(wanted) || in_path ? reference_[site.step].names : std::vector<std::wstring>());
      ExpectOthersUnharmed(results, site.step);
      // The calls that a session's failure left out are those of the set-up alone; what is torn down leaves nothing.
      const bool kept = operation == Operation::kSession && FAILED(wanted);
      invariants.ExpectLeft(LeftAt(kept ? expected->left : Stage::kNone), ProfilesAfter(n));
      ExpectRecovery();
    }
  }
  printf("%zu calls in %zu operations\n", sites_.size(), reference_.size());
}

TEST_F(CallFaults, EachCallAndAllAfterItFail) {
  for (const HRESULT code : {Code(MAPI_E_NETWORK_ERROR), Code(E_OUTOFMEMORY)}) {
    for (size_t n = 0; n < sites_.size() && !HasFailure(); ++n) {
      const CallSite& site = sites_[n];
      SCOPED_TRACE("from call " + std::to_string(n + 1) + " on, " + site.name);
      const Operation operation = OperationAt(site.step);
      const CallExpectation* expected = ExpectationOf(operation, site.name, site.nth);
      const Invariants invariants;
      const auto results = Run({nullptr, static_cast<long>(n) + 1, TRUE, kHoardexMapiAnswer, code, 0, 0});
      const auto lines = scene_.NewLogLines();
      if (expected && expected->result != S_OK) {
        const HRESULT wanted = expected->result == kTheCode ? code : expected->result;
        EXPECT_EQ(operation == Operation::kSession ? SessionResult(lines) : results[site.step].result, wanted);
      }
      for (size_t step = 0; step < site.step; ++step) EXPECT_EQ(results[step], reference_[step]);
      // What MAPI would say of the failure is asked for, and that fails, too.
      const bool asks =
          site.name == "IProfAdmin::CreateProfile" || site.name == "IMsgServiceAdmin::ConfigureMsgService";
      EXPECT_TRUE(!asks || HasLine(lines, "GetLastError failed with [0x%08lX]", code));
      invariants.ExpectAtMost(kAnyPartOfASession, 2);
      ExpectRecovery();
    }
  }
}

// A success that hands nothing out is no success, wherever something was to come.
TEST_F(CallFaults, EachCallSucceedsWithNothing) {
  for (const HRESULT code : {S_OK, Code(MAPI_W_ERRORS_RETURNED)}) {
    for (size_t n = 0; n < sites_.size() && !HasFailure(); ++n) {
      const CallSite& site = sites_[n];
      SCOPED_TRACE("call " + std::to_string(n + 1) + ", " + site.name + " of step " + std::to_string(site.step));
      const Invariants invariants;
      const auto results = Run({nullptr, static_cast<long>(n) + 1, FALSE, kHoardexMapiAnswer, code, 0, 0});
      // clang-format off
      static constexpr const char* kGivers[] = {
          "MAPIAdminProfiles", "MAPILogonEx", "IProfAdmin::AdminServices", "IMsgServiceAdmin::GetMsgServiceTable",
           "IMAPISession::GetMsgStoresTable", "IMAPISession::OpenMsgStore", "IMAPIContainer::GetContentsTable",
           "IMAPIContainer::GetHierarchyTable", "IMessage::GetAttachmentTable", "IMessage::OpenAttach",
           "IMAPIProp::OpenProperty", "MAPIAllocateBuffer"
      };
      // clang-format on
      const bool gives = std::find(std::begin(kGivers), std::end(kGivers), site.name) != std::end(kGivers) ||
                         (site.name == "IMsgStore::OpenEntry" && site.nth == 1);
      EXPECT_TRUE(!gives || FAILED(results[site.step].result));
      invariants.ExpectAtMost(kAnyPartOfASession, 2);
      ExpectRecovery();
    }
  }
}

class SpoiltAnswers : public CallFaults {
 protected:
  // Calls whose answers can be spoilt, each in every way and in every column.
  std::vector<std::pair<size_t, HoardexMapiFaultPlan>> Plans() const {
    constexpr ULONG kColumns = 4;
    std::vector<std::pair<size_t, HoardexMapiFaultPlan>> plans;
    for (size_t n = 0; n < sites_.size(); ++n) {
      const bool rows = sites_[n].name == "IMAPITable::QueryRows", values = sites_[n].name == "IMAPIProp::GetProps";
      const auto add = [&](HoardexMapiFault fault, ULONG column) {
        plans.push_back({n, {nullptr, static_cast<long>(n) + 1, FALSE, fault, Code(MAPI_E_NETWORK_ERROR), column, 0}});
      };
      if (sites_[n].name == "IMAPITable::GetRowCount") add(kHoardexMapiHugeCount, 0);
      if (!rows && !values) continue;
      for (const auto fault : {kHoardexMapiErrorCell, kHoardexMapiWrongType, kHoardexMapiNullPointer})
        for (ULONG column = 0; column < kColumns; ++column) add(fault, column);
      add(kHoardexMapiNoRows, 0);
      if (!rows) continue;
      add(kHoardexMapiNoColumns, 0);
      add(kHoardexMapiMoreRows, 0);
    }
    return plans;
  }
};

TEST_F(SpoiltAnswers, AreSurvivedAndJudgedByTheirLines) {
  size_t judged = 0;
  for (const auto& [n, plan] : Plans()) {
    const CallSite& site = sites_[n];
    SCOPED_TRACE("call " + std::to_string(n + 1) + ", " + site.name + " " + std::to_string(site.nth) + " of step " +
                 std::to_string(site.step) + ", fault " + std::to_string(plan.fault) + " in column " +
                 std::to_string(plan.column));
    const Operation operation = OperationAt(site.step);
    const Invariants invariants;
    const auto results = Run(plan);
    const auto lines = scene_.NewLogLines();
    for (const SpoiltExpectation& row : SpoiltExpectations()) {
      if (row.operation != operation || site.name != row.call || site.nth != row.nth || row.column != plan.column ||
          std::find(row.faults.begin(), row.faults.end(), plan.fault) == row.faults.end())
        continue;
      ++judged;
      EXPECT_EQ(operation == Operation::kSession ? SessionResult(lines) : results[site.step].result, row.result);
      for (const char* line : row.lines) EXPECT_TRUE(HasLine(lines, line, plan.result)) << line;
    }
    if (results[0].result == S_OK) ExpectOthersUnharmed(results, site.step);
    invariants.ExpectAtMost(kAnyPartOfASession, operation == Operation::kSession);
    if (operation == Operation::kSession) ExpectRecovery();
    if (HasFailure()) break;
  }
  ExpectRecovery();
  EXPECT_GT(judged, 30u);
  printf("%zu spoilt answers, %zu of them with an outcome that is known\n", Plans().size(), judged);
}

}  // namespace
}  // namespace faults
