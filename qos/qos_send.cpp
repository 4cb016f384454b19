// What this module sends: repetitions of a PUBLISH, and its two answers of the QoS 2 exchange.
#include "qos/qos_send.h"

#include <cstring>
#include <new>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "qos/qos_reliable.h"

namespace zeb {

namespace {

constexpr uint32_t k_publish_overhead_bytes = 266;  // fixed header, topic, identifier, empty properties
constexpr int k_answer_buf_bytes = 128;

// Why a repetition cannot even be encoded, logged.
bool may_send(const qos_packet *pkt) {
    if (pkt == nullptr || pkt->client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文参数错误：pkt/客户端为空");
        return false;
    }
    if (pkt->payload_len == 0 || pkt->payload_len > QOS_MAX_PAYLOAD) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文参数错误：payload为空/长度超限（最大支持%d字节，当前%d字节）",
                static_cast<int>(QOS_MAX_PAYLOAD), static_cast<int>(pkt->payload_len));
        return false;
    }
    if (pkt->client->codec.protocol_version.load(std::memory_order_relaxed) == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文失败：客户端编解码上下文未初始化(client=%s)",
                qos_client_name(pkt->client).text);
        return false;
    }
    return true;
}

void fill_record(const qos_packet *pkt, mqtt_publish_para *pub) {
    const std::size_t topic_len = strnlen(pkt->topic, sizeof pkt->topic - 1);
    memcpy(pub->topic, pkt->topic, topic_len);
    pub->topic[topic_len] = '\0';
    memcpy(pub->payload, pkt->payload, pkt->payload_len);
    pub->payload_len = pkt->payload_len;
    pub->packet_id = pkt->msg_id;
    pub->qos = pkt->qos;
    pub->retain = 0;
    pub->dup = pkt->dup;
    pub->msg_expiry_interval = 0;
    pub->topic_alias = 0;
}

int encode_and_send(const qos_packet *pkt, uint8_t *buf, int len) {
    mqtt_publish_para pub;
    fill_record(pkt, &pub);
    const int err = mqtt_codec_encode_publish(&pkt->client->codec, &pub, buf, &len);
    if (err != MQTT_CODEC_OK) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文失败(msg_id=%d)：编码错误（错误码：%d，描述：%s）",
                pkt->msg_id, err, mqtt_codec_error_str(err));
        return -1;
    }
    const int sent = client_send(pkt->client, buf, len);
    if (sent != 0)
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文失败(msg_id=%d)：发送错误（返回码：%d）", pkt->msg_id, sent);
    return sent == 0 ? 0 : -1;
}

void note_repetition(qos_packet *pkt) {
    pkt->dup = 1;  // from the next one on: the first repetition carries DUP 0, kept
    pkt->last_send_ms = platform_mono_ms();
    ++pkt->retry_count;
    const uint32_t doubled = pkt->retry_interval_ms * 2;
    pkt->retry_interval_ms = doubled < QOS_MAX_INTERVAL_MS ? doubled : QOS_MAX_INTERVAL_MS;
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] 重发QoS%d报文成功(msg_id=%d)，重试次数=%d，下次间隔=%dms，载荷长度=%d",
            pkt->qos, pkt->msg_id, static_cast<int>(pkt->retry_count),
            static_cast<int>(pkt->retry_interval_ms), static_cast<int>(pkt->payload_len));
}

}  // namespace

qos_client_name::qos_client_name(const mqtt_client *client) : text("null") {
    if (client != nullptr) client_copy_id(client, text);
}

int send_packet(qos_packet *pkt) {
    if (pkt != nullptr)
        ZEB_LOG(AGENT_LOG_DEBUG, "[QoS_SEND] msg_id=%d, client=%s", pkt->msg_id,
                qos_client_name(pkt->client).text);
    if (!may_send(pkt)) return -1;
    const int capacity = static_cast<int>(pkt->payload_len + k_publish_overhead_bytes);
    auto *buf = new (std::nothrow) uint8_t[static_cast<std::size_t>(capacity)];
    if (buf == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 重发报文失败：分配发送缓冲区失败（需要%d字节）", capacity);
        return -1;
    }
    const int rc = encode_and_send(pkt, buf, capacity);
    delete[] buf;
    if (rc == 0) note_repetition(pkt);
    return rc;
}

bool qos_send_answer(mqtt_client *client, int packet_type, uint16_t msg_id) {
    mqtt_ack_para ack{};
    ack.msg_id = msg_id;
    uint8_t buf[k_answer_buf_bytes];
    int len = sizeof buf;
    if (mqtt_codec_encode_ack(&client->codec, packet_type, &ack, buf, &len) != MQTT_CODEC_OK) return false;
    (void)client_send(client, buf, len);  // dropped is as good as lost on the way: the client asks again
    return true;
}

}  // namespace zeb
