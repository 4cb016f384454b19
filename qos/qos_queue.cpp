#include "qos/qos_queue.h"

#include "client/client_mgr.h"
#include "log/platform_memory.h"

namespace zeb {

qos_packet *g_pending_queue = nullptr;
std::mutex g_queue_mutex;

namespace {

constexpr int k_id_bits = 18;  // a few messages to a bucket even with a million in flight
constexpr int k_client_bits = 14;
static_assert((1 << k_client_bits) > CLIENT_MAX);

// Reserved at once: an address that was never used costs no memory.
constexpr uint32_t k_order_slots = 1u << 24;
constexpr std::size_t k_order_bytes = k_order_slots * sizeof(void *);
constexpr uint32_t k_order_slack = 1024;
static_assert(k_order_slots > static_cast<uint64_t>(CLIENT_MAX) * QOS_MAX_PER_CLIENT);

qos_node *s_by_id[1 << k_id_bits];
qos_node *s_by_client[1 << k_client_bits];

// Where the nodes are, in the order of the list: a pass that knows the next addresses beforehand does not
// wait for one node's memory to learn where the next one lies.
qos_node **s_order = nullptr;
uint32_t s_order_end = 0;
uint32_t s_live = 0;

uint64_t mix(uint64_t key) {
    return key * 0x9E3779B97F4A7C15u;
}

uint64_t client_key(const mqtt_client *client) {
    return reinterpret_cast<uintptr_t>(client);
}

uint32_t id_bucket(const mqtt_client *client, uint16_t msg_id) {
    return static_cast<uint32_t>(mix(client_key(client) ^ static_cast<uint64_t>(msg_id) << 48) >>
                                 (64 - k_id_bits));
}

qos_node **client_bucket(const mqtt_client *client) {
    return &s_by_client[mix(client_key(client)) >> (64 - k_client_bits)];
}

// Closes the gaps. Done when they outnumber the nodes, so each registration pays for a constant share.
void compact_order() {
    uint32_t kept = 0;
    for (uint32_t i = 0; i < s_order_end; ++i) {
        qos_node *node = s_order[i];
        if (node == nullptr) continue;
        node->slot = kept;
        s_order[kept++] = node;
    }
    s_order_end = kept;
}

void link_pending(qos_node *node) {
    qos_packet *pkt = &node->packet;
    pkt->next = g_pending_queue;
    node->pending_link = &g_pending_queue;
    if (pkt->next != nullptr) qos_node_of(pkt->next)->pending_link = &pkt->next;
    g_pending_queue = pkt;
}

void unlink_pending(qos_node *node) {
    qos_packet *next = node->packet.next;
    *node->pending_link = next;
    if (next != nullptr) qos_node_of(next)->pending_link = node->pending_link;
}

void link_client(qos_node *node) {
    qos_node **head = client_bucket(node->packet.client);
    node->client_next = *head;
    node->client_link = head;
    if (node->client_next != nullptr) node->client_next->client_link = &node->client_next;
    *head = node;
}

void unlink_client(qos_node *node) {
    *node->client_link = node->client_next;
    if (node->client_next != nullptr) node->client_next->client_link = node->client_link;
}

void link_id(qos_node *node) {
    node->bucket = id_bucket(node->packet.client, node->packet.msg_id);
    node->same_bucket = s_by_id[node->bucket];
    s_by_id[node->bucket] = node;
}

void unlink_id(const qos_node *node) {
    qos_node **link = &s_by_id[node->bucket];
    while (*link != node) link = &(*link)->same_bucket;
    *link = node->same_bucket;
}

void free_node(qos_node *node) {
    delete[] node->packet.payload;
    delete node;
}

}  // namespace

bool qos_queue_reserve() {
    if (s_order == nullptr) {
        s_order = static_cast<qos_node **>(platform_zero_alloc(k_order_bytes));
        if (s_order == nullptr) return false;
    }
    if (s_order_end == k_order_slots || s_order_end > 2 * s_live + k_order_slack) compact_order();
    return s_order_end < k_order_slots;
}

void qos_queue_push(qos_node *node) {
    node->slot = s_order_end;
    s_order[s_order_end++] = node;
    ++s_live;
    link_pending(node);
    link_client(node);
    link_id(node);
    ++node->packet.client->inflight;
}

qos_packet *qos_queue_find(const mqtt_client *client, uint16_t msg_id) {
    const uint64_t generation = client->generation.load(std::memory_order_relaxed);
    for (qos_node *node = s_by_id[id_bucket(client, msg_id)]; node != nullptr; node = node->same_bucket) {
        if (node->packet.client == client && node->packet.msg_id == msg_id && node->generation == generation)
            return &node->packet;
    }
    return nullptr;
}

void qos_queue_erase(qos_packet *pkt) {
    qos_node *node = qos_node_of(pkt);
    unlink_pending(node);
    unlink_client(node);
    unlink_id(node);
    s_order[node->slot] = nullptr;
    --s_live;
    while (s_order_end > 0 && s_order[s_order_end - 1] == nullptr) --s_order_end;
    if (pkt->client != nullptr) --pkt->client->inflight;
    free_node(node);
}

int qos_queue_erase_client(mqtt_client *client) {
    int erased = 0;
    qos_node *node = *client_bucket(client);
    while (node != nullptr && client->inflight > 0) {
        qos_node *next = node->client_next;
        if (node->packet.client == client) {
            qos_queue_erase(&node->packet);
            ++erased;
        }
        node = next;
    }
    return erased;
}

int qos_queue_clear() {
    int erased = 0;
    while (g_pending_queue != nullptr) {
        qos_queue_erase(g_pending_queue);
        ++erased;
    }
    platform_zero_free(s_order, k_order_bytes);
    s_order = nullptr;
    return erased;
}

qos_queue_view qos_queue_all() {
    return {s_order, s_order_end};
}

bool qos_node_is_live(const qos_node *node) {
    const mqtt_client *client = node->packet.client;
    return client_is_online(client) && client->generation.load(std::memory_order_relaxed) == node->generation;
}

}  // namespace zeb
