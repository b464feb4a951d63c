#include "tests/provider/client.h"
#include "tests/support/child_process.h"

namespace test {
namespace {

class Profiles : public ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    ASSERT_EQ(Mapi().Initialize(nullptr), S_OK);
    ASSERT_EQ(Mapi().AdminProfiles(0, admin_.Out()), S_OK);
  }
  void TearDown() override {
    admin_->DeleteProfile(Name(), 0);
    admin_.Reset();
    Mapi().Uninitialize();
    ProviderTest::TearDown();
  }

  LPTSTR Name() { return reinterpret_cast<LPTSTR>(name_); }
  static bool Listed(IProfAdmin* admin, const std::string& name) {
    Com<IMAPITable> table;
    EXPECT_EQ(admin->GetProfileTable(0, table.Out()), S_OK);
    Rows rows;
    EXPECT_EQ(rows.Query(table.get(), {PR_DISPLAY_NAME_A}), S_OK);
    for (ULONG i = 0; i < rows.size(); ++i)
      if (name == rows.At(i, 0).Value.lpszA) return true;
    return false;
  }

  char name_[40] = "ProviderTest profile \xE9";
  Com<IProfAdmin> admin_;
};

TEST_F(Profiles, AreMadeOnceListedEverywhereAndDeleted) {
  ASSERT_EQ(admin_->CreateProfile(Name(), nullptr, 0, 0), S_OK);
  EXPECT_EQ(admin_->CreateProfile(Name(), nullptr, 0, 0), Code(MAPI_E_NO_ACCESS));
  LPMAPIERROR error = nullptr;
  ASSERT_EQ(admin_->GetLastError(Code(MAPI_E_NO_ACCESS), MAPI_UNICODE, &error), S_OK);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::wstring(reinterpret_cast<wchar_t*>(error->lpszError)).find(L"ProviderTest profile"),
            std::wstring::npos);
  Mapi().FreeBuffer(error);

  Com<IProfAdmin> other;
  ASSERT_EQ(Mapi().AdminProfiles(0, other.Out()), S_OK);
  EXPECT_TRUE(Listed(other.get(), name_));
  EXPECT_EQ(other->DeleteProfile(Name(), 0), S_OK);
  EXPECT_FALSE(Listed(admin_.get(), name_));
  EXPECT_EQ(other->DeleteProfile(Name(), 0), Code(MAPI_E_NOT_FOUND));
  Com<IMsgServiceAdmin> services;
  EXPECT_EQ(admin_->AdminServices(Name(), nullptr, 0, 0, services.Out()), Code(MAPI_E_NOT_FOUND));
}

// Runs in a process of its own: see below.
TEST_F(Profiles, DISABLED_AreSeenFromHere) {
  ASSERT_NE(getenv("HOARDEX_TEST_PROFILE"), nullptr);
  EXPECT_TRUE(Listed(admin_.get(), getenv("HOARDEX_TEST_PROFILE")));
}

