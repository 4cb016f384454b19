// Acknowledgements in both directions, PINGREQ and DISCONNECT.
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"
#include "sdk/broker.h"

namespace zeb {

bool packet_send_ack(mqtt_client *client, int type, const mqtt_ack_para &ack) {
    uint8_t buf[k_answer_buf_bytes];
    int len = sizeof buf;
    if (mqtt_codec_encode_ack(&client->codec, type, &ack, buf, &len) != MQTT_CODEC_OK) return false;
    return client_send(client, buf, len) == 0;
}

bool packet_send_id_ack(mqtt_client *client, int type, uint16_t msg_id) {
    mqtt_ack_para ack{};
    ack.msg_id = msg_id;
    return packet_send_ack(client, type, ack);
}

namespace {

bool decode_ack(mqtt_client *client, int type, const char *name, const uint8_t *data, int len,
                uint16_t *msg_id) {
    mqtt_ack_para ack;
    const int err = mqtt_codec_decode_ack(&client->codec, type, data, &len, &ack);
    if (err != MQTT_CODEC_OK) {
        packet_decode_failed(client, name, err);
        return false;
    }
    *msg_id = ack.msg_id;
    return true;
}

}  // namespace

void packet_on_puback(mqtt_client *client, const uint8_t *data, int len) {
    uint16_t id = 0;
    if (!decode_ack(client, MQTT_PKT_PUBACK, "PUBACK", data, len, &id)) return;
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：收到PUBACK确认：ClientID=%s, MsgID=%d", client->client_id, id);
    qos_reliable_handle_ack(client, id, MQTT_PKT_PUBACK);
    uint16_t expected = id;
    if (client->last_qos1_msg_id.compare_exchange_strong(expected, 0, std::memory_order_relaxed))
        ZEB_LOG(AGENT_LOG_DEBUG, "MQTT标准：QoS1消息确认完成：ClientID=%s, MsgID=%d", client->client_id, id);
    else
        ZEB_LOG(AGENT_LOG_WARN, "MQTT标准：收到无效PUBACK：ClientID=%s, MsgID=%d（无对应待确认消息）",
                client->client_id, id);
}

// PUBREC and PUBREL are answered for any identifier, known or not: kept.
void packet_on_pubrec(mqtt_client *client, const uint8_t *data, int len) {
    uint16_t id = 0;
    if (!decode_ack(client, MQTT_PKT_PUBREC, "PUBREC", data, len, &id)) return;
    ZEB_LOG(AGENT_LOG_INFO, "收到PUBREC：ClientID=%s, MsgID=%d", client->client_id, id);
    qos_reliable_handle_ack(client, id, MQTT_PKT_PUBREC);
    if (packet_send_id_ack(client, MQTT_PKT_PUBREL, id))
        ZEB_LOG(AGENT_LOG_INFO, "发送PUBREL成功：ClientID=%s, MsgID=%d", client->client_id, id);
}

void packet_on_pubrel(mqtt_client *client, const uint8_t *data, int len) {
    uint16_t id = 0;
    if (!decode_ack(client, MQTT_PKT_PUBREL, "PUBREL", data, len, &id)) return;
    ZEB_LOG(AGENT_LOG_INFO, "收到PUBREL：ClientID=%s, MsgID=%d", client->client_id, id);
    qos_reliable_handle_ack(client, id, MQTT_PKT_PUBREL);
    if (!packet_send_id_ack(client, MQTT_PKT_PUBCOMP, id)) return;
    client->inbound_qos2_msg_id.store(0, std::memory_order_relaxed);  // whatever identifier it held
    ZEB_LOG(AGENT_LOG_INFO, "发送PUBCOMP成功：ClientID=%s, MsgID=%d", client->client_id, id);
}

void packet_on_pubcomp(mqtt_client *client, const uint8_t *data, int len) {
    uint16_t id = 0;
    if (!decode_ack(client, MQTT_PKT_PUBCOMP, "PUBCOMP", data, len, &id)) return;
    ZEB_LOG(AGENT_LOG_INFO, "收到PUBCOMP：ClientID=%s, MsgID=%d，QoS2流程完成", client->client_id, id);
    qos_reliable_handle_ack(client, id, MQTT_PKT_PUBCOMP);
    uint16_t expected = id;
    client->inbound_qos2_msg_id.compare_exchange_strong(expected, 0, std::memory_order_relaxed);
}

void packet_on_pingreq(mqtt_client *client, const uint8_t *, int) {
    static constexpr uint8_t k_pingresp[] = {0xD0, 0x00};
    ZEB_LOG(AGENT_LOG_DEBUG, "收到客户端心跳请求：ClientID=%s", client->client_id);
    if (client_send(client, k_pingresp, sizeof k_pingresp) != 0) return;
    ZEB_LOG(AGENT_LOG_DEBUG, "发送心跳响应成功：ClientID=%s", client->client_id);
    client_update_active(client);
}

namespace {

// An absent property reads as 0 and ends the session; only 0xFFFFFFFF leaves CONNECT's interval in force.
// Kept.
void settle_session_5(mqtt_client *client, const mqtt_disconnect_para &disconnect) {
    constexpr uint32_t k_keep_interval = 0xFFFFFFFF;
    if (disconnect.session_expiry_interval < k_keep_interval) {
        client->session_expiry_interval.store(disconnect.session_expiry_interval, std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] DISCONNECT 覆盖会话超时: %u", disconnect.session_expiry_interval);
    }
}

void keep_session(mqtt_client *client) {
    {
        std::lock_guard lock(client->session_lock);
        persist_mark(&client->session, PERSIST_SUBS);  // the session file keeps what CONNECT wrote
    }
    persist_flush();
}

void decide_session_5(mqtt_client *client) {
    const uint32_t interval = client->session_expiry_interval.load(std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] DISCONNECT: session_expiry_interval=%u, clean_session=%u", interval,
            client->clean_session.load(std::memory_order_relaxed));
    if (packet_has_successor(client)) return;
    if (interval != 0) {
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] Session Expiry=%u → 保留会话", interval);
        keep_session(client);
    } else {
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] Session Expiry=0 → 立即清除会话");
        persist_remove(client->client_id);
    }
}

