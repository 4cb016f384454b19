#include <array>
#include <cstring>
#include <string>

#include "tests/stats/stats_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using namespace zeb;
using zeb_test::log_capture;

class mqtt_stats_report_test : public zeb_test::stats_fixture {
  protected:
    // A different number in every field that is shown.
    static void fill() {
        mqtt_stats_block &s = g_mqtt_stats;
        s.max_online = 9;
        s.pkt_rx = 101;
        s.pkt_tx = 102;
        s.drop_offline = 103;
        s.drop_queue_full = 104;
        s.drop_too_big = 105;
        s.drop_invalid_param = 106;
        s.drop_send_failed = 107;
        s.qos0 = 108;
        s.qos1 = 109;
        s.qos2 = 110;
        s.offline_msg = 111;
        s.timeout = 112;
        s.will_sent = 113;
        s.parse_error = 114;
        s.persist_write = 115;
        s.persist_read = 116;
        s.period_pkt_rx = 201;
        s.period_pkt_tx = 202;
        s.period_drop_offline = 203;
        s.period_drop_queue_full = 204;
        s.period_drop_too_big = 205;
        s.period_drop_invalid_param = 206;
        s.period_drop_send_failed = 207;
        s.period_timeout = 208;
        s.period_will_sent = 209;
        s.period_persist_write = 210;
        s.period_persist_read = 211;
    }

    static std::string json() {
        std::array<char, 1024> buf{};
        EXPECT_EQ(mqtt_stats_to_json(buf.data(), 1024), 0);
        return buf.data();
    }

    static std::string report() {
        log_capture log(AGENT_LOG_WARN);
        mqtt_stats_print();
        return without_stamps(log.text());
    }

  private:
    static std::string without_stamps(const std::string &text) {
        std::string lines;
        for (size_t at = 0; at < text.size();) {
            const size_t end = text.find('\n', at);
            const std::string line = text.substr(at, end - at);
            EXPECT_EQ(line.find("] ["), 24u) << line;
            lines += line.substr(line.find("] [") + 2) + "\n";
            at = end + 1;
        }
        return lines;
    }
};

TEST_F(mqtt_stats_report_test, the_report_has_thirteen_lines_in_order_at_warn) {
    fill();
    set_online(2);
    set_pool(3, 400);
    set_subscriptions(12, 34);
    clock.advance_ms(60005);
    EXPECT_EQ(report(),
              "[WARN] !!!>>>===================== MQTT Broker 维测统计 =====================\n"
              "[WARN] 运行时长: 60005 ms\n"
              "[WARN] 在线客户端: 2 / 历史最高: 9\n"
              "[WARN] 内存池使用率: 3/400 (0.8%)\n"
              "[WARN] [周期60s] 收包:201 | 发包:202 | 超时:208 | 遗嘱:209 | 持久写:210 | 持久读:211\n"
              "[WARN] [周期丢包] 离线:203 | 队列满:204 | 超长:205 | 非法参数:206 | 发送失败:207\n"
              "[WARN] 收包总数: 101 | 发包总数: 102\n"
              "[WARN] [总丢包] 离线:103 | 队列满:104 | 超长:105 | 非法参数:106 | 发送失败:107\n"
              "[WARN] QoS0: 108 | QoS1: 109 | QoS2: 110\n"
              "[WARN] 离线消息: 111 | Retain消息: 34\n"
              "[WARN] 总订阅数: 12 | 超时断开: 112 | 遗嘱发送: 113\n"
              "[WARN] 持久化写入: 115 | 读取: 116\n"
              "[WARN] !!!>>>================================================================\n");
}

TEST_F(mqtt_stats_report_test, after_a_report_and_a_reset_the_period_reads_zero_and_totals_stay) {
    fill();
    (void)report();
    EXPECT_EQ(g_mqtt_stats.period_pkt_rx.load(), 201u) << "the report itself resets nothing";
    mqtt_stats_reset_period();
    const std::string text = report();
    EXPECT_NE(text.find("[周期60s] 收包:0 | 发包:0 | 超时:0 | 遗嘱:0 | 持久写:0 | 持久读:0\n"),
              std::string::npos);
    EXPECT_NE(text.find("[周期丢包] 离线:0 | 队列满:0 | 超长:0 | 非法参数:0 | 发送失败:0\n"),
              std::string::npos);
    EXPECT_NE(text.find("收包总数: 101 | 发包总数: 102\n"), std::string::npos);
    EXPECT_NE(text.find("[总丢包] 离线:103 | 队列满:104 | 超长:105 | 非法参数:106 | 发送失败:107\n"),
              std::string::npos);
}