TEST_F(Profiles, AreSeenByAnotherProcess) {
  strcpy(name_, "ProviderTest shared profile");
  const auto seen_elsewhere = [] {
    wchar_t program[MAX_PATH];
    GetModuleFileNameW(nullptr, program, MAX_PATH);
    const ChildResult child = RunChild(L"\"" + std::wstring(program) +
                                           L"\" --gtest_also_run_disabled_tests "
                                           L"--gtest_filter=Profiles.DISABLED_AreSeenFromHere",
                                       60'000);
    EXPECT_TRUE(child.ended);
    return child.code == 0;
  };
  ASSERT_TRUE(SetEnvironmentVariableA("HOARDEX_TEST_PROFILE", name_));
  ASSERT_EQ(admin_->CreateProfile(Name(), nullptr, 0, 0), S_OK);
  EXPECT_TRUE(seen_elsewhere());
  ASSERT_EQ(admin_->DeleteProfile(Name(), 0), S_OK);
  EXPECT_FALSE(seen_elsewhere());
}

TEST_F(Profiles, ANewFileAtTheSamePathIsReadAnew) {
  SKIP_WITHOUT_SAMPLES();
  wchar_t folder[MAX_PATH];
  ASSERT_GT(GetTempPathW(MAX_PATH, folder), 0u);
  const std::wstring path = std::wstring(folder) + L"provider_test.db";
  ASSERT_TRUE(CopyFileW(Sample(L"pstsdk-sample1.pst").c_str(), path.c_str(), FALSE));
  const auto name = [&] {
    OpenStore opened(path);
    Values values;
    EXPECT_EQ(values.Get(opened.store.get(), {PR_DISPLAY_NAME_W}), S_OK);
    return std::wstring(values[0].Value.lpszW);
  };
  EXPECT_EQ(name(), L"sample1");
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  ASSERT_TRUE(CopyFileW(Sample(L"aspose-contacts72.pst").c_str(), path.c_str(), FALSE));
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  EXPECT_NE(name(), L"sample1");
  EXPECT_TRUE(DeleteFileW(path.c_str()));
}

TEST_F(Profiles, KeepTheirServicesForTheNextSession) {
  SKIP_WITHOUT_SAMPLES();
  ASSERT_EQ(admin_->CreateProfile(Name(), nullptr, 0, 0), S_OK);
  char service[] = "MSPST MS";
  const std::wstring path = Sample(L"pstsdk-sample1.pst");
  {
    Com<IMsgServiceAdmin> services;
    ASSERT_EQ(admin_->AdminServices(Name(), nullptr, 0, 0, services.Out()), S_OK);
    ASSERT_EQ(services->CreateMsgService(reinterpret_cast<LPTSTR>(service), nullptr, 0, 0), S_OK);
    Com<IMAPITable> table;
    ASSERT_EQ(services->GetMsgServiceTable(0, table.Out()), S_OK);
    Rows rows;
    ASSERT_EQ(rows.Query(table.get(), {PR_SERVICE_UID, PR_SERVICE_NAME_A}), S_OK);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_STREQ(rows.At(0, 1).Value.lpszA, "MSPST MS");
    std::string narrow(path.begin(), path.end());
    SPropValue value{};
    value.ulPropTag = PR_PST_FILENAME_A;
    value.Value.lpszA = narrow.data();
    ASSERT_EQ(services->ConfigureMsgService(reinterpret_cast<LPMAPIUID>(rows.At(0, 0).Value.bin.lpb), 0, 0, 1, &value),
              S_OK);
  }
  Com<IMAPISession> session;
  ASSERT_EQ(Mapi().LogonEx(0, Name(), nullptr, MAPI_EXTENDED, session.Out()), S_OK);
  Com<IMAPITable> stores;
  ASSERT_EQ(session->GetMsgStoresTable(0, stores.Out()), S_OK);
  Rows rows;
  ASSERT_EQ(rows.Query(stores.get(), {PR_ENTRYID}), S_OK);
  ASSERT_EQ(rows.size(), 1u);
  Com<IMsgStore> store;
  const SBinary& id = rows.At(0, 0).Value.bin;
  EXPECT_EQ(session->OpenMsgStore(0, id.cb, reinterpret_cast<LPENTRYID>(id.lpb), nullptr, 0, store.Out()), S_OK);
}

TEST_F(Profiles, LogonNeedsInitializationAndAProfile) {
  Com<IMAPISession> session;
  EXPECT_EQ(Mapi().LogonEx(0, Name(), nullptr, MAPI_EXTENDED, session.Out()), Code(MAPI_E_LOGON_FAILED));
  Mapi().Uninitialize();
  EXPECT_EQ(Mapi().LogonEx(0, Name(), nullptr, MAPI_EXTENDED, session.Out()), Code(MAPI_E_NOT_INITIALIZED));
  EXPECT_EQ(Mapi().Initialize(nullptr), S_OK);
}

TEST_F(Profiles, ServicesSayWhatIsWrongWithTheirFile) {
  SKIP_WITHOUT_SAMPLES();
  {
    OpenStore absent(Sample(L"no such file.pst"), Code(MAPI_E_NOT_FOUND));
    SPropValue nothing{};
    EXPECT_EQ(absent.services->ConfigureMsgService(&absent.service, 0, 0, 0, nullptr), Code(MAPI_E_UNCONFIGURED));
    EXPECT_EQ(absent.services->ConfigureMsgService(&absent.service, 0, 0, 1, &nothing), Code(MAPI_E_UNCONFIGURED));
    char other[] = "CONTAB";
    EXPECT_EQ(absent.services->CreateMsgService(reinterpret_cast<LPTSTR>(other), nullptr, 0, 0),
              Code(MAPI_E_NOT_FOUND));
  }
  OpenStore damaged(Sample(L"bad-header.pst"), Code(MAPI_E_CORRUPT_STORE));
  LPMAPIERROR error = nullptr;
  ASSERT_EQ(damaged.services->GetLastError(Code(MAPI_E_CORRUPT_STORE), 0, &error), S_OK);
  ASSERT_NE(error, nullptr);
  EXPECT_GT(strlen(reinterpret_cast<char*>(error->lpszError)), 10u);
  Mapi().FreeBuffer(error);
}

}  // namespace
}  // namespace test
