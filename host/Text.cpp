#include "host/Text.h"

#include <filterr.h>

#include <cstdio>

#include "platform/mapi_extra.h"

namespace host {
namespace {

struct CodeEntry {
  HRESULT code;
  const char* name;
};
#define CODE(name) \
  { static_cast<HRESULT>(name), #name }
constexpr CodeEntry kCodes[] = {
    CODE(E_FAIL),
    CODE(E_OUTOFMEMORY),
    CODE(E_INVALIDARG),
    CODE(E_POINTER),
    CODE(E_NOTIMPL),
    CODE(E_NOINTERFACE),
    CODE(E_ACCESSDENIED),
    CODE(E_UNEXPECTED),
    CODE(E_ABORT),
    CODE(REGDB_E_CLASSNOTREG),
    CODE(CO_E_CLASSSTRING),
    CODE(FILTER_E_END_OF_CHUNKS),
    CODE(FILTER_E_NO_MORE_TEXT),
    CODE(FILTER_E_NO_MORE_VALUES),
    CODE(FILTER_E_ACCESS),
    CODE(FILTER_E_NO_TEXT),
    CODE(FILTER_E_NO_VALUES),
    CODE(FILTER_E_EMBEDDING_UNAVAILABLE),
    CODE(FILTER_E_LINK_UNAVAILABLE),
    CODE(FILTER_E_PASSWORD),
    CODE(FILTER_E_UNKNOWNFORMAT),
    CODE(MAPI_E_NO_SUPPORT),
    CODE(MAPI_E_BAD_CHARWIDTH),
    CODE(MAPI_E_UNKNOWN_FLAGS),
    CODE(MAPI_E_INVALID_ENTRYID),
    CODE(MAPI_E_INVALID_OBJECT),
    CODE(MAPI_E_OBJECT_DELETED),
    CODE(MAPI_E_BUSY),
    CODE(MAPI_E_NOT_FOUND),
    CODE(MAPI_E_VERSION),
    CODE(MAPI_E_LOGON_FAILED),
    CODE(MAPI_E_NETWORK_ERROR),
    CODE(MAPI_E_DISK_ERROR),
    CODE(MAPI_E_TOO_COMPLEX),
    CODE(MAPI_E_BAD_COLUMN),
    CODE(MAPI_E_EXTENDED_ERROR),
    CODE(MAPI_E_CORRUPT_DATA),
    CODE(MAPI_E_UNCONFIGURED),
    CODE(MAPI_E_UNKNOWN_ENTRYID),
    CODE(MAPI_E_TABLE_TOO_BIG),
    CODE(MAPI_E_CORRUPT_STORE),
    CODE(MAPI_E_NOT_INITIALIZED),
    CODE(MAPI_E_NO_RECIPIENTS),
    CODE(STG_E_FILENOTFOUND),
    CODE(STG_E_PATHNOTFOUND),
    CODE(STG_E_ACCESSDENIED),
    CODE(STG_E_MEDIUMFULL),
    {static_cast<HRESULT>(0x80040E21), "DB_E_ERRORSOCCURRED"},
    {static_cast<HRESULT>(0x80042103), "MSS_E_CATALOGNOTFOUND"},
    {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), "ERROR_FILE_NOT_FOUND"},
    {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), "ERROR_PATH_NOT_FOUND"},
    {HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE), "ERROR_FILENAME_EXCED_RANGE"},
    {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), "ERROR_HANDLE_EOF"},
    {HRESULT_FROM_WIN32(ERROR_DISK_FULL), "ERROR_DISK_FULL"},
    {HRESULT_FROM_WIN32(ERROR_DLL_INIT_FAILED), "ERROR_DLL_INIT_FAILED"},
};
#undef CODE

}  // namespace

std::string ToUtf8(std::wstring_view wide) {
  if (wide.empty()) return {};
  const int count = static_cast<int>(wide.size());
  const int length = WideCharToMultiByte(CP_UTF8, 0, wide.data(), count, nullptr, 0, nullptr, nullptr);
  std::string narrow(static_cast<size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), count, narrow.data(), length, nullptr, nullptr);
  return narrow;
}

std::wstring FromUtf8(std::string_view narrow) {
  if (narrow.empty()) return {};
  const int count = static_cast<int>(narrow.size());
  const int length = MultiByteToWideChar(CP_UTF8, 0, narrow.data(), count, nullptr, 0);
  std::wstring wide(static_cast<size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, narrow.data(), count, wide.data(), length);
  return wide;
}

std::string ToIso8601(const FILETIME& time) {
  SYSTEMTIME t;
  if (!FileTimeToSystemTime(&time, &t)) return {};
  const ULONGLONG ticks = (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  char text[40];
  snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%07uZ", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
           t.wSecond, static_cast<unsigned>(ticks % 10'000'000));
  return text;
}

std::string CodeName(HRESULT code) {
  for (const CodeEntry& entry : kCodes)
    if (entry.code == code) return entry.name;
  return {};
}

std::string CodeText(HRESULT code) {
  char text[16];
  snprintf(text, sizeof(text), "0x%08lX", static_cast<unsigned long>(code));
  return text;
}

}  // namespace host
