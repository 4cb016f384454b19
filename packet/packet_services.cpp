// What the packet handler does without having received a packet: start, publications of the application, and
// the replay of what a persistent client has missed.
#include <cstdio>
#include <cstring>

#include "log/agent_log.h"
#include "packet/packet_handler.h"
#include "packet/packet_internal.h"
#include "qos/qos_reliable.h"
#include "sub/retain_store.h"

namespace zeb {

int packet_handler_init() {
    if (sub_init() != 0) {
        ZEB_LOG(AGENT_LOG_FATAL, "订阅管理器初始化失败");
        return -1;
    }
    if (qos_reliable_init() != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "QoS可靠投递模块初始化失败");
        return -1;
    }
    ZEB_LOG(AGENT_LOG_INFO, "报文处理器初始化成功（符合MQTT 3.1.1标准）");
    return 0;
}

void packet_handler_deinit() {
    qos_reliable_destroy();
}

namespace {

void fill_record(mqtt_publish_para *record, const char *topic, const uint8_t *payload, int len,
                 uint32_t qos) {
    constexpr std::size_t k_topic_max = 255;
    const std::size_t topic_len = strnlen(topic, k_topic_max);
    memcpy(record->topic, topic, topic_len);
    record->payload_len = len < MQTT_MAX_PAYLOAD ? static_cast<uint32_t>(len) : MQTT_MAX_PAYLOAD;
    memcpy(record->payload, payload, record->payload_len);
    record->qos = qos;
}

// Registered whatever became of the sending: a copy that was dropped then comes with the first repetition.
// Kept. A copy that cannot be encoded could never be repeated either.
void deliver(client_send_series *series, publication_encoder *encoder, mqtt_client *subscriber,
             uint32_t qos) {
    const uint16_t msg_id = packet_new_msg_id();  // also for QoS 0
    if (encoder->encode(subscriber, qos, msg_id) != MQTT_CODEC_OK) return;
    series->send(subscriber, encoder->data(), encoder->len());
    const mqtt_publish_para &record = encoder->record();
    if (qos != 0)
        qos_reliable_add_packet(subscriber, msg_id, static_cast<uint8_t>(qos), &record, record.payload,
                                record.payload_len);
}

// Unlike a client's publication one at QoS 0 is not stored. Kept.
void store_offline(routing_scratch *scratch, const char *client_id, const mqtt_publish_para &pub,
                   uint32_t qos) {
    if (!packet_has_stored_session(scratch->session(), client_id) || pub.payload_len == 0) return;
    if (qos == 0) {
        ZEB_LOG(AGENT_LOG_INFO, "[MQTT标准] QoS=0 离线消息不存储：ClientID=%s, Topic=%s", client_id,
                pub.topic);
        return;
    }
    if (!persist_add_msg_to_stored(client_id, pub.topic, pub.payload, static_cast<int>(pub.payload_len),
                                   static_cast<int>(qos)))
        return;  // the session has ended meanwhile
    ZEB_LOG(AGENT_LOG_INFO, "[STANDARD] APP发布离线消息已存储: %s, Topic=%s", client_id, pub.topic);
}

}  // namespace

void packet_handler_broker_publish(const char *topic, const uint8_t *payload, int len, uint32_t qos,
                                   uint8_t retain, uint32_t expiry_seconds) {
    if (topic == nullptr || payload == nullptr || len < 1 || qos > 2) return;
    mqtt_publish_para pub{};
    fill_record(&pub, topic, payload, len, qos);
    pub.msg_expiry_interval = expiry_seconds;
    pub.packet_id = packet_new_msg_id();
    if (retain != 0) retain_msg_set_with_expiry(pub.topic, pub.payload, pub.payload_len, qos, expiry_seconds);
    routing_scratch scratch;
    const int count = scratch.match(pub.topic);
    if (count <= 0) return;
    publication_encoder encoder(pub);
    client_send_series series;
    for (int i = 0; i < count; ++i) {
        const sub_route &route = scratch.route(i);
        if (route.client_id[0] == '\0' || scratch.skipped(i)) continue;
        const uint32_t effective = packet_effective_qos(qos, route.qos);
        const client_ref subscriber = client_acquire_by_cid(route.client_id, route.cid_hash);
        if (subscriber && client_is_online(subscriber.get()))
            deliver(&series, &encoder, subscriber.get(), effective);
        else
            store_offline(&scratch, route.client_id, pub, effective);
    }
}

namespace {

bool may_replay(const mqtt_client *client) {
    if (client == nullptr || client->client_id[0] == '\0') {
        ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] 不补发：client 无效");
        return false;
    }
    if (client->clean_session.load(std::memory_order_relaxed) != 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] CleanSession=1，不补发离线消息: %s", client->client_id);
        return false;
    }
    if (!client_is_online(client)) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] 客户端不在线，不补发离线消息: %s", client->client_id);
        return false;
    }
    return true;
}

// Registered, not sent: the reliable delivery scan brings it about a second later.
void replay_one(mqtt_client *client, const persist_msg &msg, mqtt_publish_para *record) {
    uint16_t msg_id = msg.msgid;
    if (msg_id == 0) {
        msg_id = packet_draw_msg_id();
        ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] 修复离线消息 MsgID=0 → 新 MsgID=%d", msg_id);
    }
    snprintf(record->topic, sizeof record->topic, "%s", msg.topic);
    qos_reliable_add_packet(client, msg_id, msg.qos, record, msg.payload, msg.payload_len);
    ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] 已补发: msgid=%d topic=%s qos=%d", msg_id, msg.topic, msg.qos);
}

void replay_loaded(mqtt_client *client, const persist_session &session) {
    ZEB_LOG(AGENT_LOG_INFO, "[packet_handler] 开始补发离线消息: %s 共 %d 条", client->client_id,
            session.msg_count);
    mqtt_publish_para record{};
    for (int i = 0; i < session.msg_count; ++i) replay_one(client, session.msgs[i], &record);
}

}  // namespace

void packet_handler_restore_offline_msgs(mqtt_client *client) {
    if (!may_replay(client)) return;
    routing_scratch scratch;
    persist_session *session = scratch.session();
    if (!packet_has_stored_session(session, client->client_id) || session->msg_count <= 0) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[packet_handler] 无离线消息需要补发: %s", client->client_id);
        return;
    }
    // Others may add to the queue meanwhile. What is left when the client goes stays for the next time.
    constexpr int k_passes_max = 2 * PERSIST_MAX_MSGS;
    for (int pass = 0; pass < k_passes_max; ++pass) {
        (void)persist_load_replay(session);  // else what the load has given
        if (session->msg_count > 0) replay_loaded(client, *session);
        if (persist_finish_replay(session) <= 0 || !client_is_online(client)) break;
        if (!packet_has_stored_session(session, client->client_id)) break;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[packet_handler] 离线消息补发完成: %s，已清空离线消息", client->client_id);
}

}  // namespace zeb
