#include "module/mapi/StoreHeader.h"

#include <cstdint>

#include "platform/mapi_extra.h"

namespace {

constexpr DWORD kMagic = 0x4E444221;   // "!BDN"
constexpr WORD kClientMagic = 0x4D53;  // "SM"
constexpr WORD kUnicodeVersion = 23;   // of the layout whose header has a second checksum
constexpr DWORD kChecked = 8;          // where the part begins that the checksums cover
constexpr DWORD kPartSize = 471, kWholeSize = 516;
constexpr DWORD kPartChecksum = 4, kClient = 8, kVersion = 10, kWholeChecksum = 524;

template <class Number>
Number At(const BYTE* header, DWORD offset) {
  Number number = 0;
  for (DWORD i = 0; i < sizeof(Number); ++i) number |= static_cast<Number>(Number{header[offset + i]} << (8 * i));
  return number;
}

// The cyclic redundancy check of the format ([MS-PST] 5.3): the polynomial of Ethernet, begun with zero and not
// inverted at its end.
std::uint32_t Checksum(const BYTE* bytes, DWORD size) {
  std::uint32_t sum = 0;
  for (DWORD i = 0; i < size; ++i) {
    sum ^= bytes[i];
    for (int bit = 0; bit < 8; ++bit) sum = (sum >> 1) ^ ((sum & 1) ? 0xEDB88320u : 0u);
  }
  return sum;
}

bool IsHeader(const BYTE* header) {
  if (At<DWORD>(header, 0) != kMagic || At<WORD>(header, kClient) != kClientMagic) return false;
  if (At<DWORD>(header, kPartChecksum) != Checksum(header + kChecked, kPartSize)) return false;
  return At<WORD>(header, kVersion) != kUnicodeVersion ||
         At<DWORD>(header, kWholeChecksum) == Checksum(header + kChecked, kWholeSize);
}

// Whether the path means the same file whatever a program's current folder is: MAPI may have another one in mind.
bool IsFull(const std::wstring& path) {
  const auto separates = [](wchar_t c) { return c == L'\\' || c == L'/'; };
  if (path.size() < 3) return false;
  return separates(path[0]) ? separates(path[1]) : path[1] == L':' && separates(path[2]);
}

// What another program's hold on the file, or on a part of it, gives.
bool IsInUse(DWORD error) {
  return error == ERROR_SHARING_VIOLATION || error == ERROR_LOCK_VIOLATION;
}

}  // namespace

HRESULT CheckStoreHeader(const std::wstring& path) {
  if (!IsFull(path)) return MAPI_E_NOT_FOUND;
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return IsInUse(GetLastError()) ? S_OK : MAPI_E_NOT_FOUND;
  BYTE header[kWholeChecksum + sizeof(DWORD)] = {};
  DWORD size = 0;
  const bool read = ReadFile(file, header, sizeof(header), &size, nullptr);
  const DWORD error = read ? ERROR_SUCCESS : GetLastError();
  CloseHandle(file);
  if (!read) return IsInUse(error) ? S_OK : MAPI_E_NOT_FOUND;
  return size == sizeof(header) && IsHeader(header) ? S_OK : MAPI_E_CORRUPT_STORE;
}
