// SUBSCRIBE and UNSUBSCRIBE.
#include <cstring>

#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "sdk/broker.h"

namespace zeb {

namespace {

constexpr uint8_t k_action_subscribe = 0;
constexpr int k_recorded_subs_max = 32;            // the record has room for 64: kept
constexpr std::size_t k_recorded_filter_max = 63;  // kept as well

void log_request(const mqtt_client *client, const mqtt_subscribe_para &request) {
    if (!agent_log_enabled(AGENT_LOG_INFO)) return;
    agent_log(AGENT_LOG_INFO, "【QoS溯源1】客户端订阅请求：ClientID=%s, MsgID=%d, 订阅数=%d",
              client->client_id, request.msg_id, request.filter_count);
    for (int i = 0; i < request.filter_count; ++i)
        agent_log(AGENT_LOG_INFO, "【QoS溯源1】filter[%d]：Topic=%s, 请求QoS=%d (0x%02X)", i,
                  request.topic_filters[i], static_cast<int>(request.requested_qos[i]),
                  request.requested_qos[i]);
}

// The granted QoS, or k_suback_failure. What is retained reaches the client before its SUBACK: kept.
uint32_t subscribe_one(mqtt_client *client, int i, const char *filter, uint32_t qos) {
    if (filter[0] == '\0') {
        ZEB_LOG(AGENT_LOG_WARN, "【QoS溯源2】filter[%d]：Topic为空，授予QoS=失败(0x%02X)", i,
                k_suback_failure);
        return k_suback_failure;
    }
    if (broker_fire_acl(client, filter, k_action_subscribe) == 0) {
        ZEB_LOG(AGENT_LOG_WARN, "[ACL] 订阅被拒绝: %s", filter);
        return k_suback_failure;
    }
    if (sub_add(client->client_id, filter, qos, client->clean_session.load(std::memory_order_relaxed)) != 0) {
        ZEB_LOG(AGENT_LOG_WARN, "【QoS溯源2】filter[%d]：Topic=%s, 添加订阅失败，授予QoS=失败(0x%02X)", i,
                filter, k_suback_failure);
        return k_suback_failure;
    }
    ZEB_LOG(AGENT_LOG_INFO, "【QoS溯源2】filter[%d]：Topic=%s, 请求QoS=%d → 授予QoS=%d (0x%02X)", i, filter,
            static_cast<int>(qos), static_cast<int>(qos), qos);
    send_retained_msg_to_client(client, filter);
    broker_fire_event(client, MQTT_BROKER_EVENT_SUBSCRIBE, filter, static_cast<int>(qos));
    return qos;
}

// False once the record is full: the rest of the packet is live but not recorded.
bool record_one(persist_session *session, const char *filter, uint32_t qos) {
    if (session->sub_count >= k_recorded_subs_max) return false;
    for (int i = 0; i < session->sub_count; ++i) {
        if (strcmp(session->subs[i].topic, filter) != 0) continue;
        session->subs[i].qos = static_cast<uint8_t>(qos);
        return true;
    }
    persist_sub &entry = session->subs[session->sub_count];
    const std::size_t len = strnlen(filter, k_recorded_filter_max);
    memcpy(entry.topic, filter, len);
    entry.topic[len] = '\0';
    entry.qos = static_cast<uint8_t>(qos);
    ++session->sub_count;
    return true;
}

void record(mqtt_client *client, const mqtt_subscribe_para &request, const mqtt_ack_para &suback) {
    std::lock_guard lock(client->session_lock);
    for (int i = 0; i < request.filter_count; ++i) {
        if (suback.reason_codes[i] == k_suback_failure) continue;
        if (!record_one(&client->session, request.topic_filters[i], suback.reason_codes[i])) break;
    }
    if (client->clean_session.load(std::memory_order_relaxed) != 0) return;
    persist_mark(&client->session, PERSIST_SUBS);
    ZEB_LOG(AGENT_LOG_INFO, "[持久化] 订阅已保存到文件: %s, 订阅数=%d", client->client_id,
            client->session.sub_count);
}

// The first filter's code stands for all of them; level 5 knows only granted QoS values and failure.
uint8_t summary_code(const mqtt_client *client, uint32_t first) {
    if (client->codec.protocol_version.load(std::memory_order_relaxed) != 5) {
        ZEB_LOG(AGENT_LOG_INFO, "【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X",
                static_cast<int>(first), first);
        return static_cast<uint8_t>(first);
    }
    const uint32_t code = first <= 2 ? first : k_suback_failure;
    ZEB_LOG(AGENT_LOG_INFO, "【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=%d → ReasonCode=0x%02X",
            static_cast<int>(first), code);
    return static_cast<uint8_t>(code);
}

}  // namespace

void packet_on_subscribe(mqtt_client *client, const uint8_t *data, int len) {
    mqtt_subscribe_para request;
    const int err = mqtt_codec_decode_subscribe(&client->codec, data, &len, &request);
    if (err != MQTT_CODEC_OK) {
        packet_decode_failed(client, "SUBSCRIBE", err);
        return;
    }
    log_request(client, request);
    mqtt_ack_para suback{};
    suback.msg_id = request.msg_id;
    suback.reason_code_count = request.filter_count;
    for (int i = 0; i < request.filter_count; ++i)
        suback.reason_codes[i] = subscribe_one(client, i, request.topic_filters[i], request.requested_qos[i]);
    record(client, request, suback);
    const uint32_t first = request.filter_count > 0 ? suback.reason_codes[0] : k_suback_failure;
    suback.reason_code = summary_code(client, first);
    if (packet_send_ack(client, MQTT_PKT_SUBACK, suback))
        ZEB_LOG(AGENT_LOG_INFO, "发送SUBACK成功：ClientID=%s, MsgID=%d, 授权QoS=%d, ReasonCode=0x%02X",
                client->client_id, request.msg_id, static_cast<int>(first), suback.reason_code);
}

// Neither the session record nor a file changes: a recorded filter comes back with the session. Kept.
void packet_on_unsubscribe(mqtt_client *client, const uint8_t *data, int len) {
    mqtt_unsubscribe_para request;
    const int err = mqtt_codec_decode_unsubscribe(&client->codec, data, &len, &request);
    if (err != MQTT_CODEC_OK) {
        packet_decode_failed(client, "UNSUBSCRIBE", err);
        return;
    }
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：客户端取消订阅：ClientID=%s, MsgID=%d, 取消数=%d", client->client_id,
            request.msg_id, request.filter_count);
    for (int i = 0; i < request.filter_count; ++i) {
        const char *filter = request.topic_filters[i];
        if (filter[0] == '\0') continue;
        if (sub_remove(client->client_id, filter) > 0) {
            ZEB_LOG(AGENT_LOG_INFO, "取消订阅成功：ClientID=%s, Topic=%s", client->client_id, filter);
            broker_fire_event(client, MQTT_BROKER_EVENT_UNSUBSCRIBE, filter, 0);
        } else {
            ZEB_LOG(AGENT_LOG_DEBUG, "取消订阅失败：ClientID=%s, Topic=%s", client->client_id, filter);
        }
    }
    if (packet_send_id_ack(client, MQTT_PKT_UNSUBACK, request.msg_id))
        ZEB_LOG(AGENT_LOG_INFO, "发送UNSUBACK成功：ClientID=%s, MsgID=%d", client->client_id, request.msg_id);
}

}  // namespace zeb
