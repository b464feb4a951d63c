// Profiles: named sets of message services. They belong to the user and are seen by all of the user's processes.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/critical_section.h"
#include "provider/mapi.h"
#include "provider/store_file.h"

namespace provider {

// One message service of a profile: a store file, once it is configured.
struct Service {
  MAPIUID uid{};
  std::u16string name;  // "MSUPST MS" or "MSPST MS"
  std::u16string display;
  std::u16string path;              // empty: not configured
  std::shared_ptr<StoreFile> file;  // open, when this process configured or used it
};

// A profile as this process uses it. A profile that is deleted while a session is logged on to it lives on, for that
// session alone, until the last user of this object lets go. Any thread.
class Profile {
 public:
  Profile(std::u16string name, std::vector<Service> services)
      : name_(std::move(name)), services_(std::move(services)) {}

  const std::u16string& name() const { return name_; }
  std::vector<Service> services() const;

  // Throws MAPI_E_NOT_FOUND for a service that does not exist here.
  void Add(const std::u16string& service, const std::u16string& display);
  // Throw MAPI_E_NOT_FOUND for an unknown `uid`.
  void Remove(const MAPIUID& uid);
  void Rename(const MAPIUID& uid, const std::u16string& display);
  // Opens the file, so that what is wrong with it is known now. Throws vault::Error.
  void Configure(const MAPIUID& uid, const std::u16string& path);
  // The open file of the store with this entry id. Throws MAPI_E_UNKNOWN_ENTRYID, vault::Error.
  std::shared_ptr<StoreFile> OpenStore(const void* entry_id, ULONG size);
  // The file that an item's entry id belongs to. Throws MAPI_E_UNKNOWN_ENTRYID.
  std::shared_ptr<StoreFile> FileOfItem(const void* entry_id, ULONG size);

  void MarkDeleted();

 private:
  Service& Find(const MAPIUID& uid);
  void Persist(const Service& service) const;

  const std::u16string name_;
  mutable CriticalSection lock_;
  std::vector<Service> services_;
  bool deleted_ = false;
  [[no_unique_address]] Counted<Kind::kProfile> counted_;
};

// The user's profiles. Any thread.
namespace profiles {

// Throws MAPI_E_NO_ACCESS when there is one of that name.
void Create(const std::u16string& name);
// Throws MAPI_E_NOT_FOUND.
void Delete(const std::u16string& name);
void SetDefault(const std::u16string& name);
std::u16string Default();  // empty when there is none
std::vector<std::u16string> Names();
// To log on: null when the user has no such profile (any more).
std::shared_ptr<Profile> Open(const std::u16string& name);
// To administer: also a deleted one that a session of this process is still logged on to.
std::shared_ptr<Profile> OpenForAdministration(const std::u16string& name);

}  // namespace profiles
}  // namespace provider
