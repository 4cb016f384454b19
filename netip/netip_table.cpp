#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstring>

#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

// Page-aligned so that netip_table_clear can drop its pages. All zero: a slot costs memory once it is used.
alignas(NETIP_PAGE) constinit netip_conn g_netip_clients[NETIP_MAX_CONN] = {};
constinit std::mutex g_netip_lock;
uint32_t g_last_handle = 0;

namespace {

uint32_t g_table_used = 0;  // guarded by g_netip_lock

// Acquire pairs with the release that frees a slot: whoever sees in_use 0 also sees whether it is closing.
bool slot_is_free(const netip_conn &conn) {
    return conn.in_use.load(std::memory_order_acquire) == 0 &&
           conn.closing.load(std::memory_order_acquire) == 0 &&
           conn.io_busy.load(std::memory_order_acquire) == 0;
}

void clear_slot(netip_conn &conn) {
    std::lock_guard guard(conn.lock);
    conn.in_use.store(0, std::memory_order_relaxed);
    conn.closing.store(0, std::memory_order_relaxed);
    conn.io_busy.store(0, std::memory_order_relaxed);
    conn.rx_len = 0;
    conn.pkt_len = 0;
    conn.pkt_len_known = 0;
    conn.unsent_len = 0;
}

bool set_option(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

}  // namespace

// Giving the pages back to the kernel zeroes 45 MB without touching them, so an idle broker stays small.
void netip_table_clear() {
    std::lock_guard guard(g_netip_lock);
    constexpr std::size_t whole_pages = sizeof g_netip_clients / NETIP_PAGE * NETIP_PAGE;
    constexpr std::size_t first_left = whole_pages / sizeof(netip_conn);
    if (madvise(g_netip_clients, whole_pages, MADV_DONTNEED) == 0)
        for (std::size_t i = first_left; i < NETIP_MAX_CONN; ++i) clear_slot(g_netip_clients[i]);
    else  // locked memory, or pages larger than ours
        for (netip_conn &conn : g_netip_clients) clear_slot(conn);
    g_table_used = 0;
}

uint32_t netip_table_used() {
    std::lock_guard guard(g_netip_lock);
    return g_table_used;
}

bool netip_is_current(const netip_conn &conn, uint32_t generation) {
    return conn.in_use.load(std::memory_order_relaxed) != 0 &&
           conn.generation.load(std::memory_order_relaxed) == generation;
}

uint64_t netip_epoll_data(const netip_conn &conn) {
    return static_cast<uint64_t>(conn.generation.load(std::memory_order_relaxed)) << 32 |
           (netip_index(conn) + 1);
}

// Round robin, so that a closed handle is not reused at once.
int netip_get_free_handle() {
    const uint32_t start = g_last_handle;
    for (uint32_t i = start; i < NETIP_MAX_CONN; ++i) {
        if (!slot_is_free(g_netip_clients[i])) continue;
        g_last_handle = i + 1;
        return static_cast<int>(i);
    }
    for (uint32_t i = 0; i < start && i < NETIP_MAX_CONN; ++i) {
        if (!slot_is_free(g_netip_clients[i])) continue;
        g_last_handle = i + 1;
        return static_cast<int>(i);
    }
    return -1;
}

netip_conn *netip_take_slot(netip_conn_type type, int fd, const sockaddr_in &peer, uint32_t *generation) {
    const int handle = netip_get_free_handle();
    if (handle < 0) return nullptr;
    const uint32_t index = static_cast<uint32_t>(handle);
    if (index >= g_table_used) g_table_used = index + 1;

    netip_conn &conn = g_netip_clients[index];
    std::lock_guard guard(conn.lock);
    conn.handle = index;
    conn.type = type;
    conn.fd = fd;
    conn.last_active_ms.store(platform_wall_ms(), std::memory_order_relaxed);
    conn.peer_addr = peer;
    conn.peer_addr_len = sizeof peer;
    if (inet_ntop(AF_INET, &peer.sin_addr, conn.ip, sizeof conn.ip) == nullptr) conn.ip[0] = '\0';
    conn.port = ntohs(peer.sin_port);
    conn.rx_len = 0;
    conn.pkt_len = 0;
    conn.pkt_len_known = 0;
    conn.send_blocked.store(0, std::memory_order_relaxed);
    conn.output_watched = 0;
    conn.worker = static_cast<uint8_t>(index % static_cast<uint32_t>(g_io_thread_num));
    conn.unsent_offset = 0;
    conn.unsent_len = 0;
    conn.opened_ms = platform_mono_ms();
    conn.admitted.store(0, std::memory_order_relaxed);
    *generation = conn.generation.fetch_add(1, std::memory_order_relaxed) + 1;
    conn.in_use.store(1, std::memory_order_relaxed);
    return &conn;
}

int netip_get_client_ip(netip_handle h, char *dst, uint32_t size) {
    if (dst == nullptr || size < INET_ADDRSTRLEN) return 0;
    memset(dst, 0, size);
    if (h >= NETIP_MAX_CONN || g_netip_clients[h].in_use.load(std::memory_order_relaxed) == 0) return 0;
    netip_conn &conn = g_netip_clients[h];
    std::lock_guard guard(conn.lock);
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return 0;
    memcpy(dst, conn.ip, strnlen(conn.ip, std::min<std::size_t>(size - 1, sizeof conn.ip)));
    return 1;
}

int netip_get_client_port(netip_handle h) {
    if (h >= NETIP_MAX_CONN || g_netip_clients[h].in_use.load(std::memory_order_relaxed) == 0) return 0;
    netip_conn &conn = g_netip_clients[h];
    std::lock_guard guard(conn.lock);
    return conn.in_use.load(std::memory_order_relaxed) != 0 ? conn.port : 0;
}

uint64_t netip_get_client_last_active(netip_handle h) {
    if (h >= NETIP_MAX_CONN) return 0;
    std::lock_guard guard(g_netip_lock);
    const netip_conn &conn = g_netip_clients[h];
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return 0;
    return conn.last_active_ms.load(std::memory_order_relaxed);
}

int netip_set_tcp_keepalive(netip_handle h, int idle_s, int interval_s, int count) {
    if (h >= NETIP_MAX_CONN || idle_s < 1 || interval_s < 1 || count < 1) return 0;
    std::lock_guard guard(g_netip_lock);
    netip_conn &conn = g_netip_clients[h];
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return 0;
    std::lock_guard slot_guard(conn.lock);
    if (conn.in_use.load(std::memory_order_relaxed) == 0 || conn.type != NETIP_TYPE_TCP) return 0;
    const bool set = set_option(conn.fd, SOL_SOCKET, SO_KEEPALIVE, 1) &&
                     set_option(conn.fd, IPPROTO_TCP, TCP_KEEPIDLE, idle_s) &&
                     set_option(conn.fd, IPPROTO_TCP, TCP_KEEPINTVL, interval_s) &&
                     set_option(conn.fd, IPPROTO_TCP, TCP_KEEPCNT, count);
    return set ? 1 : 0;
}

}  // namespace zeb
