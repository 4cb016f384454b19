// Queries and control while clients are connected.
#include "sub/retain_store.h"
#include "tests/sdk/sdk_fixture.h"

namespace {

using zeb_test::broker;
using zeb_test::bytes;
using zeb_test::callbacks;
using zeb_test::connect_options;
using zeb_test::dump;
using zeb_test::eventually;
using zeb_test::hex;
using zeb_test::log_capture;
using zeb_test::mqtt_peer;
using zeb_test::stepped_clock;

class sdk_query : public testing::Test {
  protected:
    void SetUp() override { callbacks::get().reset(); }

    static int publish(const broker &b, const char *topic, const std::string &payload, uint32_t qos = 0,
                       int retain = 0) {
        return zeb_sdk_mqtt_broker_publish(b.get(), topic, reinterpret_cast<const uint8_t *>(payload.data()),
                                           static_cast<int>(payload.size()), qos, retain, 0);
    }
    static connect_options level_5() {
        connect_options options;
        options.level = 5;
        options.properties = hex("27 00 00 10 00");  // takes packets of 4096 bytes
        return options;
    }
};

TEST_F(sdk_query, clients_online_are_counted_and_listed) {
    broker b(10);
    EXPECT_EQ(b.online(), 0);
    EXPECT_EQ(b.ids(), "");
    mqtt_peer first("first");
    {
        mqtt_peer second("second");
        EXPECT_EQ(b.online(), 2);
        EXPECT_EQ(b.ids(), "first,second");
    }
    EXPECT_TRUE(eventually([&] { return b.online() == 1; }));
    EXPECT_EQ(b.ids(), "first");
}

TEST_F(sdk_query, the_list_needs_a_buffer_and_fits_into_it) {
    broker b(10);
    mqtt_peer peer("abc");
    char buf[4];
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(b.get(), nullptr, 10), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(b.get(), buf, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(b.get(), buf, 3), 0);
    EXPECT_STREQ(buf, "ab");
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(nullptr, buf, 4), 0) << "the instance is not looked at";
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_id_list(b.get(), buf, 1), 0);
    EXPECT_STREQ(buf, "");
}

TEST_F(sdk_query, a_client_is_described) {
    stepped_clock clock;
    broker b(1000);
    connect_options options;
    options.keepalive_s = 1000;
    mqtt_peer peer("c", options);
    clock.advance_ms(77 * 1000);
    mqtt_broker_client_info info;
    memset(&info, 0xFF, sizeof info);
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "c", &info), 0);
    EXPECT_STREQ(info.client_id, "c");
    EXPECT_STREQ(info.ip, "127.0.0.1");
    EXPECT_EQ(info.port, peer.port());
    EXPECT_EQ(info.keepalive, 1000);
    EXPECT_EQ(info.online, 1);
    EXPECT_GE(info.connected_seconds, 77u);
    EXPECT_LT(info.connected_seconds, 77u + 60u);
    for (size_t i = 2; i < sizeof info.client_id; ++i) ASSERT_EQ(info.client_id[i], 0) << "zeroed";
}

TEST_F(sdk_query, describing_needs_an_identifier_that_exists_and_room) {
    broker b(10);
    mqtt_peer peer("c");
    mqtt_broker_client_info info;
    memset(&info, 0x5A, sizeof info);
    const mqtt_broker_client_info untouched = info;
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), nullptr, &info), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "c", nullptr), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "", &info), -5);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(b.get(), "nobody", &info), -5);
    EXPECT_EQ(memcmp(&info, &untouched, sizeof info), 0);
}

TEST_F(sdk_query, clients_of_another_instance_are_left_alone) {
    broker b(10);
    mqtt_peer peer("c");
    mqtt_broker_instance *other = zeb_sdk_mqtt_broker_create();
    mqtt_broker_client_info info;
    log_capture log(zeb::AGENT_LOG_ERROR);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_client_info(other, "c", &info), -6);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(other, "c"), -6);
    EXPECT_TRUE(log.has("ERROR", "[SDK] get_client_info rejected: client 'c' belongs to another broker"));
    EXPECT_TRUE(log.has("ERROR", "[SDK] kick rejected: client 'c' does not belong to this broker instance"));
    zeb_sdk_mqtt_broker_set_log_level(b.get(), zeb::AGENT_LOG_FATAL);
    zeb_sdk_mqtt_broker_destroy(other);
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_query, a_kicked_client_is_told_and_closed) {
    broker b(10);
    mqtt_peer old_one("old");
    mqtt_peer new_one("new", level_5());
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "old"), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "new"), 0);
    EXPECT_EQ(b.online(), 0);
    EXPECT_EQ(dump(old_one.read()), "E0 00");
    EXPECT_TRUE(old_one.at_end());
    const bytes told = new_one.read();
    ASSERT_GE(told.size(), 3u);
    EXPECT_EQ(told[0], 0xE0);
    EXPECT_EQ(told[2], 0x98);
    EXPECT_TRUE(new_one.at_end());
}

TEST_F(sdk_query, kicking_needs_a_client) {
    broker b(10);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), nullptr), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), ""), -2);
    log_capture log(zeb::AGENT_LOG_WARN);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "nobody"), -5);
    EXPECT_TRUE(log.has("WARN", "[SDK] kick client not found: nobody"));
}

