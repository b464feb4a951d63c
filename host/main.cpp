// HoardexHost.exe: the protocol host. Reads requests, one JSON object a line, and answers each with one line.
#include <windows.h>

#include <shellapi.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/CheckRecord.h"
#include "host/Examination.h"
#include "host/ModuleLog.h"
#include "host/Policy.h"
#include "host/Session.h"
#include "host/ShellItem.h"
#include "host/SystemIndex.h"
#include "host/Text.h"

namespace {

constexpr char kUsage[] =
    "HoardexHost reads items of the user's vaults through the search protocol handler.\n"
    "\n"
    "  HoardexHost serve [--chunks] [--log]\n"
    "                                   answer requests from standard input, one JSON object a line:\n"
    "                                   {\"url\":\"...\"}, {\"roots\":true}, {\"changes\":true}, {\"done\":ID} or\n"
    "                                   {\"notify\":\"add|delete|modify\",\"path\":\"...\"}\n"
    "  HoardexHost item URL [--chunks] [--log]\n"
    "                                   print the record of one item; --log adds what the module logged meanwhile\n"
    "  HoardexHost open URL, print URL  open or print an item, as its context menu in the shell does\n"
    "  HoardexHost roots                print the search roots and the rules of the system's index\n"
    "  HoardexHost notify add|delete|modify [PATH...]\n"
    "                                   tell the index, through the module, that these vault files (all, without one)\n"
    "                                   were added, deleted or modified\n"
    "  HoardexHost check URL...         check the filters of these items against the rules of filters\n"
    "  HoardexHost check [--clsid {C}] [--file F]\n"
    "                                   check another filter: of this class, or that of the file's type\n"
    "  HoardexHost serve --check [--files] [--clsid {C}]\n"
    "                                   answer requests with checks; a url is a file's path with --files\n"
    "  HoardexHost examine [--clear]    print what stands and what does not, as one JSON object; --clear deletes\n"
    "                                   leftover MAPI profiles and temporary copies of attachments\n";

// Lines from a pipe, without the C runtime's translation.
class LineReader {
 public:
  std::optional<std::string> Next() {
    for (;;) {
      const size_t end = buffer_.find('\n', searched_);
      if (end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        searched_ = 0;
        return line;
      }
      searched_ = buffer_.size();
      char chunk[1 << 14];
      DWORD read = 0;
      if (!ReadFile(GetStdHandle(STD_INPUT_HANDLE), chunk, sizeof(chunk), &read, nullptr) || !read)
        return buffer_.empty() ? std::nullopt : std::optional(std::exchange(buffer_, {}));
      buffer_.append(chunk, read);
    }
  }

 private:
  std::string buffer_;
  size_t searched_ = 0;
};

// One record as one whole line. False when nobody reads any more.
bool WriteLine(const host::Json& record) {
  const std::string line = record.dump(-1, ' ', false, host::Json::error_handler_t::replace) + "\n";
  for (size_t done = 0; done < line.size();) {
    DWORD written = 0;
    const DWORD part = static_cast<DWORD>(std::min<size_t>(line.size() - done, 1 << 20));
    if (!WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data() + done, part, &written, nullptr)) return false;
    done += written;
  }
  return true;
}

// Makes the record of one item.
using Reader = std::function<host::Json(const std::string& url)>;

// Requests that are no item's; nothing for those that are.
std::optional<host::Json> AnswerForIndex(const host::Json& request) {
  if (request.value("roots", host::Json()) == true) return host::SystemRoots();
  if (request.value("changes", host::Json()) == true) return host::SystemChanges();
  if (request.contains("done") && request["done"].is_number_unsigned())
    return host::ChangesDone(request["done"].get<uint64_t>());
  const auto text = [&](const char* key) {
    const host::Json value = request.value(key, host::Json());
    return value.is_string() ? value.get<std::string>() : std::string();
  };
  if (request.contains("save")) return host::SaveItem(text("save"), text("to"), text("format"));
  if (!request.contains("notify")) return std::nullopt;
  const host::Json change = request["notify"], path = request.value("path", host::Json(""));
  if (!change.is_string() || !path.is_string() || !host::IsChange(change.get<std::string>())) return std::nullopt;
  return host::Notify(change.get<std::string>(), path.get<std::string>());
}

host::Json Answer(const Reader& read, const std::string& line) {
  const host::Json request = host::Json::parse(line, nullptr, false);
  if (request.is_object()) {
    if (const auto answer = AnswerForIndex(request)) return *answer;
  }
  const host::Json url = request.is_object() ? request.value("url", host::Json()) : host::Json();
  if (!url.is_string()) return {{"error", host::ErrorOf("Request", E_INVALIDARG)}};
  return read(url.get<std::string>());
}

int Serve(const Reader& read) {
  LineReader lines;
  while (const auto line = lines.Next()) {
    if (line->find_first_not_of(" \t\r") == std::string::npos) continue;
    if (!WriteLine(Answer(read, *line))) break;
  }
  return 0;
}

