#pragma once

#include <cstdint>

#include "client/client_mgr.h"

// The exact index of the live records by identifier, beside the direct-mapped table. Records with one
// identifier stand in the order of their coming, the newest first, so that an older connection is found again
// when a newer one has ended. Kept whether or not it is asked, because the option that asks may be switched
// on by the next start.
//
// One mutex guards the index and every linked record's name; it is taken before a record's id_lock and never
// together with a striped lock.
namespace zeb {

// Gives the record its name and puts it in front of those that have the same one.
void client_names_assign(mqtt_client *client, const char (&id)[65], uint32_t hash);

// Takes the record out; harmless when it is not in.
void client_names_remove(mqtt_client *client);

// The newest online record of that name, pinned.
client_ref client_names_acquire(const char *id, uint32_t hash);

void client_names_clear();  // no thread uses the manager

}  // namespace zeb
