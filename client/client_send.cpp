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
constexpr uint64_t k_send_rest_us = 9000;
constexpr uint64_t k_send_idle_us = 100000;  // in low-latency mode, when only a ring can bring something
platform_alarm s_send_alarm;                 // rung in low-latency mode only
constexpr uint8_t k_ring_size = CLIENT_SEND_RING_SIZE;
static_assert(k_ring_size <= NETIP_MAX_GATHER, "a whole ring goes out in one call");

uint8_t next_index(uint8_t index) {
    return static_cast<uint8_t>((index + 1) % k_ring_size);
}

bool has_queued(const mqtt_client *client) {
    return client->send_head.load(std::memory_order_relaxed) !=
           client->send_tail.load(std::memory_order_relaxed);
}

// Where the next packet's bytes go: behind the last one's, or to the front once the end is too close. There
// is always room. At most 98 packets of 4096 bytes wait when one comes, and less than one is left unused at
// the end, of room for 100.
uint8_t *place_for(client_send_slot *ring, uint8_t head, uint8_t tail, uint32_t len) {
    uint8_t *const begin = reinterpret_cast<uint8_t *>(ring + k_ring_size);
    if (head == tail) return begin;
    const client_send_slot &last = ring[(tail + k_ring_size - 1) % k_ring_size];
    uint8_t *const next = last.data + last.len;
    const uint8_t *const end = begin + std::size_t{CLIENT_SEND_MAX} * k_ring_size;
    const bool wrapped = last.data < ring[head].data;
    return wrapped || end - next >= static_cast<std::ptrdiff_t>(len) ? next : begin;
}

bool is_low_latency() {
    return g_client_options.low_latency.load(std::memory_order_relaxed) != 0;
}

// With send_lock held. True when packets are left.
bool flush_ring(mqtt_client *client) {
    // Not in CLOSING either: from there on the handle may belong to another connection.
    if (!client_is_online(client) || client->in_use.load(std::memory_order_relaxed) == 0) return false;
    client_send_slot *ring = client->send_ring.load(std::memory_order_relaxed);
    if (ring == nullptr) return false;
    uint8_t head = client->send_head.load(std::memory_order_relaxed);
    const uint8_t tail = client->send_tail.load(std::memory_order_relaxed);
    iovec packets[k_ring_size];
    int count = 0;
    for (uint8_t i = head; i != tail && ring[i].ready != 0; i = next_index(i))
        packets[count++] = {ring[i].data, ring[i].len};
    if (count == 0) return false;
    const int taken = netip_send_packets(client->handle.load(std::memory_order_relaxed), packets, count);
    for (int i = 0; i < taken; ++i) {
        ring[head].ready = 0;
        head = next_index(head);
    }
    client->send_head.store(head, std::memory_order_relaxed);
    return head != tail;
}

// With send_lock held, in low-latency mode, when the ring is full: whether it has room now. A socket that was
// found full is asked again once in a tick of the coarse clock and not for each packet, or a thousand peers
// that do not read would cost each publication a thousand system calls.
bool make_room(mqtt_client *client) {
    const uint64_t now = platform_mono_coarse_ms();
    const netip_handle handle = client->handle.load(std::memory_order_relaxed);
    if (netip_send_blocked(handle) && client->full_ms.load(std::memory_order_relaxed) == now) return false;
    const uint8_t before = client->send_head.load(std::memory_order_relaxed);
    (void)flush_ring(client);
    if (client->send_head.load(std::memory_order_relaxed) != before) return true;
    client->full_ms.store(now, std::memory_order_relaxed);
    return false;
}

enum class queue_result { to_be_marked, behind_others, offline, full, no_memory };

// A packet that finds the ring full is given up; in low-latency mode only when the socket is full as well.
queue_result enqueue(mqtt_client *client, const uint8_t *data, uint32_t len) {
    std::lock_guard lock(client->send_lock);
    if (!client_is_online(client)) return queue_result::offline;  // closed since the caller looked
    client_send_slot *ring = client->send_ring.load(std::memory_order_relaxed);
    if (ring == nullptr) {
        ring = static_cast<client_send_slot *>(platform_zero_alloc(CLIENT_SEND_RING_BYTES));
        if (ring == nullptr) return queue_result::no_memory;
        client->send_ring.store(ring, std::memory_order_relaxed);
    }
    const uint8_t tail = client->send_tail.load(std::memory_order_relaxed);
    const bool full = client->send_head.load(std::memory_order_relaxed) == next_index(tail);
    if (full && !(is_low_latency() && make_room(client))) return queue_result::full;
    const uint8_t head = client->send_head.load(std::memory_order_relaxed);
    client_send_slot &slot = ring[tail];
    slot.data = place_for(ring, head, tail, len);
    memcpy(slot.data, data, len);
    slot.len = len;
    slot.ready = 1;
    client->send_tail.store(next_index(tail), std::memory_order_relaxed);
    // Whoever took the mark may have seen the ring that make_room has emptied.
    return head == tail || full ? queue_result::to_be_marked : queue_result::behind_others;
}

