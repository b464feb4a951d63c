// Runs a program and waits for it.
#pragma once

#include <windows.h>

#include <string>

struct ChildResult {
  bool ended = false;  // by itself, in time
  DWORD code = 0;
  std::string output;
};

inline ChildResult RunChild(std::wstring command_line, DWORD milliseconds) {
  SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
  wchar_t folder[MAX_PATH], file[MAX_PATH];
  GetTempPathW(MAX_PATH, folder);
  GetTempFileNameW(folder, L"hxc", 0, file);
  const HANDLE output = CreateFileW(file, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                    CREATE_ALWAYS, FILE_FLAG_DELETE_ON_CLOSE, nullptr);
  STARTUPINFOW start = {};
  start.cb = sizeof(start);
  start.dwFlags = STARTF_USESTDHANDLES;
  start.hStdOutput = start.hStdError = output;
  PROCESS_INFORMATION process = {};
  ChildResult result;
  if (CreateProcessW(nullptr, command_line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process)) {
    result.ended = WaitForSingleObject(process.hProcess, milliseconds) == WAIT_OBJECT_0;
    if (!result.ended) TerminateProcess(process.hProcess, 99);
    GetExitCodeProcess(process.hProcess, &result.code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  }
  SetFilePointer(output, 0, nullptr, FILE_BEGIN);
  char text[4096];
  for (DWORD read; ReadFile(output, text, sizeof(text), &read, nullptr) && read;) result.output.append(text, read);
  CloseHandle(output);
  std::erase(result.output, '\r');
  return result;
}
