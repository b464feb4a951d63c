#include "provider/profile.h"

#include <shlwapi.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "platform/critical_section.h"
#include "provider/memory.h"
#include "provider/object.h"
#include "provider/objects.h"
#include "provider/registry.h"

namespace provider {
namespace {

constexpr char16_t kRoot[] = u"Software\\Trelmo\\Hoardex\\Profiles";
constexpr wchar_t kDefault[] = L"DefaultProfile", kService[] = L"Service", kDisplay[] = L"DisplayName",
                  kPath[] = L"Path";
constexpr std::size_t kLongestName = 200;
constexpr std::u16string_view kServiceNames[] = {u"MSUPST MS", u"MSPST MS"};

std::u16string KeyPath(const std::u16string& profile) {
  return std::u16string(kRoot) + u"\\" + profile;
}

std::u16string HexOf(const MAPIUID& uid) {
  constexpr char16_t kDigits[] = u"0123456789ABCDEF";
  std::u16string text;
  for (const BYTE b : uid.ab) {
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
  }
  return text;
}

bool UidOf(const std::u16string& text, MAPIUID& uid) {
  if (text.size() != 2 * sizeof uid.ab) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char16_t c = text[i];
    const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (digit < 0) return false;
    uid.ab[i / 2] = static_cast<BYTE>(uid.ab[i / 2] << 4 | digit);
  }
  return true;
}

// Profile names are compared without regard to case, as the registry does.
std::u16string Lower(const std::u16string& name) {
  std::wstring lower = AsWide(name);
  CharLowerBuffW(lower.data(), static_cast<DWORD>(lower.size()));
  return std::u16string(AsUtf16(lower));
}

void CheckName(const std::u16string& name) {
  const bool usable = !name.empty() && name.size() <= kLongestName && name.find(u'\\') == std::u16string::npos;
  Require(usable, MAPI_E_INVALID_PARAMETER);
}

std::vector<Service> Load(const RegistryKey& profile) {
  std::vector<Service> services;
  for (const std::u16string& child : profile.Children()) {
    Service service;
    const RegistryKey key = RegistryKey::Open(profile.get(), child);
    if (!key || !UidOf(child, service.uid)) continue;
    service.name = key.Text(kService);
    service.display = key.Text(kDisplay);
    service.path = key.Text(kPath);
    services.push_back(std::move(service));
  }
  return services;
}

// Profiles that somebody in this process holds, by lower-case name.
CriticalSection live_lock;
std::map<std::u16string, std::weak_ptr<Profile>>& Live() {
  static std::map<std::u16string, std::weak_ptr<Profile>> live;
  return live;
}

std::shared_ptr<Profile> OpenLocked(const std::u16string& name, bool deleted_too) {
  auto& slot = Live()[Lower(name)];
  const auto live = slot.lock();
  const RegistryKey key = RegistryKey::Open(HKEY_CURRENT_USER, KeyPath(name));
  if (live && (key || deleted_too)) return live;
  if (!key) return nullptr;
  auto profile = std::make_shared<Profile>(name, Load(key));
  slot = profile;
  return profile;
}

}  // namespace

namespace {

std::shared_ptr<StoreFile> StoreFor(const std::u16string& path) {
  if (!Has(kHoardexMapiMakesStores)) return StoreFile::Open(path);
  try {
    return StoreFile::Open(path);
  } catch (const vault::Error&) {
    MakeStore(path);
    return StoreFile::Open(path);
  }
}

}  // namespace

std::vector<Service> Profile::services() const {
  const std::scoped_lock lock(lock_);
  return services_;
}

Service& Profile::Find(const MAPIUID& uid) {
  for (Service& service : services_)
    if (IsEqualMAPIUID(&service.uid, &uid)) return service;
  Fail(MAPI_E_NOT_FOUND);
}

void Profile::Persist(const Service& service) const {
  if (deleted_) return;
  const RegistryKey key = RegistryKey::Create(HKEY_CURRENT_USER, KeyPath(name_) + u"\\" + HexOf(service.uid));
  if (!key) return;  // the user's registry may be read-only: the profile then serves this process alone
  key.SetText(kService, service.name);
  key.SetText(kDisplay, service.display);
  if (!service.path.empty()) key.SetText(kPath, service.path);
}

void Profile::Add(const std::u16string& name, const std::u16string& display) {
  const auto* known = std::find_if(std::begin(kServiceNames), std::end(kServiceNames), [&](std::u16string_view each) {
    return Lower(name) == Lower(std::u16string(each));
  });
  Require(known != std::end(kServiceNames), MAPI_E_NOT_FOUND);
  Service service;
  GUID guid;
  Require(CoCreateGuid(&guid) == S_OK, MAPI_E_CALL_FAILED);
  std::memcpy(service.uid.ab, &guid, sizeof guid);
  service.name = *known;
  service.display = display;
  const std::scoped_lock lock(lock_);
  Persist(service);
  services_.push_back(std::move(service));
}

