#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "client/client_mgr.h"

// What the client manager's own files share.
//
// Lock order: a striped lock (g_client_mgr.locks), the pool lock, the lock of the exact index and a record's
// send_lock are leaves towards each other: nobody holds two of them. The network layer's slot lock is taken
// under send_lock. session_lock may be held while the record's will_lock is taken or its
// files are read and written, never the other way round. A record's id_lock is the innermost: it may be taken
// under any of them. The QoS list's mutex may be held while send_lock is taken, never the other way round.
namespace zeb {

// life: bit 31 the record serves a connection, bit 30 its release was asked for, below them the pins.
inline constexpr uint32_t k_life_alive = 1u << 31;
inline constexpr uint32_t k_life_dead = 1u << 30;

std::mutex &client_handle_lock(uint32_t handle);
std::mutex &client_cid_lock(uint32_t hash);

// Pool.
bool client_pool_add_block();
void client_pool_free_blocks();
mqtt_client *client_pool_take();                         // null when every record is taken
mqtt_client *client_pool_used_record(int block, int i);  // null unless the record is allocated
client_ref client_acquire_generation(mqtt_client *client,
                                     uint64_t generation);  // empty: another connection's
bool client_try_pin(mqtt_client *client);

// Table slots are cleared only where they still point to this record: a newer connection with the same
// identifier keeps its entry.
void client_clear_handle_slot(mqtt_client *client);
void client_forget_cid(mqtt_client *client);  // also out of the exact index

// From CONNECTED or LOGINED to CLOSING: once this returns, no flush of the record's ring is under way and
// none begins, so that the handle may be closed and given to another connection.
void client_enter_closing(mqtt_client *client);

// Changes whenever the network layer gives the handle to another connection.
inline uint32_t client_connection_of(netip_handle handle) {
    return handle < NETIP_MAX_CONN ? g_netip_clients[handle].generation.load(std::memory_order_relaxed) : 0;
}

// Tells the send thread that the record's ring holds packets.
void client_mark_queued(mqtt_client *client);

void client_finish_will(mqtt_client *client);

// Mark a record as one that g_will_delay_client_count includes; take the mark back (false: it had none, and
// the count is left to the caller).
void client_count_will(mqtt_client *client);
bool client_uncount_will(mqtt_client *client);

// Calls visit(record) for each allocated record, blocks and slots in order.
template <typename Visit>
void client_for_each_used_in(int block, Visit visit) {
    if (g_client_mgr.blocks[block].used.load(std::memory_order_relaxed) == 0) return;
    for (int i = 0; i < CLIENT_POOL_SIZE; ++i) {
        if (mqtt_client *client = client_pool_used_record(block, i)) visit(client);
    }
}

template <typename Visit>
void client_for_each_used(Visit visit) {
    const int blocks = g_client_mgr.block_count.load(std::memory_order_acquire);
    for (int b = 0; b < blocks; ++b) client_for_each_used_in(b, visit);
}

}  // namespace zeb
