// Sessions, and the administration of profiles and services.
#pragma once

#include <memory>

#include "provider/object.h"
#include "provider/profile.h"

namespace provider {

Ref<IProfAdmin> MakeProfileAdmin();
Ref<IMsgServiceAdmin> MakeServiceAdmin(std::shared_ptr<Profile> profile);
Ref<IMAPISession> MakeSession(std::shared_ptr<Profile> profile);
Ref<IAddrBook> MakeAddressBook();

}  // namespace provider
