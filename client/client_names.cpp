#include "client/client_names.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>

#include "client/client_internal.h"
#include "log/platform_time.h"

namespace zeb {

namespace {

constexpr int k_bucket_bits = 14;  // more buckets than CLIENT_MAX, so that chains stay short

std::mutex s_names_lock;
mqtt_client *s_buckets[1 << k_bucket_bits];

// Chosen anew by each process: whoever knew it could choose identifiers that all fall into one bucket, as
// anybody can for client_cid_hash, and have every lookup walk thousands of records.
uint64_t s_key = 0;

uint64_t random_key() {
    uint64_t key = 0;
    // Without the kernel's randomness the time has to do: the index works with any key.
    if (getrandom(&key, sizeof key, GRND_NONBLOCK) != sizeof key) key = platform_wall_ms();
    return key | 1;
}

mqtt_client **bucket_of(const char *id) {
    if (s_key == 0) s_key = random_key();
    std::size_t left = strlen(id);
    uint64_t h = left;
    for (uint64_t word = 0; left > 0; word = 0) {
        const std::size_t taken = std::min(left, sizeof word);
        memcpy(&word, id, taken);
        h = (h ^ word) * s_key;  // an odd number
        h ^= h >> 32;
        id += taken;
        left -= taken;
    }
    return &s_buckets[h * s_key >> (64 - k_bucket_bits)];
}

void unlink(mqtt_client *client) {
    if (client->named == 0) return;
    client->named = 0;
    mqtt_client **link = bucket_of(client->client_id);
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
    mqtt_client **bucket = bucket_of(id);
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
    for (mqtt_client *client = *bucket_of(id); client != nullptr; client = client->next_named) {
        // A linked record's name changes under our lock only, and reading it here needs no other.
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
