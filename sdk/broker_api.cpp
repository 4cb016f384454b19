// The public interface: callbacks, queries and control. Each function may be called from any thread.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "sdk/sdk_internal.h"
#include "sdk/zeb_sdk_mqtt_broker.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"

using namespace zeb;

namespace {

constexpr uint8_t k_reason_administrative_action = 0x98;

template <typename Callback>
void set_callback(Callback &field, Callback cb) {
    std::atomic_ref<Callback>(field).store(cb, std::memory_order_release);
}

bool is_foreign(const client_ref &client, const mqtt_broker_instance *b) {
    return client->broker.load(std::memory_order_relaxed) != b;
}

}  // namespace

void zeb_sdk_mqtt_broker_register_event_callback(mqtt_broker_instance *b, mqtt_broker_event_cb cb) {
    if (b != nullptr) set_callback(b->event_cb, cb);
}

void zeb_sdk_mqtt_broker_register_auth_callback(mqtt_broker_instance *b, mqtt_broker_auth_cb cb) {
    if (b != nullptr) set_callback(b->auth_cb, cb);
}

void zeb_sdk_mqtt_broker_register_acl_callback(mqtt_broker_instance *b, mqtt_broker_acl_cb cb) {
    if (b != nullptr) set_callback(b->acl_cb, cb);
}

int zeb_sdk_mqtt_broker_get_online_count(mqtt_broker_instance *) {
    return client_get_connected_count();
}

int zeb_sdk_mqtt_broker_get_client_id_list(mqtt_broker_instance *, char *buf, int size) {
    if (buf == nullptr || size < 1) return MQTT_BROKER_ERR_PARAM;
    memset(buf, 0, static_cast<std::size_t>(size));
    return client_fill_id_list(buf, size) < 0 ? MQTT_BROKER_ERR_NOT_FOUND : MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_get_client_info(mqtt_broker_instance *b, const char *client_id,
                                        mqtt_broker_client_info *out) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (client_id == nullptr || out == nullptr) return MQTT_BROKER_ERR_PARAM;
    const client_ref client = client_acquire_by_cid(client_id);
    if (!client) return MQTT_BROKER_ERR_NOT_FOUND;
    if (is_foreign(client, b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] get_client_info rejected: client '%s' belongs to another broker",
                client_id);
        return MQTT_BROKER_ERR_DENIED;
    }
    char id[65];
    client_copy_id(client.get(), id);
    if (strcmp(id, client_id) != 0) return MQTT_BROKER_ERR_NOT_FOUND;  // renamed since it was found
    memset(out, 0, sizeof *out);
    memcpy(out->client_id, id, sizeof id);
    client_copy_ip(client.get(), out->ip);
    out->port = client->port.load(std::memory_order_relaxed);
    out->keepalive = static_cast<uint16_t>(client->keepalive.load(std::memory_order_relaxed) / 1000u);
    out->online = client_is_online(client.get()) ? 1 : 0;
    out->connected_seconds = static_cast<uint32_t>(
        (platform_mono_ms() - client->connected_ms.load(std::memory_order_relaxed)) / 1000u);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_kick_client(mqtt_broker_instance *b, const char *client_id) {
    if (broker_is_null(b)) return MQTT_BROKER_ERR_PARAM;
    if (client_id == nullptr || client_id[0] == '\0') return MQTT_BROKER_ERR_PARAM;
    const client_ref client = client_acquire_by_cid(client_id);
    if (!client) {
        ZEB_LOG(AGENT_LOG_WARN, "[SDK] kick client not found: %s", client_id);
        return MQTT_BROKER_ERR_NOT_FOUND;
    }
    if (is_foreign(client, b)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[SDK] kick rejected: client '%s' does not belong to this broker instance",
                client_id);
        return MQTT_BROKER_ERR_DENIED;
    }
    const uint32_t state = client->state.load(std::memory_order_relaxed);
    if (state == 0 || state == CLOSED) {
        ZEB_LOG(AGENT_LOG_WARN, "[SDK] kick client '%s' already closed", client_id);
        return MQTT_BROKER_OK;
    }
    packet_handler_send_disconnect(client.get(), k_reason_administrative_action);
    client_close(client.get());
    ZEB_LOG(AGENT_LOG_INFO, "[SDK] kick client success: %s", client_id);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_publish(mqtt_broker_instance *, const char *topic, const uint8_t *payload, int len,
                                uint32_t qos, int retain, uint32_t expiry_seconds) {
    if (topic == nullptr || payload == nullptr || len < 1 || qos > 2) return MQTT_BROKER_ERR_PARAM;
    packet_handler_broker_publish(topic, payload, len, qos, static_cast<uint8_t>(retain), expiry_seconds);
    return MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_clear_retain(mqtt_broker_instance *, const char *topic) {
    return topic == nullptr ? MQTT_BROKER_ERR_PARAM : retain_msg_delete(topic);
}

int zeb_sdk_mqtt_broker_get_retain_topic_list(mqtt_broker_instance *, char *buf, int size) {
    if (buf == nullptr || size < 1) return MQTT_BROKER_ERR_PARAM;
    memset(buf, 0, static_cast<std::size_t>(size));
    return retain_fill_topic_list(buf, size) < 0 ? MQTT_BROKER_ERR_NOT_FOUND : MQTT_BROKER_OK;
}

int zeb_sdk_mqtt_broker_get_stats(mqtt_broker_instance *, mqtt_broker_stats *out) {
    if (out == nullptr) return MQTT_BROKER_ERR_PARAM;
    const auto low = [](const std::atomic<uint64_t> &counter) {
        return static_cast<uint32_t>(counter.load(std::memory_order_relaxed));
    };
    memset(out, 0, sizeof *out);
    out->online = client_get_connected_count();
    out->total_messages = low(g_mqtt_stats.qos0) + low(g_mqtt_stats.qos1) + low(g_mqtt_stats.qos2);
    out->total_subscriptions = g_mqtt_stats.subs.load(std::memory_order_relaxed);
    out->uptime_seconds = (static_cast<uint32_t>(platform_mono_ms()) - low(g_mqtt_stats.start_ms)) / 1000u;
    return MQTT_BROKER_OK;
}
