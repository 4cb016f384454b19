// The time of day steps by an hour, either way, under a running broker. What is measured in time that has
// passed must not notice; what carries a date does.
#include <filesystem>

#include "client/client_mgr.h"
#include "stats/mqtt_stats.h"
#include "sub/retain_store.h"
#include "tests/faults/embedded.h"
#include "tests/faults/quick_clock.h"
#include "tests/faults/scripted_client.h"

namespace {

using zeb_test::connect_options;
using zeb_test::embedded;
using zeb_test::eventually;
using zeb_test::hex;
using zeb_test::mqtt_peer;

constexpr int64_t k_hour_ms = 3600 * 1000;
constexpr int k_connect_timeout_s = 30;

class faults_clock : public testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        std::filesystem::remove_all("./data");
        embedded::options options;
        options.connect_timeout_s = k_connect_timeout_s;
        ASSERT_EQ(broker.open("./data", options), 0);
    }
    int64_t step_ms() const { return GetParam() * k_hour_ms; }

    // Steps, and lets housekeeping go round a few times with the new time of day. What it does every 5, 10
    // and 60 s is due at once, whichever way the clock went.
    void step() {
        ASSERT_TRUE(mqtt_peer("counted").is_served());
        zeb::g_mqtt_stats.period_pkt_rx = 1;
        clock.step_wall_ms(step_ms());
        EXPECT_TRUE(eventually([] { return zeb::g_mqtt_stats.period_pkt_rx == 0; })) << "no report";
        let_housekeeping_pass();
    }
    void let_housekeeping_pass() {
        const uint64_t passes = clock.housekeeping_passes();
        EXPECT_TRUE(eventually([=, this] { return clock.housekeeping_passes() >= passes + 3; }));
    }

    zeb_test::quick_clock clock{1000};
    embedded broker;
};

TEST_P(faults_clock, no_client_is_dropped_before_or_after_its_time) {
    mqtt_peer named("named");  // keep-alive 60 s: closed after 90 s
    mqtt_peer silent;          // closed after 30 s without CONNECT
    ASSERT_TRUE(eventually([&] { return zeb_test::is_in_use(1); }));
    step();
    EXPECT_TRUE(named.is_served());
    EXPECT_FALSE(silent.tcp().readable(std::chrono::milliseconds(0)));
    EXPECT_EQ(zeb::g_mqtt_stats.timeout, 0u);
    clock.advance_mono_ms(31 * 1000);
    clock.step_wall_ms(31 * 1000);
    EXPECT_TRUE(silent.closed_somehow());
    EXPECT_TRUE(named.is_served());
    clock.advance_mono_ms(91 * 1000);
    clock.step_wall_ms(91 * 1000);
    EXPECT_TRUE(named.closed_somehow());
}

TEST_P(faults_clock, a_delayed_will_waits_for_its_delay) {
    mqtt_peer listener("listener");
    listener.subscribe("w");
    connect_options options;
    options.level = 5;
    options.properties = hex("27 00 00 10 00");
    options.will_topic = "w";
    options.will_properties = hex("18 00 00 00 1E");  // 30 s
    mqtt_peer dying("dying", options);
    dying.reset();
    ASSERT_TRUE(eventually([] { return zeb::g_will_delay_client_count == 1; }));
    step();
    EXPECT_TRUE(listener.is_served()) << "nothing came before the answer";
    clock.advance_mono_ms(30 * 1000);
    EXPECT_EQ(listener.read()[0], 0x30);
    EXPECT_TRUE(eventually([] { return zeb::g_will_delay_client_count == 0; }));
}

TEST_P(faults_clock, a_message_is_sent_again_when_time_has_passed_and_not_before) {
    mqtt_peer listener("listener");
    listener.subscribe("t", 1);
    mqtt_peer speaker("speaker");
    speaker.send(zeb_test::publish_packet("t", {0xFF}, 1, 1));
    EXPECT_EQ(listener.read()[0], 0x32);
    step();
    const uint64_t scans = clock.qos_scans();
    ASSERT_TRUE(eventually([&] { return clock.qos_scans() >= scans + 2; }));
    EXPECT_TRUE(listener.is_served()) << "nothing came before the answer";
    clock.advance_mono_ms(2000);
    EXPECT_EQ(listener.read()[0] & 0xF6, 0x32);
}

// Dates are compared with the time of day: an hour ahead ends a message of one minute, an hour back lets it
// live an hour longer. Nothing with more time left is lost.
TEST_P(faults_clock, retained_messages_end_by_their_dates) {
    const auto *payload = reinterpret_cast<const uint8_t *>("x");
    for (const auto &[topic, seconds] : {std::pair{"minute", 60u}, {"day", 86400u}, {"always", 0u}}) {
        ASSERT_EQ(zeb_sdk_mqtt_broker_publish(broker.get(), topic, payload, 1, 0, 1, seconds), 0);
    }
    step();
    const bool ahead = GetParam() > 0;
    const auto topics = [this] { return broker.text_of(zeb_sdk_mqtt_broker_get_retain_topic_list); };
    EXPECT_TRUE(eventually([&] { return topics() == (ahead ? "day\nalways\n" : "minute\nday\nalways\n"); }))
        << topics();
    if (ahead) return;
    clock.step_wall_ms(k_hour_ms + 62 * 1000);
    EXPECT_TRUE(eventually([&] { return topics() == "day\nalways\n"; })) << topics();
}

TEST_P(faults_clock, uptime_and_reports_go_on) {
    step();
    mqtt_broker_stats stats;
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_stats(broker.get(), &stats), 0);
    EXPECT_LT(stats.uptime_seconds, 1800u);
    zeb::g_mqtt_stats.period_pkt_rx = 1;
    let_housekeeping_pass();
    EXPECT_EQ(zeb::g_mqtt_stats.period_pkt_rx, 1u) << "the next report is a minute away";
    clock.step_wall_ms(61 * 1000);
    EXPECT_TRUE(eventually([] { return zeb::g_mqtt_stats.period_pkt_rx == 0; }));
}

INSTANTIATE_TEST_SUITE_P(by_an_hour, faults_clock, testing::Values(1, -1),
                         [](const auto &row) { return row.param > 0 ? "ahead" : "back"; });

}  // namespace
