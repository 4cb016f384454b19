#include <vector>

#include "tests/stats/stats_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using namespace zeb;
using zeb_test::log_capture;

class mqtt_stats_test : public zeb_test::stats_fixture {};

// Every counter, gauges and start_ms left out.
std::vector<uint64_t> totals() {
    const mqtt_stats_block &s = g_mqtt_stats;
    return {s.pkt_rx,        s.pkt_tx,
            s.drop_offline,  s.drop_queue_full,
            s.drop_too_big,  s.drop_invalid_param,
            s.qos0,          s.drop_send_failed,
            s.qos1,          s.qos2,
            s.offline_msg,   s.timeout,
            s.will_sent,     s.parse_error,
            s.persist_write, s.persist_read};
}

std::vector<uint64_t> periods() {
    const mqtt_stats_block &s = g_mqtt_stats;
    return {s.period_pkt_rx,          s.period_pkt_tx,           s.period_drop_offline,
            s.period_drop_queue_full, s.period_drop_too_big,     s.period_drop_invalid_param,
            s.period_timeout,         s.period_drop_send_failed, s.period_will_sent,
            s.period_persist_write,   s.period_persist_read};
}

uint64_t sum(const std::vector<uint64_t> &counters) {
    uint64_t total = 0;
    for (const uint64_t counter : counters) total += counter;
    return total;
}

// The counters that a counting function touches; the 32-bit ones stand in columns of their own.
struct counting {
    const char *name;
    void (*count)();
    std::atomic<uint64_t> *total;
    std::atomic<uint64_t> *period;
    std::atomic<uint32_t> *small_total;
    std::atomic<uint32_t> *small_period;
};

#define WIDE(name)  &g_mqtt_stats.name, &g_mqtt_stats.period_##name, nullptr, nullptr
#define SMALL(name) nullptr, nullptr, &g_mqtt_stats.name, &g_mqtt_stats.period_##name

const counting k_countings[] = {
    {"rx_pkt", mqtt_stats_inc_rx_pkt, WIDE(pkt_rx)},
    {"tx_pkt", mqtt_stats_inc_tx_pkt, WIDE(pkt_tx)},
    {"drop_offline", mqtt_stats_inc_drop_offline, WIDE(drop_offline)},
    {"drop_queue_full", mqtt_stats_inc_drop_queue_full, WIDE(drop_queue_full)},
    {"drop_too_big", mqtt_stats_inc_drop_too_big, WIDE(drop_too_big)},
    {"drop_invalid_param", mqtt_stats_inc_drop_invalid_param, WIDE(drop_invalid_param)},
    {"drop_send_failed", mqtt_stats_inc_drop_send_failed, WIDE(drop_send_failed)},
    {"persist_write", mqtt_stats_inc_persist_write, WIDE(persist_write)},
    {"persist_read", mqtt_stats_inc_persist_read, WIDE(persist_read)},
    {"will_sent", mqtt_stats_inc_will_sent, SMALL(will_sent)},
    {"timeout", mqtt_stats_inc_timeout, SMALL(timeout)},
    {"offline_msg", mqtt_stats_inc_offline_msg, &g_mqtt_stats.offline_msg, nullptr, nullptr, nullptr},
    {"parse_error", mqtt_stats_inc_parse_error, nullptr, nullptr, &g_mqtt_stats.parse_error, nullptr},
    {"qos 0", [] { mqtt_stats_inc_qos(0); }, &g_mqtt_stats.qos0, nullptr, nullptr, nullptr},
    {"qos 1", [] { mqtt_stats_inc_qos(1); }, &g_mqtt_stats.qos1, nullptr, nullptr, nullptr},
    {"qos 2", [] { mqtt_stats_inc_qos(2); }, &g_mqtt_stats.qos2, nullptr, nullptr, nullptr},
};

#undef WIDE
#undef SMALL

TEST_F(mqtt_stats_test, each_counting_function_adds_one_to_its_own_fields_only) {
    for (const counting &row : k_countings) {
        mqtt_stats_init();
        row.count();
        row.count();
        EXPECT_EQ(sum(totals()), 2u) << row.name;
        EXPECT_EQ(row.total != nullptr ? row.total->load() : row.small_total->load(), 2u) << row.name;
        const bool has_period = row.period != nullptr || row.small_period != nullptr;
        EXPECT_EQ(sum(periods()), has_period ? 2u : 0u) << row.name;
        if (row.period != nullptr) {
            EXPECT_EQ(row.period->load(), 2u) << row.name;
        }
        if (row.small_period != nullptr) {
            EXPECT_EQ(row.small_period->load(), 2u) << row.name;
        }
    }
}

