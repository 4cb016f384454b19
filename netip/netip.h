#pragma once

#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace zeb {

using netip_handle = uint32_t;

inline constexpr netip_handle NETIP_HANDLE_NONE = 0xFFFFFFFFu;
inline constexpr uint32_t NETIP_MAX_CONN = 11000;
inline constexpr uint32_t NETIP_RX_BUF_SIZE = 4096;
inline constexpr int NETIP_MAX_EVENTS = 2048;
inline constexpr int NETIP_PORT = 1883;
inline constexpr int NETIP_BACKLOG = 65535;

enum netip_event : uint32_t { NETIP_EVENT_CONNECT = 0, NETIP_EVENT_DISCONNECT = 1, NETIP_EVENT_DATA = 2 };

enum netip_conn_type : uint32_t { NETIP_TYPE_TCP = 1, NETIP_TYPE_UDP = 2 };

enum netip_code {
    NETIP_OK = 0,
    NETIP_ERR_MEMORY = 1,  // or a thread could not be created
    NETIP_ERR_SOCKET = 2,
    NETIP_ERR_BIND = 3,
    NETIP_ERR_LISTEN = 4,
    NETIP_ERR_WOULDBLOCK = 5,
    NETIP_ERR_PARAM = 6,  // or the send failed
    NETIP_ERR_EPOLL = 7
};

// Only the low byte of the result counts, and only for DISCONNECT.
using netip_event_cb = int (*)(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len,
                               uint32_t reason, uint32_t error, void *arg);
using netip_send_ready_cb = void (*)(netip_handle h);

struct netip_conn {
    uint32_t handle;
    uint32_t type;  // netip_conn_type
    int fd;
    std::atomic<uint8_t> in_use;           // relaxed
    std::atomic<uint64_t> last_active_ms;  // wall-clock milliseconds; relaxed
    std::mutex lock;
    sockaddr_in peer_addr;
    uint32_t peer_addr_len;
    char ip[64];
    uint16_t port;                      // host order
    uint8_t rx_buf[NETIP_RX_BUF_SIZE];  // receive state: I/O thread only
    uint32_t rx_len;
    uint32_t pkt_len;
    uint8_t pkt_len_known;
};

extern netip_conn g_netip_clients[NETIP_MAX_CONN];
extern std::atomic<netip_event_cb> g_netip_cb;
extern std::atomic<void *> g_netip_cb_arg;
extern std::atomic<uint8_t> g_netip_running;  // relaxed
extern std::mutex g_netip_lock;               // the table
extern uint32_t g_last_handle;                // guarded by g_netip_lock
extern int netip_epoll_fd;                    // -1 when down
extern int g_netip_tcp_listen;                // -1 when down
extern int g_netip_udp;                       // -1 when there is none
extern pthread_t *g_io_threads;
extern int g_io_thread_num;
extern struct epoll_event g_epoll_events[NETIP_MAX_EVENTS];

int netip_init(netip_event_cb cb, void *arg, int io_threads);
void netip_deinit();
int netip_send(netip_handle h, const uint8_t *buf, int len);
void netip_close(netip_handle h);
int netip_get_client_ip(netip_handle h, char *dst, uint32_t size);
int netip_get_client_port(netip_handle h);
uint64_t netip_get_client_last_active(netip_handle h);
int netip_set_tcp_keepalive(netip_handle h, int idle_s, int interval_s, int count);
void netip_register_send_ready_cb(netip_send_ready_cb cb);
int netip_get_free_handle();  // called with g_netip_lock held; -1 when the table is full

void *accept_thread(void *);
void *netip_io_thread(void *);
void netip_udp_recv();

}  // namespace zeb
