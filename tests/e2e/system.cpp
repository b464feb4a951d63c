#include "tests/e2e/system.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace e2e {
namespace {

namespace fs = std::filesystem;

std::string Quote(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// Output goes through files: a service that Wine starts would keep a pipe open for ever.
Result Shell(const std::string& command) {
  const fs::path out = fs::absolute("e2e.out"), err = fs::absolute("e2e.err");
  const int status = std::system((command + " </dev/null >" + Quote(out) + " 2>" + Quote(err)).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadFile(out), ReadFile(err)};
}

// Names the prefix to Wine and to the gatherer.
void UsePrefix(const fs::path& prefix) {
  setenv("WINEPREFIX", prefix.c_str(), 1);
  const std::string wine = "env\nHOME=" + prefix.string() + "/home\nwine\n";
  setenv("HOARDEX_HOST", (wine + WINDOWS_BUILD + "/host/HoardexHost.exe\nserve").c_str(), 1);
  setenv("HOARDEX_RUNDLL", (wine + "rundll32").c_str(), 1);
}

void MapVaults(const fs::path& prefix) {
  fs::create_directories(System::home() / "vaults/Tessary");
  fs::remove(prefix / "dosdevices/v:");
  fs::create_symlink(System::home() / "vaults", prefix / "dosdevices/v:");
}

std::string Register() {
  for (const char* file :
       {"/module/HoardexPH.dll", "/provider/HoardexMapi.dll", "/host/HoardexHost.exe", "/winindex/HoardexIndex.dll"})
    if (!fs::exists(std::string(WINDOWS_BUILD) + file)) return std::string(WINDOWS_BUILD) + file + " is not built";
  if (Shell("command -v wine").code) return "Wine is not installed";
  setenv("WINEARCH", "win64", 1);
  setenv("WINEDEBUG", "-all", 1);
  setenv("WINEDLLOVERRIDES", "mscoree,mshtml=", 1);
  setenv("LC_ALL", "C.UTF-8", 1);
  setenv("TZ", "UTC", 1);
  unsetenv("DISPLAY");
  setenv("HOARDEX_HOME", System::home().c_str(), 1);
  setenv("HOARDEX_VAULTINFO", VAULTINFO, 1);
  setenv("HOARDEX_MKVAULT", MKVAULT, 1);
  setenv("HOARDEX_MODULE", System::module().c_str(), 1);
  setenv("HOARDEX_PROVIDER", System::provider().c_str(), 1);
  setenv("HOARDEX_STAND_IN", System::stand_in().c_str(), 1);
  UsePrefix(System::prefix());
  const Result made = Shell(Quote(std::string(SOURCE_FOLDER) + "/tools/wine-prefix"));
  if (made.code) return made.errors;
  MapVaults(System::prefix());
  const std::vector<std::string> commands[] = {
      {"reg", "add", "HKLM\\Software\\Clients\\Mail\\Microsoft Outlook", "/v", "DLLPathEx", "/d", System::provider(),
       "/f"},
      {"reg", "add", "HKCU\\SOFTWARE\\Trelmo\\Zarnak\\Client\\Tessary", "/v", "HXRootDirectory", "/d", "V:\\", "/f"},
      {"regsvr32", "/s", System::stand_in()},
      {"regsvr32", "/s", System::module()},
      {"regsvr32", "/s", System::provider()},
      {"rundll32", System::module() + ",ZKHoardexAddProtocol"},
  };
  for (const auto& command : commands)
    if (const Result done = System::Wine(command); done.code) return command[0] + ": " + done.output + done.errors;
  return {};
}

}  // namespace

std::string ReadFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string WindowsPath(std::string path) {
  for (char& c : path)
    if (c == '/') c = '\\';
  return "Z:" + path;
}

std::string Output(const std::string& command) {
  const fs::path out = fs::absolute("e2e.tool");
  const int status = std::system((command + " </dev/null >" + Quote(out) + " 2>&1").c_str());
  return (status ? "status " + std::to_string(status) + ": " : "") + ReadFile(out);
}

fs::path System::prefix() {
  return fs::absolute("e2e-prefix");
}
std::string System::module() {
  return WindowsPath(WINDOWS_BUILD "/module/HoardexPH.dll");
}
std::string System::provider() {
  return WindowsPath(WINDOWS_BUILD "/provider/HoardexMapi.dll");
}
std::string System::stand_in() {
  return WindowsPath(WINDOWS_BUILD "/winindex/HoardexIndex.dll");
}
std::string System::host() {
  return WINDOWS_BUILD "/host/HoardexHost.exe";
}

Result System::Wine(const std::vector<std::string>& words) {
  std::string command = "timeout 120 env HOME=\"$WINEPREFIX/home\" wine";
  for (const std::string& word : words) command += " " + Quote(word);
  return Shell(command);
}

pid_t System::Start(const std::vector<std::string>& words, const fs::path& output) {
  const pid_t child = fork();
  if (child != 0) return child;
  std::string command = "exec " + Quote(GATHERER);
  for (const std::string& word : words) command += " " + Quote(word);
  command += " </dev/null >" + Quote(output) + " 2>&1";
  execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
  _exit(127);
}

// Copied without registration: the registry of a prefix of its own that nothing was registered in.
System::FreshPrefix::FreshPrefix() : path_(fs::absolute("e2e-fresh-prefix")) {
  const fs::path clean = fs::absolute("e2e-clean-prefix");
  setenv("WINEPREFIX", clean.c_str(), 1);
  Shell(Quote(std::string(SOURCE_FOLDER) + "/tools/wine-prefix"));
  Shell("rm -rf --one-file-system " + Quote(path_) + " && mkdir -p " + Quote(path_) + " && cp -as " +
        Quote(clean / "drive_c") + " " + Quote(path_) + " && cd " + Quote(clean) +
        " && cp -a dosdevices home *.reg .update-timestamp .complete " + Quote(path_));
  UsePrefix(path_);
  MapVaults(path_);
}

void System::FreshPrefix::Settle() {
  Shell("timeout 60 wineserver -w");
}

System::FreshPrefix::~FreshPrefix() {
  Shell("timeout 20 wineserver -k; timeout 60 wineserver -w");
  Shell("rm -rf --one-file-system " + Quote(path_));
  UsePrefix(prefix());
}

fs::path System::home() {
  return fs::absolute("e2e-home");
}

std::string System::Trouble() {
  static const std::string trouble = Register();
  return trouble;
}

void System::Clear() {
  fs::remove_all(home());
  fs::create_directories(home() / "vaults/Tessary");
}

Result System::Run(const std::vector<std::string>& words) {
  std::string command = Quote(GATHERER);
  for (const std::string& word : words) command += " " + Quote(word);
  return Shell(command);
}

std::vector<Json> System::Dump(const std::vector<std::string>& words) {
  std::vector<std::string> all = {"dump"};
  all.insert(all.end(), words.begin(), words.end());
  std::istringstream lines(Run(all).output);
  std::vector<Json> records;
  for (std::string line; std::getline(lines, line);) records.push_back(Json::parse(line));
  return records;
}

std::vector<std::string> System::LeftBehind() {
  std::vector<std::string> left;
  for (const auto& user : fs::directory_iterator(prefix() / "drive_c/users")) {
    const fs::path folder = user.path() / "AppData/Roaming/zkoffline3x";
    if (fs::exists(folder)) left.push_back(folder);
  }
  return left;
}

}  // namespace e2e