TEST_F(mqtt_stats_report_test, a_pool_capacity_of_zero_is_printed_as_usage_zero) {
    set_pool(5, 0);
    EXPECT_NE(report().find("内存池使用率: 5/0 (0.0%)\n"), std::string::npos);
    EXPECT_NE(json().find("\"pool_used\":5,\"pool_cap\":0,\"pool_usage\":0.0,"), std::string::npos);
}

TEST_F(mqtt_stats_report_test, a_report_above_warn_is_silent_but_samples) {
    set_subscriptions(12, 34);
    log_capture log(AGENT_LOG_ERROR);
    mqtt_stats_print();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(g_mqtt_stats.subs.load(), 12u);
}

TEST_F(mqtt_stats_report_test, the_snapshot_carries_gauges_and_totals_in_order) {
    fill();
    set_online(2);
    set_pool(3, 400);
    set_subscriptions(12, 34);
    EXPECT_EQ(
        json(),
        "{\"online\":2,\"max_online\":9,\"pool_used\":3,\"pool_cap\":400,\"pool_usage\":0.8,"
        "\"pkt_rx\":101,\"pkt_tx\":102,\"drop_offline\":103,\"drop_queue_full\":104,\"drop_too_big\":105,"
        "\"drop_invalid_param\":106,\"drop_send_failed\":107,\"qos0\":108,\"qos1\":109,\"qos2\":110,"
        "\"offline_msg\":111,\"retain_msg\":34,\"subs\":12,\"timeout\":112,\"will_sent\":113}");
}

TEST_F(mqtt_stats_report_test, a_snapshot_into_1023_bytes_is_refused_and_writes_nothing) {
    std::array<char, 1024> buf;
    buf.fill('#');
    set_subscriptions(12, 34);
    for (const int size : {1023, 1, 0, -1, -2147483647 - 1}) {
        EXPECT_EQ(mqtt_stats_to_json(buf.data(), size), -1) << size;
        EXPECT_EQ(std::string(buf.data(), buf.size()), std::string(1024, '#')) << size;
    }
    EXPECT_EQ(g_mqtt_stats.subs.load(), 0u) << "a refused call samples nothing";
}

TEST_F(mqtt_stats_report_test, a_snapshot_without_a_buffer_is_refused) {
    EXPECT_EQ(mqtt_stats_to_json(nullptr, 4096), -1);
}

TEST_F(mqtt_stats_report_test, the_longest_snapshot_fits_the_smallest_buffer) {
    mqtt_stats_block &s = g_mqtt_stats;
    for (std::atomic<uint64_t> *field :
         {&s.pkt_rx, &s.pkt_tx, &s.drop_offline, &s.drop_queue_full, &s.drop_too_big, &s.drop_invalid_param,
          &s.drop_send_failed, &s.qos0, &s.qos1, &s.qos2, &s.offline_msg})
        field->store(UINT64_MAX);
    for (std::atomic<uint32_t> *field : {&s.max_online, &s.timeout, &s.will_sent}) field->store(UINT32_MAX);
    set_pool(-1, 1);
    set_subscriptions(-1, -1);
    const std::string text = json();
    EXPECT_TRUE(
        text.ends_with("\"retain_msg\":4294967295,\"subs\":4294967295,\"timeout\":4294967295,"
                       "\"will_sent\":4294967295}"))
        << text;
    EXPECT_NE(text.find("\"pool_usage\":429496729600.0,\"pkt_rx\":18446744073709551615,"), std::string::npos);
    EXPECT_LT(text.size(), 1023u);
}

// Single precision, then one decimal of its exact value.
TEST_F(mqtt_stats_report_test, the_pool_usage_is_rounded_to_one_decimal) {
    struct row {
        int used;
        int capacity;
        const char *text;
    };
    for (const row &r :
         {row{0, 100, "0.0"}, row{1, 3, "33.3"}, row{2, 3, "66.7"}, row{1, 400, "0.2"}, row{1, 1600, "0.1"},
          row{100, 100, "100.0"}, row{10999, 11000, "100.0"}, row{1, 11000, "0.0"}, row{1, 8, "12.5"}}) {
        set_pool(r.used, r.capacity);
        const std::string expected = "\"pool_usage\":" + std::string(r.text) + ",";
        EXPECT_NE(json().find(expected), std::string::npos) << r.used << "/" << r.capacity << " " << json();
    }
}

}  // namespace
