#include "netip/netip.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "log/agent_log.h"
#include "log/platform_thread.h"
#include "log/platform_time.h"
#include "netip/netip_internal.h"

namespace zeb {

std::atomic<uint8_t> g_netip_running{0};
int netip_epoll_fd = -1;
int g_netip_tcp_listen = -1;
int g_netip_udp = -1;
pthread_t *g_io_threads = nullptr;
int g_io_thread_num = 0;
epoll_event g_epoll_events[NETIP_MAX_EVENTS];
io_worker g_io_workers[NETIP_MAX_IO_THREADS];
const netip_hooks *g_netip_hooks = nullptr;
bool g_netip_udp_watched = false;

namespace {

constexpr uint64_t k_closer_poll_us = 1000;

std::mutex g_lifecycle_lock;  // guards everything above during init and deinit, and what follows
bool g_up = false;
pthread_t g_accept_thread;
int g_io_threads_started = 0;
std::atomic<const netip_hooks *> g_next_hooks{nullptr};
epoll_event g_more_events[NETIP_MAX_IO_THREADS - 1][NETIP_MAX_EVENTS];  // the first worker has g_epoll_events

void close_fd(int *fd) {
    if (*fd >= 0) (void)close(*fd);  // the descriptor is gone whatever it answers
    *fd = -1;
}

bool watch(int epoll_fd, int fd, uint32_t events, uint64_t data) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = data;
    return epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool bind_to_port(int fd) {
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // the bind tells whether it mattered
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(NETIP_PORT);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

int open_workers() {
    for (int i = 0; i < g_io_thread_num; ++i) {
        const int fd = epoll_create1(EPOLL_CLOEXEC);
        if (fd < 0) return NETIP_ERR_EPOLL;
        g_io_workers[i] = {i, fd, -1, i == 0 ? g_epoll_events : g_more_events[i - 1]};
    }
    netip_epoll_fd = g_io_workers[0].epoll_fd;
    g_io_threads =
        static_cast<pthread_t *>(calloc(static_cast<std::size_t>(g_io_thread_num), sizeof(pthread_t)));
    return g_io_threads == nullptr ? NETIP_ERR_MEMORY : NETIP_OK;
}

int open_tcp() {
    g_netip_tcp_listen = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (g_netip_tcp_listen < 0) return NETIP_ERR_SOCKET;
    if (!bind_to_port(g_netip_tcp_listen)) return NETIP_ERR_BIND;
    if (listen(g_netip_tcp_listen, NETIP_BACKLOG) != 0) return NETIP_ERR_LISTEN;
    // Edge-triggered: a client that cannot be accepted for lack of descriptors must not wake the I/O thread
    // for ever. Should it fail, a datagram just waits for the next event of a connection.
    (void)watch(netip_epoll_fd, g_netip_tcp_listen, NETIP_EPOLL_INPUT | EPOLLET, NETIP_EPOLL_LISTEN);
    return NETIP_OK;
}

void open_udp() {
    g_netip_udp = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (g_netip_udp >= 0 && !bind_to_port(g_netip_udp)) close_fd(&g_netip_udp);
    // Should it fail, a datagram waits for the next event of a connection, as without hooks.
    g_netip_udp_watched = g_netip_hooks != nullptr && g_netip_udp >= 0 &&
                          watch(netip_epoll_fd, g_netip_udp, EPOLLIN, NETIP_EPOLL_DATAGRAM);
}

// Only makes the end of the workers faster, so it may fail.
void open_wake_ups() {
    for (int i = 0; i < g_io_thread_num; ++i) {
        io_worker &worker = g_io_workers[i];
        worker.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (worker.wake_fd < 0) continue;
        if (!watch(worker.epoll_fd, worker.wake_fd, EPOLLIN, NETIP_EPOLL_WAKE)) close_fd(&worker.wake_fd);
    }
}

int start_threads() {
    for (int i = 0; i < g_io_thread_num; ++i) {
        if (platform_thread_start(&g_io_threads[i], "zeb-io", netip_io_thread, &g_io_workers[i]) != 0)
            return NETIP_ERR_MEMORY;
        ++g_io_threads_started;
    }
    if (platform_thread_start(&g_accept_thread, "zeb-accept", accept_thread, nullptr) != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "创建 accept 线程失败");
        return NETIP_ERR_MEMORY;
    }
    return NETIP_OK;
}

int open_all() {
    int code = open_workers();
    if (code == NETIP_OK) code = open_tcp();
    if (code != NETIP_OK) return code;
    open_udp();
    open_wake_ups();
    netip_open_spare();
    return start_threads();
}

void stop_io_threads() {
    g_netip_running.store(0, std::memory_order_relaxed);
    for (int i = 0; i < g_io_threads_started; ++i)
        if (g_io_workers[i].wake_fd >= 0) (void)eventfd_write(g_io_workers[i].wake_fd, 1);
    for (int i = 0; i < g_io_threads_started; ++i) (void)pthread_join(g_io_threads[i], nullptr);
    g_io_threads_started = 0;
}

// A thread inside netip_close at this moment still needs our epoll descriptors, its callback the argument.
void wait_for_closers(uint32_t used) {
    for (uint32_t i = 0; i < used; ++i)
        while (g_netip_clients[i].closing.load(std::memory_order_acquire) != 0)
            platform_sleep_us(k_closer_poll_us);
}

void close_connections() {
    const uint32_t used = netip_table_used();
    for (uint32_t i = 0; i < used; ++i) netip_close_at_deinit(g_netip_clients[i]);
    wait_for_closers(used);
    netip_udp_forget_peers();
}

// The threads have ended. Undoes whatever part of open_all was done.
void release_all() {
    close_connections();
    netip_close_spare();
    close_fd(&g_netip_tcp_listen);
    close_fd(&g_netip_udp);
    for (int i = 0; i < g_io_thread_num; ++i) {
        close_fd(&g_io_workers[i].wake_fd);
        close_fd(&g_io_workers[i].epoll_fd);
    }
    netip_epoll_fd = -1;
    free(g_io_threads);
    g_io_threads = nullptr;
    g_io_thread_num = 0;
    g_netip_cb.store(nullptr, std::memory_order_relaxed);
    g_netip_cb_arg.store(nullptr, std::memory_order_relaxed);
}

}  // namespace

int netip_init(netip_event_cb cb, void *arg, int io_threads) {
    if (cb == nullptr) return NETIP_ERR_PARAM;
    if (netip_in_callback())
        return NETIP_ERR_BIND;  // then the module is up; and the lock below may be waiting for us
    std::lock_guard guard(g_lifecycle_lock);
    if (g_up) return NETIP_ERR_BIND;
    g_netip_cb.store(cb, std::memory_order_relaxed);
    g_netip_cb_arg.store(arg, std::memory_order_relaxed);
    g_netip_hooks = g_next_hooks.load(std::memory_order_acquire);
    g_io_thread_num = std::clamp(io_threads, 1, NETIP_MAX_IO_THREADS);
    for (int i = 0; i < NETIP_MAX_IO_THREADS; ++i) g_io_workers[i] = {i, -1, -1, nullptr};
    netip_table_clear();
    netip_forget_unsent();
    g_netip_running.store(1, std::memory_order_relaxed);

    const int code = open_all();
    if (code != NETIP_OK) {
        stop_io_threads();
        release_all();
        return code;
    }
    g_up = true;
    return NETIP_OK;
}

void netip_set_hooks(const netip_hooks *hooks) {
    g_next_hooks.store(hooks, std::memory_order_release);
}

void netip_deinit() {
    if (netip_in_callback()) {
        ZEB_LOG(AGENT_LOG_ERROR, "[NETIP] netip_deinit 不能在事件回调中调用");
        return;
    }
    std::lock_guard guard(g_lifecycle_lock);
    if (!g_up) return;
    g_up = false;
    g_netip_running.store(0, std::memory_order_relaxed);
    (void)shutdown(g_netip_tcp_listen, SHUT_RDWR);  // wakes the accept thread
    (void)pthread_join(g_accept_thread, nullptr);
    stop_io_threads();
    release_all();
    std::lock_guard table_guard(g_netip_lock);
    g_last_handle = 0;
}

}  // namespace zeb
