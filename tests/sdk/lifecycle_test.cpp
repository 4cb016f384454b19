// Create, init, start, stop, deinit, destroy: in order, out of order, and again.
#include <netinet/in.h>
#include <sys/socket.h>

#include "sub/sub_mgr.h"
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::callbacks;
using zeb_test::connect_options;
using zeb_test::dump;
using zeb_test::eventually;
using zeb_test::log_capture;
using zeb_test::mqtt_peer;
using zeb_test::open_descriptors;
using zeb_test::running_threads;
using zeb_test::stepped_clock;

constexpr uint32_t k_event_will = MQTT_BROKER_EVENT_WILL;

class sdk_lifecycle : public testing::Test {
  protected:
    void SetUp() override { callbacks::get().reset(); }
};

TEST_F(sdk_lifecycle, ports_and_capacities_are_checked) {
    broker b;
    const struct {
        int port, max_clients, result;
        const char *line;
    } rows[] = {
        {0, 10, -2, "[SDK] invalid listen port: 0"},
        {-1, 10, -2, "[SDK] invalid listen port: -1"},
        {65536, 10, -2, "[SDK] invalid listen port: 65536"},
        {1883, 0, -2, "[SDK] invalid max clients: 0"},
        {1883, 50001, -2, "[SDK] invalid max clients: 50001"},
        {65536, 50001, -2, "[SDK] invalid listen port: 65536"},
        {1883, 11001, -3, "[SDK] client_mgr_init failed"},
        {1883, 50000, -3, "[SDK] client_mgr_init failed"},
    };
    for (const auto &row : rows) {
        log_capture log(zeb::AGENT_LOG_ERROR);
        EXPECT_EQ(b.start(row.max_clients, row.port), row.result) << row.port << " " << row.max_clients;
        EXPECT_TRUE(log.has("ERROR", row.line)) << row.line;
        EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 0);
        EXPECT_EQ(b.get()->port, 1883);
        EXPECT_EQ(b.get()->max_clients, 5000);
    }
}

TEST_F(sdk_lifecycle, the_largest_capacity_starts) {
    broker b(11000);
    EXPECT_EQ(b.get()->max_clients, 11000);
    EXPECT_TRUE(mqtt_peer("c").is_served());
}

TEST_F(sdk_lifecycle, another_port_is_recorded_while_1883_is_served) {
    // The line of a start that meets another thread's is lost, as the log says of itself.
    EXPECT_TRUE(eventually([] {
        broker b;
        log_capture log(zeb::AGENT_LOG_INFO);
        EXPECT_EQ(b.start(10, 8883), 0);
        EXPECT_EQ(b.get()->port, 8883);
        EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 1);
        EXPECT_TRUE(mqtt_peer("c").is_served());
        return log.has("INFO", "[SDK] start success, listen 0.0.0.0:8883");
    }));
}

TEST_F(sdk_lifecycle, a_second_start_is_refused_and_changes_nothing) {
    broker b(10);
    mqtt_peer peer("c");
    const size_t threads = running_threads();
    log_capture log(zeb::AGENT_LOG_ERROR);
    EXPECT_EQ(b.start(20, 1884), -7);
    EXPECT_EQ(b.start(20, 0), -7);
    EXPECT_TRUE(log.has("ERROR", "[SDK] start failed: broker is already running"));
    EXPECT_EQ(b.get()->port, 1883);
    EXPECT_EQ(b.get()->max_clients, 10);
    EXPECT_EQ(running_threads(), threads);
    EXPECT_EQ(b.ids(), "c");
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_lifecycle, stop_ends_housekeeping_only) {
    broker b(10);
    mqtt_peer peer("c");
    const size_t threads = running_threads();
    EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b.get()), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 0);
    EXPECT_EQ(b.get()->broker_thread, 0u);
    EXPECT_EQ(running_threads(), threads - 1);
    EXPECT_TRUE(peer.is_served());
    EXPECT_TRUE(mqtt_peer("newcomer").is_served());
}

TEST_F(sdk_lifecycle, stopping_again_or_before_start_is_harmless) {
    broker b;
    log_capture log(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b.get()), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_stop(b.get()), 0);
    EXPECT_TRUE(log.has("INFO", "[SDK] broker stopped"));
}

