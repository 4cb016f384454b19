// The way of a packet out: each client's ring, and the thread that drains them all.
#include <cstring>

#include "client/client_internal.h"
#include "log/agent_log.h"
#include "log/platform_memory.h"
#include "log/platform_thread.h"
#include "log/platform_time.h"
#include "stats/mqtt_stats.h"

namespace zeb {

std::atomic<bool> g_send_running{false};
pthread_t g_send_thread;

namespace {

constexpr uint64_t k_send_poll_us = 10000;
constexpr uint8_t k_ring_size = CLIENT_SEND_RING_SIZE;
static_assert(k_ring_size <= NETIP_MAX_GATHER, "a whole ring goes out in one call");

uint8_t next_index(uint8_t index) {
    return static_cast<uint8_t>((index + 1) % k_ring_size);
}

bool has_queued(const mqtt_client *client) {
    return client->send_head.load(std::memory_order_relaxed) !=
           client->send_tail.load(std::memory_order_relaxed);
}

enum class queue_result { queued, offline, full, no_memory };

queue_result enqueue(mqtt_client *client, const uint8_t *data, uint32_t len) {
    std::lock_guard lock(client->send_lock);
    if (!client_is_online(client)) return queue_result::offline;  // closed since the caller looked
    client_send_slot *ring = client->send_ring.load(std::memory_order_relaxed);
    if (ring == nullptr) {
        ring = static_cast<client_send_slot *>(platform_zero_alloc(sizeof(client_send_slot) * k_ring_size));
        if (ring == nullptr) return queue_result::no_memory;
        client->send_ring.store(ring, std::memory_order_relaxed);
    }
    uint8_t head = client->send_head.load(std::memory_order_relaxed);
    uint8_t tail = client->send_tail.load(std::memory_order_relaxed);
    if (head == next_index(tail)) return queue_result::full;
    if (head == tail && head != 0) {
        // An empty ring starts over, so that a quiet client keeps using the same page and not a hundred.
        head = tail = 0;
        client->send_head.store(0, std::memory_order_relaxed);
    }
    client_send_slot &slot = ring[tail];
    memcpy(slot.data, data, len);
    slot.len = len;
    slot.ready = 1;
    client->send_tail.store(next_index(tail), std::memory_order_relaxed);
    return queue_result::queued;
}

void flush_block(client_pool_block &block, int word) {
    if (block.queued[word].load(std::memory_order_relaxed) == 0) return;
    uint64_t bits = block.queued[word].exchange(0, std::memory_order_acquire);
    for (; bits != 0; bits &= bits - 1) {
        mqtt_client *client = &block.records[word * 64 + __builtin_ctzll(bits)];
        if (!client_is_online(client)) continue;
        // A peer that stopped reading costs one look a beat, no system call.
        if (!netip_send_blocked(client->handle.load(std::memory_order_relaxed))) client_send_flush(client);
        if (has_queued(client)) client_mark_queued(client);
    }
}

}  // namespace

void client_mark_queued(mqtt_client *client) {
    const int32_t index = client->pool_index;
    if (index < 0 || index >= g_client_mgr.capacity.load(std::memory_order_acquire)) return;
    const int i = index % CLIENT_POOL_SIZE;
    std::atomic<uint64_t> &word = g_client_mgr.blocks[index / CLIENT_POOL_SIZE].queued[i / 64];
    word.fetch_or(1ULL << (i % 64), std::memory_order_release);
}

int client_send(mqtt_client *client, const uint8_t *data, int len) {
    if (client == nullptr || data == nullptr || len < 1 || len > CLIENT_SEND_MAX) {
        mqtt_stats_inc_drop_invalid_param();
        return -1;
    }
    if (!client_is_online(client)) {
        mqtt_stats_inc_drop_offline();
        return -1;
    }
    if (static_cast<uint32_t>(len) > client->max_packet_size.load(std::memory_order_relaxed)) {
        mqtt_stats_inc_drop_too_big();
        return -1;
    }
    switch (enqueue(client, data, static_cast<uint32_t>(len))) {
        case queue_result::offline:
            mqtt_stats_inc_drop_offline();
            return -1;
        case queue_result::full:
            mqtt_stats_inc_drop_queue_full();
            return -1;
        case queue_result::no_memory:
            mqtt_stats_inc_drop_invalid_param();
            return -1;
        case queue_result::queued:
            break;
    }
    client_mark_queued(client);
    mqtt_stats_inc_tx_pkt();
    client_update_active(client);  // also when only the broker talks: such a client is not timed out
    return 0;
}

void client_send_flush(mqtt_client *client) {
    if (client == nullptr || client->state.load(std::memory_order_acquire) == CLOSED ||
        client->in_use.load(std::memory_order_relaxed) == 0)
        return;
    std::lock_guard lock(client->send_lock);
    // Not in CLOSING either: from there on the handle may belong to another connection.
    if (!client_is_online(client) || client->in_use.load(std::memory_order_relaxed) == 0) return;
    client_send_slot *ring = client->send_ring.load(std::memory_order_relaxed);
    if (ring == nullptr) return;
    uint8_t head = client->send_head.load(std::memory_order_relaxed);
    const uint8_t tail = client->send_tail.load(std::memory_order_relaxed);
    iovec packets[k_ring_size];
    int count = 0;
    for (uint8_t i = head; i != tail && ring[i].ready != 0; i = next_index(i))
        packets[count++] = {ring[i].data, ring[i].len};
    if (count == 0) return;
    const int taken = netip_send_packets(client->handle.load(std::memory_order_relaxed), packets, count);
    for (int i = 0; i < taken; ++i) {
        ring[head].ready = 0;
        head = next_index(head);
    }
    client->send_head.store(head, std::memory_order_relaxed);
}

void client_enter_closing(mqtt_client *client) {
    std::lock_guard lock(client->send_lock);
    if (client_is_online(client)) client->state.store(CLOSING, std::memory_order_release);
}

void *send_thread_proc(void *) {
    ZEB_LOG(AGENT_LOG_INFO, "[SEND_THREAD] 发送线程启动");
    while (g_send_running.load(std::memory_order_relaxed)) {
        const int blocks = g_client_mgr.block_count.load(std::memory_order_acquire);
        for (int b = 0; b < blocks; ++b) {
            flush_block(g_client_mgr.blocks[b], 0);
            flush_block(g_client_mgr.blocks[b], 1);
        }
        platform_sleep_us(k_send_poll_us);
    }
    ZEB_LOG(AGENT_LOG_INFO, "[SEND_THREAD] 发送线程退出");
    return nullptr;
}

void mqtt_start_send_thread() {
    if (g_send_running.exchange(true, std::memory_order_relaxed)) return;
    const int err = platform_thread_start(&g_send_thread, "zeb-send", send_thread_proc, nullptr);
    if (err == 0) return;
    g_send_running.store(false, std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_ERROR, "[SEND_THREAD] cannot start the send thread: error %d", err);
}

void mqtt_stop_send_thread() {
    if (!g_send_running.exchange(false, std::memory_order_relaxed)) return;
    pthread_join(g_send_thread, nullptr);
}

}  // namespace zeb
