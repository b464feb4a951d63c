// Changed vault files on their way into the index, through the interface that the archiving client calls.
#include <wrl/client.h>

#include "include/HoardexPH.h"
#include "module/core/ComObject.h"
#include "module/protocol/HoardexSP.h"
#include "module/shell/ChangeNotification.h"
#include "tests/module/registration_fixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

#define PROCESS "HoardexSP:CHoardexSP::ProcessHXItem() - "
#define SINK "ISearchPersistentItemsChangedSink interface call of "

class Notification : public RegistrationTest {
 protected:
  Notification() { CreateHoardexSP(nullptr, __uuidof(IHoardexNotify), &notify_); }
  Microsoft::WRL::ComPtr<IHoardexNotify> notify_;
};

TEST_F(Notification, CallsTheSinkStepByStepAndTheFirstFailureEndsIt) {
  const char kFile[] = "%UC:\\Vaults\\a b.db";
  const std::string change = std::string("change 2 ") + kFile + " " + kFile + " 0";
  const std::vector<ChainStep> steps = {
      {"CSearchManager::CreateInstance", "CSearchManager::CreateInstance()",
       PROCESS "ISearchManager interface creation returned with a value of [0x%R]"},
      {nullptr, nullptr, nullptr},  // the user's SID
      {nullptr, nullptr, PROCESS "URL to be deleted is [%UC:\\Vaults\\a b.db]"},
      {nullptr, nullptr, PROCESS "URL to be processed is [%UC:\\Vaults\\a b.db]"},
      {"ISearchManager::GetCatalog", "ISearchManager::GetCatalog(SystemIndex)",
       PROCESS "ISearchManager interface query for the SystemIndex returned with a value of [0x%R]"},
      {"ISearchCatalogManager::GetPersistentItemsChangedSink", "ISearchCatalogManager::GetPersistentItemsChangedSink()",
       PROCESS "ISearchCatalogManager interface call of GetPersistentItemsChangedSink returned with a value of [0x%R]"},
      {"ISearchPersistentItemsChangedSink::StartedMonitoringScope",
       "ISearchPersistentItemsChangedSink::StartedMonitoringScope(%UC:\\Vaults\\a b.db)",
       PROCESS SINK "StartedMonitoringScope returned with a value of [0x%R]"},
      {"ISearchPersistentItemsChangedSink::OnItemsChanged", "ISearchPersistentItemsChangedSink::OnItemsChanged(1)",
       PROCESS SINK "OnItemsChanged returned with a value of [0x%R]", "00000000",
       PROCESS SINK "OnItemsChanged returned with a value of [0x%R]\n" PROCESS SINK
                    "OnItemsChanged returned hrCompletionCodes[0] as [0x00000000]"},
      {nullptr, change.c_str(), PROCESS SINK "OnItemsChanged returned hrCompletionCodes[0] as [0x%R]", "00045678"},
      {"ISearchPersistentItemsChangedSink::StoppedMonitoringScope",
       "ISearchPersistentItemsChangedSink::StoppedMonitoringScope(%UC:\\Vaults\\a b.db)",
       "HoardexSP:CHoardexSP::ProcessHXItem()- " SINK "StoppedMonitoringScope returned with a value of [0x%R]"},
  };
  auto with_sid = steps;
  const std::string root = UserRoot();
  const std::string sid_line = PROCESS
                               "GetUserSIDString interface creation returned with a value of [0x00000000]. User "
                               "SID is [" +
                               root.substr(14, root.find('}') - 13) + "]";
  with_sid[1].line = sid_line.c_str();
  index().completion = 0x00045678;
  Walk(
      with_sid, [&] { notify_->VaultModified(L"C:\\Vaults\\a b.db"); },
      [&](size_t, const std::string&) { return std::vector<std::string>(); });
}

