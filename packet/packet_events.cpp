// From the network's events to a client's packets.
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"
#include "sdk/broker.h"
#include "stats/mqtt_stats.h"

namespace zeb {

packet_options g_packet_options;

namespace {

std::atomic<uint8_t> s_send_ready_registered{0};

bool is_set(const std::atomic<uint8_t> &option) {
    return option.load(std::memory_order_relaxed) != 0;
}

struct peer {
    char ip[64] = {};
    uint16_t port = 0;
};

bool fetch_peer(uint32_t handle, peer *out) {
    if (netip_get_client_ip(handle, out->ip, sizeof out->ip) == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "Get client IP failed: handle=%u", handle);
        return false;
    }
    out->port = static_cast<uint16_t>(netip_get_client_port(handle));
    return true;
}

int on_accepted(uint32_t handle) {
    peer from;
    if (!fetch_peer(handle, &from)) return 0;
    ZEB_LOG(AGENT_LOG_INFO, "Client connected: handle=%u, ip=%s:%d", handle, from.ip, from.port);
    return 1;
}

client_ref create_on_first_packet(uint32_t handle, void *arg) {
    peer from;
    if (!fetch_peer(handle, &from)) return {};
    mqtt_client *client = client_create(handle, from.ip, from.port, static_cast<mqtt_broker_instance *>(arg));
    if (client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "Create client failed, close handle=%u", handle);
        netip_close(handle);
        return {};
    }
    // The connection may have been closed, by the limit for CONNECT, before its record could be found. The
    // slot is pinned meanwhile, so that nobody else has it.
    if (netip_get_client_ip(handle, from.ip, sizeof from.ip) == 0) {
        client_close(client);
        return {};
    }
    // By the handle again: another thread may have closed the record already.
    return client_acquire_by_handle(handle);
}

int on_data(uint32_t handle, const uint8_t *data, uint32_t len, void *arg) {
    if (len == 0 || data == nullptr) return 1;
    client_ref client = client_acquire_by_handle(handle);
    if (!client) client = create_on_first_packet(handle, arg);
    if (client) packet_dispatch(client.get(), data, static_cast<int32_t>(len));
    return 1;
}

int on_closed(uint32_t handle, uint32_t reason, uint32_t error) {
    if (handle == NETIP_HANDLE_NONE) return 1;
    ZEB_LOG(AGENT_LOG_INFO, "Client disconnected: handle=%u, reason=%d, error=%u", handle,
            static_cast<int>(reason), error);
    const client_ref client = client_acquire_by_handle(handle);
    if (!client) return 1;
    if (client->state.load(std::memory_order_relaxed) == LOGINED) packet_settle_subscriptions(client.get());
    client_close(client.get());
    return 1;
}

}  // namespace

int mqtt_netip_event_cb(uint32_t handle, uint32_t event, const uint8_t *data, uint32_t len, uint32_t reason,
                        uint32_t error, void *arg) {
    if (s_send_ready_registered.exchange(1, std::memory_order_relaxed) == 0)
        netip_register_send_ready_cb(on_netip_send_ready);
    switch (event) {
        case NETIP_EVENT_CONNECT:
            return on_accepted(handle);
        case NETIP_EVENT_DATA:
            return on_data(handle, data, len, arg);
        case NETIP_EVENT_DISCONNECT:
            return on_closed(handle, reason, error);
        default:
            ZEB_LOG(AGENT_LOG_WARN, "Unknown NetIP event type: %d", static_cast<int>(event));
            return 1;
    }
}

void on_netip_send_ready(netip_handle) {
    // Draining is driven by the send thread's beat alone.
}

void packet_handler_remove_client_subs(const char *client_id, uint8_t clean_session) {
    if (client_id == nullptr || client_id[0] == '\0') return;
    if (const client_ref client = client_acquire_by_cid(client_id))
        qos_reliable_clean_client_packets(client.get());
    if (clean_session == 0) {
        ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：CleanSession=false，保留客户端订阅：ClientID=%s", client_id);
        return;
    }
    const int removed = sub_remove(client_id, nullptr);
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=%s, 数量=%d",
            client_id, removed);
}

bool packet_has_successor(mqtt_client *client) {
    char id[65];
    client_copy_id(client, id);
    const client_ref holder = client_acquire_by_cid(id);
    return holder && holder.get() != client;
}

