// What the packet handler and the client manager ask of the queue.
#include "qos/qos_reliable.h"

#include <cstring>
#include <new>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "qos/qos_queue.h"
#include "qos/qos_send.h"

namespace zeb {

namespace {

constexpr std::size_t k_topic_max = sizeof(qos_packet::topic) - 1;

struct registration {
    mqtt_client *client;
    uint16_t msg_id;
    uint8_t qos;
    const mqtt_publish_para *pub;
    const uint8_t *payload;
    uint32_t payload_len;
};

bool is_valid(const registration &reg) {
    if (reg.client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文参数错误：客户端为空");
        return false;
    }
    if (reg.pub == nullptr || reg.pub->topic[0] == '\0') {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文参数错误：主题为空");
        return false;
    }
    if (reg.payload == nullptr || reg.payload_len == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文参数错误：payload为空");
        return false;
    }
    if (reg.payload_len > QOS_MAX_PAYLOAD) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文参数错误：payload长度超限（最大%d字节，当前%d字节）",
                static_cast<int>(QOS_MAX_PAYLOAD), static_cast<int>(reg.payload_len));
        return false;
    }
    if (reg.qos != 1 && reg.qos != 2) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前%d）", reg.qos);
        return false;
    }
    return true;
}

// Asked under the mutex: a connection that closes afterwards takes its messages along, one that has closed
// before would leave this one behind.
bool is_admitted(const registration &reg) {
    if (!client_is_online(reg.client)) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] client is not online, message not registered: msg_id=%d", reg.msg_id);
        return false;
    }
    if (reg.client->inflight >= QOS_MAX_PER_CLIENT) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 客户端未完成队列已满(client=%s)，最大支持%d条，当前%d条",
                qos_client_name(reg.client).text, QOS_MAX_PER_CLIENT, reg.client->inflight);
        return false;
    }
    return true;
}

void fill(qos_node *node, const registration &reg, uint8_t *payload) {
    node->generation = reg.client->generation.load(std::memory_order_relaxed);
    qos_packet &pkt = node->packet;
    pkt.msg_id = reg.msg_id;
    pkt.qos = reg.qos;
    const std::size_t topic_len = strnlen(reg.pub->topic, k_topic_max);
    memcpy(pkt.topic, reg.pub->topic, topic_len);
    pkt.topic[topic_len] = '\0';
    memcpy(payload, reg.payload, reg.payload_len);
    pkt.payload = payload;
    pkt.payload_len = reg.payload_len;
    pkt.dup = 0;
    pkt.last_send_ms = platform_mono_ms();
    pkt.retry_count = 0;
    pkt.retry_interval_ms = QOS_FIRST_INTERVAL_MS;
    pkt.qos2_state = reg.qos == 2 ? 1 : 0;
    pkt.client = reg.client;
    pkt.created_ms = pkt.last_send_ms;
    pkt.expiry_sec = 0;
}

bool enqueue(const registration &reg) {
    auto *node = qos_queue_reserve() ? new (std::nothrow) qos_node : nullptr;
    if (node == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文失败：分配报文节点内存失败");
        return false;
    }
    auto *payload = new (std::nothrow) uint8_t[reg.payload_len];
    if (payload == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 添加报文失败：分配payload内存失败（需要%d字节）",
                static_cast<int>(reg.payload_len));
        delete node;
        return false;
    }
    fill(node, reg, payload);
    qos_queue_push(node);
    return true;
}

const char *ack_name(int packet_type) {
    switch (packet_type) {
        case MQTT_PKT_PUBACK:
            return "PUBACK";
        case MQTT_PKT_PUBREC:
            return "PUBREC";
        case MQTT_PKT_PUBREL:
            return "PUBREL";
        case MQTT_PKT_PUBCOMP:
            return "PUBCOMP";
        default:
            return "未知";
    }
}

// A client that answers a QoS 2 message with PUBACK completes it, in any state.
int on_puback(qos_packet *pkt) {
    const uint16_t msg_id = pkt->msg_id;
    const bool downgraded = pkt->qos != 1;
    remove_packet(pkt);
    if (downgraded)
        ZEB_LOG(AGENT_LOG_WARN, "[QoS] QoS2 报文收到PUBACK(客户端降级)，强制完成: msg_id=%d", msg_id);
    else
        ZEB_LOG(AGENT_LOG_INFO, "[QoS] QoS1 %s 完成: msg_id=%d", ack_name(MQTT_PKT_PUBACK), msg_id);
    return 0;
}

// The packet handler answers PUBREC and PUBREL as well, so the client gets two answers: kept.
int on_pubrec(qos_packet *pkt) {
    if (pkt->qos != 2 || pkt->qos2_state != 1) return 0;
    pkt->qos2_state = 2;
    if (!qos_send_answer(pkt->client, MQTT_PKT_PUBREL, pkt->msg_id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] PUBREL编码失败: msg_id=%d", pkt->msg_id);
        return -1;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] ✅ 收到PUBREC -> 发送PUBREL: msg_id=%d", pkt->msg_id);
    return 0;
}

