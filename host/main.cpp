// HoardexHost.exe: the protocol host. Reads requests, one JSON object a line, and answers each with one line.
#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "host/Session.h"
#include "host/Text.h"

namespace {

constexpr char kUsage[] =
    "HoardexHost reads items of the user's vaults through the search protocol handler.\n"
    "\n"
    "  HoardexHost serve [--chunks]     answer requests from standard input, one JSON object a line:\n"
    "                                   {\"roots\":true} or {\"url\":\"...\"}\n"
    "  HoardexHost item URL [--chunks]  print the record of one item\n"
    "  HoardexHost roots                print the search roots\n";

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

host::Json Answer(host::Session& session, const std::string& line, bool with_chunks) {
  const host::Json request = host::Json::parse(line, nullptr, false);
  if (request.is_object() && request.value("roots", host::Json()) == true)
    return {{"roots", host::Json::array({session.RootUrl()})}};
  const host::Json url = request.is_object() ? request.value("url", host::Json()) : host::Json();
  if (!url.is_string()) return {{"error", host::ErrorOf("Request", E_INVALIDARG)}};
  return session.Read(url.get<std::string>(), with_chunks);
}

int Serve(host::Session& session, bool with_chunks) {
  LineReader lines;
  while (const auto line = lines.Next()) {
    if (line->find_first_not_of(" \t\r") == std::string::npos) continue;
    if (!WriteLine(Answer(session, *line, with_chunks))) break;
  }
  return 0;
}

std::vector<std::string> Arguments() {
  int count = 0;
  LPWSTR* wide = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = 1; wide && i < count; ++i) arguments.push_back(host::ToUtf8(wide[i]));
  LocalFree(wide);
  return arguments;
}

}  // namespace

int main() {
  std::vector<std::string> arguments = Arguments();
  const bool with_chunks = std::erase(arguments, "--chunks") > 0;
  const std::string command = arguments.empty() ? "" : arguments[0];
  const size_t expected = command == "item" ? 2 : 1;
  if ((command != "serve" && command != "item" && command != "roots") || arguments.size() != expected) {
    fputs(kUsage, stderr);
    return 2;
  }
  // One thread, so one apartment: the shell's objects, which the filter asks for an attachment's author, then need no
  // second thread and no marshalling.
  HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  int result = 1;
  if (SUCCEEDED(hr)) {
    host::Session session;
    hr = session.Open();
    if (SUCCEEDED(hr)) {
      if (command == "serve") {
        result = Serve(session, with_chunks);
      } else if (command == "roots") {
        result = WriteLine({{"roots", host::Json::array({session.RootUrl()})}}) ? 0 : 1;
      } else {
        const host::Json record = session.Read(arguments[1], with_chunks);
        result = WriteLine(record) && !record.contains("error") ? 0 : 1;
      }
    }
  }
  if (FAILED(hr))
    fprintf(stderr, "HoardexHost: cannot make the protocol handler: %s %s\n", host::CodeText(hr).c_str(),
            host::CodeName(hr).c_str());
  CoUninitialize();
  return result;
}