TEST_F(sdk_lifecycle, start_after_stop_needs_a_deinit_and_leaves_the_clients_alone) {
    broker b(10);
    mqtt_peer peer("c");
    ASSERT_EQ(zeb_sdk_mqtt_broker_stop(b.get()), 0);
    {
        log_capture log(zeb::AGENT_LOG_ERROR);
        EXPECT_EQ(b.start(20), -3);
        EXPECT_TRUE(log.has("ERROR", "[SDK] netip_init failed[3]"));
    }
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 0);
    EXPECT_EQ(b.get()->max_clients, 10);
    EXPECT_EQ(b.ids(), "c");
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_lifecycle, a_second_instance_cannot_start_beside_the_first) {
    broker first(10);
    mqtt_peer peer("c");
    mqtt_broker_instance *second = zeb_sdk_mqtt_broker_create();
    {
        log_capture log(zeb::AGENT_LOG_ERROR);
        EXPECT_EQ(zeb_sdk_mqtt_broker_start(second, 1883, 10), -3);
        EXPECT_TRUE(log.has("ERROR", "[SDK] netip_init failed[3]"));
    }
    zeb_sdk_mqtt_broker_destroy(second);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(first.get()), 1);
    EXPECT_EQ(first.ids(), "c");
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_lifecycle, a_second_instance_may_come_and_go_whole_beside_the_first) {
    broker first(10);
    mqtt_peer peer("c");
    ASSERT_EQ(zeb::sub_add("c", "kept", 0, 1), 0);
    mqtt_broker_instance *second = zeb_sdk_mqtt_broker_create();
    const uint64_t received = zeb::g_mqtt_stats.pkt_rx;
    EXPECT_GT(received, 0u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_init(second), 0);
    EXPECT_EQ(zeb::g_mqtt_stats.pkt_rx, received) << "its counters are live";
    EXPECT_EQ(zeb::g_log_config.level, static_cast<uint32_t>(zeb::AGENT_LOG_FATAL)) << "its log as well";
    EXPECT_EQ(zeb_sdk_mqtt_broker_start(second, 1883, 10), -3);
    zeb_sdk_mqtt_broker_deinit(second);
    zeb_sdk_mqtt_broker_destroy(second);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(first.get()), 1);
    EXPECT_EQ(first.ids(), "c");
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 1);
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_lifecycle, a_taken_port_fails_and_leaves_nothing_behind) {
    broker b;
    const int blocker = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(blocker, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on), 0);
    const sockaddr_in address = zeb_test::broker_address();
    ASSERT_EQ(bind(blocker, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(blocker, 1), 0);
    {
        log_capture log(zeb::AGENT_LOG_ERROR);
        EXPECT_EQ(b.start(10), -3);
        EXPECT_TRUE(log.has("ERROR", "[SDK] netip_init failed[3]"));
    }
    const size_t descriptors = open_descriptors();
    const size_t threads = running_threads();
    EXPECT_EQ(b.start(10), -3);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 0);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(running_threads(), threads);
    EXPECT_EQ(zeb::g_client_mgr.initialized, 0);
    EXPECT_EQ(zeb::g_client_mgr.block_count, 0);
    EXPECT_FALSE(zeb::g_send_running);
    close(blocker);
    EXPECT_EQ(b.start(10), 0) << "once the port is free";
    EXPECT_TRUE(mqtt_peer("c").is_served());
}

TEST_F(sdk_lifecycle, deinit_is_safe_before_init_and_twice) {
    mqtt_broker_instance *b = zeb_sdk_mqtt_broker_create();
    zeb_sdk_mqtt_broker_deinit(b);
    EXPECT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_deinit(b);
    EXPECT_EQ(zeb_sdk_mqtt_broker_init(b), 0);
    zeb_sdk_mqtt_broker_set_log_level(b, zeb::AGENT_LOG_FATAL);
    EXPECT_EQ(zeb_sdk_mqtt_broker_start(b, 1883, 10), 0);
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_deinit(b);
    zeb_sdk_mqtt_broker_destroy(b);
}

TEST_F(sdk_lifecycle, deinit_ends_a_running_broker_and_its_connections) {
    const size_t threads = running_threads();
    broker b(10);
    mqtt_peer named("c");
    mqtt_peer silent;
    ASSERT_TRUE(eventually([] { return zeb_test::is_in_use(1); }));
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    zeb_sdk_mqtt_broker_deinit(b.get());
    EXPECT_EQ(running_threads(), threads);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 0);
    EXPECT_EQ(b.get()->event_cb, nullptr);
    EXPECT_EQ(b.online(), 0);
    EXPECT_TRUE(named.closed_somehow());
    EXPECT_TRUE(silent.closed_somehow());
}

TEST_F(sdk_lifecycle, queries_on_a_broker_that_is_down_find_nothing) {
    broker b;
    mqtt_broker_client_info info;
    EXPECT_EQ(b.online(), 0);
    EXPECT_EQ(b.ids(), "");
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "c", &info), -5);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "c"), -5);
    const uint8_t payload = 1;
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, 1, 0, 0, 0), 0);
}

// One whole life; with clients connected in all states when it ends.
void live_once(int round, bool with_clients) {
    broker b(200);
    if (!with_clients) return;
    connect_options with_will;
    with_will.will_topic = "w";
    mqtt_peer plain("plain");
    mqtt_peer willing("willing", with_will);
    mqtt_peer silent;
    plain.subscribe("t");
    const uint8_t payload = 1;
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, 1, 1, 0, 0), 0);
    if (round % 3 == 0) willing.reset();
    if (round % 3 == 1) {
        EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "willing"), 0);
    }
}

