// The demonstration store: an office's archive with items of every kind, in several languages. All people, companies
// and addresses are invented.
#pragma once

#include "vault/writer.h"

namespace mkvault {

// Mail, in folders below the top.
void AddMail(vault::StoreBuilder& store);
// Appointments, tasks, contacts, a distribution list, notes and journal entries.
void AddItems(vault::StoreBuilder& store);

}  // namespace mkvault
