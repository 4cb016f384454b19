// PUBLISH from a client: permission, retained store, fan-out, and only then the acknowledgement.
#include <cerrno>
#include <cstring>

#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"
#include "sdk/broker.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"

namespace zeb {

namespace {

constexpr uint8_t k_action_publish = 1;

// The answer says only what was queued; a copy that cannot be encoded or queued is lost without a word.
bool forward(client_send_series *series, publication_encoder *encoder, mqtt_client *subscriber,
             uint32_t qos) {
    const uint16_t msg_id = qos == 0 ? 0 : packet_new_msg_id();
    if (encoder->encode(subscriber, qos, msg_id) != MQTT_CODEC_OK) return false;
    if (series->send(subscriber, encoder->data(), encoder->len()) != 0) return false;
    const mqtt_publish_para &record = encoder->record();
    if (agent_log_enabled(AGENT_LOG_INFO)) {
        char id[65];
        client_copy_id(subscriber, id);
        agent_log(AGENT_LOG_INFO, "转发消息成功：To=%s, Topic=%s, QoS=%d", id, record.topic,
                  static_cast<int>(qos));
    }
    if (qos != 0)
        qos_reliable_add_packet(subscriber, msg_id, static_cast<uint8_t>(qos), &record, record.payload,
                                record.payload_len);
    if (qos == 1) subscriber->last_qos1_msg_id.store(msg_id, std::memory_order_relaxed);
    return true;
}

// QoS 0 is stored like the others; a subscriber without a stored session gets nothing.
void store_offline(routing_scratch *scratch, const char *client_id, const mqtt_publish_para &pub,
                   uint32_t qos) {
    if (!packet_has_stored_session(scratch->session(), client_id) || pub.payload_len == 0) return;
    if (!persist_add_msg_to_stored(client_id, pub.topic, pub.payload, static_cast<int>(pub.payload_len),
                                   static_cast<int>(qos)))
        return;  // the session has ended meanwhile
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT标准] 离线消息已存储：ClientID=%s, Topic=%s", client_id, pub.topic);
    mqtt_stats_inc_offline_msg();
}

void fan_out(const mqtt_client *publisher, const mqtt_publish_para &pub, routing_scratch *scratch,
             int count) {
    mqtt_publish_para copy = pub;
    copy.retain = 0;  // forwarded messages never carry it
    publication_encoder encoder(copy);
    client_send_series series;
    int sent = 0;
    for (int i = 0; i < count; ++i) {
        const sub_route &route = scratch->route(i);
        // Nobody receives its own publications, also when it was a shared group's choice.
        if (strcmp(route.client_id, publisher->client_id) == 0) continue;
        if (scratch->skipped(i)) {
            ZEB_LOG(AGENT_LOG_DEBUG, "[共享订阅] 订阅者%d 同组已负载均衡，跳过发送", i + 1);
            continue;
        }
        const uint32_t qos = packet_effective_qos(pub.qos, route.qos);
        const client_ref subscriber = client_acquire_by_cid(route.client_id, route.cid_hash);
        if (subscriber && client_is_online(subscriber.get()))
            sent += forward(&series, &encoder, subscriber.get(), qos) ? 1 : 0;
        else
            store_offline(scratch, route.client_id, pub, qos);
    }
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：消息转发完成：匹配%d个订阅者，成功发送%d个", count, sent);
}

// False when memory is short: the publication is then not acknowledged either.
bool route(const mqtt_client *publisher, const mqtt_publish_para &pub) {
    routing_scratch scratch;
    const int count = scratch.match(pub.topic);
    if (count == routing_scratch::k_no_routes) {
        ZEB_LOG(AGENT_LOG_ERROR, "matched_subs malloc failed: %d", ENOMEM);
        return false;
    }
    if (count == routing_scratch::k_no_selection) {
        ZEB_LOG(AGENT_LOG_ERROR, "selected_shared malloc failed: %d", ENOMEM);
        return false;
    }
    if (count == 0)
        ZEB_LOG(AGENT_LOG_DEBUG, "发布消息无匹配订阅者：Topic=%s", pub.topic);
    else
        fan_out(publisher, pub, &scratch, count);
    return true;
}

void acknowledge(mqtt_client *client, const mqtt_publish_para &pub) {
    if (pub.qos == 1) {
        if (packet_send_id_ack(client, MQTT_PKT_PUBACK, pub.packet_id))
            ZEB_LOG(AGENT_LOG_INFO, "发送PUBACK成功：ClientID=%s, MsgID=%d", client->client_id,
                    pub.packet_id);
    } else if (pub.qos == 2) {
        client->inbound_qos2_msg_id.store(pub.packet_id, std::memory_order_relaxed);
        if (packet_send_id_ack(client, MQTT_PKT_PUBREC, pub.packet_id))
            ZEB_LOG(AGENT_LOG_INFO, "发送PUBREC成功：ClientID=%s, MsgID=%d", client->client_id,
                    pub.packet_id);
    }
}

}  // namespace

void packet_on_publish(mqtt_client *client, const uint8_t *data, int len) {
    mqtt_publish_para pub;
    const int err = mqtt_codec_decode_publish(&client->codec, data, &len, &pub);
    if (err != MQTT_CODEC_OK) {
        packet_decode_failed(client, "PUBLISH", err);
        return;
    }
    mqtt_stats_inc_qos(static_cast<uint8_t>(pub.qos));
    ZEB_LOG(AGENT_LOG_INFO, "MQTT标准：收到发布消息：ClientID=%s, Topic=%s, QoS=%d, Retain=%d, MsgID=%d",
            client->client_id, pub.topic, static_cast<int>(pub.qos), pub.retain, pub.packet_id);
    if (broker_fire_acl(client, pub.topic, k_action_publish) == 0) {
        ZEB_LOG(AGENT_LOG_WARN, "[ACL] 发布被拒绝: %s", pub.topic);
        return;
    }
    broker_fire_event(client, MQTT_BROKER_EVENT_PUBLISH, pub.topic, static_cast<int>(pub.qos));
    if (pub.qos > 0 && pub.msg_expiry_interval != 0)
        qos_reliable_set_packet_expiry(client, pub.packet_id, pub.msg_expiry_interval);
    if (pub.retain != 0)
        retain_msg_set_with_expiry(pub.topic, pub.payload, pub.payload_len, pub.qos, pub.msg_expiry_interval);
    if (route(client, pub)) acknowledge(client, pub);
}

}  // namespace zeb
