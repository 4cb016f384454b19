#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "sub/sub_route.h"

namespace zeb {

// The table of all subscriptions, and the memory of the retained messages (sub/retain_store.h). Any thread
// may call anything here; g_sub_mgr.lock serialises it all, and no other lock is taken while a function of
// this folder holds it. Without sub_init, or after sub_deinit, there are no entries and none can be added.

inline constexpr int SUB_MAX = 10000;
inline constexpr int RETAIN_MAX = 1000;

struct mqtt_subscription {
    char client_id[65];
    char topic_filter[2049];
    uint32_t qos;
    uint8_t clean_session;
    uint32_t subscription_identifier;  // 0 = none
};

// Written to disk as it lies in memory.
struct retain_msg {
    char topic[257];
    uint8_t payload[2048];
    uint32_t payload_len;
    uint32_t qos;
    int64_t timestamp;         // wall-clock seconds
    uint32_t expiry_interval;  // seconds, 0 = seven days
};

static_assert(sizeof(retain_msg) == 2336);
static_assert(offsetof(retain_msg, payload) == 257 && offsetof(retain_msg, payload_len) == 2308 &&
              offsetof(retain_msg, qos) == 2312 && offsetof(retain_msg, timestamp) == 2320 &&
              offsetof(retain_msg, expiry_interval) == 2328);

struct sub_index;  // sub/sub_index.h

struct sub_manager {
    mqtt_subscription *subs;            // SUB_MAX entries, packed
    std::atomic<int32_t> sub_count;     // written under lock, sampled without it
    retain_msg *retains;                // RETAIN_MAX entries, packed
    std::atomic<int32_t> retain_count;  // written under lock, sampled without it
    std::mutex lock;

    // Private to the module, guarded by lock.
    sub_index *index;                  // null: the table is walked
    uint32_t retain_hash[RETAIN_MAX];  // text_hash of the topics, by position
    int32_t retain_hashed;             // how many of them are known
};

extern sub_manager g_sub_mgr;

int sub_init();  // 0 or -2; a second call frees what the first allocated
// Frees it all; harmless without sub_init, and twice.
void sub_deinit();

// Adds an entry, or gives the entry of this client and filter new values; its identifier stays. Texts are cut
// to their fields. qos: 0..2. Returns 0; -1 for a missing or empty text, a higher QoS or an invalid filter;
// -4 when the table is full or there is none.
int sub_add(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session);
// The same with an identifier, which a repetition overwrites; 0 means none, and then it is sub_add. With an
// identifier an empty client_id is taken, and only an invalid filter is logged.
int sub_add_with_id(const char *client_id, const char *topic_filter, uint32_t qos, uint8_t clean_session,
                    uint32_t subscription_identifier);
// A null filter means all entries of the client. The others keep their order. Returns the number removed, or
// -1 for a missing or empty client_id.
int sub_remove(const char *client_id, const char *topic_filter);

// Copies the first max_matched entries whose filter matches into results, in table order. Returns their
// number; 0 also for bad arguments. A client comes once for each of its filters that match.
int sub_match(const char *topic, mqtt_subscription *results, int max_matched);
// sub_match for routing: the same entries in the same order, without copying whole entries. Returns the
// count, 0 for bad arguments, -1 when there is no memory.
int sub_match_routes(const char *topic, sub_route_list *out, int max_matched);

int sub_get_client_sub_count(const char *client_id);  // -1 for a missing or empty client_id
// Copies the first entry with this identifier. 0, or -1: none, identifier 0 or out null.
int sub_find_by_identifier(uint32_t subscription_identifier, mqtt_subscription *out);

}  // namespace zeb