TEST_F(mqtt_stats_test, a_qos_above_two_counts_nothing) {
    mqtt_stats_inc_qos(3);
    mqtt_stats_inc_qos(255);
    EXPECT_EQ(sum(totals()), 0u);
    EXPECT_EQ(sum(periods()), 0u);
}

TEST_F(mqtt_stats_test, init_zeroes_everything_and_stamps_the_start) {
    for (const counting &row : k_countings) row.count();
    set_online(2);
    set_pool(3, 4);
    set_subscriptions(5, 6);
    mqtt_stats_update();
    clock.set_mono_ms(987654321);
    mqtt_stats_init();
    EXPECT_EQ(sum(totals()), 0u);
    EXPECT_EQ(sum(periods()), 0u);
    EXPECT_EQ(g_mqtt_stats.online.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.max_online.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.pool_used.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.pool_cap.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.pool_usage.load(), 0.0f);
    EXPECT_EQ(g_mqtt_stats.subs.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.retain_msg.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.start_ms.load(), 987654321u);
}

TEST_F(mqtt_stats_test, init_logs_one_line_at_info) {
    log_capture log;
    mqtt_stats_init();
    EXPECT_TRUE(log.has("INFO", "[MQTT-Stats] 维测统计模块初始化完成")) << log.text();
}

TEST_F(mqtt_stats_test, deinit_changes_nothing) {
    mqtt_stats_inc_rx_pkt();
    mqtt_stats_deinit();
    EXPECT_EQ(g_mqtt_stats.pkt_rx.load(), 1u);
    EXPECT_EQ(g_mqtt_stats.start_ms.load(), clock.mono_ms());
}

TEST_F(mqtt_stats_test, a_period_reset_keeps_totals_and_gauges) {
    for (const counting &row : k_countings) row.count();
    set_online(1);
    set_pool(1, 2);
    mqtt_stats_update();
    const std::vector<uint64_t> before = totals();
    ASSERT_EQ(sum(periods()), 11u);
    mqtt_stats_reset_period();
    EXPECT_EQ(sum(periods()), 0u);
    EXPECT_EQ(totals(), before);
    EXPECT_EQ(g_mqtt_stats.online.load(), 1u);
    EXPECT_EQ(g_mqtt_stats.pool_usage.load(), 50.0f);
}

TEST_F(mqtt_stats_test, counting_goes_on_after_a_period_reset) {
    mqtt_stats_inc_rx_pkt();
    mqtt_stats_reset_period();
    mqtt_stats_inc_rx_pkt();
    EXPECT_EQ(g_mqtt_stats.pkt_rx.load(), 2u);
    EXPECT_EQ(g_mqtt_stats.period_pkt_rx.load(), 1u);
}

TEST_F(mqtt_stats_test, gauges_are_sampled_by_an_update_only) {
    set_online(2);
    set_pool(3, 400);
    set_subscriptions(5, 6);
    EXPECT_EQ(g_mqtt_stats.online.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.subs.load(), 0u);
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.online.load(), 2u);
    EXPECT_EQ(g_mqtt_stats.pool_used.load(), 3u);
    EXPECT_EQ(g_mqtt_stats.pool_cap.load(), 400u);
    EXPECT_EQ(g_mqtt_stats.pool_usage.load(), 3.0f / 400.0f * 100.0f);
    EXPECT_EQ(g_mqtt_stats.subs.load(), 5u);
    EXPECT_EQ(g_mqtt_stats.retain_msg.load(), 6u);
}

TEST_F(mqtt_stats_test, the_highest_online_count_stays_when_clients_leave) {
    set_online(3);
    mqtt_stats_update();
    set_online(1);
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.online.load(), 1u);
    EXPECT_EQ(g_mqtt_stats.max_online.load(), 3u);
    set_online(4);
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.max_online.load(), 4u);
}

TEST_F(mqtt_stats_test, an_empty_pool_has_usage_zero) {
    set_pool(7, 0);
    mqtt_stats_update();
    EXPECT_EQ(g_mqtt_stats.pool_usage.load(), 0.0f);
}

TEST_F(mqtt_stats_test, a_counter_wraps_at_its_width) {
    g_mqtt_stats.pkt_rx.store(UINT64_MAX);
    g_mqtt_stats.timeout.store(UINT32_MAX);
    mqtt_stats_inc_rx_pkt();
    mqtt_stats_inc_timeout();
    EXPECT_EQ(g_mqtt_stats.pkt_rx.load(), 0u);
    EXPECT_EQ(g_mqtt_stats.timeout.load(), 0u);
}

}  // namespace
