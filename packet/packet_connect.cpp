// CONNECT: authentication, what is negotiated, the session's past, the will, CONNACK.
#include <cstring>

#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "sdk/broker.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr uint32_t k_level_5 = 5;
// The standard's default; 0 would be a protocol error to real clients.
constexpr uint16_t k_receive_maximum = 65535;

uint32_t level_of(const mqtt_client *client) {
    return client->codec.protocol_version.load(std::memory_order_relaxed);
}

// Cut to fit, always terminated.
template <std::size_t N, std::size_t M>
void copy_text(char (&dst)[N], const char (&src)[M]) {
    const std::size_t len = strnlen(src, N < M ? N - 1 : M - 1);
    memcpy(dst, src, len);
    dst[len] = '\0';
}

int send_connack(mqtt_client *client, const mqtt_connack_para &connack) {
    uint8_t buf[k_answer_buf_bytes];
    int len = sizeof buf;
    const int err = mqtt_codec_encode_connack(&client->codec, &connack, buf, &len);
    if (err != MQTT_CODEC_OK || len <= 0) return -1;
    client_send(client, buf, len);
    return 0;
}

// The answer must have left before the close: nothing is flushed once the client is closing. Its limits are
// those in force; with a zero in their place real clients report a protocol error and not the refusal.
void refuse(mqtt_client *client) {
    mqtt_connack_para connack{};
    connack.reason_code = k_reason_bad_credentials;
    connack.receive_maximum = k_receive_maximum;
    connack.maximum_packet_size = client->max_packet_size.load(std::memory_order_relaxed);
    send_connack(client, connack);
    packet_flush_before_close(client);
    client_close(client);
}

// A second CONNECT may change the identifier. What the connection subscribed to in a clean session of the old
// one ends with that name, or it would stay in the table for ever.
void rename(mqtt_client *client, const char *cid, bool was_clean) {
    char old[65];
    client_copy_id(client, old);
    client_set_cid(client, cid);
    if (!was_clean || old[0] == '\0' || strcmp(old, client->client_id) == 0) return;
    if (!client_acquire_by_cid(old)) sub_remove(old, nullptr);
}

void negotiate_session_expiry(mqtt_client *client, const mqtt_connect_para &connect) {
    if (level_of(client) == k_level_5) {
        client->session_expiry_interval.store(connect.session_expiry_interval, std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] Session Expiry Interval negotiated: client=%s, value=%u (0x11)",
                client->client_id, connect.session_expiry_interval);
    } else {
        client->session_expiry_interval.store(0, std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_DEBUG, "[MQTT3] Session Expiry Interval not supported, set to 0");
    }
}

// One field serves both directions: a client that announces no maximum is itself held to 256 bytes. Kept.
void negotiate_packet_size(mqtt_client *client, const mqtt_connect_para &connect) {
    uint32_t size = connect.maximum_packet_size;
    if (level_of(client) != k_level_5) {
        size = k_v3_max_packet_size;
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT3] Maximum Packet Size not supported, use default=%u, client=%s", size,
                client->client_id);
    } else if (size < k_min_packet_size) {
        ZEB_LOG(AGENT_LOG_WARN, "[MQTT5] Maximum Packet Size too small(%u), force set to 256, client=%s",
                size, client->client_id);
        size = k_min_packet_size;
    } else {
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] Maximum Packet Size negotiated: client=%s, value=%u (valid)",
                client->client_id, size);
    }
    client->max_packet_size.store(size, std::memory_order_relaxed);
}

// The stored record may announce more will bytes than it holds; only those that exist are reinstalled.
void reinstall_stored_will(mqtt_client *client) {
    const persist_session &session = client->session;
    if (session.will_flag == 0 || session.will_topic[0] == '\0') return;  // its file was cut in the topic
    const uint32_t len = session.will_len < PERSIST_MAX_PAYLOAD ? session.will_len
                                                                : static_cast<uint32_t>(PERSIST_MAX_PAYLOAD);
    client_set_will_msg(client, session.will_topic, session.will_payload, len, session.will_qos, 0);
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱] 客户端 %s 遗嘱恢复成功", client->client_id);
}

// Runs whatever the Clean Session flag says; discard_session undoes it.
void look_up_session(mqtt_client *client) {
    std::lock_guard lock(client->session_lock);
    persist_session &session = client->session;
    client_reset_session(&session);
    copy_text(session.client_id, client->client_id);
    client->session_present = 0;
    bool found = false;
    if (persist_load_found(&session, &found) != 0 || !found) return;
    client->session_present = 1;
    ZEB_LOG(AGENT_LOG_INFO, "[会话] 加载客户端持久化数据成功: %s, 订阅数=%d, 离线消息数=%d",
            client->client_id, session.sub_count, session.msg_count);
    reinstall_stored_will(client);
}

void log_will(const mqtt_client *client, const mqtt_connect_para &connect) {
    ZEB_LOG(AGENT_LOG_INFO, "[WILL-CONNECT] Client=%s set will:", client->client_id);
    ZEB_LOG(AGENT_LOG_INFO, "[WILL-CONNECT] Topic: %s, QoS: %u, Retain: %u, PayloadLen: %u",
            connect.will_topic, connect.will_qos, connect.will_retain, connect.will_payload_len);
    agent_log_hexdump("[WILL-CONNECT] Payload", connect.will_payload,
                      static_cast<uint16_t>(connect.will_payload_len));
}

