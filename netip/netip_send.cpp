#include <sys/mman.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "netip/netip_internal.h"

namespace zeb {

namespace {

static_assert(NETIP_RX_BUF_SIZE <= UINT16_MAX, "unsent_offset and unsent_len are 16 bits wide");
constexpr int k_max_packet = NETIP_RX_BUF_SIZE;

// Kept apart from the slots: a connection whose peer keeps up never touches its page here. Slot lock held.
alignas(NETIP_PAGE) uint8_t g_unsent[NETIP_MAX_CONN][NETIP_RX_BUF_SIZE];

ssize_t send_bytes(int fd, const uint8_t *data, std::size_t len) {
    ssize_t sent;
    do {
        sent = send(fd, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

bool change_interest(const netip_conn &conn, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = netip_epoll_data(conn);
    return epoll_ctl(g_io_workers[conn.worker].epoll_fd, EPOLL_CTL_MOD, conn.fd, &event) == 0;
}

// Only while something waits: an interest that is left on would wake the I/O thread all the time.
void watch_output(netip_conn &conn) {
    if (conn.output_watched == 0) {
        // A socket that has left epoll never turns writable for us, so its sender has to go on trying.
        if (!change_interest(conn, NETIP_EPOLL_INPUT | EPOLLOUT)) return;
        conn.output_watched = 1;
    }
    conn.send_blocked.store(1, std::memory_order_relaxed);
}

void stop_watching_output(netip_conn &conn) {
    if (conn.output_watched != 0 && change_interest(conn, NETIP_EPOLL_INPUT)) conn.output_watched = 0;
    conn.send_blocked.store(0, std::memory_order_relaxed);
}

int send_failed(netip_conn &conn) {
    if (errno != EAGAIN) return NETIP_ERR_PARAM;
    watch_output(conn);
    return NETIP_ERR_WOULDBLOCK;
}

void keep_unsent(netip_conn &conn, const uint8_t *data, std::size_t len) {
    memcpy(g_unsent[netip_index(conn)], data, len);
    conn.unsent_offset = 0;
    conn.unsent_len = static_cast<uint16_t>(len);
    watch_output(conn);
}

// NETIP_OK once nothing is left. The rest is kept whatever the failure: without it the stream would be torn.
int send_unsent(netip_conn &conn) {
    while (conn.unsent_len > 0) {
        const ssize_t sent =
            send_bytes(conn.fd, g_unsent[netip_index(conn)] + conn.unsent_offset, conn.unsent_len);
        if (sent < 0) return send_failed(conn);
        conn.unsent_offset = static_cast<uint16_t>(conn.unsent_offset + sent);
        conn.unsent_len = static_cast<uint16_t>(conn.unsent_len - sent);
    }
    return NETIP_OK;
}

int send_packet(netip_conn &conn, const uint8_t *buf, std::size_t len) {
    const int code = send_unsent(conn);
    if (code != NETIP_OK) return code;
    const ssize_t sent = send_bytes(conn.fd, buf, len);
    if (sent < 0) return send_failed(conn);
    if (sent < 1) return NETIP_ERR_PARAM;
    const std::size_t taken = static_cast<std::size_t>(sent);
    if (taken < len) keep_unsent(conn, buf + taken, len - taken);
    return NETIP_OK;
}

bool is_packet(const iovec &packet) {
    return packet.iov_base != nullptr && packet.iov_len >= 1 && packet.iov_len <= std::size_t{k_max_packet};
}

// How many of the packets `sent` bytes reach; the rest of one that is torn is kept.
int take_sent(netip_conn &conn, const iovec *packets, std::size_t sent) {
    int taken = 0;
    for (; sent > 0; ++taken) {
        const std::size_t len = packets[taken].iov_len;
        if (sent < len) {
            keep_unsent(conn, static_cast<const uint8_t *>(packets[taken].iov_base) + sent, len - sent);
            sent = len;
        }
        sent -= len;
    }
    return taken;
}

ssize_t send_pieces(int fd, iovec *pieces, std::size_t count) {
    if (count == 1)
        return send_bytes(fd, static_cast<const uint8_t *>(pieces[0].iov_base), pieces[0].iov_len);
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

// Packets that lie one behind the other are one piece to the kernel.
std::size_t join_neighbours(const iovec *packets, int count, iovec *pieces) {
    std::size_t last = 0;
    pieces[0] = packets[0];
    for (int i = 1; i < count; ++i) {
        if (static_cast<uint8_t *>(pieces[last].iov_base) + pieces[last].iov_len == packets[i].iov_base)
            pieces[last].iov_len += packets[i].iov_len;
        else
            pieces[++last] = packets[i];
    }
    return last + 1;
}

int send_gathered(netip_conn &conn, const iovec *packets, int count) {
    if (send_unsent(conn) != NETIP_OK) return 0;
    iovec pieces[NETIP_MAX_GATHER];
    const ssize_t sent = send_pieces(conn.fd, pieces, join_neighbours(packets, count, pieces));
    if (sent < 0) (void)send_failed(conn);
    return sent < 1 ? 0 : take_sent(conn, packets, static_cast<std::size_t>(sent));
}

int send_datagram(const netip_conn &conn, const uint8_t *buf, std::size_t len) {
    ssize_t sent;
    do {
        sent = sendto(conn.fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT,
                      reinterpret_cast<const sockaddr *>(&conn.peer_addr), conn.peer_addr_len);
    } while (sent < 0 && errno == EINTR);
    return sent < 1 ? NETIP_ERR_PARAM : NETIP_OK;
}

}  // namespace

int netip_send(netip_handle h, const uint8_t *buf, int len) {
    if (len < 1 || len > k_max_packet || buf == nullptr || h >= NETIP_MAX_CONN) return NETIP_ERR_PARAM;
    netip_conn &conn = g_netip_clients[h];
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return NETIP_ERR_PARAM;
    // The lock keeps the descriptor ours during the call, and packets of several senders apart.
    std::lock_guard guard(conn.lock);
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return NETIP_ERR_PARAM;
    const std::size_t size = static_cast<std::size_t>(len);
    return conn.type == NETIP_TYPE_UDP ? send_datagram(conn, buf, size) : send_packet(conn, buf, size);
}

int netip_send_packets(netip_handle h, const iovec *packets, int count) {
    if (packets == nullptr || count < 1 || count > NETIP_MAX_GATHER || h >= NETIP_MAX_CONN) return 0;
    for (int i = 0; i < count; ++i)
        if (!is_packet(packets[i])) return 0;
    netip_conn &conn = g_netip_clients[h];
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return 0;
    std::lock_guard guard(conn.lock);
    if (conn.in_use.load(std::memory_order_relaxed) == 0) return 0;
    if (conn.type == NETIP_TYPE_TCP) return send_gathered(conn, packets, count);
    int taken = 0;
    while (taken < count && send_datagram(conn, static_cast<const uint8_t *>(packets[taken].iov_base),
                                          packets[taken].iov_len) == NETIP_OK)
        ++taken;
    return taken;
}

bool netip_send_blocked(netip_handle h) {
    return h < NETIP_MAX_CONN && g_netip_clients[h].send_blocked.load(std::memory_order_relaxed) != 0;
}

bool netip_output_ready(netip_conn &conn, uint32_t generation) {
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation) || send_unsent(conn) == NETIP_ERR_WOULDBLOCK) return false;
    // On a failure the interest goes too: epoll would report the same readiness for ever.
    stop_watching_output(conn);
    return true;
}

void netip_send_last_bytes(netip_conn &conn) {
    if (conn.unsent_len > 0)
        (void)send_bytes(conn.fd, g_unsent[netip_index(conn)] + conn.unsent_offset, conn.unsent_len);
}

void netip_forget_unsent() {
    (void)madvise(g_unsent, sizeof g_unsent,
                  MADV_DONTNEED);  // whatever stays is overwritten before it is read
}

void netip_register_send_ready_cb(netip_send_ready_cb) {}

}  // namespace zeb
