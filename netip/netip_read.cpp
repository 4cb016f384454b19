#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

namespace {

// What one connection may bring in one go before the others get their turn; epoll reports the rest again.
constexpr uint32_t k_read_budget = 65536;
constexpr uint32_t k_packet_budget = 512;  // tiny packets cost far more than their bytes
constexpr uint32_t k_length_bytes = 4;

// The total length of the packet that starts at `head`. False while its length bytes are not complete, which
// a length of more than four bytes never becomes.
bool packet_length(const uint8_t *head, uint32_t available, uint32_t *total) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < k_length_bytes; ++i) {
        if (1 + i >= available) return false;
        const uint8_t byte = head[1 + i];
        value += static_cast<uint32_t>(byte & 0x7F) << (7 * i);
        if (byte < 0x80) {
            *total = value + i + 2;
            return true;
        }
    }
    return false;
}

void deliver_packet(netip_handle h, const uint8_t *packet, uint32_t len) {
    ZEB_LOG(AGENT_LOG_INFO, "[NETIP] 完整报文长度: %d", static_cast<int>(len));
    if (agent_log_enabled(AGENT_LOG_DEBUG))
        agent_log_hexdump("[NETIP] 完整报文", packet, static_cast<uint16_t>(len));
    (void)netip_fire(h, NETIP_EVENT_DATA, packet, len, NETIP_REASON_DATA);
}

// Delivers every whole packet in place and moves what is left to the front once. False when a callback (or
// another thread) closed the connection meanwhile: what it still had buffered belongs to nobody then.
bool deliver_packets(netip_conn &conn, uint32_t generation, uint32_t *delivered) {
    uint32_t pos = 0;
    for (;;) {
        const uint32_t available = conn.rx_len - pos;
        if (conn.pkt_len_known == 0) {
            if (!packet_length(conn.rx_buf + pos, available, &conn.pkt_len)) break;
            conn.pkt_len_known = 1;
        }
        if (conn.pkt_len > available) break;
        deliver_packet(netip_index(conn), conn.rx_buf + pos, conn.pkt_len);
        ++*delivered;
        if (!netip_is_current(conn, generation)) return false;
        pos += conn.pkt_len;
        conn.pkt_len_known = 0;
    }
    if (pos > 0) {
        conn.rx_len -= pos;
        memmove(conn.rx_buf, conn.rx_buf + pos, conn.rx_len);
    }
    return true;
}

enum class received { bytes, nothing, end };

// Under the slot lock: otherwise the descriptor could be closed, and its number given away, before the recv.
received receive(netip_conn &conn, uint32_t generation, uint32_t *count) {
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation)) return received::nothing;
    ssize_t got;
    do {
        got = recv(conn.fd, conn.rx_buf + conn.rx_len, NETIP_RX_BUF_SIZE - conn.rx_len, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0) return received::nothing;
    *count = static_cast<uint32_t>(got);
    return got == 0 ? received::end : received::bytes;
}

}  // namespace

bool netip_read_connection(netip_conn &conn, uint32_t generation, uint32_t *packets) {
    uint32_t total = 0;
    const uint32_t enough = *packets + k_packet_budget;
    while (total < k_read_budget && *packets < enough) {
        const uint32_t room = NETIP_RX_BUF_SIZE - conn.rx_len;
        uint32_t count = 0;
        const received result = receive(conn, generation, &count);
        if (result != received::bytes) return result == received::end;
        total += count;
        conn.rx_len += count;
        conn.last_active_ms.store(platform_wall_ms(), std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_DEBUG, "[NETIP] 开始解析客户端数据 handle=%d 缓存长度=%d",
                static_cast<int>(netip_index(conn)), static_cast<int>(conn.rx_len));
        if (!deliver_packets(conn, generation, packets)) return false;
        // A packet that does not fit is never finished, so the connection ends: the bound on what clients
        // send.
        if (conn.rx_len == NETIP_RX_BUF_SIZE) return true;
        if (count < room) return false;  // the socket had no more; asking again would only say so
    }
    return false;
}

}  // namespace zeb
