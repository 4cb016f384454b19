#include "stats/mqtt_stats.h"

#include <charconv>
#include <cstdio>

#include "client/client_mgr.h"
#include "log/agent_log.h"
#include "log/platform_time.h"
#include "sub/sub_mgr.h"

namespace zeb {

mqtt_stats_block g_mqtt_stats{};

namespace {

constexpr int k_json_min_bytes = 1024;  // holds the text with every number at its longest

template <class... fields>
void zero(fields &...field) {
    (field.store(0, std::memory_order_relaxed), ...);
}

template <class... fields>
void add_one(fields &...field) {
    (field.fetch_add(1, std::memory_order_relaxed), ...);
}

// The types that the %llu and %u of the texts below ask for.
unsigned long long read(const std::atomic<uint64_t> &field) {
    return field.load(std::memory_order_relaxed);
}

unsigned read(const std::atomic<uint32_t> &field) {
    return field.load(std::memory_order_relaxed);
}

// "%.1f" with a point in every locale: the embedding program may have chosen one that writes a comma.
struct percent_text {
    char text[64];
    explicit percent_text(float percent) {
        const auto end = std::to_chars(text, text + sizeof text - 1, percent, std::chars_format::fixed, 1);
        *end.ptr = '\0';
    }
};

percent_text pool_usage_text() {
    return percent_text(g_mqtt_stats.pool_usage.load(std::memory_order_relaxed));
}

// Reports may be made by two threads at once; the highest value must not step back.
void raise_to(std::atomic<uint32_t> &highest, uint32_t value) {
    uint32_t seen = highest.load(std::memory_order_relaxed);
    while (seen < value && !highest.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

void print_period() {
    const mqtt_stats_block &s = g_mqtt_stats;
    ZEB_LOG(AGENT_LOG_WARN, "[周期60s] 收包:%llu | 发包:%llu | 超时:%u | 遗嘱:%u | 持久写:%llu | 持久读:%llu",
            read(s.period_pkt_rx), read(s.period_pkt_tx), read(s.period_timeout), read(s.period_will_sent),
            read(s.period_persist_write), read(s.period_persist_read));
    ZEB_LOG(AGENT_LOG_WARN, "[周期丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu",
            read(s.period_drop_offline), read(s.period_drop_queue_full), read(s.period_drop_too_big),
            read(s.period_drop_invalid_param), read(s.period_drop_send_failed));
}

void print_totals() {
    const mqtt_stats_block &s = g_mqtt_stats;
    ZEB_LOG(AGENT_LOG_WARN, "收包总数: %llu | 发包总数: %llu", read(s.pkt_rx), read(s.pkt_tx));
    ZEB_LOG(AGENT_LOG_WARN, "[总丢包] 离线:%llu | 队列满:%llu | 超长:%llu | 非法参数:%llu | 发送失败:%llu",
            read(s.drop_offline), read(s.drop_queue_full), read(s.drop_too_big), read(s.drop_invalid_param),
            read(s.drop_send_failed));
    ZEB_LOG(AGENT_LOG_WARN, "QoS0: %llu | QoS1: %llu | QoS2: %llu", read(s.qos0), read(s.qos1), read(s.qos2));
    ZEB_LOG(AGENT_LOG_WARN, "离线消息: %llu | Retain消息: %u", read(s.offline_msg), read(s.retain_msg));
    ZEB_LOG(AGENT_LOG_WARN, "总订阅数: %u | 超时断开: %u | 遗嘱发送: %u", read(s.subs), read(s.timeout),
            read(s.will_sent));
    ZEB_LOG(AGENT_LOG_WARN, "持久化写入: %llu | 读取: %llu", read(s.persist_write), read(s.persist_read));
}

}  // namespace

void mqtt_stats_init() {
    mqtt_stats_block &s = g_mqtt_stats;
    zero(s.online, s.max_online, s.pkt_rx, s.pkt_tx);
    zero(s.drop_offline, s.drop_queue_full, s.drop_too_big, s.drop_invalid_param, s.drop_send_failed);
    zero(s.qos0, s.qos1, s.qos2, s.offline_msg, s.retain_msg, s.subs);
    zero(s.timeout, s.will_sent, s.parse_error, s.persist_write, s.persist_read);
    zero(s.pool_cap, s.pool_used, s.pool_usage);
    mqtt_stats_reset_period();
    s.start_ms.store(platform_mono_ms(), std::memory_order_relaxed);
    ZEB_LOG(AGENT_LOG_INFO, "[MQTT-Stats] 维测统计模块初始化完成");
}

void mqtt_stats_deinit() {}

void mqtt_stats_update() {
    mqtt_stats_block &s = g_mqtt_stats;
    const auto online = static_cast<uint32_t>(client_get_connected_count());
    s.online.store(online, std::memory_order_relaxed);
    raise_to(s.max_online, online);

    const auto cap = static_cast<uint32_t>(g_client_mgr.capacity.load(std::memory_order_relaxed));
    const auto used = static_cast<uint32_t>(g_client_mgr.client_count.load(std::memory_order_relaxed));
    const float usage = cap == 0 ? 0.0f : static_cast<float>(used) / static_cast<float>(cap) * 100.0f;
    s.pool_cap.store(cap, std::memory_order_relaxed);
    s.pool_used.store(used, std::memory_order_relaxed);
    s.pool_usage.store(usage, std::memory_order_relaxed);

    const int32_t retained = g_sub_mgr.retain_count.load(std::memory_order_relaxed);
    const int32_t subs = g_sub_mgr.sub_count.load(std::memory_order_relaxed);
    s.retain_msg.store(static_cast<uint32_t>(retained), std::memory_order_relaxed);
    s.subs.store(static_cast<uint32_t>(subs), std::memory_order_relaxed);
}

// At WARN, so that the report passes the level that the broker starts with.
void mqtt_stats_print() {
    mqtt_stats_update();
    const mqtt_stats_block &s = g_mqtt_stats;
    ZEB_LOG(AGENT_LOG_WARN, "!!!>>>===================== MQTT Broker 维测统计 =====================");
    ZEB_LOG(AGENT_LOG_WARN, "运行时长: %llu ms",
            static_cast<unsigned long long>(platform_mono_ms()) - read(s.start_ms));
    ZEB_LOG(AGENT_LOG_WARN, "在线客户端: %u / 历史最高: %u", read(s.online), read(s.max_online));
    ZEB_LOG(AGENT_LOG_WARN, "内存池使用率: %u/%u (%s%%)", read(s.pool_used), read(s.pool_cap),
            pool_usage_text().text);
    print_period();
    print_totals();
    ZEB_LOG(AGENT_LOG_WARN, "!!!>>>================================================================");
}

void mqtt_stats_reset_period() {
    mqtt_stats_block &s = g_mqtt_stats;
    zero(s.period_pkt_rx, s.period_pkt_tx, s.period_drop_offline, s.period_drop_queue_full);
    zero(s.period_drop_too_big, s.period_drop_invalid_param, s.period_drop_send_failed);
    zero(s.period_timeout, s.period_will_sent, s.period_persist_write, s.period_persist_read);
}

int mqtt_stats_to_json(char *buf, int size) {
    if (buf == nullptr || size < k_json_min_bytes) return -1;
    mqtt_stats_update();
    const mqtt_stats_block &s = g_mqtt_stats;
    (void)snprintf(  // cannot be cut: see k_json_min_bytes
        buf, static_cast<size_t>(size),
        "{\"online\":%u,\"max_online\":%u,\"pool_used\":%u,\"pool_cap\":%u,\"pool_usage\":%s,"
        "\"pkt_rx\":%llu,\"pkt_tx\":%llu,\"drop_offline\":%llu,\"drop_queue_full\":%llu,"
        "\"drop_too_big\":%llu,\"drop_invalid_param\":%llu,\"drop_send_failed\":%llu,"
        "\"qos0\":%llu,\"qos1\":%llu,\"qos2\":%llu,\"offline_msg\":%llu,\"retain_msg\":%u,"
        "\"subs\":%u,\"timeout\":%u,\"will_sent\":%u}",
        read(s.online), read(s.max_online), read(s.pool_used), read(s.pool_cap), pool_usage_text().text,
        read(s.pkt_rx), read(s.pkt_tx), read(s.drop_offline), read(s.drop_queue_full), read(s.drop_too_big),
        read(s.drop_invalid_param), read(s.drop_send_failed), read(s.qos0), read(s.qos1), read(s.qos2),
        read(s.offline_msg), read(s.retain_msg), read(s.subs), read(s.timeout), read(s.will_sent));
    return 0;
}

void mqtt_stats_inc_rx_pkt() {
    add_one(g_mqtt_stats.pkt_rx, g_mqtt_stats.period_pkt_rx);
}

void mqtt_stats_inc_tx_pkt() {
    mqtt_stats_add_tx_pkts(1);
}

void mqtt_stats_add_tx_pkts(uint32_t count) {
    g_mqtt_stats.pkt_tx.fetch_add(count, std::memory_order_relaxed);
    g_mqtt_stats.period_pkt_tx.fetch_add(count, std::memory_order_relaxed);
}

void mqtt_stats_inc_qos(uint8_t qos) {
    if (qos == 0) add_one(g_mqtt_stats.qos0);
    if (qos == 1) add_one(g_mqtt_stats.qos1);
    if (qos == 2) add_one(g_mqtt_stats.qos2);
}

void mqtt_stats_inc_drop_offline() {
    add_one(g_mqtt_stats.drop_offline, g_mqtt_stats.period_drop_offline);
}

void mqtt_stats_inc_drop_queue_full() {
    add_one(g_mqtt_stats.drop_queue_full, g_mqtt_stats.period_drop_queue_full);
}

void mqtt_stats_inc_drop_too_big() {
    add_one(g_mqtt_stats.drop_too_big, g_mqtt_stats.period_drop_too_big);
}

void mqtt_stats_inc_drop_invalid_param() {
    add_one(g_mqtt_stats.drop_invalid_param, g_mqtt_stats.period_drop_invalid_param);
}

void mqtt_stats_inc_drop_send_failed() {
    add_one(g_mqtt_stats.drop_send_failed, g_mqtt_stats.period_drop_send_failed);
}

void mqtt_stats_inc_offline_msg() {
    add_one(g_mqtt_stats.offline_msg);
}

void mqtt_stats_inc_will_sent() {
    add_one(g_mqtt_stats.will_sent, g_mqtt_stats.period_will_sent);
}

void mqtt_stats_inc_timeout() {
    add_one(g_mqtt_stats.timeout, g_mqtt_stats.period_timeout);
}

void mqtt_stats_inc_persist_write() {
    add_one(g_mqtt_stats.persist_write, g_mqtt_stats.period_persist_write);
}

void mqtt_stats_inc_persist_read() {
    add_one(g_mqtt_stats.persist_read, g_mqtt_stats.period_persist_read);
}

void mqtt_stats_inc_parse_error() {
    add_one(g_mqtt_stats.parse_error);
}

}  // namespace zeb
