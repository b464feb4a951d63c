#include "tests/e2e/system.h"

#include <sys/wait.h>

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

std::string ReadAll(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// Output goes through files: a service that Wine starts would keep a pipe open for ever.
Result Shell(const std::string& command) {
  const fs::path out = fs::absolute("e2e.out"), err = fs::absolute("e2e.err");
  const int status = std::system((command + " </dev/null >" + Quote(out) + " 2>" + Quote(err)).c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadAll(out), ReadAll(err)};
}

std::string WindowsPath(std::string path) {
  for (char& c : path)
    if (c == '/') c = '\\';
  return "Z:" + path;
}

fs::path Prefix() {
  return fs::absolute("e2e-prefix");
}

std::string Register() {
  const std::string module = std::string(WINDOWS_BUILD) + "/module/HoardexPH.dll";
  const std::string provider = std::string(WINDOWS_BUILD) + "/provider/HoardexMapi.dll";
  const std::string host = std::string(WINDOWS_BUILD) + "/host/HoardexHost.exe";
  const std::string index = std::string(WINDOWS_BUILD) + "/winindex/HoardexIndex.dll";
  for (const std::string& file : {module, provider, host, index})
    if (!fs::exists(file)) return file + " is not built";
  if (Shell("command -v wine").code) return "Wine is not installed";
  setenv("WINEPREFIX", Prefix().c_str(), 1);
  setenv("WINEARCH", "win64", 1);
  setenv("WINEDEBUG", "-all", 1);
  setenv("WINEDLLOVERRIDES", "mscoree,mshtml=", 1);
  setenv("LC_ALL", "C.UTF-8", 1);
  setenv("TZ", "UTC", 1);
  unsetenv("DISPLAY");
  setenv("HOARDEX_HOME", System::home().c_str(), 1);
  setenv("HOARDEX_VAULTINFO", VAULTINFO, 1);
  setenv("HOARDEX_MKVAULT", MKVAULT, 1);
  setenv("HOARDEX_HOST", ("env\nHOME=" + Prefix().string() + "/home\nwine\n" + host + "\nserve").c_str(), 1);
  const Result made = Shell(Quote(std::string(SOURCE_FOLDER) + "/tools/wine-prefix"));
  if (made.code) return made.errors;
  fs::create_directories(System::home() / "vaults/Tessary");
  fs::remove(Prefix() / "dosdevices/v:");
  fs::create_symlink(System::home() / "vaults", Prefix() / "dosdevices/v:");
  const std::string commands[] = {
      "wine reg add 'HKLM\\Software\\Clients\\Mail\\Microsoft Outlook' /v DLLPathEx /d " +
          Quote(WindowsPath(provider)) + " /f",
      "wine reg add 'HKCU\\SOFTWARE\\Trelmo\\Zarnak\\Client\\Tessary' /v HXRootDirectory /d 'V:\\' /f",
      "wine regsvr32 /s " + Quote(WindowsPath(index)),
      "wine regsvr32 /s " + Quote(WindowsPath(module)),
      "wine rundll32 " + Quote(WindowsPath(module) + ",ZKHoardexAddProtocol"),
  };
  for (const std::string& command : commands)
    if (const Result done = Shell(command); done.code) return command + ": " + done.output + done.errors;
  return {};
}

}  // namespace

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
  for (const auto& user : fs::directory_iterator(Prefix() / "drive_c/users")) {
    const fs::path folder = user.path() / "AppData/Roaming/zkoffline3x";
    if (fs::exists(folder)) left.push_back(folder);
  }
  return left;
}

}  // namespace e2e