// A longer will than the record has room for keeps its length there but no bytes; a retain flag it has none.
void record_will(persist_session *session, const mqtt_connect_para &connect) {
    session->will_flag = 1;
    copy_text(session->will_topic, connect.will_topic);
    session->will_qos = static_cast<uint8_t>(connect.will_qos);
    session->will_len = connect.will_payload_len;
    memset(session->will_payload, 0, sizeof session->will_payload);  // an earlier will's
    if (connect.will_payload_len <= sizeof session->will_payload)
        memcpy(session->will_payload, connect.will_payload, connect.will_payload_len);
}

void store_will(mqtt_client *client, const mqtt_connect_para &connect) {
    if (connect.will_flag == 0) {
        // A will that look_up_session has reinstalled in the client stays.
        std::lock_guard lock(client->session_lock);
        client->session.will_flag = 0;
        return;
    }
    log_will(client, connect);
    client_set_will_msg(client, connect.will_topic, connect.will_payload, connect.will_payload_len,
                        static_cast<uint8_t>(connect.will_qos), connect.will_retain);
    const bool level_5 = level_of(client) == k_level_5;
    if (level_5)
        client_set_will_enhance(client, connect.will_delay_interval, connect.will_msg_expiry_interval, 0, "",
                                "", nullptr, 0);
    std::lock_guard lock(client->session_lock);
    if (level_5) {
        client->session.will_delay_interval = connect.will_delay_interval;
        client->session.will_msg_expiry_interval = connect.will_msg_expiry_interval;
    }
    record_will(&client->session, connect);
    if (client->clean_session.load(std::memory_order_relaxed) == 0)
        persist_mark(&client->session, PERSIST_SESSION);
}

void discard_session(mqtt_client *client) {
    persist_remove(client->client_id);
    client->session_present = 0;
    {
        std::lock_guard lock(client->session_lock);
        if (client->session.sub_count != 0) client->session.sub_count = 0;
        if (client->session.msg_count != 0) client->session.msg_count = 0;
    }
    sub_remove(client->client_id, nullptr);
    ZEB_LOG(AGENT_LOG_INFO, "[会话] CleanSession=1 → 清除历史数据 + 内存订阅");
}

// The session's list is written by this thread alone, so that reading it needs no lock.
void restore_subscriptions(mqtt_client *client) {
    const persist_session &session = client->session;
    for (int i = 0; i < session.sub_count; ++i) {
        const persist_sub &sub = session.subs[i];
        if (sub_add(client->client_id, sub.topic, sub.qos, 0) != 0) continue;
        ZEB_LOG(AGENT_LOG_INFO, "[恢复] 订阅: %s QoS=%d → 内存订阅表", sub.topic, sub.qos);
    }
    ZEB_LOG(AGENT_LOG_INFO, "[会话] 客户端 %s 上下文恢复完成", client->client_id);
}

void settle_session(mqtt_client *client) {
    if (client->clean_session.load(std::memory_order_relaxed) != 0)
        discard_session(client);
    else if (client->session_present != 0)
        restore_subscriptions(client);
    else
        ZEB_LOG(AGENT_LOG_INFO, "[会话] CleanSession=0，但无历史数据，新建会话: %s", client->client_id);
}

void accept(mqtt_client *client) {
    mqtt_connack_para connack{};
    connack.session_present = client->session_present;
    connack.receive_maximum = k_receive_maximum;
    if (level_of(client) == k_level_5) {
        connack.maximum_packet_size = client->max_packet_size.load(std::memory_order_relaxed);
        connack.session_expiry_interval = client->session_expiry_interval.load(std::memory_order_relaxed);
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT5] CONNACK properties: max_packet_size=%u, session_expiry_interval=%u",
                connack.maximum_packet_size, connack.session_expiry_interval);
    }
    if (send_connack(client, connack) == 0)
        ZEB_LOG(AGENT_LOG_INFO, "CONNACK -> %s (SessionPresent=%d)", client->client_id,
                client->session_present);
}

// After CONNACK: what the client's stored filters retain, then what came while it was away.
void deliver_missed(mqtt_client *client) {
    if (client->clean_session.load(std::memory_order_relaxed) != 0 || client->session_present == 0) return;
    const persist_session &session = client->session;
    for (int i = 0; i < session.sub_count; ++i) send_retained_msg_to_client(client, session.subs[i].topic);
    packet_handler_restore_offline_msgs(client);
}

}  // namespace

void packet_on_connect(mqtt_client *client, const uint8_t *data, int len) {
    mqtt_connect_para connect{};
    if (mqtt_codec_decode_connect(&client->codec, data, &len, &connect) != MQTT_CODEC_OK) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT decode failed");
        mqtt_stats_inc_parse_error();
        return;
    }
    if (broker_fire_auth(client, &connect, connect.username, connect.password) == 0) {
        refuse(client);
        return;
    }
    if (!client_is_online(client)) return;  // the callback, or another thread, has closed it
    const bool was_clean =
        client->clean_session.exchange(connect.clean_start, std::memory_order_relaxed) != 0;
    client_set_keepalive(client, connect.keep_alive);
    rename(client, connect.client_id, was_clean);
    client->codec.level_fixed.store(g_packet_options.level_by_connect.load(std::memory_order_relaxed),
                                    std::memory_order_relaxed);
    // Unless another thread has closed it meanwhile: a closed record never comes back to life.
    uint32_t online = CONNECTED;
    client->state.compare_exchange_strong(online, LOGINED, std::memory_order_relaxed);
    netip_admit(client->handle.load(std::memory_order_relaxed),
                client->connection.load(std::memory_order_relaxed));
    negotiate_session_expiry(client, connect);
    negotiate_packet_size(client, connect);
    look_up_session(client);
    store_will(client, connect);
    settle_session(client);
    packet_cancel_will(client);
    accept(client);
    deliver_missed(client);
    broker_fire_event(client, MQTT_BROKER_EVENT_CONNECT, nullptr, 0);
}

}  // namespace zeb
