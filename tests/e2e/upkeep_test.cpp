// A machine over its life: what is registered goes without a trace, faults are named, files are followed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "tests/e2e/system.h"

namespace {

using e2e::Json;
using e2e::Result;
using e2e::System;
using testing::HasSubstr;
using testing::IsSupersetOf;
namespace fs = std::filesystem;

constexpr char kClass[] = "{6E2F0B6A-3C41-4D0E-9A57-2B80C164E71D}";
constexpr char kMailClient[] = "HKLM\\Software\\Clients\\Mail\\Microsoft Outlook";
constexpr char kVaultRoot[] = "HKCU\\SOFTWARE\\Trelmo\\Zarnak\\Client\\Tessary";

class Upkeep : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(System::Trouble(), "");
    System::Clear();
  }
};

// A store with some messages; `seed` makes it another one.
fs::path MakeStore(const std::string& name, int messages, int seed) {
  const fs::path store = System::home() / (name + ".pst");
  const std::string command = std::string(MKVAULT) + " --messages " + std::to_string(messages) + " --seed " +
                              std::to_string(seed) + " '" + store.string() + ".new' >e2e.tool 2>&1";
  EXPECT_EQ(std::system(command.c_str()), 0);
  fs::rename(store.string() + ".new", store);
  return store;
}

int64_t MessagesOf(const std::string& vault) {
  for (const Json& entry : Json::parse(System::Run({"vaults", "--json"}).output))
    if (entry["name"] == vault) return entry["messages"];
  return -1;
}

size_t Hits(const std::string& query) {
  const Result found = System::Run({"search", "--json", "--limit", "1000", query});
  return found.code == 0 ? Json::parse(found.output)["hits"].size() : 0;
}

void Wine(const std::vector<std::string>& words, int code = 0) {
  const Result done = System::Wine(words);
  EXPECT_EQ(done.code, code) << words[0] << " " << words.back() << " " << done.output << done.errors;
}

Json Roots() {
  const Json answer = Json::parse(System::Wine({System::host(), "roots"}).output, nullptr, false);
  return answer.is_object() ? answer.value("roots", Json::array()) : Json();
}

// Keys and values, without the times.
std::set<std::string> RegistryOf(const fs::path& prefix) {
  std::set<std::string> entries;
  for (const char* name : {"system.reg", "user.reg", "userdef.reg"}) {
    std::ifstream file(prefix / name);
    std::string key;
    for (std::string line; std::getline(file, line);) {
      // Also a time, of the start of Wine.
      if (line.starts_with("\"DriverDateData\"")) continue;
      if (line.empty() || line[0] == '#' || line[0] == ';' || line.starts_with("WINE REGISTRY")) continue;
      if (line[0] == '[') {
        key = std::string(name) + " " + line.substr(0, line.rfind(']') + 1);
        entries.insert(key);
      } else {
        entries.insert(key + " " + line);
      }
    }
  }
  return entries;
}

std::set<std::string> FilesOf(const fs::path& prefix) {
  std::set<std::string> files;
  for (const char* part : {"drive_c/users", "drive_c/ProgramData"})
    for (const auto& entry : fs::recursive_directory_iterator(prefix / part)) files.insert(entry.path().string());
  return files;
}

std::vector<std::string> Beyond(const std::set<std::string>& after, const std::set<std::string>& before) {
  std::vector<std::string> more;
  std::ranges::set_difference(after, before, std::back_inserter(more));
  return more;
}

