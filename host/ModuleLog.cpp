#include "host/ModuleLog.h"

#include <windows.h>

#include <shlobj.h>

#include <cstdio>

namespace host {
namespace {

std::string ReadLog() {
  wchar_t folder[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, 0, folder))) return {};
  const std::wstring path = std::wstring(folder) + L"\\HoardexPH.log";
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return {};
  std::string text(static_cast<size_t>(GetFileSize(file, nullptr)), '\0');
  DWORD read = 0;
  if (!ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &read, nullptr)) read = 0;
  text.resize(read);
  CloseHandle(file);
  return text;
}

// The log's own form of the time, in which text order is that of time.
std::string Now() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  char text[64];
  snprintf(text, sizeof(text), "%04d/%02d/%02d %02d:%02d:%02d:%03d", now.wYear, now.wMonth, now.wDay, now.wHour,
           now.wMinute, now.wSecond, now.wMilliseconds);
  return text;
}

}  // namespace

ModuleLog::ModuleLog() : before_(ReadLog()), begin_(Now()) {}

std::vector<std::string> ModuleLog::Lines() const {
  const std::string now = ReadLog(), mark = "[" + std::to_string(GetCurrentProcessId()) + "][";
  const bool grown = now.starts_with(before_);
  std::vector<std::string> lines;
  for (size_t at = grown ? before_.size() : 0; at < now.size();) {
    const size_t end = std::min(now.find('\n', at), now.size());
    std::string line = now.substr(at, end - at);
    at = end + 1;
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    if (!line.starts_with(mark)) continue;
    const size_t time = line.find("][", mark.size());
    if (grown || (time != std::string::npos && line.compare(time + 2, begin_.size(), begin_) >= 0))
      lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace host
