// What a file type's command starts in tests: writes its arguments, one a line, to the file that the first one names.
#include <windows.h>

#include <shellapi.h>

#include <string>

int main() {
  int count = 0;
  wchar_t** arguments = CommandLineToArgvW(GetCommandLineW(), &count);
  if (!arguments || count < 2) return 2;
  std::wstring text;
  for (int i = 2; i < count; ++i) text.append(arguments[i]).append(L"\n");
  // Whole, or not there.
  const std::wstring path = arguments[1], part = path + L".part";
  const HANDLE file = CreateFileW(part.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &written, nullptr);
  CloseHandle(file);
  return MoveFileExW(part.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING) ? 0 : 1;
}
