#pragma once

#include <cstdint>

#include "sub/sub_mgr.h"

namespace zeb {

// At most one retained message per topic name, in the memory of g_sub_mgr and under its lock. Any thread may
// call anything here. Every change ends in persist_retain_save, which is called with no lock held because it
// comes back for a copy of the store (retain_store_copy); a save that fails changes nothing in memory.

inline constexpr int64_t RETAIN_DEFAULT_EXPIRY_SEC = 604800;

// An empty payload deletes. 0 stored, updated, deleted or nothing to delete; -1 bad topic or payload; -4
// store full.
int retain_msg_set(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos);
// expiry_interval in seconds; 0 leaves that of an existing message as it is.
int retain_msg_set_with_expiry(const char *topic, const uint8_t *payload, uint32_t payload_len, uint32_t qos,
                               uint32_t expiry_interval);
int retain_msg_get(const char *topic, retain_msg *out);  // 0, -5 not found, -1 bad argument
int retain_msg_delete(const char *topic);                // 0, -5 not found, -1 bad argument
void retain_clean_expired();
int retain_fill_topic_list(char *buf, int size);  // topics written, or -1

// For the persistence module.

// Copies the messages in store order into out, which has room for `max`. Returns their number. A writer calls
// it with g_persist_mutex held, so that of two saves the later file is never the older state.
int retain_store_copy(retain_msg *out, int max);
// Replaces the whole store by what was read back. Texts and lengths are cut to their fields, since they come
// from a file. Returns the number taken, at most RETAIN_MAX; nothing is saved.
int retain_store_replace(const retain_msg *messages, int count);

}  // namespace zeb