int on_pubrel(qos_packet *pkt) {
    if (pkt->qos != 2 || pkt->qos2_state != 2) return 0;
    pkt->qos2_state = 3;
    if (!qos_send_answer(pkt->client, MQTT_PKT_PUBCOMP, pkt->msg_id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] PUBCOMP编码失败: msg_id=%d", pkt->msg_id);
        return -1;
    }
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] ✅ 收到PUBREL -> 发送PUBCOMP: msg_id=%d", pkt->msg_id);
    return 0;
}

int on_pubcomp(qos_packet *pkt) {
    if (pkt->qos != 2) return 0;
    const uint16_t msg_id = pkt->msg_id;
    const bool regular = pkt->qos2_state == 3;
    remove_packet(pkt);
    if (regular) ZEB_LOG(AGENT_LOG_INFO, "[QoS] ✅ QoS2 完成: msg_id=%d", msg_id);
    return 0;
}

int apply_ack(qos_packet *pkt, int packet_type) {
    switch (packet_type) {
        case MQTT_PKT_PUBACK:
            return on_puback(pkt);
        case MQTT_PKT_PUBREC:
            return on_pubrec(pkt);
        case MQTT_PKT_PUBREL:
            return on_pubrel(pkt);
        case MQTT_PKT_PUBCOMP:
            return on_pubcomp(pkt);
        default:
            ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 不支持的ACK类型: msg_id=%d", pkt->msg_id);
            return -1;
    }
}

}  // namespace

int qos_reliable_add_packet(mqtt_client *client, uint16_t msg_id, uint8_t qos, const mqtt_publish_para *pub,
                            const uint8_t *payload, uint32_t payload_len) {
    const registration reg{client, msg_id, qos, pub, payload, payload_len};
    if (!is_valid(reg)) return -1;
    {
        std::lock_guard lock(g_queue_mutex);
        if (!is_admitted(reg) || !enqueue(reg)) return -1;
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 添加QoS%d报文到队列成功(msg_id=%d, client=%s, 载荷长度=%d)", qos, msg_id,
            qos_client_name(client).text, static_cast<int>(payload_len));
    return 0;
}

int qos_reliable_handle_ack(mqtt_client *client, uint16_t msg_id, int packet_type) {
    if (client == nullptr || msg_id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 处理ACK参数错误：客户端为空");
        return -1;
    }
    std::lock_guard lock(g_queue_mutex);
    qos_packet *pkt = qos_queue_find(client, msg_id);
    if (pkt == nullptr) {
        ZEB_LOG(AGENT_LOG_DEBUG, "[QoS] 收到无效ACK报文(msg_id=%d, client=%s, 类型=%d)：未找到对应报文",
                msg_id, qos_client_name(client).text, packet_type);
        return -1;
    }
    ZEB_LOG(AGENT_LOG_DEBUG, "[QoS追踪] ACK: %s | msg_id=%d | QoS=%d | state=%d", ack_name(packet_type),
            msg_id, pkt->qos, pkt->qos2_state);
    return apply_ack(pkt, packet_type);
}

void qos_reliable_set_packet_expiry(mqtt_client *client, uint16_t msg_id, uint32_t expiry_sec) {
    if (client == nullptr || msg_id == 0) return;
    std::lock_guard lock(g_queue_mutex);
    qos_packet *pkt = qos_queue_find(client, msg_id);
    if (pkt == nullptr) return;
    pkt->expiry_sec = expiry_sec;
    ZEB_LOG(AGENT_LOG_INFO, "[QoS/Expiry] 设置消息过期: msg_id=%u, 过期时间=%u 秒", msg_id, expiry_sec);
}

void qos_reliable_clean_client_packets(mqtt_client *client) {
    ZEB_LOG(AGENT_LOG_WARN, "[QoS_CLEAN] 清理客户端: %s", qos_client_name(client).text);
    if (client == nullptr) {
        ZEB_LOG(AGENT_LOG_ERROR, "[QoS] 清理客户端报文失败：客户端为空");
        return;
    }
    int erased = 0;
    {
        std::lock_guard lock(g_queue_mutex);
        erased = qos_queue_erase_client(client);
    }
    ZEB_LOG(AGENT_LOG_INFO, "[QoS] 清理客户端报文完成(client=%s)：共清理%d条", qos_client_name(client).text,
            erased);
}

void qos_reliable_drop_client(mqtt_client *client) {
    if (client == nullptr) return;
    std::lock_guard lock(g_queue_mutex);
    qos_queue_erase_client(client);
}

void remove_packet(qos_packet *pkt) {
    if (!agent_log_enabled(AGENT_LOG_DEBUG)) {
        qos_queue_erase(pkt);
        return;
    }
    const uint16_t msg_id = pkt->msg_id;
    const qos_client_name name(pkt->client);
    agent_log(AGENT_LOG_DEBUG, "[QoS_REMOVE] msg_id=%d, client=%s", msg_id, name.text);
    qos_queue_erase(pkt);
    agent_log(AGENT_LOG_DEBUG, "[QoS] 移除已确认报文(msg_id=%d, client=%s)，完全删除", msg_id, name.text);
}

}  // namespace zeb
