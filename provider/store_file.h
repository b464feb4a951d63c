// One store file, open once per process however many sessions use it.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "platform/critical_section.h"
#include "provider/instrument.h"
#include "provider/property.h"
#include "vault/store.h"

namespace provider {

// A name of a named property, with storage of its own.
struct PropertyName {
  vault::Guid set{};
  std::variant<std::uint32_t, std::u16string> id;
  auto operator<=>(const PropertyName&) const = default;
};

class StoreFile {
 public:
  // The open file of this path, opened now if nobody has it, or if it was replaced since. Throws vault::Error.
  static std::shared_ptr<StoreFile> Open(const std::u16string& path);
  explicit StoreFile(std::u16string path);

  const vault::Store& store() const { return *store_; }
  const std::u16string& path() const { return path_; }
  // The store's own entry id: longer than those of its folders, and naming provider and path.
  const std::vector<std::uint8_t>& entry_id() const { return entry_id_; }

  // The node of a folder's or message's entry id, whatever follows its 24 bytes; null means the root folder. Throws
  // MAPI_E_INVALID_ENTRYID, MAPI_E_UNKNOWN_ENTRYID (of another store), MAPI_E_NOT_FOUND (no such node).
  vault::Nid NodeOf(ULONG size, const void* entry_id) const;

  // The property id of a name. A store that is only read cannot learn a new name: with `create` it gets an id that
  // lasts as long as this object and that no message has a value for; without, nothing.
  std::optional<std::uint16_t> IdOfName(const PropertyName& name, bool create);
  std::optional<PropertyName> NameOfId(std::uint16_t id);

 private:
  // What tells a file from the one that takes its place.
  struct Stamp {
    std::uint64_t size = 0, written = 0;
    bool operator==(const Stamp&) const = default;
  };
  static Stamp StampOf(const std::u16string& path);

  std::u16string path_;
  Stamp stamp_;
  std::shared_ptr<const vault::Store> store_;
  std::vector<std::uint8_t> entry_id_;
  CriticalSection names_lock_;
  std::map<PropertyName, std::uint16_t> transient_ids_;
  std::map<std::uint16_t, PropertyName> transient_names_;
  std::uint16_t next_transient_ = 0xFFFE;
  [[no_unique_address]] Counted<Kind::kStoreFile> counted_;
};

// The entry id that a profile hands out for the store at `path`: needs no open file.
std::vector<std::uint8_t> StoreEntryId(const std::u16string& path);

// The 16-byte identifier of this kind of store provider (PR_MDB_PROVIDER).
extern const MAPIUID kStoreProviderUid;

}  // namespace provider
