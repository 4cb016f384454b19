// What goes beyond the fixed behaviour, switched on one by one.
#include <pthread.h>
#include <time.h>

#include <cstring>
#include <thread>

#include "netip/netip_internal.h"
#include "packet/packet_handler.h"
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::bytes;
using zeb_test::dump;
using zeb_test::log_capture;
using zeb_test::mqtt_peer;

TEST(sdk_options, each_option_has_its_range_and_is_off_at_first) {
    constexpr struct {
        mqtt_broker_option option;
        int value;
        int result;
    } k_rows[] = {
        {MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1, 0},
        {MQTT_BROKER_OPTION_REQUIRE_CONNECT, 2, -2},
        {MQTT_BROKER_OPTION_REQUIRE_CONNECT, -1, -2},
        {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 1, 0},
        {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 3600, 0},
        {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, 3601, -2},
        {MQTT_BROKER_OPTION_CONNECT_TIMEOUT, -1, -2},
        {MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 1, 0},
        {MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 2, -2},
        {MQTT_BROKER_OPTION_LOW_LATENCY, 1, 0},
        {MQTT_BROKER_OPTION_LOW_LATENCY, 2, -2},
        {MQTT_BROKER_OPTION_EXACT_LOOKUP, 1, 0},
        {MQTT_BROKER_OPTION_EXACT_LOOKUP, 2, -2},
        {MQTT_BROKER_OPTION_FORCE_INT, 0, -2},
        {static_cast<mqtt_broker_option>(MQTT_BROKER_OPTION_CAPACITY), 0, -2},
    };
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    for (const int32_t value : b->options) EXPECT_EQ(value, 0);
    for (const auto &row : k_rows) {
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b, row.option, row.value), row.result)
            << row.option << " " << row.value;
        if (row.result != 0) continue;
        EXPECT_EQ(b->options[row.option], row.value);
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b, row.option, 0), 0);
    }
    for (const int32_t value : b->options) EXPECT_EQ(value, 0) << "0 switches off again";
    zeb_sdk_mqtt_broker_destroy(b);
}

TEST(sdk_options, a_missing_instance_is_logged_and_a_running_one_refuses) {
    {
        log_capture log;
        EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(nullptr, MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), -2);
        EXPECT_TRUE(log.has("ERROR", "[SDK] invalid broker handle"));
    }
    broker b(10);
    log_capture log(zeb::AGENT_LOG_ERROR);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), -7);
    EXPECT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 2), -2);
    EXPECT_TRUE(log.has("ERROR", "[SDK] set_option failed: broker is already running"));
    EXPECT_EQ(b.get()->options[MQTT_BROKER_OPTION_REQUIRE_CONNECT], 0);
}

TEST(sdk_options, the_next_start_of_an_instance_without_options_has_none) {
    {
        broker b;
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), 0);
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_LEVEL_BY_CONNECT, 1), 0);
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_LOW_LATENCY, 1), 0);
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_EXACT_LOOKUP, 1), 0);
        ASSERT_EQ(b.start(10), 0);
        EXPECT_EQ(zeb::g_packet_options.require_connect, 1);
        EXPECT_EQ(zeb::g_packet_options.level_by_connect, 1);
        EXPECT_EQ(zeb::g_client_options.low_latency, 1);
        EXPECT_EQ(zeb::g_client_options.exact_lookup, 1);
        EXPECT_NE(zeb::g_netip_hooks, nullptr);
    }
    broker b(10);
    EXPECT_EQ(zeb::g_packet_options.require_connect, 0);
    EXPECT_EQ(zeb::g_packet_options.level_by_connect, 0);
    EXPECT_EQ(zeb::g_client_options.low_latency, 0);
    EXPECT_EQ(zeb::g_client_options.exact_lookup, 0);
    EXPECT_EQ(zeb::g_netip_hooks, nullptr);
    EXPECT_TRUE(mqtt_peer().is_served()) << "PINGREQ before CONNECT is answered";
}

TEST(sdk_options, a_packet_before_connect_closes_the_connection_unanswered) {
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), 0);
    ASSERT_EQ(b.start(10), 0);
    for (const char *packet :
         {"C0 00", "30 05 00 01 't' 'hi'", "82 06 00 01 00 01 't' 00", "E0 00", "F0 00"}) {
        mqtt_peer early;
        ASSERT_TRUE(early.send(packet));
        EXPECT_EQ(dump(early.read()), dump(bytes{})) << packet;
        EXPECT_TRUE(early.closed_somehow()) << packet;
    }
    mqtt_peer proper("proper");
    EXPECT_TRUE(proper.is_served());
    EXPECT_TRUE(zeb_test::eventually([&] { return b.online() == 1; }));
}

TEST(sdk_options, a_refused_connect_does_not_open_the_door) {
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), 0);
    zeb_sdk_mqtt_broker_register_auth_callback(b.get(), [](mqtt_broker_instance *, const mqtt_connect_para *,
                                                           const char *, const char *) { return 0; });
    ASSERT_EQ(b.start(10), 0);
    mqtt_peer refused;
    bytes both = zeb_test::connect_packet("refused");
    both.insert(both.end(), {0xC0, 0x00});
    ASSERT_TRUE(refused.send(both));
    EXPECT_EQ(dump(refused.read()).substr(0, 2), "20");
    EXPECT_EQ(dump(refused.read()), dump(bytes{}));
}

