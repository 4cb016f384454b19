#include "client/client_names.h"

#include <cstring>

#include "client/client_internal.h"

namespace zeb {

namespace {

constexpr uint32_t k_buckets = 1u << 14;  // above CLIENT_MAX, so that chains stay short

std::mutex s_names_lock;
mqtt_client *s_buckets[k_buckets];

mqtt_client **bucket_of(uint32_t hash) {
    // The low bits of the hash are little more than the last character.
    return &s_buckets[(hash * 2654435761u) >> 18];
}

void unlink(mqtt_client *client) {
    if (client->named == 0) return;
    client->named = 0;
    mqtt_client **link = bucket_of(client->cid_hash.load(std::memory_order_relaxed));
    while (*link != client) link = &(*link)->next_named;
    *link = client->next_named;
}

}  // namespace

void client_names_assign(mqtt_client *client, const char (&id)[65], uint32_t hash) {
    std::lock_guard lock(s_names_lock);
    unlink(client);
    {
        std::lock_guard name_lock(client->id_lock);
        memcpy(client->client_id, id, sizeof id);
        client->cid_hash.store(hash, std::memory_order_relaxed);
    }
    mqtt_client **bucket = bucket_of(hash);
    client->next_named = *bucket;
    client->named = 1;
    *bucket = client;
}

void client_names_remove(mqtt_client *client) {
    std::lock_guard lock(s_names_lock);
    unlink(client);
}

client_ref client_names_acquire(const char *id, uint32_t hash) {
    client_ref held;  // let go after the lock
    std::lock_guard lock(s_names_lock);
    for (mqtt_client *client = *bucket_of(hash); client != nullptr; client = client->next_named) {
        // A linked record's name changes under our lock only.
        if (client->cid_hash.load(std::memory_order_relaxed) != hash || strcmp(client->client_id, id) != 0)
            continue;
        if (!client_is_online(client) || !client_try_pin(client)) continue;
        held.adopt(client);
        break;
    }
    return held;
}

void client_names_clear() {
    std::lock_guard lock(s_names_lock);
    memset(s_buckets, 0, sizeof s_buckets);
}

}  // namespace zeb
