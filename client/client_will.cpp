// The will that a connection carries, and the scan that publishes delayed wills and frees their records.
#include <cstdlib>
#include <cstring>

#include "client/client_internal.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "packet/packet_handler.h"

namespace zeb {

namespace {

struct will_copy {
    char *topic;
    uint8_t *payload;
    bool complete() const { return topic != nullptr && payload != nullptr; }
};

will_copy copy_will(const char *topic, const uint8_t *payload, uint32_t payload_len) {
    const std::size_t topic_size = strlen(topic) + 1;
    will_copy copy{static_cast<char *>(malloc(topic_size)),
                   static_cast<uint8_t *>(malloc(payload_len == 0 ? 1 : payload_len))};
    if (!copy.complete()) {
        free(copy.topic);
        free(copy.payload);
        return {nullptr, nullptr};
    }
    memcpy(copy.topic, topic, topic_size);
    if (payload_len != 0) memcpy(copy.payload, payload, payload_len);
    return copy;
}

void copy_bounded(char *dst, std::size_t size, const char *src) {
    if (src == nullptr) return;  // not given: the old text stays
    const std::size_t len = strnlen(src, size - 1);
    memcpy(dst, src, len);
    dst[len] = '\0';
}

}  // namespace

void client_set_will_msg(mqtt_client *client, const char *topic, const uint8_t *payload, uint32_t payload_len,
                         uint8_t qos, uint8_t retain) {
    if (client == nullptr || topic == nullptr || payload_len > CLIENT_WILL_PAYLOAD_MAX ||
        (payload == nullptr && payload_len != 0)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[遗嘱调试][设置失败] 参数无效：client=%p, topic=%s, payload_len=%d（上限=%d）, qos=%d",
                static_cast<void *>(client), topic == nullptr ? "NULL" : topic, static_cast<int>(payload_len),
                CLIENT_WILL_PAYLOAD_MAX, qos);
        return;
    }
    ZEB_LOG(AGENT_LOG_DEBUG,
            "[遗嘱调试][设置开始] ClientID=%s, 原始入参：topic=%s, payload_len=%d, qos=%d, retain=%d",
            client->client_id, topic, static_cast<int>(payload_len), qos, retain);
    if (qos > 2) {
        ZEB_LOG(AGENT_LOG_WARN, "[遗嘱调试][QoS降级] ClientID=%s, 原始QoS=%d超出范围（0-2），自动降级为QoS0",
                client->client_id, qos);
        qos = 0;
    }
    const will_copy copy = copy_will(topic, payload, payload_len);
    {
        std::lock_guard lock(client->will_lock);
        free(client->will_topic);
        free(client->will_payload);
        client->will_topic = copy.topic;
        client->will_payload = copy.payload;
        if (copy.complete()) {
            client->will_payload_len = payload_len;
            client->will_qos = qos;
            client->will_retain = retain;
            client->will_done.store(0, std::memory_order_relaxed);
        }
        client->will_msg_used.store(copy.complete() ? 1 : 0, std::memory_order_relaxed);
    }
    ZEB_LOG(AGENT_LOG_INFO,
            "[遗嘱调试][设置成功] ClientID=%s, 最终存储：topic=%s, payload_len=%d, qos=%d, retain=%d, "
            "will_msg_used=%d",
            client->client_id, topic, static_cast<int>(payload_len), qos, retain, copy.complete() ? 1 : 0);
}

void client_set_will_enhance(mqtt_client *client, uint32_t will_delay_sec, uint32_t will_expiry_sec,
                             uint8_t payload_format, const char *content_type, const char *response_topic,
                             const uint8_t *correlation_data, uint32_t correlation_len) {
    if (client == nullptr) return;
    {
        std::lock_guard lock(client->will_lock);
        client->will_delay_sec.store(will_delay_sec, std::memory_order_relaxed);
        client->will_expiry_sec = will_expiry_sec;
        client->will_payload_format = payload_format;
        copy_bounded(client->will_content_type, sizeof client->will_content_type, content_type);
        copy_bounded(client->will_response_topic, sizeof client->will_response_topic, response_topic);
        if (correlation_data != nullptr && correlation_len < sizeof client->will_correlation_data) {
            memcpy(client->will_correlation_data, correlation_data, correlation_len);
            client->will_correlation_len = correlation_len;
        }
    }
    ZEB_LOG(AGENT_LOG_INFO, "[遗嘱增强] ClientID=%s 设置完成：延迟=%ds, 过期=%ds", client->client_id,
            static_cast<int>(will_delay_sec), static_cast<int>(will_expiry_sec));
}

namespace {

// The number of marked records in a block, so that a pass leaves the other blocks alone.
std::atomic<int32_t> *waiting_in_block(const mqtt_client *client) {
    const int32_t index = client->pool_index;
    if (index < 0 || index >= g_client_mgr.capacity.load(std::memory_order_acquire)) return nullptr;
    return &g_client_mgr.blocks[index / CLIENT_POOL_SIZE].wills;
}

}  // namespace

