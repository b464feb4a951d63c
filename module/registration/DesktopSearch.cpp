#include "module/registration/DesktopSearch.h"

#include <shlwapi.h>

#include <atomic>
#include <string>

#include "module/core/Boundary.h"
#include "module/core/ComScope.h"
#include "module/core/RegistryKey.h"
#include "module/core/Text.h"
#include "module/core/resource.h"
#include "module/registration/HoardexCommon.h"
#include "module/registration/SearchRoot.h"
#include "module/shell/GroupPolicy.h"

namespace {

constexpr wchar_t kLogSource[] = L".\\HoardexPH";
constexpr wchar_t kLocationsKey[] = L"Software\\Microsoft\\Windows Desktop Search\\DS\\Views\\Locations";

struct LocationNumber {
  const wchar_t* name;
  DWORD value;
};
constexpr LocationNumber kNumbersBeforePosition[] = {
    {L"Type", 0}, {L"ItemStore", 0x30000001}, {L"TypeFilter", 0x10000}};
constexpr LocationNumber kNumbersAfterPosition[] = {{L"Indent", 0}, {L"Separator", 0}, {L"Visible", 1}};
constexpr wchar_t kLocationIcon[] = L"MSNLExtRes.dll,-160";

std::wstring LocationKey() {
  return std::wstring(kLocationsKey) + L"\\" + text::Resource(IDS_TESSARY);
}

// Without the flags of either later system, the search is Windows Desktop Search, which shows the locations.
bool OlderGeneration() {
  return !IsVistaOrLater() && !IsServer2008OrLater();
}

// How many locations there are beside the module's own.
LONG CountOtherLocations(DWORD& count) {
  count = 0;
  RegistryKey locations;
  LONG error = locations.Open(HKEY_LOCAL_MACHINE, kLocationsKey);
  const std::wstring own = text::Resource(IDS_TESSARY);
  for (DWORD i = 0; error == ERROR_SUCCESS; ++i) {
    wchar_t name[256];
    DWORD length = 256;
    error = RegEnumKeyExW(locations.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (error == ERROR_SUCCESS && own != name) ++count;
  }
  return error == ERROR_NO_MORE_ITEMS ? ERROR_SUCCESS : error;
}

LONG WriteLocation(const RegistryKey& key, DWORD position) {
  LONG error = ERROR_SUCCESS;
  const auto number = [&](const LocationNumber& row) {
    if (error == ERROR_SUCCESS) error = key.WriteDword(row.name, row.value);
  };
  const auto string = [&](const wchar_t* name, const std::wstring& value) {
    if (error == ERROR_SUCCESS) error = key.WriteString(name, value);
  };
  const std::wstring title = text::Resource(IDS_TESSARY);
  for (const LocationNumber& row : kNumbersBeforePosition) number(row);
  number({L"Position", position});
  for (const LocationNumber& row : kNumbersAfterPosition) number(row);
  string(L"Title", title);
  string(L"Icon", kLocationIcon);
  string(L"Value", L"under:\"" + title + L"\"");
  return error;
}

// Adds the module's location behind those that are there, unless it has one. One that is there but cannot be opened is
// left alone too.
LONG AddLocation(const std::wstring& path) {
  RegistryKey key;
  LONG error = key.Open(HKEY_LOCAL_MACHINE, path.c_str());
  if (error != ERROR_FILE_NOT_FOUND) return error;
  // Whoever makes the key writes it: of processes that are loading the module at the same time, one.
  bool made = false;
  if ((error = key.Create(HKEY_LOCAL_MACHINE, path.c_str(), KEY_ALL_ACCESS, &made)) != ERROR_SUCCESS || !made)
    return error;
  DWORD position = 0;
  error = CountOtherLocations(position);
  if (error == ERROR_SUCCESS) error = WriteLocation(key, position);
  // Half an entry would be taken for a whole one the next time.
  if (error != ERROR_SUCCESS) SHDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
  return error;
}

void UpdateLocation() {
  const std::wstring path = LocationKey();
  const LONG error = AddLocation(path);
  if (error != ERROR_SUCCESS)
    ZK_LOG(L"UpdateWDSRegKeyForHX() - Adding the registry key HKLM\\%s failed, errorCode = %ld", path.c_str(), error);
}

void RemoveLocation() {
  const std::wstring path = LocationKey();
  const LONG error = SHDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
  if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND)
    ZK_LOG(L"DeleteWDSRegKeyForHX() - Removing the registry key HKLM\\%s failed, errorCode = %ld", path.c_str(), error);
}

// The part of the update that touches the registry alone. Returns whether the newer search runs here: false also where
// the system cannot be told.
bool UpdateRegistry() {
  const bool known = DetectOSVersion();
  UpdateTYItemTypeInReg();
  DetectWDSGroupPolicy();
  const bool older = OlderGeneration();
  if (known && older) UpdateLocation();
  return known && !older;
}

}  // namespace

void UpdateRegistryOnAttach() {
  boundary::Guard(kLogSource, __LINE__, L"UpdateWDSRegKeyForHX()", [] {
    UpdateRegistry();
    return S_OK;
  });
}

void AddUserRootOnce() {
  boundary::Guard(kLogSource, __LINE__, L"UpdateWDSRegKeyForHX()", []() -> HRESULT {
    if (!DetectOSVersion() || OlderGeneration()) return S_FALSE;
    // Before the call, which may let other calls of the class in: none waits for it.
    static constinit std::atomic<bool> asked = false;
    if (asked.exchange(true)) return S_FALSE;
    const ComScope com;
    return CreateDeleteRegSearchRootAndDefaultScope(true);
  });
}

void UpdateWDSRegKey() {
  if (UpdateRegistry()) CreateDeleteRegSearchRootAndDefaultScope(true);
}

void DeleteWDSRegKey() {
  const bool known = DetectOSVersion();
  RemoveLocation();
  RemoveTYItemTypeFromReg();
  if (known && !OlderGeneration()) CreateDeleteRegSearchRootAndDefaultScope(false);
}
