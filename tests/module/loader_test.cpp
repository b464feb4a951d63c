// How MAPI is found, with real DLLs behind every entry that the registry can hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

#include "module/mapi/MapiLoader.h"
#include "tests/support/module_host.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

constexpr wchar_t kMailClient[] = L"Software\\Clients\\Mail\\Microsoft Outlook";

// What the stand-in for the system's stub is asked, and what it answers.
struct Question {
  std::string component, qualifier;  // "<null>" for none; of a list of strings, each in turn behind a "|"
  DWORD size;
  BOOL install;
  bool operator==(const Question&) const = default;
};
void PrintTo(const Question& question, std::ostream* out) {
  *out << question.component << " " << question.qualifier << " " << question.size << " " << question.install;
}
std::vector<Question> g_questions;
std::function<BOOL(const std::string& qualifier, char* path)> g_answer;

// What every provider must export, in the order in which it is asked for.
// clang-format off
const char* const kNames[] = {
    "MAPIAllocateBuffer", "MAPIAllocateMore", "MAPIFreeBuffer", "HrGetOneProp", "FreeProws", "PpropFindProp",
     "ScDupPropset", "ScCountProps", "ScCopyProps", "OpenIMsgOnIStg", "MAPIGetDefaultMalloc", "CloseIMsgSession",
     "OpenIMsgSession", "HrQueryAllRows", "HrSetOneProp", "FreePadrlist", "LPropCompareProp", "WrapStoreEntryID",
     "CreateIProp", "CreateTable", "HrValidateParameters", "BuildDisplayTable", "HrValidateIPMSubtree",
     "HrDispatchNotifications", "UlRelease", "HexFromBin", "MAPIInitialize", "MAPIUninitialize", "OpenTnefStreamEx",
     "OpenStreamOnFile", "MAPIOpenFormMgr", "RTFSync", "WrapCompressedRTFStream", "MAPILogonEx", "MAPIAdminProfiles",
     "MAPIOpenLocalFormContainer"
};
// clang-format on

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}
void WriteAll(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Puts another file in the place of one of the system's until the object goes; what a killed run left is undone first.
class SystemFile {
 public:
  SystemFile(const wchar_t* name, const std::string& bytes) {
    wchar_t folder[MAX_PATH] = {};
    GetSystemDirectoryW(folder, MAX_PATH);
    path_ = fs::path(folder) / name;
    kept_ = path_.wstring() + L".kept";
    PutBack();
    MoveFileW(path_.c_str(), kept_.c_str());
    WriteAll(path_, bytes);
  }
  ~SystemFile() {
    if (!PutBack()) DeleteFileW(path_.c_str());
  }
  SystemFile(const SystemFile&) = delete;
  SystemFile& operator=(const SystemFile&) = delete;

 private:
  bool PutBack() const { return MoveFileExW(kept_.c_str(), path_.c_str(), MOVEFILE_REPLACE_EXISTING); }

  fs::path path_;
  std::wstring kept_;
};

class Loader : public testing::Test {
 protected:
  Loader() {
    g_questions.clear();
    g_answer = [](const std::string&, char*) { return FALSE; };
    wchar_t temporary[MAX_PATH] = {};
    GetTempPathW(MAX_PATH, temporary);
    folder_ = std::wstring(temporary) + L"HoardexLoaderTest";
    fs::create_directory(folder_);
  }
  ~Loader() override {
    g_MapiLoader.Reset();
    for (const auto& entry : fs::directory_iterator(folder_)) DeleteFileW(entry.path().c_str());
    RemoveDirectoryW(folder_.c_str());
  }

  static void Set(const wchar_t* name, const std::wstring& value) {
    ScratchRegistry::SetString(HKEY_LOCAL_MACHINE, kMailClient, name, value);
  }
  static std::string Stub() {
    return ReadAll(fs::path(ModuleHost::ModulePath()).parent_path() / L"../tests/module/stand_in_stub.dll");
  }

  // Whether the loader finds MAPI now; what it had to say otherwise. Leaves no entry point behind.
  bool Loads() {
    CMapiLoader loader;
    const bool loaded = loader.IsLoaded();
    error_ = loader.LastError();
    EXPECT_EQ(loaded, error_.empty());
    // Exported by every provider, and without a side effect.
    char text[3] = "?";
    BYTE byte = 0x5A;
    mapi::HexFromBin(&byte, 1, text);
    EXPECT_STREQ(text, loaded ? "5A" : "?");
    loader.Reset();
    EXPECT_FALSE(loader.IsLoaded());
    return loaded;
  }
  // Answers with the provider's path when asked with this qualifier ("<null>" for none), with `result`.
  static void AnswerTo(const std::string& qualifier, BOOL result = 1) {
    g_answer = [=](const std::string& asked, char* path) {
      const std::wstring provider = ModuleHost::ProviderPath();
      if (asked == qualifier) strcpy(path, std::string(provider.begin(), provider.end()).c_str());
      return asked == qualifier ? result : FALSE;
    };
  }
  static Question Asked(const std::string& qualifier) { return {"{component}", qualifier, 261, FALSE}; }

  ScratchRegistry registry_;
  std::wstring folder_;
  std::string error_;
};

TEST_F(Loader, TakesTheDllThatTheRegistryNamesDirectly) {
  EXPECT_FALSE(Loads()) << "nothing is registered";
  EXPECT_THAT(error_, testing::MatchesRegex("Unable to acquire MAPI Handle - '\\d+'"));
  Set(L"DLLPathEx", L"");
  EXPECT_FALSE(Loads());
  Set(L"DLLPathEx", folder_ + L"\\absent.dll");
  EXPECT_FALSE(Loads());
  EXPECT_EQ(error_, "Unable to acquire MAPI Handle - '126'");
  Set(L"DLLPathEx", ModuleHost::ProviderPath());
  EXPECT_TRUE(Loads());
  EXPECT_TRUE(Loads()) << "a second loader finds it again";
  EXPECT_THAT(g_questions, testing::IsEmpty()) << "without a component the system's stub is not asked";
  // Values are taken as bytes whatever their type says, up to the first NUL.
  const std::wstring provider = ModuleHost::ProviderPath();
  const std::string bytes = std::string(provider.begin(), provider.end()) + std::string("\0rest", 5);
  RegSetKeyValueW(HKEY_LOCAL_MACHINE, kMailClient, L"DLLPathEx", REG_BINARY, bytes.data(),
                  static_cast<DWORD>(bytes.size()));
  EXPECT_TRUE(Loads());
  // One loader loads once, and again after it was reset.
  CMapiLoader loader;
  loader.Load();
  EXPECT_TRUE(loader.IsLoaded());
  loader.Reset();
  EXPECT_EQ(mapi::MAPIInitialize(nullptr), E_NOINTERFACE);
  loader.Load();
  EXPECT_TRUE(loader.IsLoaded());
}

TEST_F(Loader, AsksTheSystemsStubForTheComponent) {
  const SystemFile stub(L"mapi32.dll", Stub());
  Set(L"MSIComponentID", L"{component}");
  AnswerTo("<null>");
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, ElementsAre(Asked("<null>"))) << "absent qualifiers are not asked with";
  g_questions.clear();
  Set(L"MSIApplicationLCID", L"application");
  Set(L"MSIOfficeLCID", L"");
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, ElementsAre(Asked("application"), Asked("<null>"))) << "nor are empty ones";
  g_questions.clear();
  Set(L"MSIOfficeLCID", L"office");
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, ElementsAre(Asked("application"), Asked("office"), Asked("<null>")));
  g_questions.clear();
  AnswerTo("office");
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, ElementsAre(Asked("application"), Asked("office")));
  g_questions.clear();
  AnswerTo("application");
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, ElementsAre(Asked("application")));
  // Both are lists of strings on real machines, whose end may be missing.
  g_questions.clear();
  for (const auto& [bytes, asked] : {std::pair<std::string, std::string>({"list\0one\0two\0\0", 14}, "list|one|two"),
                                     {{"list\0one\0two", 12}, "list|one|two"},
                                     {"raw", "raw"}}) {
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, "Software\\Clients\\Mail\\Microsoft Outlook", "MSIApplicationLCID",
                    REG_MULTI_SZ, bytes.data(), static_cast<DWORD>(bytes.size()));
    AnswerTo(asked);
    EXPECT_TRUE(Loads());
    EXPECT_EQ(g_questions.back(), Asked(asked));
  }
  Set(L"MSIApplicationLCID", L"application");
  // Only 1 is a success.
  g_questions.clear();
  AnswerTo("application", 2);
  EXPECT_FALSE(Loads());
  EXPECT_EQ(g_questions.size(), 3u);
  // What the stub does not know, the direct path does; an answer of the stub goes before it.
  Set(L"DLLPathEx", ModuleHost::ProviderPath());
  EXPECT_TRUE(Loads());
  Set(L"DLLPathEx", folder_ + L"\\absent.dll");
  AnswerTo("office");
  EXPECT_TRUE(Loads());
  EXPECT_EQ(GetModuleHandleW(L"mapi32.dll"), nullptr) << "the stub is let go";
}