TEST_F(sdk_query, kicking_a_record_that_is_no_connection_any_more_succeeds) {
    broker b(10);
    mqtt_peer peer("c");
    const zeb::client_ref client = zeb::client_acquire_by_cid("c");
    ASSERT_TRUE(client);
    const uint32_t state = client->state.exchange(0);
    log_capture log(zeb::AGENT_LOG_WARN);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "c"), 0);
    EXPECT_TRUE(log.has("WARN", "[SDK] kick client 'c' already closed"));
    zeb_sdk_mqtt_broker_set_log_level(b.get(), zeb::AGENT_LOG_FATAL);
    client->state = state;
    EXPECT_TRUE(peer.is_served());
}

TEST_F(sdk_query, a_kick_takes_the_subscriptions_of_a_clean_session_along) {
    broker b(10);
    connect_options keeping;
    keeping.clean = false;
    mqtt_peer clean("clean");
    mqtt_peer persistent("persistent", keeping);
    clean.subscribe("t");
    persistent.subscribe("t");
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "clean"), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "persistent"), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("clean"), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("persistent"), 1);
}

TEST_F(sdk_query, the_will_of_a_kicked_client_is_published) {
    broker b(10);
    mqtt_peer listener("listener");
    listener.subscribe("w");
    connect_options options;
    options.will_topic = "w";
    mqtt_peer kicked("kicked", options);
    EXPECT_EQ(zeb_sdk_mqtt_broker_kick_client(b.get(), "kicked"), 0);
    EXPECT_EQ(dump(listener.read()), dump(hex("30 06 00 01 'wbye'")));
    EXPECT_TRUE(eventually([] { return zeb::g_will_delay_client_count == 0; }));
}

TEST_F(sdk_query, publications_of_the_application_reach_subscribers) {
    broker b(10);
    mqtt_peer peer("c");
    peer.subscribe("a/+", 1);
    EXPECT_EQ(publish(b, "a/b", "hello"), 0);
    EXPECT_EQ(dump(peer.read()), dump(hex("30 0A 00 03 'a/bhello'")));
    EXPECT_EQ(publish(b, "a/c", "x", 2), 0);
    const bytes second = peer.read();
    ASSERT_EQ(second.size(), 10u);
    EXPECT_EQ(second[0], 0x32) << "the lower QoS of the two";
    EXPECT_EQ(publish(b, "nobody/listens", "x"), 0);
}

TEST_F(sdk_query, publishing_checks_its_arguments) {
    broker b(10);
    const uint8_t payload = 1;
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), nullptr, &payload, 1, 0, 0, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", nullptr, 1, 0, 0, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, 0, 0, 0, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, -1, 0, 0, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(b.get(), "t", &payload, 1, 3, 0, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_publish(nullptr, "t", &payload, 1, 2, 0, 0), 0);
}

TEST_F(sdk_query, only_the_low_byte_of_the_retain_flag_counts) {
    broker b(10);
    EXPECT_EQ(publish(b, "t", "x", 0, 0x100), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "t"), -5);
    EXPECT_EQ(publish(b, "t", "x", 0, -1), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "t"), 0);
}

TEST_F(sdk_query, retained_topics_are_listed_and_cleared) {
    broker b(10);
    EXPECT_EQ(publish(b, "one", "x", 0, 1), 0);
    EXPECT_EQ(publish(b, "two", "x", 0, 1), 0);
    char buf[64];
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_retain_topic_list(b.get(), buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "one\ntwo\n");
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_retain_topic_list(b.get(), buf, 1), 0);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_retain_topic_list(b.get(), buf, 8), 0);
    EXPECT_STREQ(buf, "one\n") << "whole topics only";
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_retain_topic_list(b.get(), nullptr, 8), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_retain_topic_list(b.get(), buf, 0), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), nullptr), -2);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "three"), -5);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "one"), 0);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "one"), -5);
    EXPECT_EQ(zeb_sdk_mqtt_broker_clear_retain(b.get(), "two"), 0);
}

TEST_F(sdk_query, statistics_are_those_of_the_moment) {
    stepped_clock clock;
    broker b(1000);
    mqtt_peer peer("c");
    for (const uint8_t qos : {0, 1, 2}) ASSERT_TRUE(peer.send(zeb_test::publish_packet("t", {0xFF}, qos, 5)));
    ASSERT_EQ(peer.read()[0], 0x40);
    ASSERT_EQ(peer.read()[0], 0x50);
    clock.advance_ms(1000 * 1000);
    mqtt_broker_stats stats;
    memset(&stats, 0xFF, sizeof stats);
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), &stats), 0);
    EXPECT_EQ(stats.total_messages, 3u);
    EXPECT_GE(stats.uptime_seconds, 1000u);
    EXPECT_LT(stats.uptime_seconds, 1060u);
    EXPECT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), nullptr), -2);
}

TEST_F(sdk_query, subscriptions_in_the_statistics_are_those_of_the_last_report) {
    broker b(10);
    // The first report comes with the first pass of housekeeping, the next one a minute later.
    mqtt_peer peer("c");
    peer.subscribe("t");
    zeb::mqtt_stats_update();
    mqtt_broker_stats stats;
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), &stats), 0);
    const uint32_t reported = stats.total_subscriptions;
    EXPECT_GE(reported, 1u);
    EXPECT_EQ(stats.online, 1);
    peer.subscribe("u");
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), &stats), 0);
    EXPECT_EQ(stats.total_subscriptions, reported);
    zeb::mqtt_stats_update();
    ASSERT_EQ(zeb_sdk_mqtt_broker_get_stats(b.get(), &stats), 0);
    EXPECT_EQ(stats.total_subscriptions, reported + 1);
}

}  // namespace
