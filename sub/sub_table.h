#pragma once

#include <cstdint>

#include "sub/sub_index.h"
#include "sub/sub_mgr.h"

namespace zeb {

// The subscription table under the operations of sub/sub_mgr.h: keeps array, count and index in step.
// Everything here runs with g_sub_mgr.lock held, takes no lock, and logs nothing about the outcome except
// failed allocations.

enum class sub_store_result { added, updated, full, no_table };

int sub_table_allocate();  // 0 or -2; the retained array as well
void sub_table_release();

int sub_table_count();

// Adds the pair or overwrites its values. A null identifier is stored as 0 and leaves that of an existing
// entry.
sub_store_result sub_table_store(const char *client_id, const char *topic_filter, uint32_t qos,
                                 uint8_t clean_session, const uint32_t *identifier);

// Removes the entries at these positions and closes the gaps; the order of the rest stays. Returns their
// number.
int sub_table_remove(const sub_positions &gone);

// A null filter means all entries of the client.
void sub_table_find_client(const char *client_id, const char *topic_filter, sub_positions *out);

// May find more than max_matched; the caller takes the first ones.
void sub_table_find_topic(const char *topic, int max_matched, sub_positions *out);

// Fills the list with the first max_matched entries found. Returns their number, or -1 without memory.
int sub_table_routes(const sub_positions &found, int max_matched, sub_route_list *out);

}  // namespace zeb