void decide_session_4(mqtt_client *client) {
    if (packet_has_successor(client)) return;
    if (client->clean_session.load(std::memory_order_relaxed) != 0) {
        persist_remove(client->client_id);
        ZEB_LOG(AGENT_LOG_INFO, "持久化：客户端数据已清除 ClientID=%s", client->client_id);
    } else {
        keep_session(client);
        ZEB_LOG(AGENT_LOG_INFO, "持久化：客户端会话已保存 ClientID=%s, 订阅数=%d", client->client_id,
                client->session.sub_count);
    }
}

// A client that says goodbye takes its will with it.
void discard_will(mqtt_client *client) {
    client->will_msg_used.store(0, std::memory_order_relaxed);
    {
        std::lock_guard lock(client->session_lock);
        client->session.will_flag = 0;
    }
    packet_cancel_will(client);
}

}  // namespace

void packet_on_disconnect(mqtt_client *client, const uint8_t *data, int len) {
    mqtt_disconnect_para disconnect{};
    const int err = mqtt_codec_decode_disconnect(&client->codec, data, &len, &disconnect);
    if (err != MQTT_CODEC_OK) {
        packet_decode_failed(client, "DISCONNECT", err);
        return;
    }
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：客户端主动断开连接：ClientID=%s", client->client_id);
    client->disconnect_received.store(1, std::memory_order_relaxed);
    broker_fire_event(client, MQTT_BROKER_EVENT_DISCONNECT, nullptr, 0);
    const bool level_5 = client->codec.protocol_version.load(std::memory_order_relaxed) == 5;
    if (level_5) settle_session_5(client, disconnect);
    discard_will(client);
    if (level_5)
        decide_session_5(client);
    else
        decide_session_4(client);
    packet_settle_subscriptions(client);
    client_close(client);
}

void packet_handler_send_disconnect(mqtt_client *client, uint8_t reason_code) {
    if (client == nullptr || client->handle.load(std::memory_order_relaxed) == NETIP_HANDLE_NONE) return;
    const client_ref hold(client);
    mqtt_disconnect_para disconnect{};
    if (client->codec.protocol_version.load(std::memory_order_relaxed) == 5)
        disconnect.reason_code = reason_code;
    uint8_t buf[k_answer_buf_bytes];
    int len = sizeof buf;
    if (mqtt_codec_encode_disconnect(&client->codec, &disconnect, buf, &len) != MQTT_CODEC_OK) return;
    client_send(client, buf, len);
    packet_flush_before_close(client);
}

}  // namespace zeb
