#pragma once

#include <cstddef>
#include <cstdint>

#include "qos/qos_reliable.h"

// The list of messages in flight and what makes it fast: an index by client and identifier, a chain per
// client, and the nodes' addresses in list order. Everything here is called with g_queue_mutex held.
namespace zeb {

inline constexpr std::size_t k_cache_line = 64;

// What the queue allocates for a message. The links stand before the packet so that all that a scan pass
// reads of it (payload_len up to next) shares one cache line.
struct alignas(k_cache_line) qos_node {
    qos_packet **pending_link;  // the pointer in g_pending_queue that points to this packet
    qos_node *same_bucket;      // index by client and identifier, newer first
    qos_node *client_next;      // chain of the client's bucket, newer first
    qos_node **client_link;
    uint64_t generation;  // mqtt_client.generation at registration
    uint32_t bucket;
    uint32_t slot;  // position in the array of addresses
    qos_packet packet;
};

static_assert((offsetof(qos_node, packet) + offsetof(qos_packet, payload_len)) % k_cache_line == 0);
static_assert(sizeof(qos_packet) - offsetof(qos_packet, payload_len) == k_cache_line);

inline qos_node *qos_node_of(qos_packet *pkt) {
    return reinterpret_cast<qos_node *>(reinterpret_cast<char *>(pkt) - offsetof(qos_node, packet));
}

// False when there is no room for another message. Memory for it is reserved, nothing else has changed.
bool qos_queue_reserve();
// Puts a filled node at the head, after qos_queue_reserve said yes.
void qos_queue_push(qos_node *node);
// The newest message with this identifier to the connection that the record serves now, or null.
qos_packet *qos_queue_find(const mqtt_client *client, uint16_t msg_id);
// Unlinks and frees.
void qos_queue_erase(qos_packet *pkt);
int qos_queue_erase_client(mqtt_client *client);  // number erased
int qos_queue_clear();                            // number erased

// The nodes' addresses, oldest first; erased ones leave a null behind.
struct qos_queue_view {
    qos_node *const *nodes;
    uint32_t count;
};
qos_queue_view qos_queue_all();

// Whether the node's connection is the one that its client record serves, and is online.
bool qos_node_is_live(const qos_node *node);

}  // namespace zeb