TEST_F(Upkeep, TheLifeOfAMachineLeavesNoTrace) {
  System::FreshPrefix prefix;
  const std::string root_url = "zkoffline3x://{S-1-5-21-0-0-0-1000}/default/";
  // What the installer and the archiving client bring is there before the module comes.
  Wine({"reg", "add", kMailClient, "/v", "DLLPathEx", "/d", System::provider(), "/f"});
  Wine({"reg", "add", kVaultRoot, "/v", "HXRootDirectory", "/d", "V:\\", "/f"});
  // So are the keys that Windows has and others share, and the mail client's list of profiles.
  for (const char* key :
       {"HKLM\\Software\\Microsoft\\Windows Search\\Gather\\Windows\\SystemIndex\\Protocols",
        "HKLM\\Software\\Microsoft\\Windows Search\\ProtocolHandlers",
        "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\HideDesktopIcons\\ClassicStartMenu",
        "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\HideDesktopIcons\\NewStartPanel",
        "HKCU\\Software\\Trelmo\\Hoardex\\Profiles"})
    Wine({"reg", "add", key, "/f"});
  // Wine makes some keys when a program first needs them.
  Wine({"rundll32", "nothing.dll,Nothing"}, System::Wine({"rundll32", "nothing.dll,Nothing"}).code);
  Wine({System::host(), "examine"});
  prefix.Settle();
  const auto registry = RegistryOf(prefix.path()), files = FilesOf(prefix.path());

  Wine({"regsvr32", "/s", System::stand_in()});
  Wine({"regsvr32", "/s", System::module()});
  EXPECT_EQ(Roots(), Json::array());
  Wine({"rundll32", System::module() + ",ZKHoardexAddProtocol"});
  Wine({"rundll32", System::module() + ",ZKHoardexAddProtocol"});
  EXPECT_EQ(Roots(), Json::array({root_url})) << "one root, however often it is added";

  MakeStore("changing", 30, 1);
  MakeStore("resting", 20, 2);
  ASSERT_EQ(System::Run({"index", System::home()}).code, 0);
  EXPECT_EQ(MessagesOf("changing"), 30);
  EXPECT_EQ(MessagesOf("resting"), 20);

  MakeStore("changing", 40, 1);
  Wine({System::host(), "notify", "modify", "V:\\Tessary\\changing.db"});
  const fs::path log = [&] {
    for (const auto& user : fs::directory_iterator(prefix.path() / "drive_c/users"))
      if (fs::exists(user.path() / "AppData/Local/HoardexPH.log")) return user.path() / "AppData/Local/HoardexPH.log";
    return fs::path();
  }();
  ASSERT_FALSE(log.empty());
  const auto before = fs::file_size(log);
  const Result changes = System::Run({"index", "--changes"});
  EXPECT_EQ(changes.code, 0) << changes.output << changes.errors;
  EXPECT_EQ(MessagesOf("changing"), 40);
  std::ifstream lines(log, std::ios::binary);
  lines.seekg(static_cast<std::streamoff>(before));
  const std::string written(std::istreambuf_iterator<char>(lines), {});
  EXPECT_THAT(written, HasSubstr("changing.db"));
  EXPECT_EQ(written.find("resting.db/"), std::string::npos) << "an item of another vault was visited";

  Wine({System::host(), "notify", "delete", "V:\\Tessary\\changing.db"});
  EXPECT_EQ(System::Run({"index", "--changes"}).code, 0);
  EXPECT_EQ(Hits("vault:changing"), 0u);
  EXPECT_GT(Hits("vault:resting"), 0u);

  Wine({"rundll32", System::module() + ",ZKHoardexRemoveProtocol"});
  Wine({System::host(), "examine", "class"});
  const Result rootless = System::Run({"index"});
  EXPECT_THAT(rootless.errors, HasSubstr("No search root is registered"));
  EXPECT_EQ(Roots(), Json::array()) << "came back because the module was loaded";
  Wine({"rundll32", System::module() + ",ZKHoardexRemoveProtocol"});
  Wine({"rundll32", System::module() + ",ZKHoardexRemoveAllProtocol"});
  Wine({"regsvr32", "/s", "/u", System::module()});
  Wine({"regsvr32", "/s", "/u", System::stand_in()});
  const Json left = Json::parse(System::Wine({System::host(), "examine", "mail"}).output);
  EXPECT_EQ(left["profiles"], Json::array());
  prefix.Settle();
  EXPECT_EQ(Beyond(RegistryOf(prefix.path()), registry), std::vector<std::string>());
  EXPECT_EQ(Beyond(registry, RegistryOf(prefix.path())), std::vector<std::string>());
  std::vector<std::string> more = Beyond(FilesOf(prefix.path()), files);
  // The log stays: it tells what was done last.
  std::erase_if(more, [](const std::string& file) { return file.ends_with("/HoardexPH.log"); });
  EXPECT_EQ(more, std::vector<std::string>());
  EXPECT_EQ(Beyond(files, FilesOf(prefix.path())), std::vector<std::string>());
}

