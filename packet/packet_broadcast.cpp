// Fan-out of a publication held as raw packet bytes: the way of a will to its subscribers.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"

namespace zeb {

namespace {

// Whether a property section stands before the payload. Kept: by_subscriber asks the level of whoever gets
// it.
enum class property_section { by_subscriber, present, absent };

// The layout presumes a one-byte remaining length; a longer packet fails the topic check below. Kept.
struct raw_publication {
    const uint8_t *bytes;
    int len;
    uint32_t qos;
    uint8_t retain;
    int payload_start;
    bool is_will;
    property_section section;
    char topic[257];
};

bool parse(const uint8_t *msg, int len, raw_publication *out) {
    constexpr int k_min_len = 4;
    if (msg == nullptr || len < k_min_len) {
        ZEB_LOG(AGENT_LOG_ERROR, "[遗嘱调试][广播失败] 参数无效：buf=%p, len=%d（需≥4）",
                static_cast<const void *>(msg), len);
        return false;
    }
    const int topic_len = msg[2] << 8 | msg[3];
    if (len < topic_len + k_min_len) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[遗嘱调试][广播失败] Topic越界：topic_len=%d, msg_len=%d, 2+2+topic_len=%d > msg_len",
                topic_len, len, topic_len + k_min_len);
        return false;
    }
    out->bytes = msg;
    out->len = len;
    out->qos = (msg[0] >> 1) & 3u;
    out->retain = msg[0] & 1u;
    out->payload_start = topic_len + k_min_len + (out->qos > 0 ? 2 : 0);
    const std::size_t kept =
        std::min<std::size_t>(static_cast<std::size_t>(topic_len), sizeof out->topic - 1);
    memcpy(out->topic, msg + k_min_len, kept);
    out->topic[kept] = '\0';
    return true;
}

bool has_section(const raw_publication &raw, const mqtt_client *subscriber) {
    if (raw.section != property_section::by_subscriber) return raw.section == property_section::present;
    return subscriber->codec.protocol_version.load(std::memory_order_relaxed) == 5;
}

// Behind the section, whose length is taken from the packet and so may point anywhere. By the subscriber's
// level, one of level 4 gets the section as the head of its payload; kept.
bool take_payload(const raw_publication &raw, const mqtt_client *subscriber, int number,
                  mqtt_publish_para *out) {
    int start = raw.payload_start;
    if (has_section(raw, subscriber) && start < raw.len) start += raw.bytes[start] + 1;
    if (start >= raw.len) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[遗嘱调试][广播失败] 订阅者%d：Payload解析失败（start=%d, len=%d, msg_len=%d）", number,
                start, raw.len - start, raw.len);
        return false;
    }
    out->payload_len = static_cast<uint32_t>(raw.len - start);
    const std::size_t held = std::min<std::size_t>(out->payload_len, sizeof out->payload);
    memcpy(out->payload, raw.bytes + start, held);  // a longer payload is refused by the encoder
    return true;
}

bool deliver(const raw_publication &raw, const sub_route &route, mqtt_client *subscriber, int number,
             mqtt_publish_para *record) {
    const uint32_t qos = packet_effective_qos(raw.qos, route.qos);
    ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][QoS降级] 订阅者%d：原始QoS=%d → 订阅QoS=%d → 最终投递QoS=%d", number,
            static_cast<int>(raw.qos), route.qos, static_cast<int>(qos));
    if (!take_payload(raw, subscriber, number, record)) return false;
    record->qos = qos;
    record->packet_id = qos != 0 ? packet_new_msg_id() : 0;
    uint8_t buf[k_publish_buf_bytes];
    int len = sizeof buf;
    const int err = mqtt_codec_encode_publish(&subscriber->codec, record, buf, &len);
    if (err != MQTT_CODEC_OK) {
        ZEB_LOG(AGENT_LOG_ERROR, "[遗嘱调试][广播失败] 订阅者%d：To=%s, 编码失败（错误码=%d）", number,
                route.client_id, err);
        return false;
    }
    const int sent = client_send(subscriber, buf, len);
    if (sent != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[遗嘱调试][广播失败] 订阅者%d：To=%s, 发送返回值=%d", number,
                route.client_id, sent);
        return false;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱调试][广播成功] 订阅者%d：To=%s, Topic=%s,最终投递QoS=%d（已降级）", number,
            route.client_id, raw.topic, static_cast<int>(qos));
    if (qos != 0 && !raw.is_will)
        qos_reliable_add_packet(subscriber, record->packet_id, static_cast<uint8_t>(qos), record,
                                record->payload, record->payload_len);
    if (qos == 1) subscriber->last_qos1_msg_id.store(record->packet_id, std::memory_order_relaxed);
    return true;
}

