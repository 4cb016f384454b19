#pragma once

// What the files of this folder share. "Slot lock held" below means netip_conn::lock of the slot in question.

#include <cstddef>
#include <mutex>

#include "netip/netip.h"

namespace zeb {

inline constexpr uint32_t NETIP_REASON_PEER = 0;  // also: a TCP connection was accepted
inline constexpr uint32_t NETIP_REASON_CLOSED = 2;
inline constexpr uint32_t NETIP_REASON_DATA = 3;  // also: a datagram came from a new peer

inline constexpr int NETIP_MAX_IO_THREADS = 8;
inline constexpr std::size_t NETIP_PAGE = 4096;

// epoll data: the generation above, the slot's index plus one below, so that an event of a closed connection
// that is still in a batch is not taken for one of its successor.
inline constexpr uint64_t NETIP_EPOLL_LISTEN = 0;
inline constexpr uint64_t NETIP_EPOLL_WAKE = UINT64_MAX;
inline constexpr uint64_t NETIP_EPOLL_DATAGRAM = UINT64_MAX - 1;

inline constexpr uint32_t NETIP_EPOLL_INPUT = EPOLLIN | EPOLLERR | EPOLLHUP;

struct io_worker {
    int index = 0;
    int epoll_fd = -1;
    int wake_fd = -1;  // readable once the worker has to end; -1: it notices within its 100 ms timeout
    epoll_event *events = nullptr;
};

// Written before the threads start and after they ended.
extern io_worker g_io_workers[NETIP_MAX_IO_THREADS];
extern const netip_hooks *g_netip_hooks;  // null: none
extern bool g_netip_udp_watched;          // datagrams wake the first worker

inline netip_handle netip_index(const netip_conn &conn) {
    return static_cast<netip_handle>(&conn - g_netip_clients);
}

// netip_table.cpp
void netip_table_clear();     // no thread of the module is running
uint32_t netip_table_used();  // no slot at or above this index was taken since the table was cleared
bool netip_is_current(const netip_conn &conn, uint32_t generation);
uint64_t netip_epoll_data(const netip_conn &conn);
// Take a free slot with g_netip_lock held; null when the table is full.
netip_conn *netip_take_slot(netip_conn_type type, int fd, const sockaddr_in &peer, uint32_t *generation);

// netip_close.cpp
// Calls the callback; false when a DISCONNECT was answered with 0, true also when there is no callback.
bool netip_fire(netip_handle h, netip_event event, const uint8_t *data, uint32_t len, uint32_t reason);
void netip_close_by_peer(netip_conn &conn, uint32_t generation);  // the slot is pinned by the caller
void netip_close_at_deinit(netip_conn &conn);
void netip_give_back_slot(netip_conn &conn, uint32_t generation);  // without an event; closes the socket

// netip_accept.cpp: the descriptor that lets the accept thread turn clients away when there is no other.
void netip_open_spare();
void netip_close_spare();

// netip_io.cpp: while a slot is pinned its receive state belongs to the I/O thread that pinned it, and nobody
// gets the slot even if the connection is closed. False for an event of a connection that is gone.
bool netip_pin(netip_conn &conn, uint32_t generation);
void netip_unpin(netip_conn &conn);

// netip_read.cpp: true when the connection has to be closed. The slot is pinned by the caller. *packets grows
// by those delivered.
bool netip_read_connection(netip_conn &conn, uint32_t generation, uint32_t *packets);

// netip_send.cpp
bool netip_output_ready(netip_conn &conn, uint32_t generation);  // true when the socket takes bytes again
void netip_send_last_bytes(netip_conn &conn);                    // slot lock held
void netip_forget_unsent();                                      // returns the memory

// netip_udp.cpp
bool netip_udp_take();  // as netip_udp_recv; whether there was a datagram
void netip_udp_forget_peers();

}  // namespace zeb
