#include <cerrno>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

bool netip_pin(netip_conn &conn, uint32_t generation) {
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation)) return false;
    conn.io_busy.store(1, std::memory_order_relaxed);
    return true;
}

void netip_unpin(netip_conn &conn) {
    std::lock_guard guard(conn.lock);
    if (conn.in_use.load(std::memory_order_relaxed) == 0) {
        conn.rx_len = 0;
        conn.pkt_len = 0;
        conn.pkt_len_known = 0;
    }
    conn.io_busy.store(0, std::memory_order_release);
}

namespace {

constexpr int k_wait_ms = 100;
constexpr uint64_t k_idle_pause_us = 100;
constexpr uint64_t k_failure_pause_us = 10000;

constexpr uint32_t k_fair_batch = 64;  // packets after which nobody's answers wait for the rest of a round
constexpr int k_datagrams = 16;        // a flood of datagrams leaves the streams their turn

thread_local bool t_io_thread = false;

// What one wait has brought.
struct round {
    uint32_t packets = 0;  // handled since the last batch ended
    bool datagrams = false;
};

void handle_event(const epoll_event &event, round *now) {
    if (event.data.u64 == NETIP_EPOLL_DATAGRAM) {
        now->datagrams = true;
        return;
    }
    if (event.data.u64 == NETIP_EPOLL_LISTEN || event.data.u64 == NETIP_EPOLL_WAKE) return;
    netip_conn &conn = g_netip_clients[static_cast<uint32_t>(event.data.u64) - 1];
    const uint32_t generation = static_cast<uint32_t>(event.data.u64 >> 32);
    if (!netip_pin(conn, generation)) return;
    bool ended = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    if (!ended && (event.events & EPOLLOUT) != 0 && netip_output_ready(conn, generation) &&
        g_netip_hooks != nullptr)
        g_netip_hooks->writable(netip_index(conn));
    if (!ended && (event.events & EPOLLIN) != 0)
        ended = netip_read_connection(conn, generation, &now->packets);
    if (ended) netip_close_by_peer(conn, generation);
    netip_unpin(conn);
}

// The number of events; 0 after a timeout or a failure, the pause having been made.
int wait_for_events(const io_worker &worker) {
    const int count = epoll_wait(worker.epoll_fd, worker.events, NETIP_MAX_EVENTS, k_wait_ms);
    if (count > 0) return count;
    if (count == 0) {
        if (g_netip_hooks == nullptr) platform_sleep_us(k_idle_pause_us);
    } else if (errno != EINTR) {
        ZEB_LOG(AGENT_LOG_ERROR, "[IO] epoll_wait 错误, errno=%d", errno);
        platform_sleep_us(k_failure_pause_us);
    }
    return 0;
}

// As they come, when they wake us; otherwise one after each round of other events.
void take_datagrams(const round &now) {
    if (!g_netip_udp_watched) {
        netip_udp_recv();
        return;
    }
    for (int i = 0; now.datagrams && i < k_datagrams && netip_udp_take(); ++i) {
    }
}

void handle_round(const io_worker &worker, int count) {
    round now;
    // Checked for each event: a batch of busy connections can take long, and netip_deinit waits for us.
    for (int i = 0; i < count && g_netip_running.load(std::memory_order_relaxed) != 0; ++i) {
        handle_event(worker.events[i], &now);
        if (g_netip_hooks != nullptr && now.packets >= k_fair_batch) {
            g_netip_hooks->batch_end();
            now.packets = 0;
        }
    }
    if (worker.index == 0 && g_netip_udp >= 0) take_datagrams(now);
    if (g_netip_hooks != nullptr) g_netip_hooks->batch_end();
}

}  // namespace

bool netip_on_io_thread() {
    return t_io_thread;
}

void *netip_io_thread(void *arg) {
    t_io_thread = true;
    const io_worker &worker = arg != nullptr ? *static_cast<io_worker *>(arg) : g_io_workers[0];
    while (g_netip_running.load(std::memory_order_relaxed) != 0) {
        const int count = wait_for_events(worker);
        if (count == 0) continue;
        handle_round(worker, count);
    }
    return nullptr;
}

}  // namespace zeb
