// What must hold between any two steps of a script.
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "fuzz/broker_world.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/topic_reference.h"
#include "packet/packet_handler.h"
#include "qos/qos_queue.h"
#include "stats/mqtt_stats.h"
#include "sub/sub_index.h"
#include "sub/topic_filter.h"

namespace zeb_fuzz {

using namespace zeb;

namespace {

// The table of identifiers has one entry for each slot: the connection that entered it last. One that is
// online is found, unless another one has taken its slot since.
void check_reachable(mqtt_client *client) {
    const uint32_t handle = client->handle.load();
    FUZZ_CHECK(handle < NETIP_MAX_CONN && client_find_by_handle(handle) == client);
    FUZZ_CHECK(netip_is_current(g_netip_clients[handle], client->connection.load()));
    FUZZ_CHECK(std::memchr(client->client_id, '\0', sizeof client->client_id) != nullptr);
    if (client->client_id[0] == '\0') return;
    const uint32_t hash = client_cid_hash(client->client_id);
    FUZZ_CHECK(client->cid_hash.load() == hash);
    if (g_client_options.exact_lookup.load() != 0) {
        const mqtt_client *found = client_find_by_cid(client->client_id);
        FUZZ_CHECK(found != nullptr && client_is_online(found));
        FUZZ_CHECK(std::strcmp(found->client_id, client->client_id) == 0);
        return;
    }
    const uint32_t slot = hash % CLIENT_MAX;
    if (g_client_mgr.by_cid[slot].load() == client) {
        FUZZ_CHECK(client_find_by_cid(client->client_id) == client);
        return;
    }
    const auto last = world().last_in_slot.find(slot);
    FUZZ_CHECK(last != world().last_in_slot.end() && last->second != client->generation.load());
}

// One that is closed stays only to publish its will, and nothing is queued for it any more.
void check_closing(const mqtt_client *client) {
    FUZZ_CHECK(client->state.load() == CLOSING && client->will_counted.load() != 0);
    FUZZ_CHECK(client->closing.load() == 0);
    const uint32_t ring = static_cast<uint32_t>(client->send_head.load()) << 8 | client->send_tail.load();
    const auto seen = world().closing_rings.emplace(client->generation.load(), ring).first;
    FUZZ_CHECK(seen->second == ring);
}

// What waits is marked for the next pass, unless a full socket has to say first that it takes bytes again.
bool will_be_sent(const mqtt_client *client) {
    const int block = client->pool_index / CLIENT_POOL_SIZE;
    const int i = client->pool_index % CLIENT_POOL_SIZE;
    const bool marked = (g_client_mgr.blocks[block].queued[i / 64].load() >> (i % 64) & 1) != 0 &&
                        (g_client_mgr.queued_blocks[block / 64].load() >> (block % 64) & 1) != 0;
    const bool blocked = netip_send_blocked(client->handle.load());
    return marked || (g_client_options.low_latency.load() != 0 && blocked);
}

void check_ring(const mqtt_client *client) {
    const client_send_slot *ring = client->send_ring.load();
    uint8_t at = client->send_head.load();
    const uint8_t end = client->send_tail.load();
    FUZZ_CHECK(at < CLIENT_SEND_RING_SIZE && end < CLIENT_SEND_RING_SIZE && (ring != nullptr || at == end));
    if (at == end) return;
    if (client_is_online(client)) FUZZ_CHECK(will_be_sent(client));
    const auto *begin = reinterpret_cast<const uint8_t *>(ring + CLIENT_SEND_RING_SIZE);
    for (; at != end; at = static_cast<uint8_t>((at + 1) % CLIENT_SEND_RING_SIZE)) {
        FUZZ_CHECK(ring[at].ready == 1 && ring[at].len >= 2 && ring[at].len <= CLIENT_SEND_MAX);
        FUZZ_CHECK(ring[at].data >= begin);
        FUZZ_CHECK(ring[at].data + ring[at].len <= begin + CLIENT_SEND_MAX * CLIENT_SEND_RING_SIZE);
    }
}

void check_tables() {
    int used = 0;
    int online = 0;
    int wills = 0;
    for_each_record([&](mqtt_client *client) {
        ++used;
        wills += client->will_counted.load();
        check_ring(client);
        if (client_is_online(client)) {
            ++online;
            check_reachable(client);
        } else {
            check_closing(client);
        }
    });
    FUZZ_CHECK(g_client_mgr.client_count.load() == used && client_get_connected_count() == online);
    FUZZ_CHECK(g_will_delay_client_count.load() == wills);
    int marked = 0;
    int taken = 0;
    for (int b = 0; b < g_client_mgr.block_count.load(); ++b) {
        marked += g_client_mgr.blocks[b].wills.load();
        taken += g_client_mgr.blocks[b].used.load();
    }
    FUZZ_CHECK(marked == wills && taken == used);
    mqtt_stats_update();
    FUZZ_CHECK(g_mqtt_stats.online.load() == static_cast<uint32_t>(online));
    FUZZ_CHECK(g_mqtt_stats.pool_used.load() == static_cast<uint32_t>(used));
}

void check_records_not_in_use() {
    for (int b = 0; b < g_client_mgr.block_count.load(); ++b) {
        const client_pool_block &block = g_client_mgr.blocks[b];
        for (int i = 0; i < CLIENT_POOL_SIZE; ++i) {
            if (block.used_map[i].load() != 0 || block.born[i] == 0) continue;
            const mqtt_client &client = block.records[i];
            FUZZ_CHECK(client.state.load() == CLOSED && client.life.load() == 0 && client.in_use.load() == 0);
            FUZZ_CHECK(client.send_ring.load() == nullptr && client.inflight == 0);
            FUZZ_CHECK(client.will_topic == nullptr && client.will_payload == nullptr);
        }
    }
}

void check_inflight() {
    const std::lock_guard lock(g_queue_mutex);
    std::map<const mqtt_client *, int> counts;
    int listed = 0;
    for (qos_packet *pkt = g_pending_queue; pkt != nullptr; pkt = pkt->next) {
        ++listed;
        const qos_node *node = qos_node_of(pkt);
        FUZZ_CHECK(pkt->client != nullptr && qos_node_is_live(node));
        FUZZ_CHECK(pkt->client->state.load() == LOGINED || pkt->client->state.load() == CONNECTED);
        FUZZ_CHECK(pkt->payload != nullptr && pkt->payload_len >= 1 && pkt->payload_len <= QOS_MAX_PAYLOAD);
        FUZZ_CHECK(std::memchr(pkt->topic, '\0', sizeof pkt->topic) != nullptr && pkt->topic[0] != '\0');
        FUZZ_CHECK(pkt->qos == 1 ? pkt->qos2_state == 0 : pkt->qos == 2 && pkt->qos2_state >= 1);
        FUZZ_CHECK(pkt->qos2_state <= 3 && pkt->retry_count <= QOS_MAX_RETRY);
        FUZZ_CHECK(pkt->retry_interval_ms >= QOS_FIRST_INTERVAL_MS &&
                   pkt->retry_interval_ms <= QOS_MAX_INTERVAL_MS);
        ++counts[pkt->client];
    }
    const qos_queue_view view = qos_queue_all();
    int in_view = 0;
    for (uint32_t i = 0; i < view.count; ++i) in_view += view.nodes[i] != nullptr ? 1 : 0;
    FUZZ_CHECK(in_view == listed);
    for_each_record([&](const mqtt_client *client) {
        const auto count = counts.find(client);
        FUZZ_CHECK(client->inflight == (count != counts.end() ? count->second : 0));
        FUZZ_CHECK(client->inflight <= QOS_MAX_PER_CLIENT);
    });
}

std::set<std::string> online_ids() {
    std::set<std::string> ids;
    for_each_record([&](const mqtt_client *client) {
        if (client_is_online(client)) ids.insert(client->client_id);
    });
    return ids;
}

void check_subscriptions() {
    const int count = g_sub_mgr.sub_count.load();
    FUZZ_CHECK(count >= 0 && count <= SUB_MAX && g_sub_mgr.index != nullptr);
    FUZZ_CHECK(sub_index_is_current(g_sub_mgr.index, g_sub_mgr.subs, count));
    const std::set<std::string> online = online_ids();
    for (int pos = 0; pos < count; ++pos) {
        const mqtt_subscription &sub = g_sub_mgr.subs[pos];
        FUZZ_CHECK(sub.client_id[0] != '\0' && sub.qos <= 2 && reference_is_valid(sub.topic_filter));
        sub_positions pair;
        sub_index_find_client(g_sub_mgr.index, sub.client_id, sub.topic_filter, &pair);
        FUZZ_CHECK(pair.count() == 1 && pair.has(pos));
        // A clean session's entries go with their client. Those of an identifier that had a session to be
        // kept may be any connection's.
        if (sub.clean_session != 0 && world().persistent_ids.count(sub.client_id) == 0)
            FUZZ_CHECK(online.count(sub.client_id) != 0);
    }
}

void check_index_by_topic() {
    const int count = g_sub_mgr.sub_count.load();
    for (const char *topic : {"t", "t/1", "a/b", "$SYS/x", ""}) {
        sub_positions found;
        sub_index_find_topic(g_sub_mgr.index, topic, &found);
        int expected = 0;
        for (int pos = 0; pos < count; ++pos) {
            if (!reference_matches(g_sub_mgr.subs[pos].topic_filter, topic)) continue;
            ++expected;
            FUZZ_CHECK(found.has(pos));
        }
        FUZZ_CHECK(found.count() == expected);
    }
}

void check_retained() {
    const int count = g_sub_mgr.retain_count.load();
    FUZZ_CHECK(count >= 0 && count <= RETAIN_MAX);
    std::set<std::string> topics;
    for (int i = 0; i < count; ++i) {
        const retain_msg &msg = g_sub_mgr.retains[i];
        FUZZ_CHECK(std::memchr(msg.topic, '\0', sizeof msg.topic) != nullptr);
        FUZZ_CHECK(topics.insert(msg.topic).second);
        FUZZ_CHECK(msg.payload_len >= 1 && msg.payload_len <= sizeof msg.payload && msg.qos <= 2);
    }
}

}  // namespace

void check_world() {
    check_tables();
    check_records_not_in_use();
    check_inflight();
    check_subscriptions();
    check_index_by_topic();
    check_retained();
}

}  // namespace zeb_fuzz
