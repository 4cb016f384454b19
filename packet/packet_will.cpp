// Publishing a client's will. Runs on whichever thread ends the connection or scans the delayed wills.
#include <algorithm>
#include <cstring>

#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "sdk/broker.h"
#include "stats/mqtt_stats.h"

namespace zeb {

namespace {

constexpr int k_will_buf_bytes = 4096;

// A copy, so that the lock is not held while the will is published.
bool copy_will(mqtt_client *client, mqtt_publish_para *out) {
    std::lock_guard lock(client->will_lock);
    if (client->will_topic == nullptr || client->will_payload == nullptr) return false;
    const std::size_t topic_len = strnlen(client->will_topic, sizeof out->topic - 1);
    memcpy(out->topic, client->will_topic, topic_len);
    out->topic[topic_len] = '\0';
    out->payload_len = std::min<uint32_t>(client->will_payload_len, sizeof out->payload);
    memcpy(out->payload, client->will_payload, out->payload_len);
    out->qos = client->will_qos;
    out->retain = client->will_retain;
    out->msg_expiry_interval = client->will_expiry_sec;
    return true;
}

bool publish(mqtt_client *client, const mqtt_publish_para &will) {
    uint8_t buf[k_will_buf_bytes];
    int len = sizeof buf;
    const uint32_t level = client->codec.protocol_version.load(std::memory_order_relaxed);
    const int code = mqtt_codec_encode_publish(&client->codec, &will, buf, &len);
    if (code != MQTT_CODEC_OK || len <= 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[WILL] 编码失败 | code=%d | len=%d", code, len);
        return false;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] 编码成功 | len=%d | 开始广播", len);
    if (client->codec.level_fixed.load(std::memory_order_relaxed) != 0)
        packet_broadcast_will(buf, len, level == 5);
    else
        packet_handler_broadcast_msg(buf, len, 1);
    return true;
}

void record_sent(mqtt_client *client) {
    const bool owns_files =
        client->clean_session.load(std::memory_order_relaxed) == 0 && !packet_has_successor(client);
    std::lock_guard lock(client->session_lock);
    client->session.will_flag = 0;
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] 广播完成 | will_sent=%d", 1);
    if (owns_files) persist_mark(&client->session, PERSIST_SUBS);
}

}  // namespace

int packet_send_will_message(mqtt_client *client) {
    if (client == nullptr || client->will_msg_used.load(std::memory_order_relaxed) == 0) return -1;
    // Claimed at once: whoever else comes for the same will finds it taken.
    if (client->will_done.exchange(1, std::memory_order_acq_rel) != 0) return -1;
    mqtt_publish_para will{};
    if (!copy_will(client, &will)) {
        client->will_done.store(0, std::memory_order_relaxed);
        return -1;
    }
    char id[65];
    client_copy_id(client, id);
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] Send will message: client=%s", id);
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] Topic: %s, QoS: %u, Retain: %u, PayloadLen: %u", will.topic, will.qos,
            will.retain, will.payload_len);
    agent_log_hexdump("[WILL] Payload", will.payload, static_cast<uint16_t>(will.payload_len));
    will.packet_id = packet_draw_msg_id();
    if (!publish(client, will)) {
        client->will_done.store(0, std::memory_order_relaxed);
        return -1;
    }
    mqtt_stats_inc_will_sent();
    broker_fire_event(client, MQTT_BROKER_EVENT_WILL, will.topic, static_cast<int>(will.qos));
    record_sent(client);
    return 0;
}

void packet_start_will_delay(mqtt_client *client) {
    if (client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[WILL] 启动失败：client == NULL");
        return;
    }
    char id[65];
    client_copy_id(client, id);
    const int used = client->will_msg_used.load(std::memory_order_relaxed);
    const int done = client->will_done.load(std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] 准备启动遗嘱 | client=%s | will_msg_used=%d | will_sent=%d", id, used,
            done);
    if (used == 0 || done != 0) {
        ZEB_LOG(AGENT_LOG_WARN, "[WILL] 不启动：条件不满足");
        return;
    }
    const uint32_t delay = client->will_delay_sec.load(std::memory_order_relaxed);
    if (delay == 0) {
        ZEB_LOG(AGENT_LOG_INFO, "[WILL] 延迟=0 → 立即发送");
        packet_send_will_message(client);
        return;
    }
    {
        std::lock_guard lock(client->will_lock);
        client->will_delay_deadline.store(platform_mono_ms() + static_cast<uint64_t>(delay) * 1000u,
                                          std::memory_order_relaxed);
        client->will_delay_pending.store(1, std::memory_order_relaxed);
    }
    ZEB_LOG(AGENT_LOG_INFO, "[WILL] 启动延迟成功 | delay=%us", delay);
}

void packet_cancel_will(mqtt_client *client) {
    if (client == nullptr) return;
    {
        std::lock_guard lock(client->will_lock);
        client->will_delay_pending.store(0, std::memory_order_relaxed);
    }
    char id[65];
    client_copy_id(client, id);
    client_cancel_pending_wills(id, client);
    ZEB_LOG(AGENT_LOG_INFO, "[WILL-MQTT5] client=%s 取消遗嘱延迟", id);
}

}  // namespace zeb
