#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

namespace {

constexpr uint64_t k_pause_us = 10000;

int g_spare = -1;  // a descriptor to give up when there is no other

// Out of descriptors the waiting client could be neither served nor refused. The spare one is given up for a
// moment to take that client in and hang up on it, so that it learns at once.
void refuse_one_client(int listen_fd) {
    pollfd waiting{listen_fd, POLLIN, 0};
    if (g_spare < 0 || poll(&waiting, 1, 0) <= 0) return;
    netip_close_spare();
    const int fd = accept4(listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) (void)close(fd);
    netip_open_spare();
}

// A failure that lasts is sat out with a pause: accept would report it again at once, for ever.
void sit_out_failure(int error, int listen_fd, bool *reported) {
    if (error == EINTR || error == ECONNABORTED) return;
    if (g_netip_running.load(std::memory_order_relaxed) == 0) return;
    if (error == EMFILE || error == ENFILE) refuse_one_client(listen_fd);
    if (!*reported) ZEB_LOG(AGENT_LOG_WARN, "[NETIP] accept 失败, 暂停后重试, errno=%d", error);
    *reported = true;
    platform_sleep_us(k_pause_us);
    netip_open_spare();
}

// Under the slot lock: a connection closed meanwhile must not be registered by its old descriptor number.
bool watch_input(netip_conn &conn, uint32_t generation) {
    std::lock_guard guard(conn.lock);
    if (!netip_is_current(conn, generation)) return false;
    epoll_event event{};
    event.events = NETIP_EPOLL_INPUT;
    event.data.u64 = netip_epoll_data(conn);
    return epoll_ctl(g_io_workers[conn.worker].epoll_fd, EPOLL_CTL_ADD, conn.fd, &event) == 0;
}

void serve_client(int fd, const sockaddr_in &peer) {
    const int on = 1;
    // Packets are small and go out whole; waiting to join them with later ones would only delay them.
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    uint32_t generation = 0;
    netip_conn *conn = nullptr;
    {
        std::lock_guard guard(g_netip_lock);
        conn = netip_take_slot(NETIP_TYPE_TCP, fd, peer, &generation);
    }
    if (conn == nullptr) {
        (void)close(fd);
        return;
    }
    if (!watch_input(*conn, generation)) {
        netip_give_back_slot(*conn, generation);
        return;
    }
    (void)netip_fire(netip_index(*conn), NETIP_EVENT_CONNECT, nullptr, 0, NETIP_REASON_PEER);
}

}  // namespace

void netip_open_spare() {
    if (g_spare < 0) g_spare = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void netip_close_spare() {
    if (g_spare >= 0) (void)close(g_spare);
    g_spare = -1;
}

// Ends when netip_deinit clears the running flag and shuts the listening socket down, which wakes accept.
void *accept_thread(void *) {
    const int listen_fd = g_netip_tcp_listen;
    const int flags = fcntl(listen_fd, F_GETFL);
    (void)fcntl(listen_fd, F_SETFL, flags & ~O_NONBLOCK);  // should it fail, the pauses keep the loop slow
    bool reported = false;
    while (g_netip_running.load(std::memory_order_relaxed) != 0) {
        sockaddr_in peer{};
        socklen_t peer_len = sizeof peer;
        const int fd =
            accept4(listen_fd, reinterpret_cast<sockaddr *>(&peer), &peer_len, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            sit_out_failure(errno, listen_fd, &reported);
        } else if (g_netip_running.load(std::memory_order_relaxed) == 0) {
            (void)close(fd);
        } else {
            reported = false;
            serve_client(fd, peer);
        }
    }
    return nullptr;
}

}  // namespace zeb