TEST_F(Loader, TriesTheOtherStubAndThenTheDirectPath) {
  Set(L"MSIComponentID", L"{component}");
  AnswerTo("<null>");
  {
    const SystemFile damaged(L"mapi32.dll", "no program");
    {
      const SystemFile other(L"mapistub.dll", Stub());
      EXPECT_TRUE(Loads());
      EXPECT_THAT(g_questions, ElementsAre(Asked("<null>")));
    }
    const SystemFile neither(L"mapistub.dll", "no program either");
    EXPECT_FALSE(Loads());
    Set(L"DLLPathEx", ModuleHost::ProviderPath());
    EXPECT_TRUE(Loads());
    EXPECT_EQ(g_questions.size(), 1u);
  }
  // A stub that has no such look-up is taken all the same: the other one is not tried, the direct path is.
  const SystemFile mute(L"mapi32.dll", ReadAll(ModuleHost::ProviderPath()));
  const SystemFile other(L"mapistub.dll", Stub());
  EXPECT_TRUE(Loads());
  Set(L"DLLPathEx", L"");
  EXPECT_FALSE(Loads());
  EXPECT_EQ(g_questions.size(), 1u);
}

TEST_F(Loader, UsesTheMailClientsLibraryThatIsAlreadyLoaded) {
  Set(L"DLLPathEx", folder_ + L"\\absent.dll");
  Set(L"MSIComponentID", L"{component}");
  const std::wstring copy = folder_ + L"\\olmapi32.dll";
  ASSERT_TRUE(CopyFileW(ModuleHost::ProviderPath().c_str(), copy.c_str(), FALSE));
  const HMODULE loaded = LoadLibraryW(copy.c_str());
  ASSERT_NE(loaded, nullptr);
  EXPECT_TRUE(Loads());
  EXPECT_THAT(g_questions, testing::IsEmpty());
  // No reference was added.
  FreeLibrary(loaded);
  EXPECT_EQ(GetModuleHandleW(L"olmapi32.dll"), nullptr);
  EXPECT_FALSE(Loads());
}