// 0 when the index has taken up every change.
int NotifyEach(const std::string& change, const std::vector<std::string>& paths) {
  bool all = true;
  for (const std::string& path : paths.empty() ? std::vector<std::string>{""} : paths) {
    const host::Json answer = host::Notify(change, path);
    all = all && answer["result"] == host::CodeText(S_OK);
    if (!WriteLine(answer)) return 1;
  }
  return all ? 0 : 1;
}

int CheckEach(const std::vector<std::string>& urls, const Reader& check) {
  bool all = true;
  for (const std::string& url : urls) {
    const host::Json record = check(url);
    all = all && host::Conforms(record);
    if (!WriteLine(record)) return 1;
  }
  return all ? 0 : 1;
}

std::vector<std::string> Arguments() {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; wide && i < count; ++i) arguments.push_back(host::ToUtf8(wide[i]));
  LocalFree(wide);
  return arguments;
}

struct Options {
  std::string command;
  std::vector<std::string> urls;
  bool chunks = false, log = false, check = false, files = false;
  std::string file, clsid;
};

// Nothing when the words make no sense.
std::optional<Options> Parse(std::vector<std::string> words) {
  Options options;
  options.chunks = std::erase(words, "--chunks") > 0;
  options.log = std::erase(words, "--log") > 0;
  options.check = std::erase(words, "--check") > 0;
  options.files = std::erase(words, "--files") > 0;
  bool other = false;
  for (const auto& [name, value] : {std::pair("--file", &options.file), std::pair("--clsid", &options.clsid)}) {
    const auto found = std::find(words.begin(), words.end(), name);
    if (found == words.end()) continue;
    if (found + 1 == words.end()) return std::nullopt;
    *value = *(found + 1);
    words.erase(found, found + 2);
    other = true;
  }
  if (words.empty()) return std::nullopt;
  options.command = words[0];
  options.urls.assign(words.begin() + 1, words.end());
  const size_t count = options.urls.size();
  const std::string& command = options.command;
  const bool sense = command == "check"    ? (other ? count == 0 : count > 0)
                     : command == "item"   ? count == 1
                     : command == "open"   ? count == 1
                     : command == "print"  ? count == 1
                     : command == "notify" ? count >= 1 && host::IsChange(options.urls[0])
                     : command == "serve"  ? count == 0 && (options.check || (!options.files && !other))
                                           : command == "roots" && count == 0;
  return sense ? std::optional(options) : std::nullopt;
}

int Run(const Options& options) {
  const Reader check_file = [&](const std::string& file) { return host::CheckFile(file, options.clsid); };
  if (options.command == "check" && options.urls.empty()) return CheckEach({options.file}, check_file);
  if (options.command == "serve" && options.files) return Serve(check_file);
  if (options.command == "notify") return NotifyEach(options.urls[0], {options.urls.begin() + 1, options.urls.end()});
  // Without a session, whose end would sweep the file away that was opened.
  if (options.command == "open" || options.command == "print") {
    const host::Json answer = host::OpenItem(options.urls[0], options.command);
    return WriteLine(answer) && answer.value("result", "") == host::CodeText(S_OK) ? 0 : 1;
  }
  if (options.command == "roots") {
    const host::Json roots = host::SystemRoots();
    return WriteLine(roots) && !roots.contains("error") ? 0 : 1;
  }
  host::Session session;
  const HRESULT hr = session.Open();
  if (FAILED(hr)) {
    fprintf(stderr, "HoardexHost: cannot make the protocol handler: %s %s\n", host::CodeText(hr).c_str(),
            host::CodeName(hr).c_str());
    return 1;
  }
  host::ItemChecker checker(session);
  const Reader check = [&](const std::string& url) { return checker.Check(url); };
  const Reader read = [&](const std::string& url) {
    if (!options.log) return session.Read(url, options.chunks);
    const host::ModuleLog log;
    host::Json record = session.Read(url, options.chunks);
    record["log"] = log.Lines();
    const host::AttachmentPolicy policy = host::ReadAttachmentPolicy();
    record["policy"] = {{"prevented", policy.prevented}, {"excluded", host::ToUtf8(policy.excluded)}};
    return record;
  };
  if (options.command == "check") return CheckEach(options.urls, check);
  if (options.command == "serve") return Serve(options.check ? check : read);
  const host::Json record = read(options.urls[0]);
  return WriteLine(record) && !record.contains("error") ? 0 : 1;
}

}  // namespace

int main() {
  std::vector<std::string> words = Arguments();
  const bool examine = !words.empty() && words[0] == "examine";
  const std::optional<Options> options = examine ? std::optional<Options>(std::in_place) : Parse(words);
  if (!options) {
    fputs(kUsage, stderr);
    return 2;
  }
  // One thread, so one apartment: the shell's objects, which the filter asks for an attachment's author, then need no
  // second thread and no marshalling.
  const HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (FAILED(hr)) {
    fprintf(stderr, "HoardexHost: COM does not start: %s\n", host::CodeText(hr).c_str());
    return 1;
  }
  const int result = examine ? host::RunExamination({words.begin() + 1, words.end()}) : Run(*options);
  CoUninitialize();
  return result;
}
