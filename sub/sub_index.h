#pragma once

#include <cstdint>

#include "sub/position_set.h"
#include "sub/sub_mgr.h"
#include "sub/sub_route.h"

namespace zeb {

// What finds entries of the subscription table without walking it: by client, by client and filter, and by
// topic. The table stays the truth and keeps its order; the index names entries by their position and is told
// of every change. All of its memory is reserved once, so that only creating it can fail; without an index
// the table is walked. Not locked: g_sub_mgr.lock guards it together with the table.

using sub_positions = position_set<SUB_MAX>;

struct sub_index;

sub_index *sub_index_create(const mqtt_subscription *subs);  // for an empty table; null: no memory
void sub_index_destroy(sub_index *index);

// Whether the index describes this table. It does not after somebody stored into the table directly.
bool sub_index_is_current(const sub_index *index, const mqtt_subscription *subs, int count);
void sub_index_rebuild(sub_index *index, const mqtt_subscription *subs, int count);

// The table has been changed at `pos`: a new last entry, new values in an entry, an entry to be dropped, an
// entry moved to a lower position.
void sub_index_append(sub_index *index, int pos);
void sub_index_update(sub_index *index, int pos);
void sub_index_drop(sub_index *index, int pos);
void sub_index_move(sub_index *index, int from, int to);

// Add the positions of what is looked for. A null filter means all entries of the client.
void sub_index_find_client(const sub_index *index, const char *client_id, const char *topic_filter,
                           sub_positions *out);
void sub_index_find_topic(const sub_index *index, const char *topic, sub_positions *out);

// The entry at `pos` as a route, without its filter.
void sub_index_route(const sub_index *index, int pos, sub_route *out);

}  // namespace zeb
