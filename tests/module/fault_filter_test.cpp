// One item of each type, with every call to MAPI and its streams that reading it makes failing in turn, and memory
// running out at every request.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include "module/core/UrlGrammar.h"
#include "module/core/resource.h"
#include "module/registration/HoardexCommon.h"
#include "platform/mapi_extra.h"
#include "tests/module/fault_item_expectations.h"
#include "tests/module/fault_spy.h"
#include "tests/support/import_hook.h"
#include "vault/writer.h"

namespace faults {
namespace {

constexpr char kRecipients[] = "CHoardexFilter::GetRecipientInfo() - ";
constexpr char kValue[] = "CHoardexFilter::GetValue() - ";

// The first bytes of a compound file, and no more: enough to be opened as one.
std::vector<std::uint8_t> CompoundFile() {
  std::vector<std::uint8_t> bytes(1536);
  constexpr std::uint8_t kSignature[] = {0xD0, 0xCF, 0x11, 0xE0, 0xA1, 0xB1, 0x1A, 0xE1};
  std::copy(std::begin(kSignature), std::end(kSignature), bytes.begin());
  return bytes;
}

class FilterFaults : public testing::Test {
 protected:
  struct Offer {
    unsigned item;
    std::wstring url;
    std::vector<std::wstring> reference;
    std::vector<std::string> calls;
  };

  void SetUp() override {
    ProviderFaults::Clear();
    path_ = scene_.store().parent_path() / L"offers.db";
    Write();
    host_ = std::make_unique<Host>();
    std::vector<std::wstring> folders, messages, attached;
    Add(kContainer, url::Root(L"S-1-5-21-1"));
    Add(kContainer, Scene::UrlOf(path_));
    host_->Read(Scene::UrlOf(path_), &folders);
    for (const std::wstring& folder : folders) {
      Add(kContainer, folder);
      host_->Read(folder, &messages);
    }
    ASSERT_EQ(messages.size(), 5u);
    for (size_t i = 0; i < messages.size(); ++i) Add(1u << i, messages[i]);
    host_->Read(messages[0], &attached);
    ASSERT_EQ(attached.size(), 2u);
    Add(kFile, attached[0]);
    Add(kObject, attached[1]);
    before_ = ProviderFaults::Count();
    scene_.NewLogLines();
  }
  void TearDown() override {
    host_.reset();
    EXPECT_EQ(ProviderFaults::Count().objects(), 0);
    EXPECT_EQ(ProviderFaults::Count().profiles, 0);
    DeleteFileW(path_.c_str());
  }
  void Write() {
    vault::StoreBuilder store("offers");
    auto& inbox = store.top().AddFolder("Inbox");
    const auto time = vault::FileTime(2024, 5, 1);
    const auto add = [&](const char* message_class) -> vault::MessageBuilder& {
      auto& message = inbox.AddMessage(message_class).Subject("Any").From("Ann", "ann@example.com");
      message.To("Bob", "bob@example.org").SubmitTime(time).Body("Some text.");
      message.AttachFile("first.txt", "content").Time(0x3008, time);
      return message;
    };
    add("IPM.Note").AttachOle("object.txt", CompoundFile()).Time(0x3008, time).Text(0x3703, ".txt");
    add("IPM.Contact").Text(0x3001, "Ann").Text(0x3A16, "Ltd").Text({vault::kAddressSet, 0x8083}, "ann@example.com");
    add("IPM.Appointment").Time({vault::kAppointmentSet, 0x820D}, time);
    add("IPM.Task").Time({vault::kTaskSet, 0x8105}, time);
    add("IPM.StickyNote").Int({vault::kNoteSet, 0x8B00}, 3);
    store.Write(path_);
  }
  void Add(unsigned item, const std::wstring& url) {
    Offer& offer = offers_.emplace_back(Offer{item, url, {}, {}});
    ReadWhole(offer);
    EXPECT_GT(offer.reference.size(), item == kContainer ? 2u : 14u);
  }
  void ReadWhole(Offer& offer) {
    ProviderFaults::Clear();
    offer.reference = host_->Read(offer.url);
    offer.calls.clear();
    for (long n = 1; n <= ProviderFaults::CallsEntered(); ++n) offer.calls.push_back(ProviderFaults::CallName(n));
  }
  const Offer& First(unsigned item) const {
    return *std::find_if(offers_.begin(), offers_.end(), [&](const Offer& offer) { return offer.item == item; });
  }
  // The chunk's id, with a mark before it, or its type and value.
  static std::wstring IdOf(const std::vector<std::wstring>& given, const std::wstring& key) {
    const std::wstring rest = RestOf(given, key);
    return rest.substr(0, rest.find(L' '));
  }
  static std::wstring ValueOf(const std::vector<std::wstring>& given, const std::wstring& key) {
    const std::wstring rest = RestOf(given, key);
    return rest.substr(rest.find(L' ') + 1);
  }
  static std::wstring RestOf(const std::vector<std::wstring>& given, const std::wstring& key) {
    for (const std::wstring& line : given)
      if (line.starts_with(key + L" ")) return line.substr(key.size() + 1);
    return L"<absent>";
  }
  // Nothing is left of a reading but the session, and the next is as good as any.
  void ExpectNothingLeft(const Offer& offer) {
    EXPECT_EQ(ProviderFaults::Count(), before_);
    EXPECT_EQ(scene_.TemporaryFiles(), 0u);
    EXPECT_EQ(host_->Read(offer.url), offer.reference);
    scene_.NewLogLines();
  }
  // The keys of the chunks, without those that are lost.
  static std::vector<std::wstring> KeysOf(const std::vector<std::wstring>& given, const Keys& lost) {
    std::vector<std::wstring> keys;
    for (size_t i = 1; i < given.size(); ++i) {
      const std::wstring key = given[i].substr(0, given[i].find(L' '));
      if (std::none_of(lost.begin(), lost.end(), [&](const wchar_t* gone) { return !*gone || key == gone; }))
        keys.push_back(key);
    }
    return keys;
  }