// All or nothing: a provider that lacks any one of the names is of no use, and the first that it lacks is told.
TEST_F(Loader, NeedsEveryName) {
  const std::string whole = ReadAll(ModuleHost::ProviderPath());
  for (size_t i = 0; i < std::size(kNames); ++i) {
    SCOPED_TRACE(kNames[i]);
    std::string bytes = whole;
    // Export names stand NUL-ended in the file; another last letter keeps their order.
    const std::string name = std::string("\0", 1) + kNames[i] + std::string("\0", 1);
    const size_t at = bytes.rfind(name);
    ASSERT_NE(at, std::string::npos);
    bytes[at + name.size() - 2] = '_';
    if (i % 2) {  // a later one is missing as well
      const std::string last = std::string("\0", 1) + kNames[35] + std::string("\0", 1);
      if (const size_t where = bytes.rfind(last); where != std::string::npos) bytes[where + last.size() - 2] = '_';
    }
    const std::wstring path = folder_ + L"\\lacks" + std::to_wstring(i) + L".dll";
    WriteAll(path, bytes);
    Set(L"DLLPathEx", path);
    EXPECT_FALSE(Loads());
    EXPECT_EQ(error_, std::string("MAPI function '") + kNames[i] + "' not located\n");
    EXPECT_EQ(mapi::MAPILogonEx(0, nullptr, nullptr, 0, nullptr), E_NOINTERFACE);
    if (const HMODULE module = GetModuleHandleW(path.c_str())) FreeLibrary(module);
  }
}

