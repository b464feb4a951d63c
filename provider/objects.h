// The objects of an open store.
#pragma once

#include <memory>

#include "provider/object.h"
#include "provider/store_file.h"

namespace provider {

Ref<IMsgStore> MakeStore(std::shared_ptr<StoreFile> file);
// Throw vault::Error.
Ref<IMAPIFolder> MakeFolder(std::shared_ptr<StoreFile> file, vault::Nid nid);
Ref<IMessage> MakeMessage(std::shared_ptr<StoreFile> file, vault::Message message);

// OpenEntry of store, folder and session: a folder or message by its entry id, the root folder by none. Throws.
void OpenEntry(const std::shared_ptr<StoreFile>& file, ULONG size, LPENTRYID entry_id, LPCIID iid, ULONG flags,
               ULONG* object_type, LPUNKNOWN* object);

// Whether two entry ids name the same thing; what follows the 24 bytes of an item's id does not matter.
bool SameEntry(ULONG size_a, const void* a, ULONG size_b, const void* b);

}  // namespace provider