  Scene& scene_ = Scene::Get();
  std::filesystem::path path_;
  std::unique_ptr<Host> host_;
  std::vector<Offer> offers_;
  ProviderFaults::Alive before_;
};

TEST_F(FilterFaults, EachCallFailsWithItsLineAndItsLosses) {
  size_t made = 0, judged = 0;
  for (const HRESULT code : {static_cast<HRESULT>(MAPI_E_NETWORK_ERROR), static_cast<HRESULT>(MAPI_E_NOT_FOUND),
                             static_cast<HRESULT>(E_ACCESSDENIED)}) {
    for (const Offer& offer : offers_) {
      if (offer.item == kContainer) continue;  // judged with the session
      std::map<std::string, long> seen;
      for (size_t n = 0; n < offer.calls.size() && !HasFailure(); ++n, ++made) {
        const std::string& call = offer.calls[n];
        const long nth = ++seen[call];
        SCOPED_TRACE("item " + std::to_string(offer.item) + ", " + call + " " + std::to_string(nth));
        ProviderFaults::Fail(nullptr, static_cast<long>(n) + 1, code);
        const auto given = host_->Read(offer.url);
        EXPECT_GT(ProviderFaults::FaultsGiven(), 0);
        ProviderFaults::Clear();
        const auto lines = scene_.NewLogLines();
        if (const ItemExpectation* expected = ExpectationOf(offer.item, call, nth)) {
          ++judged;
          const HRESULT accessor = expected->accessor == kTheCode ? code : expected->accessor;
          EXPECT_EQ(given[0], offer.url + L" " + std::to_wstring(accessor));
          EXPECT_EQ(KeysOf(given, {}), KeysOf(offer.reference, *expected->lost));
          for (const char* line : expected->lines) EXPECT_TRUE(HasLine(lines, line, code)) << line;
        } else if (!call.starts_with("HrGetOneProp") && !call.starts_with("IMAPIProp::GetProps")) {
          EXPECT_EQ(given, offer.reference) << "a call that only frees or converts";
        }
        ExpectNothingLeft(offer);
      }
    }
  }
  printf("%zu failures, %zu of them with an outcome that is known\n", made, judged);
  EXPECT_GT(judged, 300u);
}

// What most of these come to is judged elsewhere; whatever it is, nothing breaks and nothing stays.
TEST_F(FilterFaults, EachAnswerIsSpoilt) {
  for (Offer& offer : offers_) {
    ReadWhole(offer);  // the first reading of a container made the session
    for (size_t n = 0; n < offer.calls.size() && !HasFailure(); ++n) {
      const std::string& call = offer.calls[n];
      const auto run = [&](HoardexMapiFault fault, ULONG column, HRESULT code) {
        SCOPED_TRACE("item " + std::to_string(offer.item) + ", call " + std::to_string(n) + ", " + call + ", fault " +
                     std::to_string(fault) + " in column " + std::to_string(column));
        ProviderFaults::Set({nullptr, static_cast<long>(n) + 1, FALSE, fault, code, column, 0});
        EXPECT_FALSE(host_->Read(offer.url).empty());
        EXPECT_GT(ProviderFaults::FaultsGiven(), 0);
        ProviderFaults::Clear();
        ExpectNothingLeft(offer);
      };
      constexpr HRESULT kNotFound = static_cast<HRESULT>(MAPI_E_NOT_FOUND);
      run(kHoardexMapiAnswer, 0, S_OK);
      if (call == "IMAPITable::GetRowCount") run(kHoardexMapiHugeCount, 0, kNotFound);
      const bool rows = call == "IMAPITable::QueryRows";
      if (!rows && call != "IMAPIProp::GetProps") continue;
      const ULONG columns = n && offer.calls[n - 1] == "HrGetOneProp" ? 1 : rows ? 4 : 16;
      for (ULONG column = 0; column < columns; column += column < 3 ? 1 : 5)
        for (const auto fault : {kHoardexMapiErrorCell, kHoardexMapiWrongType, kHoardexMapiNullPointer})
          run(fault, column, kNotFound);
      run(kHoardexMapiNoRows, 0, kNotFound);
      if (rows) run(kHoardexMapiNoColumns, 0, kNotFound), run(kHoardexMapiMoreRows, 0, kNotFound);
    }
  }
}

TEST_F(FilterFaults, AMessageWithoutRecipientsHasNoAddresses) {
  const HRESULT code = static_cast<HRESULT>(MAPI_E_NO_RECIPIENTS);
  ProviderFaults::Fail("IMessage::GetRecipientTable", 1, code);
  const auto given = host_->Read(First(kMail).url);
  ProviderFaults::Clear();
  EXPECT_EQ(KeysOf(given, {}), KeysOf(First(kMail).reference, {}));
  EXPECT_TRUE(
      HasLine(scene_.NewLogLines(), std::string(kRecipients) + "GetRecipientTable is empty, hr = [0x%08lX]", code));
  for (const ULONG row : {0, 1}) {
    ProviderFaults::Set({"IMAPITable::QueryRows", 1, FALSE, kHoardexMapiErrorCell, code, row, 0});
    const auto without = host_->Read(First(kMail).url);
    ProviderFaults::Clear();
    EXPECT_EQ(ValueOf(without, L"E3E0584C/16"), L"31 ");
    EXPECT_TRUE(HasLine(
        scene_.NewLogLines(),
        std::string(kRecipients) + "Fail: PropertyTag didn't match with PR_RECIPIENT_TYPE and PR_SMTP_ADDRESS_W", 0));
  }
}

TEST_F(FilterFaults, WithoutTheNameOfTheRootThereIsNoFilter) {
  const ZK_IMPORT_HOOK(LoadStringW) hook([](auto next, HINSTANCE module, UINT id, LPWSTR text, int room) -> int {
    return id == IDS_TESSARY ? 0 : next(module, id, text, room);
  });
  for (const unsigned item : {kContainer, kMail, kFile}) {
    ProviderFaults::Clear();
    const std::wstring& url = First(item).url;
    EXPECT_EQ(host_->Read(url), std::vector<std::wstring>{url + L" 0"}) << "an accessor, and nothing of it";
    EXPECT_TRUE(HasLine(scene_.NewLogLines(), "CUrlAccessor::BindToFilter() - Could not init IFilter", 0));
  }
}

// The flags of Windows are off until somebody detects it.
TEST_F(FilterFaults, AnAttachmentsTypeIsToldWhereWindowsIsKnown) {
  const auto& file = First(kFile);
  if (IsVistaOrLater()) GTEST_SKIP() << "already detected";
  constexpr wchar_t kKindMap[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Explorer\\KindMap";
  ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kKindMap, L".txt", L"document");
  auto given = host_->Read(file.url);
  EXPECT_EQ(ValueOf(given, L"1E3EE840/3"), L"31 email;communication");
  EXPECT_EQ(IdOf(given, L"E4F10A3C/100"), L"#4") << "the one that the structure held";
  EXPECT_EQ(ValueOf(given, L"E4F10A3C/100"), L"0 ");
  EXPECT_EQ(IdOf(given, L"E3E0584C/14"), L"#5");
  DetectOSVersion();
  given = host_->Read(file.url);
  EXPECT_EQ(ValueOf(given, L"1E3EE840/3"), L"31 document");
  EXPECT_EQ(IdOf(given, L"E4F10A3C/100"), L"#5");
  EXPECT_EQ(ValueOf(given, L"E4F10A3C/100"), L"31 txt");
  EXPECT_EQ(IdOf(given, L"E3E0584C/14"), L"#6");
  RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKindMap);
}

TEST_F(FilterFaults, MemoryRunsOutAtEachRequest) {
  DetectOSVersion();
  for (Offer& offer : offers_) offer.reference = host_->Read(offer.url);
  scene_.NewLogLines();
  std::set<std::string> told;  // of COM's memory
  Spy spy;
  const struct {
    const char* of;
    std::function<void(long)> plan;
    std::function<long()> seen, given;
  } kMemories[] = {
      {"operator new", [](long n) { of_new.Plan(n); }, [] { return of_new.seen(); }, [] { return of_new.given(); }},
      {"COM", [](long n) { of_com.Plan(n); }, [] { return of_com.seen(); }, [] { return of_com.given(); }},
      {"the provider",
       [](long n) {
         ProviderFaults::Set({nullptr, 0, FALSE, kHoardexMapiAnswer, S_OK, 0, n});
       },
       [] { return ProviderFaults::Allocations(); }, [] { return ProviderFaults::FaultsGiven(); }}};
  for (const auto& memory : kMemories) {
    long denied = 0;
    for (const Offer& offer : offers_) {
      memory.plan(0);
      host_->Read(offer.url);
      const long all = memory.seen();
      for (long n = 1; n <= all && !HasFailure(); ++n, ++denied) {
        SCOPED_TRACE("item " + std::to_string(offer.item) + ", request " + std::to_string(n) + " of " + memory.of);
        const long live = spy.live();
        memory.plan(n);
        EXPECT_FALSE(host_->Read(offer.url).empty());
        EXPECT_GT(memory.given(), 0);
        memory.plan(0);
        EXPECT_LE(spy.live() - live, 2) << "memory for a value was not given back";
        if (!strcmp(memory.of, "COM")) {
          const auto lines = scene_.NewLogLines();
          told.insert(lines.begin(), lines.end());
          const auto failed = std::count(lines.begin(), lines.end(), std::string(kValue) + "Failed with [0x8007000E]");
          EXPECT_TRUE(failed == 0 || failed == 2) << "before and after the clean-up";
          EXPECT_TRUE(failed == 2 || offer.item == kContainer);
        }
        ExpectNothingLeft(offer);
      }
    }
    printf("%ld requests of %s denied\n", denied, memory.of);
    EXPECT_GT(denied, 0);
  }
  for (const char* line :
       {"CoTaskMemAlloc failed for attachment folder", "CoTaskMemAlloc failed for attachment author",
        "\tCoTaskMemAlloc failed for attachment item type", "CoTaskMemAlloc failed for attachment item type text",
        "[PROP_ATTACH_ITEMTYPE] CoTaskMemAlloc failed for attachment item type text",
        "CoTaskMemAlloc failed for attachment title", "CoTaskMemAlloc failed for DirLink"})
    EXPECT_TRUE(told.count(std::string("CHoardexFilter::GetValue() -") + (*line == '\t' ? "" : " ") + line)) << line;
  for (const int step : {-18, -17, 19})  // in an item's first, second and last step
    EXPECT_TRUE(told.count(std::string(kValue) + "CoTaskMemAlloc failed for message property no. [" +
                           std::to_string(step) + "]"));
}

}  // namespace
}  // namespace faults