// Whether packets are left that a later pass has to look at.
bool flush_record(mqtt_client *client) {
    if (!client_is_online(client)) return false;
    const netip_handle handle = client->handle.load(std::memory_order_relaxed);
    // A peer that stopped reading costs one look a beat, no system call. In low-latency mode passes are
    // frequent, and the socket itself will say when it takes bytes again.
    if (netip_send_blocked(handle)) return !is_low_latency() && has_queued(client);
    {
        std::lock_guard lock(client->send_lock);
        if (!flush_ring(client)) return false;
    }
    return !(is_low_latency() && netip_send_blocked(handle));
}

void flush_block(client_pool_block &block, int word) {
    if (block.queued[word].load() == 0) return;
    uint64_t bits = block.queued[word].exchange(0);
    for (; bits != 0; bits &= bits - 1) {
        mqtt_client *client = &block.records[word * 64 + __builtin_ctzll(bits)];
        if (!flush_record(client)) continue;
        client_mark_queued(client);
        // What could not be sent, and has no full socket to wait for, is tried again with the next beat.
        if (is_low_latency() && netip_on_io_thread()) s_send_alarm.ring();
    }
}

bool anything_marked() {
    return (g_client_mgr.queued_blocks[0].load(std::memory_order_relaxed) |
            g_client_mgr.queued_blocks[1].load(std::memory_order_relaxed)) != 0;
}

// The I/O threads send themselves what the packets they handle have queued.
void wake_sender() {
    if (is_low_latency() && !netip_on_io_thread()) s_send_alarm.ring();
}

}  // namespace

void client_mark_queued(mqtt_client *client) {
    const int32_t index = client->pool_index;
    if (index < 0 || index >= g_client_mgr.capacity.load(std::memory_order_acquire)) return;
    const int block = index / CLIENT_POOL_SIZE;
    const int i = index % CLIENT_POOL_SIZE;
    // The record's bit before the block's, and a pass looks the other way round, all in one total order: a
    // block's bit that is found set spares its write, for the pass that clears it has not looked inside yet.
    g_client_mgr.blocks[block].queued[i / 64].fetch_or(1ULL << (i % 64));
    std::atomic<uint64_t> &blocks = g_client_mgr.queued_blocks[block / 64];
    const uint64_t mask = 1ULL << (block % 64);
    if ((blocks.load() & mask) == 0) blocks.fetch_or(mask);
}

void client_flush_queued() {
    for (int word = 0; word < 2; ++word) {
        if (g_client_mgr.queued_blocks[word].load(std::memory_order_relaxed) == 0) continue;
        uint64_t bits = g_client_mgr.queued_blocks[word].exchange(0);
        for (; bits != 0; bits &= bits - 1) {
            client_pool_block &block = g_client_mgr.blocks[word * 64 + __builtin_ctzll(bits)];
            flush_block(block, 0);
            flush_block(block, 1);
        }
    }
}

void client_socket_writable(netip_handle handle) {
    if (const client_ref client = client_acquire_by_handle(handle)) client_mark_queued(client.get());
    wake_sender();
}

int client_send(mqtt_client *client, const uint8_t *data, int len) {
    return client_send_series().send(client, data, len);
}

client_send_series::~client_send_series() {
    if (queued_ != 0) mqtt_stats_add_tx_pkts(queued_);
}

int client_send_series::send(mqtt_client *client, const uint8_t *data, int len) {
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
        case queue_result::to_be_marked:
            client_mark_queued(client);
            break;
        case queue_result::behind_others:
            // Where packets wait the record is marked, or whoever has just taken the mark will flush it or
            // mark it again, or its full socket will.
            break;
    }
    wake_sender();
    ++queued_;
    client_update_active(client);  // also when only the broker talks: such a client is not timed out
    return 0;
}

void client_send_flush(mqtt_client *client) {
    if (client == nullptr || client->state.load(std::memory_order_acquire) == CLOSED ||
        client->in_use.load(std::memory_order_relaxed) == 0)
        return;
    std::lock_guard lock(client->send_lock);
    (void)flush_ring(client);
}

void client_enter_closing(mqtt_client *client) {
    std::lock_guard lock(client->send_lock);
    if (client_is_online(client)) client->state.store(CLOSING, std::memory_order_release);
}

void *send_thread_proc(void *) {
    ZEB_LOG(AGENT_LOG_INFO, "[SEND_THREAD] 发送线程启动");
    // Exact, because it is the length of a beat that bounds what a client can be sent: 99 packets in each.
    platform_beat beat(k_send_poll_us, k_send_rest_us);
    while (g_send_running.load(std::memory_order_relaxed)) {
        client_flush_queued();
        // A hundred needless wake-ups a second would show in the latency of every hundredth message.
        if (is_low_latency())
            s_send_alarm.sleep_us(anything_marked() ? k_send_poll_us : k_send_idle_us);
        else
            beat.wait();
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
    s_send_alarm.ring();
    pthread_join(g_send_thread, nullptr);
}

}  // namespace zeb
