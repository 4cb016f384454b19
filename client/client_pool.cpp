// The pool of client records: blocks of 100, and who may use a record for how long.
//
// A record's memory stays mapped while the manager is up, so a stale pointer may always be looked at; `life`
// decides whether it may be used. Lookups pin a record before they verify it, and a record returns to the
// pool only when its release was asked for and the last pin is gone. Whoever makes both true recycles it,
// once.
#include <cstdlib>
#include <cstring>
#include <new>

#include "client/client_internal.h"
#include "client/client_names.h"
#include "log/platform_memory.h"
#include "qos/qos_reliable.h"

namespace zeb {

namespace {

constexpr std::size_t k_block_bytes = sizeof(mqtt_client) * CLIENT_POOL_SIZE;

std::mutex s_pool_lock;                      // used maps, used counters, client_count, born marks
std::atomic<uint64_t> s_next_generation{1};  // never reset: a generation names one connection of the process

bool is_pool_record(const mqtt_client *client) {
    const int32_t index = client->pool_index;
    if (index < 0 || index >= g_client_mgr.capacity.load(std::memory_order_acquire)) return false;
    return &g_client_mgr.blocks[index / CLIENT_POOL_SIZE].records[index % CLIENT_POOL_SIZE] == client;
}

void free_ring(mqtt_client *client) {
    std::lock_guard lock(client->send_lock);
    client_send_slot *ring = client->send_ring.exchange(nullptr, std::memory_order_relaxed);
    platform_zero_free(ring, CLIENT_SEND_RING_BYTES);
    client->send_head.store(0, std::memory_order_relaxed);
    client->send_tail.store(0, std::memory_order_relaxed);
}

void free_will(mqtt_client *client) {
    std::lock_guard lock(client->will_lock);
    free(client->will_topic);
    free(client->will_payload);
    client->will_topic = nullptr;
    client->will_payload = nullptr;
    client->will_msg_used.store(0, std::memory_order_relaxed);
    client->will_done.store(0, std::memory_order_relaxed);
    client->will_delay_sec.store(0, std::memory_order_relaxed);
    client->will_delay_deadline.store(0, std::memory_order_relaxed);
    client->will_delay_pending.store(0, std::memory_order_relaxed);
}

// The record's connection is over and nobody holds it any more.
void recycle(mqtt_client *client) {
    qos_reliable_clean_client_packets(client);
    client_names_remove(client);  // a CONNECT that met the close may have named it again
    free_ring(client);
    free_will(client);
    {
        std::lock_guard lock(client->id_lock);
        client->client_id[0] = '\0';
        client->ip[0] = '\0';
        client->cid_hash.store(0, std::memory_order_relaxed);
    }
    client->in_use.store(0, std::memory_order_relaxed);
    client->timed_out.store(0, std::memory_order_relaxed);
    client->session_expiry_interval.store(0, std::memory_order_relaxed);
    client->session_expiry_deadline.store(0, std::memory_order_relaxed);
    client->generation.store(0, std::memory_order_relaxed);
    client->closing.store(0, std::memory_order_relaxed);
    client->handle.store(NETIP_HANDLE_NONE, std::memory_order_relaxed);
    client->state.store(CLOSED, std::memory_order_relaxed);

    client_pool_block &block = g_client_mgr.blocks[client->pool_index / CLIENT_POOL_SIZE];
    std::lock_guard lock(s_pool_lock);
    block.used_map[client->pool_index % CLIENT_POOL_SIZE].store(0, std::memory_order_relaxed);
    block.used.fetch_sub(1, std::memory_order_relaxed);
    g_client_mgr.client_count.fetch_sub(1, std::memory_order_relaxed);
}

void recycle_if_last(mqtt_client *client) {
    uint32_t expected = k_life_dead;
    if (client->life.compare_exchange_strong(expected, 0, std::memory_order_acq_rel)) recycle(client);
}

// First use of a record: its page is touched only now, so that a pool with room for thousands costs nothing.
void bear(client_pool_block &block, int block_index, int i) {
    mqtt_client *client = &block.records[i];
    new (&client->send_lock) std::mutex;
    new (&client->will_lock) std::mutex;
    new (&client->session_lock) std::mutex;
    new (&client->id_lock) std::mutex;
    client->pool_index = block_index * CLIENT_POOL_SIZE + i;
    block.born[i] = 1;
}

}  // namespace

bool client_pool_add_block() {
    std::lock_guard lock(s_pool_lock);
    const int index = g_client_mgr.block_count.load(std::memory_order_relaxed);
    if (g_client_mgr.blocks == nullptr || index >= CLIENT_MAX / CLIENT_POOL_SIZE) return false;
    auto *records = static_cast<mqtt_client *>(platform_zero_alloc(k_block_bytes));
    if (records == nullptr) return false;
    client_pool_block *block = new (&g_client_mgr.blocks[index]) client_pool_block{};
    block->records = records;
    block->capacity = CLIENT_POOL_SIZE;
    // Released last: whoever sees the new count sees the block.
    g_client_mgr.capacity.fetch_add(CLIENT_POOL_SIZE, std::memory_order_release);
    g_client_mgr.block_count.fetch_add(1, std::memory_order_release);
    return true;
}

void client_pool_free_blocks() {
    const int count = g_client_mgr.block_count.exchange(0, std::memory_order_acq_rel);
    g_client_mgr.capacity.store(0, std::memory_order_relaxed);
    g_client_mgr.client_count.store(0, std::memory_order_relaxed);
    for (int b = 0; b < count; ++b) {
        client_pool_block &block = g_client_mgr.blocks[b];
        for (int i = 0; i < CLIENT_POOL_SIZE; ++i) {
            if (block.born[i] == 0) continue;
            free_ring(&block.records[i]);
            free_will(&block.records[i]);
        }
        platform_zero_free(block.records, k_block_bytes);
    }
    free(g_client_mgr.blocks);
    g_client_mgr.blocks = nullptr;
}

mqtt_client *client_pool_take() {
    std::lock_guard lock(s_pool_lock);
    const int blocks = g_client_mgr.block_count.load(std::memory_order_relaxed);
    for (int b = 0; b < blocks; ++b) {
        client_pool_block &block = g_client_mgr.blocks[b];
        if (block.used.load(std::memory_order_relaxed) >= block.capacity) continue;
        for (int i = 0; i < CLIENT_POOL_SIZE; ++i) {
            if (block.used_map[i].load(std::memory_order_relaxed) != 0) continue;
            if (block.born[i] == 0) bear(block, b, i);
            mqtt_client *client = &block.records[i];
            client->state.store(CLOSED, std::memory_order_relaxed);  // until client_create has filled it
            client->generation.store(s_next_generation.fetch_add(1, std::memory_order_relaxed),
                                     std::memory_order_relaxed);
            client->life.store(k_life_alive, std::memory_order_release);
            block.used_map[i].store(1, std::memory_order_release);
            block.used.fetch_add(1, std::memory_order_relaxed);
            g_client_mgr.client_count.fetch_add(1, std::memory_order_relaxed);
            return client;
        }
    }
    return nullptr;
}

mqtt_client *client_pool_used_record(int block, int i) {
    client_pool_block &owner = g_client_mgr.blocks[block];
    return owner.used_map[i].load(std::memory_order_acquire) != 0 ? &owner.records[i] : nullptr;
}

void client_pool_release(mqtt_client *client) {
    if (client == nullptr || !is_pool_record(client) || !client_try_pin(client)) return;
    // Pinned, so it cannot become another connection's while it is marked.
    client->state.store(CLOSED, std::memory_order_relaxed);
    uint32_t life = client->life.load(std::memory_order_relaxed);
    while ((life & k_life_alive) != 0 &&
           !client->life.compare_exchange_weak(life, (life & ~k_life_alive) | k_life_dead,
                                               std::memory_order_acq_rel)) {
    }
    client_ref last;
    last.adopt(client);
}

bool client_try_pin(mqtt_client *client) {
    uint32_t life = client->life.load(std::memory_order_relaxed);
    do {
        if ((life & k_life_alive) == 0) return false;
    } while (!client->life.compare_exchange_weak(life, life + 1, std::memory_order_acq_rel));
    return true;
}

client_ref client_acquire_generation(mqtt_client *client, uint64_t generation) {
    client_ref held;
    if (!client_try_pin(client)) return held;
    held.adopt(client);
    if (client->generation.load(std::memory_order_relaxed) != generation) held.reset();
    return held;
}

client_ref::client_ref(mqtt_client *client) : client_(client) {
    if (client != nullptr) client->life.fetch_add(1, std::memory_order_acq_rel);
}

void client_ref::reset() {
    mqtt_client *client = client_;
    client_ = nullptr;
    if (client == nullptr) return;
    if (client->life.fetch_sub(1, std::memory_order_acq_rel) - 1 == k_life_dead) recycle_if_last(client);
}

}  // namespace zeb
