#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

std::atomic<netip_event_cb> g_netip_cb{nullptr};
std::atomic<void *> g_netip_cb_arg{nullptr};

namespace {

constexpr std::size_t k_discard_chunk = 4096;
constexpr int k_discard_chunks = 16;

thread_local int t_callback_depth = 0;

void leave_epoll(netip_conn &conn) {
    conn.output_watched = 0;
    conn.send_blocked.store(0, std::memory_order_relaxed);  // nobody would ever say that it is over
    // Fails for a socket that was taken out already, which is just as well.
    (void)epoll_ctl(g_io_workers[conn.worker].epoll_fd, EPOLL_CTL_DEL, conn.fd, nullptr);
}

// Unread input makes the kernel answer a close with a reset, and that can destroy our last packet (the answer
// to a refused CONNECT, say) before the peer has read it.
void discard_input(int fd) {
    char scrap[k_discard_chunk];
    for (int i = 0; i < k_discard_chunks; ++i)
        if (recv(fd, scrap, sizeof scrap, MSG_DONTWAIT) <= 0) return;
}

void forget_received(netip_conn &conn) {
    conn.rx_len = 0;
    conn.pkt_len = 0;
    conn.pkt_len_known = 0;
}

// Slot lock held. From here on nobody finds the connection, and nobody gets the slot until release_slot.
void mark_closing(netip_conn &conn) {
    conn.closing.store(1, std::memory_order_relaxed);
    conn.in_use.store(0, std::memory_order_release);
    conn.generation.fetch_add(1, std::memory_order_relaxed);
}

// Slot lock held. Ends what mark_closing began; `keep_socket` leaves the descriptor to whoever asked for
// that, but out of epoll, where nobody would ever take its events.
void release_slot(netip_conn &conn, bool keep_socket) {
    if (conn.type == NETIP_TYPE_TCP) {
        netip_send_last_bytes(conn);
        leave_epoll(conn);
    }
    conn.unsent_len = 0;
    if (!keep_socket) {
        if (conn.type == NETIP_TYPE_TCP) {
            (void)shutdown(conn.fd, SHUT_WR);  // fails when the peer is gone already
            discard_input(conn.fd);
            (void)close(conn.fd);  // the descriptor is gone whatever it answers
        }
        conn.fd = -1;
        // A thread that is still reading from rx_buf clears the receive state itself once it is done.
        if (conn.io_busy.load(std::memory_order_relaxed) == 0) forget_received(conn);
        memset(conn.ip, 0, sizeof conn.ip);
        conn.port = 0;
        conn.peer_addr = {};
        conn.peer_addr_len = 0;
    }
    conn.closing.store(0, std::memory_order_release);
}

}  // namespace

bool netip_fire(netip_handle h, netip_event event, const uint8_t *data, uint32_t len, uint32_t reason) {
    const netip_event_cb cb = g_netip_cb.load(std::memory_order_relaxed);
    if (cb == nullptr) return true;
    ++t_callback_depth;
    const int answer = cb(h, event, data, len, reason, 0, g_netip_cb_arg.load(std::memory_order_relaxed));
    --t_callback_depth;
    return (answer & 0xFF) != 0;
}

bool netip_in_callback() {
    return t_callback_depth > 0;
}

namespace {

// Closes the connection that has the handle, if there is one and it is meant: `is_meant` is asked under the
// slot lock. Whether it was closed.
template <typename Predicate>
bool close_handle(netip_handle h, Predicate is_meant) {
    if (h >= NETIP_MAX_CONN) return false;
    netip_conn &conn = g_netip_clients[h];
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return false;
    {
        std::lock_guard guard(conn.lock);
        if (conn.in_use.load(std::memory_order_relaxed) == 0 || !is_meant(conn)) return false;
        mark_closing(conn);
    }
    const bool close_socket = netip_fire(h, NETIP_EVENT_DISCONNECT, nullptr, 0, NETIP_REASON_CLOSED);
    std::lock_guard guard(conn.lock);
    release_slot(conn, !close_socket);
    return true;
}

}  // namespace

void netip_close(netip_handle h) {
    close_handle(h, [](const netip_conn &) { return true; });
}

void netip_close_connection(netip_handle h, uint32_t generation) {
    close_handle(h, [generation](const netip_conn &conn) { return netip_is_current(conn, generation); });
}

void netip_admit(netip_handle h, uint32_t generation) {
    if (h >= NETIP_MAX_CONN) return;
    netip_conn &conn = g_netip_clients[h];
    std::lock_guard guard(conn.lock);
    if (netip_is_current(conn, generation)) conn.admitted.store(1, std::memory_order_relaxed);
}

int netip_close_unadmitted(uint64_t limit_ms) {
    const uint64_t now = platform_mono_ms();
    const uint32_t used = netip_table_used();
    const auto is_overdue = [now, limit_ms](const netip_conn &conn) {
        return conn.admitted.load(std::memory_order_relaxed) == 0 && now >= conn.opened_ms + limit_ms;
    };
    int closed = 0;
    for (netip_handle h = 0; h < used; ++h) {
        // Most slots are told apart without their lock.
        if (g_netip_clients[h].admitted.load(std::memory_order_relaxed) != 0) continue;
        if (close_handle(h, is_overdue)) ++closed;
    }
    return closed;
}

void netip_close_by_peer(netip_conn &conn, uint32_t generation) {
    const bool close_socket =
        netip_fire(netip_index(conn), NETIP_EVENT_DISCONNECT, nullptr, 0, NETIP_REASON_PEER);
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation)) return;  // the callback has closed it
    if (!close_socket) {
        leave_epoll(conn);
        return;
    }
    mark_closing(conn);
    release_slot(conn, false);
}

void netip_close_at_deinit(netip_conn &conn) {
    {
        std::lock_guard guard(conn.lock);
        if (conn.in_use.load(std::memory_order_relaxed) == 0) return;
        mark_closing(conn);
    }
    (void)netip_fire(netip_index(conn), NETIP_EVENT_DISCONNECT, nullptr, 0, NETIP_REASON_CLOSED);
    std::lock_guard guard(conn.lock);
    release_slot(conn, false);
}

void netip_give_back_slot(netip_conn &conn, uint32_t generation) {
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation)) return;
    mark_closing(conn);
    release_slot(conn, false);
}

}  // namespace zeb