// The subscriber of a route, or null with the reason logged. *failed: it counts as a failure, not as a skip.
client_ref find_subscriber(const raw_publication &raw, const sub_route &route, int number, bool *failed) {
    *failed = false;
    if (route.client_id[0] == '\0') {
        ZEB_LOG(AGENT_LOG_WARN, "[遗嘱调试][广播跳过] 订阅者%d：ClientID为空", number);
        return {};
    }
    client_ref subscriber = client_acquire_by_cid(route.client_id, route.cid_hash);
    if (!subscriber) {
        ZEB_LOG(AGENT_LOG_WARN, "[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 不存在", number, route.client_id);
        *failed = true;
        return {};
    }
    if (client_is_online(subscriber.get())) return subscriber;
    if (raw.is_will) {
        ZEB_LOG(AGENT_LOG_WARN, "[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：%s", route.client_id);
        return {};
    }
    ZEB_LOG(AGENT_LOG_WARN,
            "[遗嘱调试][广播失败] 订阅者%d：ClientID=%s 状态无效（%d），需为LOGINED/CONNECTED", number,
            route.client_id, static_cast<int>(subscriber->state.load(std::memory_order_relaxed)));
    *failed = true;
    return {};
}

void fan_out(const raw_publication &raw, const routing_scratch &scratch, int count) {
    mqtt_publish_para record{};
    memcpy(record.topic, raw.topic, sizeof record.topic);
    record.retain = raw.retain;  // kept here, unlike a client's publication
    int sent = 0;
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        if (scratch.skipped(i)) {
            ZEB_LOG(AGENT_LOG_DEBUG, "[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", i + 1);
            continue;
        }
        bool failed = false;
        const client_ref subscriber = find_subscriber(raw, scratch.route(i), i + 1, &failed);
        if (subscriber) {
            if (deliver(raw, scratch.route(i), subscriber.get(), i + 1, &record))
                ++sent;
            else
                failed = true;
        }
        failures += failed ? 1 : 0;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱调试][广播完成] Topic=%s, 总计匹配%d个订阅者，成功发送%d个，失败%d个",
            raw.topic, count, sent, failures);
}

void list_subscribers(const routing_scratch &scratch, int count) {
    if (!agent_log_enabled(AGENT_LOG_DEBUG)) return;
    agent_log(AGENT_LOG_DEBUG, "[遗嘱调试][订阅者列表] 匹配到的%d个订阅者：", count);
    for (int i = 0; i < count; ++i)
        agent_log(AGENT_LOG_DEBUG, "[遗嘱调试][订阅者%d] ClientID=%s, TopicFilter=%s, 订阅QoS=%d", i + 1,
                  scratch.route(i).client_id, scratch.route(i).filter, scratch.route(i).qos);
}

void broadcast(const uint8_t *msg, int len, bool is_will, property_section section) {
    raw_publication raw;
    raw.is_will = is_will;
    raw.section = section;
    if (!parse(msg, len, &raw)) return;
    ZEB_LOG(AGENT_LOG_INFO,
            "[遗嘱调试][广播开始] Topic=%s, 原始QoS=%d, 消息长度=%d, 开始匹配订阅者（上限=%d）", raw.topic,
            static_cast<int>(raw.qos), len, k_fanout_max);
    routing_scratch scratch;
    const int count = scratch.match(raw.topic);
    if (count == routing_scratch::k_no_selection) return;
    if (count < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[遗嘱调试][广播失败] malloc订阅者数组失败：errno=%d", ENOMEM);
        return;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱调试][订阅匹配] Topic=%s 匹配到 %d 个订阅者（上限=%d）", raw.topic, count,
            k_fanout_max);
    if (count == 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[遗嘱调试][广播完成] 无匹配订阅者，Topic=%s", raw.topic);
        return;
    }
    list_subscribers(scratch, count);
    fan_out(raw, scratch, count);
}

}  // namespace

void packet_handler_broadcast_msg(const uint8_t *msg, int len, uint8_t is_will) {
    broadcast(msg, len, is_will != 0, property_section::by_subscriber);
}

void packet_broadcast_will(const uint8_t *msg, int len, bool has_properties) {
    broadcast(msg, len, true, has_properties ? property_section::present : property_section::absent);
}

}  // namespace zeb