TEST_F(Loader, AnswersWithFixedValuesWithoutMapi) {
  ASSERT_FALSE(Loads());
  LPVOID block = &error_;
  EXPECT_EQ(mapi::MAPIAllocateBuffer(4, &block), E_NOINTERFACE);
  EXPECT_EQ(mapi::MAPIAllocateMore(4, &block, &block), E_NOINTERFACE);
  EXPECT_EQ(block, &error_) << "out-arguments are not touched";
  EXPECT_EQ(mapi::MAPIFreeBuffer(&error_), 0u);
  EXPECT_EQ(mapi::MAPIFreeBuffer(nullptr), 0u);
  EXPECT_EQ(mapi::HrGetOneProp(nullptr, PR_ENTRYID, nullptr), E_NOINTERFACE);
  mapi::FreeProws(reinterpret_cast<LPSRowSet>(&error_));
  EXPECT_EQ(mapi::OpenIMsgOnIStg(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, nullptr),
            E_NOINTERFACE);
  EXPECT_EQ(mapi::MAPIGetDefaultMalloc(), nullptr);
  mapi::CloseIMsgSession(reinterpret_cast<LPMSGSESS>(&error_));
  EXPECT_EQ(mapi::OpenIMsgSession(nullptr, 0, nullptr), E_NOINTERFACE);
  EXPECT_EQ(mapi::HrQueryAllRows(nullptr, nullptr, nullptr, nullptr, 0, nullptr), E_NOINTERFACE);
  EXPECT_EQ(mapi::MAPIInitialize(nullptr), E_NOINTERFACE);
  mapi::MAPIUninitialize();
  EXPECT_EQ(mapi::MAPILogonEx(0, nullptr, nullptr, 0, nullptr), E_NOINTERFACE);
  EXPECT_EQ(mapi::MAPIAdminProfiles(0, nullptr), E_NOINTERFACE);
  // With MAPI, freeing nothing is still not passed on.
  Set(L"DLLPathEx", ModuleHost::ProviderPath());
  CMapiLoader loader;
  ASSERT_TRUE(loader.IsLoaded());
  EXPECT_EQ(mapi::MAPIFreeBuffer(nullptr), 0u);
}

}  // namespace

extern "C" __declspec(dllexport) BOOL STDMETHODCALLTYPE
    AnswerComponentPath(LPSTR component, LPSTR qualifier, LPSTR path, DWORD size, BOOL install) {
  std::string asked = qualifier ? qualifier : "<null>";
  // The system's look-up reads the strings behind the first one, up to an empty one.
  for (const char* next = qualifier ? qualifier + asked.size() + 1 : ""; *next; next += strlen(next) + 1)
    asked.append("|").append(next);
  g_questions.push_back({component, asked, size, install});
  return g_answer(g_questions.back().qualifier, path);
}