TEST_F(Notification, ReturnsTheCodeOfTheFailedStep) {
  const std::pair<const char*, HRESULT> cases[] = {
      {"CSearchManager::CreateInstance", 0x80040154},
      {"ISearchManager::GetCatalog", 0x80042103},
      {"ISearchCatalogManager::GetPersistentItemsChangedSink", 0x80070005},
      {"ISearchPersistentItemsChangedSink::StartedMonitoringScope", 0x80070057},
      {"ISearchPersistentItemsChangedSink::StoppedMonitoringScope", 0x8007000E},
  };
  for (const auto& [method, code] : cases) {
    index().faults = {{method, code}};
    EXPECT_EQ(notify_->VaultAdded(L"C:\\a.db"), code) << method;
  }
  // The change itself: one code is passed on, all others become one.
  const char kChange[] = "ISearchPersistentItemsChangedSink::OnItemsChanged";
  for (const auto& [code, expected] : {std::pair<HRESULT, HRESULT>{0x80040E21, 0x80040E21},
                                       {0x80070005, E_FAIL},
                                       {E_OUTOFMEMORY, E_FAIL},
                                       {S_FALSE, S_OK}}) {
    index().faults = {{kChange, code}};
    index().calls.clear();
    EXPECT_EQ(notify_->VaultAdded(L"C:\\a.db"), expected) << std::hex << code;
    EXPECT_EQ(index().calls.back().find("ISearchPersistentItemsChangedSink::StoppedMonitoringScope") == 0,
              SUCCEEDED(code));
  }
  SystemFaults system;
  index().faults.clear();
  index().calls.clear();
  log_.New();
  system.Arm(1, ERROR_ACCESS_DENIED, "OpenProcessToken");
  EXPECT_EQ(notify_->AllVaultsAdded(), E_ACCESSDENIED);
  system.Disarm();
  EXPECT_THAT(index().calls, ElementsAre("CSearchManager::CreateInstance()"));
  EXPECT_EQ(log_.New().back(),
            PROCESS "GetUserSIDString interface creation returned with a value of [0x80070005]. User SID is []");
}

TEST_F(Notification, NamesTheChangeAndTheVaultByTheSlotThatIsCalled) {
  using Slot = HRESULT(STDMETHODCALLTYPE*)(IHoardexNotify*, const wchar_t*);
  const struct {
    int slot;
    const wchar_t* path;
    std::string change;
  } cases[] = {
      {3, L"C:\\a.db", "change 1 %UC:\\a.db %UC:\\a.db 0"},
      {4, L"C:\\a.db", "change 0 %UC:\\a.db %UC:\\a.db 0"},
      {5, L"C:\\a.db", "change 2 %UC:\\a.db %UC:\\a.db 0"},
      {6, L"ignored", "change 1 %U %U 0"},
      {7, L"ignored", "change 0 %U %U 0"},
      {8, L"ignored", "change 2 %U %U 0"},
      {3, L"", "change 1 %U %U 0"},
      {3, nullptr, "change 1 %U %U 0"},
      // One token, as items have it, and all of it.
      {5, L"C:/Old.dbs/a/b.db", "change 2 %UC:\\Old.dbs\\a\\b.db %UC:\\Old.dbs\\a\\b.db 0"},
  };
  for (const auto& c : cases) {
    index().calls.clear();
    const auto* table = *reinterpret_cast<const Slot* const*>(notify_.Get());
    EXPECT_EQ(table[c.slot](notify_.Get(), c.path), S_OK);
    EXPECT_THAT(index().calls, Contains(Filled(c.change, ""))) << c.slot;
  }
}

TEST_F(Notification, RefusesOtherChangesBeforeItAsksTheIndex) {
  for (const int change : {3, -1, 0x40000}) {
    log_.New();
    EXPECT_EQ(ProcessHXItem(L"C:\\a.db", static_cast<SEARCH_KIND_OF_CHANGE>(change), SEARCH_NORMAL_PRIORITY),
              E_INVALIDARG);
    EXPECT_THAT(log_.New(), ElementsAre(PROCESS "Hoardex file [C:\\a.db] was called to be processed for change type [" +
                                        std::to_string(change) +
                                        "]. This is neither for addition, deletion or modification an hoardex file"));
  }
  EXPECT_THAT(index().calls, IsEmpty());
}

}  // namespace
