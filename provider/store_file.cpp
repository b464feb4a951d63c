#include "provider/store_file.h"

#include <cstring>
#include <filesystem>

#include "platform/critical_section.h"
#include "provider/object.h"

namespace provider {

const MAPIUID kStoreProviderUid = {
    {0x4E, 0x49, 0x54, 0x41, 0xF9, 0xBF, 0xB8, 0x01, 0x00, 0xAA, 0x00, 0x37, 0xD9, 0x6E, 0x00, 0x00}};

namespace {

// [MS-OXCDATA] 2.2.4.3: the mark of a wrapped store entry id.
constexpr std::uint8_t kWrapMark[] = {0x38, 0xA1, 0xBB, 0x10, 0x05, 0xE5, 0x10, 0x1A,
                                      0xA1, 0xBB, 0x08, 0x00, 0x2B, 0x2A, 0x56, 0xC2};
constexpr std::string_view kDllName = "HoardexMapi.dll";
constexpr std::size_t kItemIdSize = sizeof(vault::EntryId);
constexpr std::uint16_t kFirstNamedId = 0x8000;

// PS_MAPI: its numbers are the ordinary property ids.
constexpr vault::Guid kMapiSet = {0x28, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};

CriticalSection files_lock;
std::map<std::u16string, std::weak_ptr<StoreFile>>& Files() {
  static std::map<std::u16string, std::weak_ptr<StoreFile>> files;
  return files;
}

// Paths that differ in letter case or in "." and ".." are one file.
std::u16string KeyOf(const std::u16string& path) {
  std::wstring full(MAX_PATH, L'\0');
  const std::wstring given = AsWide(path);
  for (;;) {
    const DWORD length = GetFullPathNameW(given.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (!length) return path;
    const bool fits = length < full.size();
    full.resize(length);
    if (fits) break;
  }
  CharLowerBuffW(full.data(), static_cast<DWORD>(full.size()));
  return std::u16string(AsUtf16(full));
}

}  // namespace

std::vector<std::uint8_t> StoreEntryId(const std::u16string& path) {
  std::vector<std::uint8_t> id;
  id.reserve(128 + path.size() * sizeof(char16_t));
  id.resize(4);  // flags
  const auto append = [&id](const void* bytes, std::size_t size) {
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    id.insert(id.end(), from, from + size);
  };
  append(kWrapMark, sizeof kWrapMark);
  id.resize(id.size() + 2);  // version and flag
  append(kDllName.data(), kDllName.size() + 1);
  id.resize((id.size() + 3) & ~std::size_t{3});
  id.resize(id.size() + 4);  // flags of the wrapped id
  append(&kStoreProviderUid, sizeof kStoreProviderUid);
  append(path.c_str(), (path.size() + 1) * sizeof(char16_t));
  return id;
}

namespace {

void Touch(const std::u16string& path) {
  const HANDLE file =
      CreateFileW(AsWide(path).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                  nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return;
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  SetFileTime(file, nullptr, nullptr, &now);
  CloseHandle(file);
}

}  // namespace

std::shared_ptr<StoreFile> StoreFile::Open(const std::u16string& path) {
  const std::u16string key = KeyOf(path);
  const std::scoped_lock lock(files_lock);
  auto& slot = Files()[key];
  if (auto file = slot.lock(); file && file->stamp_ == StampOf(path)) return file;
  auto file = std::make_shared<StoreFile>(path);
  slot = file;
  if (Has(kHoardexMapiTouchesStores)) Touch(path);
  return file;
}

StoreFile::StoreFile(std::u16string path)
    : path_(std::move(path)),
      stamp_(StampOf(path_)),
      store_(vault::Store::Open(std::filesystem::path(AsWide(path_)))),
      entry_id_(StoreEntryId(path_)) {}

StoreFile::Stamp StoreFile::StampOf(const std::u16string& path) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(AsWide(path).c_str(), GetFileExInfoStandard, &data)) return {};
  const auto join = [](DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; };
  return {join(data.nFileSizeHigh, data.nFileSizeLow),
          join(data.ftLastWriteTime.dwHighDateTime, data.ftLastWriteTime.dwLowDateTime)};
}

vault::Nid StoreFile::NodeOf(ULONG size, const void* entry_id) const {
  if (!size || !entry_id) return vault::kRootFolderNid;
  Require(size >= kItemIdSize, MAPI_E_INVALID_ENTRYID);
  const auto* bytes = static_cast<const std::uint8_t*>(entry_id);
  const auto parts = vault::SplitEntryId({bytes, kItemIdSize});
  Require(parts.has_value(), MAPI_E_INVALID_ENTRYID);
  Require(parts->store_uid == store_->uid(), MAPI_E_UNKNOWN_ENTRYID);
  Require(store_->HasNode(parts->nid), MAPI_E_NOT_FOUND);
  return parts->nid;
}

std::optional<std::uint16_t> StoreFile::IdOfName(const PropertyName& name, bool create) {
  const auto* number = std::get_if<std::uint32_t>(&name.id);
  if (name.set == kMapiSet && number && *number < kFirstNamedId) return static_cast<std::uint16_t>(*number);
  const vault::NameMap& names = store_->names();
  const auto known =
      number ? names.FindId(name.set, *number) : names.FindId(name.set, std::get<std::u16string>(name.id));
  if (known) return known;
  const std::scoped_lock lock(names_lock_);
  if (const auto found = transient_ids_.find(name); found != transient_ids_.end()) return found->second;
  if (!create) return {};
  while (next_transient_ >= kFirstNamedId && names.NameOf(next_transient_)) --next_transient_;
  if (next_transient_ < kFirstNamedId) return {};
  const std::uint16_t id = next_transient_--;
  transient_ids_.emplace(name, id);
  transient_names_.emplace(id, name);
  return id;
}

std::optional<PropertyName> StoreFile::NameOfId(std::uint16_t id) {
  if (id < kFirstNamedId) return PropertyName{kMapiSet, std::uint32_t{id}};
  if (const auto known = store_->names().NameOf(id)) {
    PropertyName name{known->set, std::uint32_t{0}};
    if (const auto* number = std::get_if<std::uint32_t>(&known->id)) {
      name.id = *number;
    } else {
      name.id = std::u16string(std::get<std::u16string_view>(known->id));
    }
    return name;
  }
  const std::scoped_lock lock(names_lock_);
  const auto found = transient_names_.find(id);
  return found == transient_names_.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace provider