void Profile::Remove(const MAPIUID& uid) {
  const std::scoped_lock lock(lock_);
  const Service& service = Find(uid);
  if (!deleted_) SHDeleteKeyW(HKEY_CURRENT_USER, AsWide(KeyPath(name_) + u"\\" + HexOf(uid)).c_str());
  services_.erase(services_.begin() + (&service - services_.data()));
}

void Profile::Rename(const MAPIUID& uid, const std::u16string& display) {
  const std::scoped_lock lock(lock_);
  Service& service = Find(uid);
  service.display = display;
  Persist(service);
}

void Profile::Configure(const MAPIUID& uid, const std::u16string& path) {
  {
    const std::scoped_lock lock(lock_);
    Find(uid);
  }
  auto file = StoreFor(path);
  const std::scoped_lock lock(lock_);
  Service& service = Find(uid);
  service.path = path;
  service.file = std::move(file);
  Persist(service);
}

std::shared_ptr<StoreFile> Profile::OpenStore(const void* entry_id, ULONG size) {
  const std::scoped_lock lock(lock_);
  for (Service& service : services_) {
    if (service.path.empty()) continue;
    const auto id = StoreEntryId(service.path);
    if (size < id.size() || std::memcmp(entry_id, id.data(), id.size()) != 0) continue;
    if (!service.file) service.file = StoreFile::Open(service.path);
    return service.file;
  }
  Fail(MAPI_E_UNKNOWN_ENTRYID);
}

std::shared_ptr<StoreFile> Profile::FileOfItem(const void* entry_id, ULONG size) {
  constexpr ULONG kItemId = sizeof(vault::EntryId);
  Require(entry_id && size >= kItemId, MAPI_E_INVALID_ENTRYID);
  const auto parts = vault::SplitEntryId({static_cast<const std::uint8_t*>(entry_id), kItemId});
  Require(parts.has_value(), MAPI_E_INVALID_ENTRYID);
  for (const Service& service : services())
    if (service.file && service.file->store().uid() == parts->store_uid) return service.file;
  Fail(MAPI_E_UNKNOWN_ENTRYID);
}

void Profile::MarkDeleted() {
  const std::scoped_lock lock(lock_);
  deleted_ = true;
}

namespace profiles {

void Create(const std::u16string& name) {
  CheckName(name);
  const std::scoped_lock lock(live_lock);
  const std::u16string slot = Lower(name);  // nothing may throw once the profile is there
  bool existed = false;
  const RegistryKey key = RegistryKey::Create(HKEY_CURRENT_USER, KeyPath(name), &existed);
  Require(key && !existed, MAPI_E_NO_ACCESS);
  Live().erase(slot);
}

void Delete(const std::u16string& name) {
  CheckName(name);
  const std::scoped_lock lock(live_lock);
  const bool existed = static_cast<bool>(RegistryKey::Open(HKEY_CURRENT_USER, KeyPath(name)));
  Require(existed, MAPI_E_NOT_FOUND);
  if (const auto live = Live()[Lower(name)].lock()) live->MarkDeleted();
  Require(SHDeleteKeyW(HKEY_CURRENT_USER, AsWide(KeyPath(name)).c_str()) == ERROR_SUCCESS, MAPI_E_NO_ACCESS);
  std::erase_if(Live(), [](const auto& entry) { return entry.second.expired(); });
}

void SetDefault(const std::u16string& name) {
  CheckName(name);
  const bool exists = static_cast<bool>(RegistryKey::Open(HKEY_CURRENT_USER, KeyPath(name)));
  Require(exists, MAPI_E_NOT_FOUND);
  const RegistryKey root = RegistryKey::Open(HKEY_CURRENT_USER, kRoot, KEY_READ | KEY_WRITE);
  Require(static_cast<bool>(root), MAPI_E_NO_ACCESS);
  root.SetText(kDefault, name);
}

std::u16string Default() {
  const RegistryKey root = RegistryKey::Open(HKEY_CURRENT_USER, kRoot);
  return root ? root.Text(kDefault) : std::u16string();
}

std::vector<std::u16string> Names() {
  const RegistryKey root = RegistryKey::Open(HKEY_CURRENT_USER, kRoot);
  return root ? root.Children() : std::vector<std::u16string>();
}

std::shared_ptr<Profile> Open(const std::u16string& name) {
  CheckName(name);
  const std::scoped_lock lock(live_lock);
  return OpenLocked(name, false);
}

std::shared_ptr<Profile> OpenForAdministration(const std::u16string& name) {
  CheckName(name);
  const std::scoped_lock lock(live_lock);
  return OpenLocked(name, true);
}

}  // namespace profiles
}  // namespace provider
