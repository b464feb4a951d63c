// What each operation on a vault must answer, and log, when a MAPI call that it makes fails or answers too little.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <span>
#include <string>
#include <vector>

#include "module/mapi/MapiForWDS.h"
#include "tests/module/fault_scenario.h"

namespace faults {

// What an operation answers for a call that answered `code`.
inline constexpr HRESULT kTheCode = 1;  // the same

// How far a session had come; what that leaves behind stays, on purpose.
enum class Stage { kNone, kInitialized, kLoggedOn, kServices, kEntryId };

struct CallExpectation {
  Operation operation;
  const char* call;
  long nth;  // of the calls of that name within the operation; 0: all that have no row of their own
  HRESULT result;
  Stage left;
  std::vector<const char*> lines;  // in printf form; 0x%08lX is the code, %s any text
};
// Null: the operation does not mind.
const CallExpectation* ExpectationOf(Operation operation, const std::string& call, long nth);

struct SpoiltExpectation {
  Operation operation;
  const char* call;
  long nth;
  std::vector<HoardexMapiFault> faults;
  ULONG column;
  HRESULT result;
  std::vector<const char*> lines;
};
std::span<const SpoiltExpectation> SpoiltExpectations();

// Whether one of the lines says that.
bool HasLine(const std::vector<std::string>& lines, const std::string& format, HRESULT code);

// Tests of CMapiForWDS over the scene, with a store of their own at `path_`. Nothing of a test outlives it.
class SceneTest : public testing::Test {
 protected:
  struct Listing {
    HRESULT result = E_FAIL;
    std::wstring path;
    std::vector<std::wstring> names;
    std::vector<FILETIME> times;
  };
  void SetUp() override {
    ProviderFaults::Clear();
    scene_.NewLogLines();
    before_ = ProviderFaults::Count();
  }
  void TearDown() override {
    ProviderFaults::Clear();
    ProviderFaults::Behave(0);
    CMapiForWDS::CleanMapiObjs();
    EXPECT_EQ(ProviderFaults::Misuses(), 0);
    EXPECT_EQ(ProviderFaults::Count(), before_);
    DeleteFileW(path_.c_str());
  }
  // The table's session of the URL's vault, made where there is none.
  static CMapiForWDS* SessionOf(const std::wstring& url) { return CMapiForWDS::GetMapiObj(url).get(); }
  static Listing Browse(CMapiForWDS* mapi, const std::wstring& url) {
    Listing listing;
    if (mapi) listing.result = mapi->BrowseFolder(url, listing.path, listing.names, listing.times);
    EXPECT_EQ(listing.names.size(), listing.times.size());
    return listing;
  }

  Scene& scene_ = Scene::Get();
  ProviderFaults::Alive before_;
  const std::filesystem::path path_ = scene_.store().parent_path() / L"other.db";
  std::wstring url_ = Scene::UrlOf(path_);
};

}  // namespace faults
