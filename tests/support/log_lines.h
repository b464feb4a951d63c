// The lines that this process writes into the module's log.
#pragma once

#include <windows.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "module/core/SCLog.h"

class LogLines {
 public:
  LogLines() { New(); }

  // What came since the last time, each as "Source:text".
  std::vector<std::string> New() {
    const std::wstring path = g_Log.path();
    std::ifstream file(std::string(path.begin(), path.end()), std::ios::binary);
    file.seekg(read_);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    read_ += static_cast<std::streamoff>(text.size());
    const std::string own = "[" + std::to_string(GetCurrentProcessId()) + "]";  // others write the same file
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
  std::streamoff read_ = 0;
};