void client_count_will(mqtt_client *client) {
    if (client->will_counted.exchange(1, std::memory_order_relaxed) != 0) return;
    if (std::atomic<int32_t> *wills = waiting_in_block(client))
        wills->fetch_add(1, std::memory_order_relaxed);
    g_will_delay_client_count.fetch_add(1, std::memory_order_relaxed);
}

bool client_uncount_will(mqtt_client *client) {
    if (client->will_counted.exchange(0, std::memory_order_relaxed) == 0) return false;
    if (std::atomic<int32_t> *wills = waiting_in_block(client))
        wills->fetch_sub(1, std::memory_order_relaxed);
    return true;
}

// The end of a record that waited for its will. `closing` makes sure that only one thread gets here.
void client_finish_will(mqtt_client *client) {
    client_clear_handle_slot(client);
    client_forget_cid(client);
    (void)client_uncount_will(client);  // a record without the mark still ends one wait
    g_will_delay_client_count.fetch_sub(1, std::memory_order_relaxed);
    client->state.store(CLOSED, std::memory_order_relaxed);
    if (client->in_use.load(std::memory_order_relaxed) != 0) client_pool_release(client);
}

namespace {

enum class will_verdict { wait, force, send, finish };

will_verdict judge_will(mqtt_client *client, uint64_t now) {
    std::lock_guard lock(client->will_lock);
    const bool pending = client->will_delay_pending.load(std::memory_order_relaxed) != 0;
    const bool counted = client->will_counted.load(std::memory_order_relaxed) != 0;
    // Published without a delay, or cancelled: nothing is left to wait for.
    if (!pending) return counted ? will_verdict::finish : will_verdict::wait;
    const uint64_t deadline = client->will_delay_deadline.load(std::memory_order_relaxed);
    if (deadline + CLIENT_WILL_FORCE_MS < now) {
        client->will_delay_pending.store(0, std::memory_order_relaxed);
        client->will_done.store(1, std::memory_order_relaxed);
        return will_verdict::force;
    }
    if (client->will_done.load(std::memory_order_relaxed) != 0 || now < deadline) return will_verdict::wait;
    return will_verdict::send;
}

void publish_delayed_will(mqtt_client *client) {
    packet_send_will_message(client);
    std::lock_guard lock(client->will_lock);
    client->will_delay_pending.store(0, std::memory_order_relaxed);
    client->will_done.store(1, std::memory_order_relaxed);
    // The connection was closed when the delay began; its handle may be another client's by now.
}

void scan_will(mqtt_client *client, uint64_t now) {
    if (client->state.load(std::memory_order_acquire) != CLOSING) return;
    const client_ref held =
        client_acquire_generation(client, client->generation.load(std::memory_order_relaxed));
    if (!held || client->state.load(std::memory_order_acquire) != CLOSING) return;
    if (client->closing.exchange(1, std::memory_order_acq_rel) != 0) return;  // its close is still under way
    char id[65];
    client_copy_id(client, id);
    switch (judge_will(client, now)) {
        case will_verdict::wait:
            client->closing.store(0, std::memory_order_release);
            return;
        case will_verdict::force:
            ZEB_LOG(AGENT_LOG_WARN, "[WILL] 超时30s强制清理 client=%s", id);
            break;
        case will_verdict::send:
            ZEB_LOG(AGENT_LOG_WARN, "[WILL] 延迟结束，发送并清理 client=%s", id);
            publish_delayed_will(client);
            break;
        case will_verdict::finish:
            break;
    }
    client_finish_will(client);
}

}  // namespace

void client_will_delay_scan() {
    const uint64_t now = platform_mono_ms();
    client_for_each_used([now](mqtt_client *client) { scan_will(client, now); });
}

void client_will_delay_pass() {
    if (g_will_delay_client_count.load(std::memory_order_relaxed) <= 0) return;
    const uint64_t now = platform_mono_ms();
    const int blocks = g_client_mgr.block_count.load(std::memory_order_acquire);
    for (int b = 0; b < blocks; ++b) {
        if (g_client_mgr.blocks[b].wills.load(std::memory_order_relaxed) == 0) continue;
        client_for_each_used_in(b, [now](mqtt_client *client) { scan_will(client, now); });
    }
}

void client_cancel_pending_wills(const char *cid, const mqtt_client *successor) {
    if (g_will_delay_client_count.load(std::memory_order_relaxed) <= 0 || cid[0] == '\0') return;
    const uint32_t hash = client_cid_hash(cid);
    client_for_each_used([&](mqtt_client *client) {
        if (client == successor || client->state.load(std::memory_order_acquire) != CLOSING ||
            client->cid_hash.load(std::memory_order_relaxed) != hash)
            return;
        const client_ref held =
            client_acquire_generation(client, client->generation.load(std::memory_order_relaxed));
        if (!held || client->state.load(std::memory_order_acquire) != CLOSING) return;
        char id[65];
        client_copy_id(client, id);
        if (strcmp(id, cid) != 0) return;
        std::lock_guard lock(client->will_lock);
        // The scan finds it counted but not pending, and releases it.
        client->will_delay_pending.store(0, std::memory_order_relaxed);
    });
}

}  // namespace zeb