// Time leaps while the broker's threads keep their beat.
class sdk_connect_timeout : public testing::Test {
  protected:
    void start(int seconds) {
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_CONNECT_TIMEOUT, seconds), 0);
        ASSERT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b.get(), 3600), 0);
        ASSERT_EQ(b.start(50), 0);
    }
    static uint32_t connections() {
        uint32_t count = 0;
        for (const zeb::netip_conn &conn : zeb::g_netip_clients) count += conn.in_use.load();
        return count;
    }
    zeb_test::stepped_clock clock;
    broker b;
};

TEST_F(sdk_connect_timeout, silent_and_unaccepted_connections_are_closed_in_time) {
    start(30);
    mqtt_peer silent;
    mqtt_peer pinging;
    zeb_test::connect_options options;
    options.keepalive_s = 60000;
    mqtt_peer proper("proper", options);
    zeb_test::udp_client datagrams;
    ASSERT_TRUE(pinging.is_served());
    datagrams.send("C0 00");
    ASSERT_TRUE(zeb_test::eventually([&] {
        // Datagrams are read beside the traffic of a TCP connection only.
        return proper.is_served() && connections() == 4;
    }));
    clock.advance_ms(25000);
    ASSERT_TRUE(pinging.is_served()) << "not yet, and a packet of another type buys no time";
    ASSERT_EQ(connections(), 4u);
    clock.advance_ms(6000);
    EXPECT_TRUE(silent.closed_somehow());
    EXPECT_TRUE(pinging.closed_somehow());
    EXPECT_TRUE(zeb_test::eventually([] { return connections() == 1; }));
    EXPECT_TRUE(proper.is_served());
    EXPECT_EQ(b.ids(), "proper");
    clock.advance_ms(3600000);
    EXPECT_TRUE(proper.is_served()) << "once accepted, the time-out is over";
}

// Holds the I/O thread where it creates a record, before the record can be found.
class held_clock {
  public:
    held_clock() {
        held() = 0;
        zeb::platform_set_clock(&table());
    }
    ~held_clock() { zeb::platform_set_clock(nullptr); }
    held_clock(const held_clock &) = delete;
    held_clock &operator=(const held_clock &) = delete;
    // 0 off, 1 hold the next, 2 one is held, 3 let it go
    static std::atomic<int> &held() {
        static std::atomic<int> v;
        return v;
    }

  private:
    static uint64_t mono_ms() {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        int hold = 1;
        if (strncmp(name, "zeb-io", 6) == 0 && held().compare_exchange_strong(hold, 2))
            while (held() == 2) std::this_thread::yield();
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
    }
    static const zeb::platform_clock &table() {
        static const zeb::platform_clock clock{mono_ms, nullptr, nullptr};
        return clock;
    }
};

TEST(sdk_options, a_connection_closed_while_its_record_is_created_leaves_no_record) {
    held_clock clock;
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_option(b.get(), MQTT_BROKER_OPTION_REQUIRE_CONNECT, 1), 0);
    ASSERT_EQ(b.start(50), 0);
    mqtt_peer victim;
    ASSERT_TRUE(zeb_test::eventually([] { return zeb::g_netip_clients[0].in_use == 1; }));
    held_clock::held() = 1;
    ASSERT_TRUE(victim.send(zeb_test::connect_packet("victim")));
    ASSERT_TRUE(zeb_test::eventually([] { return held_clock::held() == 2; }));
    EXPECT_EQ(zeb::netip_close_unadmitted(0), 1);
    held_clock::held() = 3;
    EXPECT_TRUE(victim.closed_somehow());
    EXPECT_TRUE(zeb_test::eventually([] { return zeb::g_client_mgr.client_count == 0; }));
    EXPECT_EQ(b.ids(), "");
    {
        const std::lock_guard lock(zeb::g_netip_lock);
        zeb::g_last_handle = 0;  // the next connection gets the handle again
    }
    mqtt_peer fresh;
    ASSERT_TRUE(fresh.send("C0 00"));
    EXPECT_EQ(dump(fresh.read()), dump(bytes{})) << "nothing of the victim's";
    EXPECT_TRUE(fresh.closed_somehow());
}

TEST_F(sdk_connect_timeout, a_malformed_connect_buys_no_time) {
    start(30);
    mqtt_peer malformed;
    ASSERT_TRUE(malformed.send("10 0D 00 04 'MQTT' 06 02 00 3C 00 01 'a'"));
    ASSERT_TRUE(malformed.is_served());
    clock.advance_ms(31000);
    EXPECT_TRUE(malformed.closed_somehow());
}

TEST_F(sdk_connect_timeout, a_handle_that_was_admitted_before_is_not_spared) {
    start(30);
    {
        mqtt_peer earlier("earlier");
        ASSERT_TRUE(earlier.send("E0 00"));
        ASSERT_TRUE(earlier.closed_somehow());
    }
    ASSERT_TRUE(zeb_test::eventually([] { return connections() == 0; }));
    {
        const std::lock_guard lock(zeb::g_netip_lock);
        zeb::g_last_handle = 0;
    }
    mqtt_peer silent;
    ASSERT_TRUE(zeb_test::eventually([] { return zeb::g_netip_clients[0].in_use == 1; }));
    zeb::netip_admit(0, zeb::g_netip_clients[0].generation - 1);  // of the earlier one: too late
    clock.advance_ms(31000);
    EXPECT_TRUE(silent.closed_somehow());
}

TEST_F(sdk_connect_timeout, off_leaves_silent_connections_alone) {
    start(0);
    mqtt_peer silent;
    ASSERT_TRUE(zeb_test::eventually([] { return connections() == 1; }));
    clock.advance_ms(7200000);
    mqtt_peer later("later");
    EXPECT_TRUE(later.is_served());
    EXPECT_EQ(connections(), 2u);
    EXPECT_TRUE(silent.is_served());
}

}  // namespace