// The checks that are not well.
std::set<std::string> Faults(const std::vector<std::string>& words, int code) {
  std::vector<std::string> all = {"doctor", "--json"};
  all.insert(all.end(), words.begin(), words.end());
  const Result run = System::Run(all);
  EXPECT_EQ(run.code, code) << run.output << run.errors;
  const Json report = Json::parse(run.output, nullptr, false);
  if (!report.is_object()) return {"no report"};
  std::set<std::string> faults;
  for (const Json& check : report["checks"])
    if (check["verdict"] != "ok") faults.insert(check["check"]);
  return faults;
}

// Waits for a line of a running program.
bool Says(const fs::path& output, const std::string& words, int times = 1) {
  for (int i = 0; i < 300; ++i) {
    std::ifstream file(output);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    int found = 0;
    for (size_t at = 0; (at = text.find(words, at)) != std::string::npos; at += words.size()) ++found;
    if (found >= times) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::ifstream file(output);
  ADD_FAILURE() << "never said \"" << words << "\": " << file.rdbuf();
  return false;
}

TEST_F(Upkeep, DoctorNamesEveryFaultAndRepairsWhatIsOurs) {
  using Set = std::set<std::string>;
  EXPECT_EQ(Faults({"--fix"}, 0), Set());
  EXPECT_EQ(Faults({}, 0), Set());
  const std::string key = std::string("HKCR\\CLSID\\") + kClass;

  // What can be wrong at the same time.
  Wine({System::host(), "notify", "modify"});
  Wine({"reg", "add", key + "\\InprocServer32", "/v", "ThreadingModel", "/d", "Apartment", "/f"});
  Wine({"reg", "delete", "HKLM\\Software\\Microsoft\\Windows Search\\ProtocolHandlers", "/v", "zkoffline3x", "/f"});
  Wine({"reg", "add", key + "\\ShellFolder", "/v", "Attributes", "/t", "REG_SZ", "/d", "538443776", "/f"});
  Wine({"reg", "delete", "HKCR\\TypeLib\\{6E2F0B69-3C41-4D0E-9A57-2B80C164E71D}", "/f"});
  Wine({"reg", "delete", kVaultRoot, "/v", "HXRootDirectory", "/f"});
  Wine({"rundll32", System::module() + ",ZKHoardexRemoveProtocol"});
  Wine({"reg", "delete", "HKCR\\MAPI/ZK.Note", "/f"});
  const std::string profile = "HKCU\\Software\\Trelmo\\Hoardex\\Profiles\\ZK_HX_1_2_3_4_5";
  Wine({"reg", "add", profile, "/f"});
  const fs::path user = [] {
    for (const auto& one : fs::directory_iterator(System::prefix() / "drive_c/users"))
      if (one.path().filename() != "Public") return one.path();
    return fs::path();
  }();
  const fs::path copy = user / "AppData/Roaming/zkoffline3x/ZK_HX_leftover.txt";
  fs::create_directories(copy.parent_path());
  std::ofstream(copy) << "an attachment";
  fs::create_symlink(System::home() / "gone.pst", System::home() / "vaults/Tessary/gone.db");
  std::ofstream(System::home() / "index.sqlite") << "no index";
  fs::remove(System::prefix() / "dosdevices/v:");
  const Set all = Faults({}, 1);
  EXPECT_THAT(all, IsSupersetOf({"threading", "registration", "type library", "item types", "vault folder",
                                 "search root", "profiles", "changes", "temporary", "vaults", "index", "drives"}));
  EXPECT_TRUE(fs::exists(copy)) << "examining is no repair";
  // The original that is gone is only named, and reported changes wait for the index.
  EXPECT_EQ(Faults({"--fix"}, 0), (Set{"vaults", "changes", "index"}));
  EXPECT_FALSE(fs::exists(copy));
  EXPECT_TRUE(fs::exists(System::home() / "index.sqlite.damaged-1")) << "put aside, not deleted";
  System::Clear();
  EXPECT_EQ(System::Run({"index", "--demo"}).code, 0);
  EXPECT_EQ(Faults({}, 0), Set());

  // What a running host uses is not left over, although nobody has a copy open at this moment.
  Wine({"reg", "add", profile, "/f"});
  const fs::path answers = System::home() / "host.out";
  FILE* const host = popen(
      ("HOME=\"$WINEPREFIX/home\" wine '" + System::host() + "' serve >'" + answers.string() + "' 2>&1").c_str(), "w");
  fputs("{\"roots\":true}\n", host);
  fflush(host);
  EXPECT_TRUE(Says(answers, "roots"));
  fs::create_directories(copy.parent_path());
  std::ofstream(copy) << "an attachment";
  EXPECT_EQ(Faults({}, 0), Set());
  const Json kept = Json::parse(System::Wine({System::host(), "examine", "--clear"}).output);
  EXPECT_EQ(kept["mail"]["in_use"], 1);
  EXPECT_TRUE(fs::exists(copy));
  pclose(host);
  EXPECT_EQ(Faults({}, 1), Set{"profiles"}) << "the module takes its copies away itself";

  // Libraries that are not there, none, or of others; a policy, which is nobody's to change here.
  Wine({"reg", "add", key + "\\InprocServer32", "/ve", "/d", "Z:\\nowhere\\HoardexPH.dll", "/f"});
  Wine({"reg", "add", kMailClient, "/v", "DLLPathEx", "/d", "Z:\\etc\\passwd", "/f"});
  // A registration of the stand-in that lost its title and its root's server.
  Wine({"reg", "delete", "HKCR\\CLSID\\{30766BD2-EA1C-4F28-BF27-0B44E2F68DB7}\\InprocServer32", "/f"});
  Wine({"reg", "delete", "HKCR\\CLSID\\{30766BD2-EA1C-4F28-BF27-0B44E2F68DB7}", "/ve", "/f"});
  const std::string policy = "HKLM\\Software\\Policies\\Microsoft\\Windows\\Windows Search";
  Wine({"reg", "add", policy, "/v", "PreventIndexingEmailAttachments", "/t", "REG_DWORD", "/d", "1", "/f"});
  EXPECT_THAT(Faults({}, 1), IsSupersetOf({"class server", "module", "bitness", "MAPI", "search manager", "policy"}));
  EXPECT_EQ(Faults({"--fix"}, 0), Set{"policy"});
  Wine({"reg", "delete", policy, "/f"});
  EXPECT_EQ(Faults({}, 0), Set());
}

TEST_F(Upkeep, WatchIndexesWhatChangesOnTheDisk) {
  const fs::path store = MakeStore("mail", 10, 5), output = System::home() / "watch.out";
  ASSERT_EQ(System::Run({"index", store}).code, 0);
  MakeStore("mail", 15, 5);  // while nobody watches
  const pid_t watch = System::Start({"watch", "--quiet", "0.3"}, output);
  EXPECT_TRUE(Says(output, "indexed mail", 1));
  EXPECT_EQ(MessagesOf("mail"), 15);

  MakeStore("mail", 25, 5);  // another file in its place
  EXPECT_TRUE(Says(output, "indexed mail", 2));
  EXPECT_EQ(MessagesOf("mail"), 25);
  fs::remove(store);
  EXPECT_TRUE(Says(output, "deleted mail"));
  EXPECT_TRUE(Says(output, "removed mail: 25 messages"));
  EXPECT_EQ(Hits("vault:mail"), 0u);
  MakeStore("mail", 12, 6);
  EXPECT_TRUE(Says(output, "indexed mail: 12 messages"));
  EXPECT_EQ(MessagesOf("mail"), 12);

  EXPECT_EQ(System::Run({"vaults", "add", MakeStore("second", 5, 7)}).code, 0);
  EXPECT_TRUE(Says(output, "indexed second: 5 messages"));
  EXPECT_EQ(MessagesOf("second"), 5);
  kill(watch, SIGTERM);
  int status = 0;
  ASSERT_EQ(waitpid(watch, &status, 0), watch);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(Says(output, "stopped"));

  Wine({System::host(), "notify", "modify", "V:\\Tessary\\mail.db"});
  EXPECT_EQ(System::Run({"vaults", "remove", "second"}).code, 0);
  EXPECT_THAT(System::Run({"index", "--changes"}).output, HasSubstr("mail: modified")) << "worked off by the removal";
  EXPECT_EQ(Hits("vault:second"), 0u);
  EXPECT_EQ(MessagesOf("mail"), 12);
  EXPECT_EQ(System::Run({"watch", "--once", "--quiet", "0.1"}).code, 0);
}

}  // namespace
