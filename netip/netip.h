#pragma once

// The transport: it owns every socket, gives each connection a small integer handle, cuts the byte stream
// into whole packets and reports connects, packets and disconnects to one callback.
//
// Threads: the accept thread takes slots, one to eight I/O threads read (a connection always on the same one,
// so that its packets stay in order; datagrams on the first), and any thread may send, close and ask. Locks:
// g_netip_lock first, then a slot's own lock. Neither is held while the callback runs, so it may call
// everything here except netip_init and netip_deinit, also for its own handle. netip_send, netip_close and
// the address getters never take g_netip_lock. A closed connection's slot is not handed out again before its
// last callback has returned.

#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/uio.h>

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
inline constexpr int NETIP_MAX_GATHER = 128;

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

// Only the low byte of the result counts, and only for DISCONNECT: 0 leaves the socket open. `data` is valid
// during the call only. CONNECT runs on the accept thread, DISCONNECT on the thread that closes, everything
// else on the connection's I/O thread; no lock of ours is held.
using netip_event_cb = int (*)(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len,
                               uint32_t reason, uint32_t error, void *arg);
using netip_send_ready_cb = void (*)(netip_handle h);

// For whoever wants to send without waiting for a beat. Both are called on I/O threads, no lock being held.
struct netip_hooks {
    void (*writable)(netip_handle h);  // a socket that was full (netip_send_blocked) takes bytes again
    void (*batch_end)();               // the packets that have come are handled, or a fair part of them
};

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

    // Tells a connection from its successors in the slot: changes when it is taken and when it is freed.
    std::atomic<uint32_t> generation;
    std::atomic<uint8_t> closing;       // freed, but its DISCONNECT still runs or its socket is still open
    std::atomic<uint8_t> io_busy;       // an I/O thread is handling an event of this slot
    std::atomic<uint8_t> send_blocked;  // what netip_send_blocked answers; relaxed
    uint8_t output_watched;             // epoll reports writability as well
    uint8_t worker;                     // the I/O thread that this connection belongs to
    uint16_t unsent_offset;             // the part of a packet that the socket has not taken yet
    uint16_t unsent_len;
    uint64_t opened_ms;             // monotonic milliseconds; slot lock
    std::atomic<uint8_t> admitted;  // netip_admit was called for the connection; relaxed
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

/**
 * Start listening on TCP and UDP port 1883 and start the threads.
 *
 * @param cb          told about every event; not null.
 * @param arg         handed to every call of cb.
 * @param io_threads  clamped to 1..8.
 * @return NETIP_OK or the code of the step that failed, nothing being left behind then; NETIP_ERR_BIND when
 * the module is already up, which changes nothing. Without a UDP port it runs on TCP alone.
 */
int netip_init(netip_event_cb cb, void *arg, int io_threads);

// Stop the threads, tell the callback about every connection left (reason 2) and close everything. Harmless
// when the module is down. Refused with an error line inside a callback: its thread would wait for itself.
void netip_deinit();

// Whether the calling thread is inside the event callback, where netip_deinit is refused.
bool netip_in_callback();

/**
 * Hand one packet of 1..4096 bytes to the socket, never a torn one: what the socket does not take at once is
 * kept with the slot and goes out before anything else.
 *
 * @return NETIP_OK; NETIP_ERR_WOULDBLOCK (nothing of this packet was taken, try again later);
 * NETIP_ERR_PARAM.
 */
int netip_send(netip_handle h, const uint8_t *buf, int len);

// As netip_send for up to NETIP_MAX_GATHER packets, in their order and in one system call over TCP. How many
// were taken; a packet that was not, and those behind it, are the caller's to send again.
int netip_send_packets(netip_handle h, const iovec *packets, int count);

// Whether the last netip_send found the socket full and it has not turned writable since. A hint for whoever
// polls: while it is true a netip_send would most likely be a wasted system call.
bool netip_send_blocked(netip_handle h);

// Free the slot, fire DISCONNECT (reason 2) and, unless that answers 0, close the socket. Anything not in use
// is ignored, so closing again from inside that DISCONNECT is harmless.
void netip_close(netip_handle h);
// As netip_close, but only while the handle still belongs to the connection that had this generation
// (netip_conn::generation): a handle is given to another connection soon after it was closed.
void netip_close_connection(netip_handle h, uint32_t generation);

// Note that the protocol above has accepted the connection, so that netip_close_unadmitted spares it.
void netip_admit(netip_handle h, uint32_t generation);
// Close the connections that were opened `limit_ms` or longer ago and have not been admitted; how many.
int netip_close_unadmitted(uint64_t limit_ms);

// 1 and the dotted text; 0 and zeros for a handle not in use; 0 and nothing written when size is below 16.
int netip_get_client_ip(netip_handle h, char *dst, uint32_t size);
int netip_get_client_port(netip_handle h);              // host order; 0 when not in use
uint64_t netip_get_client_last_active(netip_handle h);  // wall-clock milliseconds; 0 when not in use
int netip_set_tcp_keepalive(netip_handle h, int idle_s, int interval_s, int count);  // 1 when set, else 0
void netip_register_send_ready_cb(netip_send_ready_cb cb);                           // accepted, never called
// Takes effect with the next netip_init; null, as from the start, for none. With hooks the I/O thread also
// wakes for each datagram, which otherwise waits for the next event of any connection.
void netip_set_hooks(const netip_hooks *hooks);
bool netip_on_io_thread();    // whether the calling thread is one of the module's I/O threads
int netip_get_free_handle();  // called with g_netip_lock held; -1 when the table is full

void *accept_thread(void *);
void *netip_io_thread(void *);  // argument: its io_worker, null for the first
void netip_udp_recv();          // reads and delivers one datagram, if there is one

}  // namespace zeb