void packet_settle_subscriptions(mqtt_client *client) {
    client->subs_settled.store(1, std::memory_order_relaxed);
    char id[65];
    client_copy_id(client, id);
    const client_ref holder = client_acquire_by_cid(id);
    if (holder && holder.get() != client) return;
    packet_handler_remove_client_subs(id, client->clean_session.load(std::memory_order_relaxed));
}

void packet_decode_failed(const mqtt_client *client, const char *type_name, int error) {
    ZEB_LOG(AGENT_LOG_ERROR, "解码%s失败：ClientID=%s, 错误码=%d", type_name, client->client_id, error);
    mqtt_stats_inc_parse_error();
}

void packet_flush_before_close(mqtt_client *client) {
    const auto drained = [client] {
        return client->send_head.load(std::memory_order_relaxed) ==
               client->send_tail.load(std::memory_order_relaxed);
    };
    client_send_flush(client);
    if (drained()) return;
    constexpr uint64_t k_grace_us = 10000;
    platform_sleep_us(k_grace_us);
    client_send_flush(client);
}

namespace {

using packet_fn = void (*)(mqtt_client *, const uint8_t *, int);

// By packet type; types that only a broker sends, and AUTH, have none.
constexpr packet_fn k_handlers[16] = {
    nullptr,                // 0 reserved
    packet_on_connect,      // 1
    nullptr,                // 2 CONNACK
    packet_on_publish,      // 3
    packet_on_puback,       // 4
    packet_on_pubrec,       // 5
    packet_on_pubrel,       // 6
    packet_on_pubcomp,      // 7
    packet_on_subscribe,    // 8
    nullptr,                // 9 SUBACK
    packet_on_unsubscribe,  // 10
    nullptr,                // 11 UNSUBACK
    packet_on_pingreq,      // 12
    nullptr,                // 13 PINGRESP
    packet_on_disconnect,   // 14
    nullptr,                // 15 AUTH
};

// Another thread may have closed the client (a kick, say) while its packet was being handled, after the close
// had removed its subscriptions: what the packet then added must not stay behind.
void drop_late_subscriptions(mqtt_client *client) {
    if (client_is_online(client) || client->clean_session.load(std::memory_order_relaxed) == 0) return;
    if (client->client_id[0] == '\0' || client_acquire_by_cid(client->client_id)) return;
    sub_remove(client->client_id, nullptr);
}

// Only an accepted CONNECT names a record, on this thread.
bool is_too_early(const mqtt_client *client, int type) {
    return is_set(g_packet_options.require_connect) && type != MQTT_PKT_CONNECT &&
           client->client_id[0] == '\0';
}

}  // namespace

void packet_dispatch(mqtt_client *client, const uint8_t *data, int32_t len) {
    mqtt_stats_inc_rx_pkt();
    if (data == nullptr || len < 1 || client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "无效报文参数");
        return;
    }
    const client_ref hold(client);
    const int type = data[0] >> 4;
    if (is_too_early(client, type)) {
        ZEB_LOG(AGENT_LOG_WARN, "packet before CONNECT, connection closed: ip=%s:%d, type=%d", client->ip,
                client->port.load(std::memory_order_relaxed), type);
        client_close(client);
        return;
    }
    const uint32_t max = client->max_packet_size.load(std::memory_order_relaxed);
    if (max != 0 && static_cast<uint32_t>(len) > max) {
        ZEB_LOG(AGENT_LOG_ERROR, "[MQTT过载保护] 报文超长关闭连接：Client=%s, 接收=%d, 协商最大=%d",
                client->client_id, len, static_cast<int>(max));
        packet_handler_send_disconnect(client, k_reason_packet_too_large);
        client_close(client);
        return;
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "收到MQTT报文：ClientID=%s, 类型=%d, 长度=%u", client->client_id, type,
            static_cast<unsigned>(len));
    client_update_active(client);
    if (k_handlers[type] == nullptr) {
        ZEB_LOG(AGENT_LOG_WARN, "未处理的MQTT报文类型：%d, ClientID=%s", type, client->client_id);
        return;
    }
    k_handlers[type](client, data, len);
    const bool may_subscribe = type == MQTT_PKT_SUBSCRIBE || type == MQTT_PKT_CONNECT;
    if (may_subscribe) drop_late_subscriptions(client);
}

}  // namespace zeb