void live_a_hundred_times(bool with_clients) {
    live_once(0, with_clients);  // what is allocated once per process is there from now on
    const size_t threads = running_threads();
    const size_t descriptors = open_descriptors();
    for (int round = 0; round < 100; ++round) {
        live_once(round, with_clients);
        ASSERT_EQ(running_threads(), threads) << "after round " << round;
        ASSERT_EQ(open_descriptors(), descriptors) << "after round " << round;
    }
}

TEST_F(sdk_lifecycle, a_hundred_lives_leave_no_thread_and_no_descriptor) {
    live_a_hundred_times(false);
}

TEST_F(sdk_lifecycle, a_hundred_lives_with_clients_leave_no_thread_and_no_descriptor) {
    live_a_hundred_times(true);
}

TEST_F(sdk_lifecycle, stop_deinit_and_destroy_are_refused_in_a_callback) {
    broker b(10);
    std::atomic<int> stopped{1};
    std::atomic<bool> done{false};
    callbacks::get().set_hook([&](mqtt_broker_instance *instance, const callbacks::event &) {
        stopped = zeb_sdk_mqtt_broker_stop(instance);
        zeb_sdk_mqtt_broker_deinit(instance);
        zeb_sdk_mqtt_broker_destroy(instance);
        done = true;
    });
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    log_capture log(zeb::AGENT_LOG_ERROR);
    mqtt_peer peer("c");
    ASSERT_TRUE(eventually([&] { return done.load(); }));
    EXPECT_EQ(stopped, -7);
    EXPECT_TRUE(log.has("ERROR", "[SDK] stop refused: called from a callback"));
    EXPECT_TRUE(log.has("ERROR", "[SDK] deinit refused: called from a callback"));
    EXPECT_TRUE(log.has("ERROR", "[SDK] destroy refused: called from a callback"));
    zeb_sdk_mqtt_broker_set_log_level(b.get(), zeb::AGENT_LOG_FATAL);
    EXPECT_EQ(zeb_sdk_mqtt_broker_is_running(b.get()), 1);
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_lifecycle, a_silent_connection_is_closed_within_ten_seconds_of_the_limit) {
    stepped_clock clock;
    broker b;
    ASSERT_EQ(zeb_sdk_mqtt_broker_set_keepalive_timeout(b.get(), 3600), 0);
    ASSERT_EQ(b.start(1000), 0);
    mqtt_peer silent;
    ASSERT_TRUE(silent.is_served());  // a packet, but no CONNECT: the broker's own limit holds
    mqtt_peer named("named");         // its own keep-alive of 60 s is over much earlier
    clock.advance_ms(3500 * 1000);
    EXPECT_TRUE(named.closed_somehow());
    EXPECT_TRUE(eventually([] { return zeb::g_mqtt_stats.timeout == 1u; }));
    EXPECT_EQ(b.online(), 1);
    clock.advance_ms(110 * 1000);
    EXPECT_TRUE(silent.closed_somehow());
    EXPECT_TRUE(eventually([&] { return zeb::g_mqtt_stats.timeout == 2u; }));
}

TEST_F(sdk_lifecycle, housekeeping_publishes_delayed_wills) {
    stepped_clock clock;
    broker b(1000);
    zeb_sdk_mqtt_broker_register_event_callback(b.get(), callbacks::on_event);
    mqtt_peer listener("listener");
    listener.subscribe("w");
    connect_options options;
    options.level = 5;
    options.properties = zeb_test::hex("27 00 00 10 00");
    options.will_topic = "w";
    options.will_properties = zeb_test::hex("18 00 00 00 1E");  // 30 s
    mqtt_peer dying("dying", options);
    dying.reset();
    ASSERT_TRUE(eventually([] { return zeb::g_will_delay_client_count == 1; }));
    ASSERT_TRUE(listener.is_served());
    EXPECT_TRUE(callbacks::get().events(k_event_will).empty());
    clock.advance_ms(30 * 1000);
    ASSERT_TRUE(eventually([] { return zeb::g_will_delay_client_count == 0; }));
    EXPECT_EQ(callbacks::get().events(k_event_will),
              std::vector<std::string>{R"({"clientId":"dying","topic":"w","qos":0})"});
    EXPECT_EQ(listener.read()[0], 0x30);
    EXPECT_EQ(b.ids(), "listener");
}

TEST_F(sdk_lifecycle, housekeeping_reports_and_begins_a_new_period_every_minute) {
    stepped_clock clock;
    broker b(10);
    ASSERT_TRUE(mqtt_peer("c").is_served());
    clock.advance_ms(61 * 1000);
    EXPECT_TRUE(eventually([] { return zeb::g_mqtt_stats.period_pkt_rx == 0; }));
    EXPECT_GE(zeb::g_mqtt_stats.pkt_rx, 2u);
}

}  // namespace
