#include <sys/socket.h>

#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

namespace {

struct udp_peer {
    uint32_t address;  // network order, as the port
    uint16_t port;
    netip_handle handle;
    uint32_t generation;  // the peer's slot has another one since: the entry is stale
};

// All peers close together, so that finding one does not walk a table of 4 KiB slots. Guarded by
// g_netip_lock, which netip_close does not take: entries of closed peers stay until somebody meets them.
udp_peer g_udp_peers[NETIP_MAX_CONN];
uint32_t g_udp_peer_count = 0;

bool is_stale(const udp_peer &peer) {
    return !netip_is_current(g_netip_clients[peer.handle], peer.generation);
}

const udp_peer *find_peer(const sockaddr_in &from) {
    for (uint32_t i = 0; i < g_udp_peer_count; ++i) {
        udp_peer &peer = g_udp_peers[i];
        if (peer.address != from.sin_addr.s_addr || peer.port != from.sin_port) continue;
        if (!is_stale(peer)) return &peer;
        peer = g_udp_peers[--g_udp_peer_count];
        return nullptr;  // no address stands in the list twice
    }
    return nullptr;
}

void drop_stale_peers() {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < g_udp_peer_count; ++i)
        if (!is_stale(g_udp_peers[i])) g_udp_peers[kept++] = g_udp_peers[i];
    g_udp_peer_count = kept;
}

const udp_peer *add_peer(const sockaddr_in &from) {
    // Every live entry has a slot, so unless all slots are taken this makes room.
    if (g_udp_peer_count == NETIP_MAX_CONN) drop_stale_peers();
    if (g_udp_peer_count == NETIP_MAX_CONN) return nullptr;
    uint32_t generation = 0;
    const netip_conn *conn = netip_take_slot(NETIP_TYPE_UDP, g_netip_udp, from, &generation);
    if (conn == nullptr) return nullptr;
    udp_peer &peer = g_udp_peers[g_udp_peer_count++];
    peer = {from.sin_addr.s_addr, from.sin_port, netip_index(*conn), generation};
    return &peer;
}

// False when the table is full.
bool find_or_add_peer(const sockaddr_in &from, udp_peer *out, bool *is_new) {
    std::lock_guard guard(g_netip_lock);
    const udp_peer *peer = find_peer(from);
    *is_new = peer == nullptr;
    if (peer == nullptr) peer = add_peer(from);
    if (peer == nullptr) return false;
    *out = *peer;
    return true;
}

// False when the peer was closed meanwhile, perhaps by the callback that was told about it just now.
bool touch_peer(const udp_peer &peer) {
    netip_conn &conn = g_netip_clients[peer.handle];
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, peer.generation)) return false;
    conn.last_active_ms.store(platform_wall_ms(), std::memory_order_relaxed);
    return true;
}

}  // namespace

bool netip_udp_take() {
    uint8_t datagram[NETIP_RX_BUF_SIZE];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    const ssize_t got = recvfrom(g_netip_udp, datagram, sizeof datagram, MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr *>(&from), &from_len);
    if (got < 0) return false;
    if (got == 0) return true;

    udp_peer peer{};
    bool is_new = false;
    if (!find_or_add_peer(from, &peer, &is_new)) return true;
    // Pinned: a peer that is closed meanwhile must not lose its slot to another client before its packet is
    // handled.
    netip_conn &conn = g_netip_clients[peer.handle];
    if (!netip_pin(conn, peer.generation)) return true;
    if (is_new) (void)netip_fire(peer.handle, NETIP_EVENT_CONNECT, nullptr, 0, NETIP_REASON_DATA);
    if (touch_peer(peer))
        (void)netip_fire(peer.handle, NETIP_EVENT_DATA, datagram, static_cast<uint32_t>(got),
                         NETIP_REASON_DATA);
    netip_unpin(conn);
    return true;
}

void netip_udp_recv() {
    (void)netip_udp_take();
}

void netip_udp_forget_peers() {
    std::lock_guard guard(g_netip_lock);
    g_udp_peer_count = 0;
}

}  // namespace zeb
