// The log of the module's code in the test program, moved to a folder of its own: processes that write the same file
// write over each other's lines. Needs a ScratchRegistry that lives longer.
#pragma once

#include <windows.h>

#include <fstream>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "module/core/SCLog.h"
#include "tests/support/scratch_folders.h"

class LogLines {
 public:
  LogLines() {
    Reopen(L"HoardexPH.log");
    New();
  }
  ~LogLines() { Reopen(L"no such folder\\none.log"); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  // What came since the last time, each as "Source:text".
  std::vector<std::string> New() {
    const std::wstring path = folders_.Log();
    std::ifstream file(std::string(path.begin(), path.end()), std::ios::binary);
    file.seekg(read_);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    read_ += static_cast<std::streamoff>(text.size());
    const std::string own = "[" + std::to_string(GetCurrentProcessId()) + "]";
    std::vector<std::string> lines;
    for (size_t begin = 0, end; (end = text.find(" \r\n", begin)) != std::string::npos; begin = end + 3) {
      const std::string line = text.substr(begin, end - begin);
      const size_t source = line.find("] ", own.size()), number = line.find('('), message = line.find("):");
      if (line.rfind(own, 0) != 0 || source == std::string::npos || message == std::string::npos) continue;
      lines.push_back(line.substr(source + 2, number - source - 2) + ":" + line.substr(message + 2));
    }
    return lines;
  }

 private:
  static void Reopen(const wchar_t* name) {
    g_Log.~SCLog();
    new (&g_Log) SCLog(name);
  }

  ScratchFolders folders_;
  std::streamoff read_ = 0;
};
