// CONNECT without a stored session.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_connect : public packet_fixture {
  protected:
    static connect_options v5(std::string_view properties = {}) {
        connect_options o;
        o.level = 5;
        o.properties = hex(properties);
        return o;
    }
    static connect_options with_will(size_t payload_len = 4) {
        connect_options o;
        o.will = true;
        o.will_payload.assign(payload_len, 'w');
        return o;
    }
    static std::string json(const char *id) {
        return "event 0 {\"clientId\":\"" + std::string(id) + "\",\"topic\":\"\",\"qos\":0}";
    }
};

TEST_F(packet_connect, a_level_4_client_is_accepted) {
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("four"));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_EQ(zeb::LOGINED, client->state.load());
    EXPECT_STREQ("four", client->client_id);
    EXPECT_EQ(client, zeb::client_find_by_cid("four"));
    EXPECT_EQ(1, client->clean_session.load());
    EXPECT_EQ(60000u, client->keepalive.load());
    EXPECT_EQ(4096u, client->max_packet_size.load());
    EXPECT_EQ(0u, client->session_expiry_interval.load());
    EXPECT_EQ(texts({"auth four  ", json("four")}), app().heard);
    EXPECT_TRUE(log.has("DEBUG", "[MQTT3] Session Expiry Interval not supported, set to 0"));
    EXPECT_TRUE(log.has("INFO", "[MQTT3] Maximum Packet Size not supported, use default=4096, client=four"));
    EXPECT_TRUE(log.has("INFO", "[会话] CleanSession=1 → 清除历史数据 + 内存订阅"));
    EXPECT_TRUE(log.has("INFO", "[WILL-MQTT5] client=four 取消遗嘱延迟"));
    EXPECT_TRUE(log.has("INFO", "CONNACK -> four (SessionPresent=0)"));
    EXPECT_TRUE(in_order(log.text(), {"[MQTT3] Session Expiry", "[MQTT3] Maximum Packet Size",
                                      "CleanSession=1", "取消遗嘱延迟", "CONNACK -> four"}));
}

TEST_F(packet_connect, a_level_5_client_gets_its_limits_announced) {
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("five", v5("11 00 00 0E 10 27 00 00 03 E8")));
    EXPECT_EQ(just("20 0B 00 00 08 21 FF FF 27 00 00 03 E8"), sent(client));
    EXPECT_EQ(1000u, client->max_packet_size.load());
    EXPECT_EQ(3600u, client->session_expiry_interval.load());
    EXPECT_TRUE(
        log.has("INFO", "[MQTT5] Session Expiry Interval negotiated: client=five, value=3600 (0x11)"));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] Maximum Packet Size negotiated: client=five, value=1000 (valid)"));
    EXPECT_TRUE(
        log.has("INFO", "[MQTT5] CONNACK properties: max_packet_size=1000, session_expiry_interval=3600"));
}

TEST_F(packet_connect, a_level_5_client_without_maximum_is_held_to_256_bytes) {
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("five", v5()));
    EXPECT_EQ(just("20 0B 00 00 08 21 FF FF 27 00 00 01 00"), sent(client));
    EXPECT_TRUE(log.has("WARN", "[MQTT5] Maximum Packet Size too small(0), force set to 256, client=five"));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] Session Expiry Interval negotiated: client=five, value=0 (0x11)"));
    give(client, packet(0x30, text16("t") + bytes(300 - 6, 0xFF)));
    EXPECT_EQ(just("E0 02 95 00"), sent(client));
    EXPECT_FALSE(is_open(client));
}

TEST_F(packet_connect, a_maximum_of_100_is_forced_to_256) {
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("five", v5("27 00 00 00 64")));
    EXPECT_EQ(just("20 0B 00 00 08 21 FF FF 27 00 00 01 00"), sent(client));
    EXPECT_TRUE(log.has("WARN", "[MQTT5] Maximum Packet Size too small(100), force set to 256, client=five"));
}

TEST_F(packet_connect, a_maximum_of_255_is_forced_and_one_of_256_is_taken) {
    mqtt_client *small = open();
    give(small, connect_packet("small", v5("27 00 00 00 FF")));
    EXPECT_EQ(256u, small->max_packet_size.load());
    mqtt_client *enough = open();
    log_capture log;
    give(enough, connect_packet("enough", v5("27 00 00 01 00")));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] Maximum Packet Size negotiated: client=enough, value=256 (valid)"));
}

TEST_F(packet_connect, a_huge_maximum_is_taken_as_it_is) {
    mqtt_client *client = open();
    give(client, connect_packet("five", v5("27 FF FF FF FF")));
    EXPECT_EQ(just("20 0B 00 00 08 21 FF FF 27 FF FF FF FF"), sent(client));
    give(client, "C0 00");
    EXPECT_EQ(just("D0 00"), sent(client));
}

TEST_F(packet_connect, an_empty_identifier_is_replaced_by_the_time) {
    clock.set_wall_ms(1700000123456);
    mqtt_client *client = open();
    give(client, connect_packet(""));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_STREQ("auto_1700000123", client->client_id);
    EXPECT_EQ(client, zeb::client_find_by_cid("auto_1700000123"));
}

TEST_F(packet_connect, two_clients_without_identifier_in_one_second_are_told_apart) {
    clock.set_wall_ms(1800000000000);
    mqtt_client *first = open();
    mqtt_client *second = open();
    give(first, connect_packet(""));
    give(second, connect_packet(""));
    EXPECT_STREQ("auto_1800000000", first->client_id);
    EXPECT_STREQ("auto_1800000001", second->client_id);
}

TEST_F(packet_connect, an_empty_identifier_for_a_kept_session_is_not_answered) {
    mqtt_client *client = open();
    connect_options o;
    o.clean = false;
    give(client, connect_packet("", o));
    EXPECT_EQ(texts(), sent(client));
    EXPECT_EQ(zeb::CONNECTED, client->state.load());
    EXPECT_EQ(1u, zeb::g_mqtt_stats.parse_error.load());
}

TEST_F(packet_connect, a_second_connect_repeats_everything) {
    mqtt_client *client = open();
    connect_options o;
    o.user = "u";
    o.password = "p";
    give(client, connect_packet("first", o));
    give(client, connect_packet("second", v5("27 00 00 02 00")));
    EXPECT_EQ(texts({"20 02 00 00", "20 0B 00 00 08 21 FF FF 27 00 00 02 00"}), sent(client));
    EXPECT_EQ(texts({"auth first u p", json("first"), "auth second  ", json("second")}), app().heard);
    EXPECT_STREQ("second", client->client_id);
    EXPECT_EQ(nullptr, zeb::client_find_by_cid("first"));
    EXPECT_EQ(512u, client->max_packet_size.load());
}

TEST_F(packet_connect, a_second_connect_under_another_name_takes_the_clean_sessions_subscriptions_along) {
    mqtt_client *client = join("first");
    subscribe(client, "a", 0);
    give(client, connect_packet("second"));
    EXPECT_EQ(0, live_subscriptions("first"));
    EXPECT_STREQ("second", client->client_id);
}

TEST_F(packet_connect, a_second_connect_under_another_name_leaves_a_newer_holder_of_the_old_name_alone) {
    mqtt_client *client = join("first");
    mqtt_client *newer = join("first");
    subscribe(newer, "a", 0);
    give(client, connect_packet("second"));
    EXPECT_EQ(1, live_subscriptions("first"));
}

TEST_F(packet_connect, refused_credentials_are_answered_and_end_the_connection) {
    app().refused_user = "eve";
    connect_options o = v5();
    o.user = "eve";
    o.password = "guess";
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("e", o));
    EXPECT_EQ(just("20 0B 00 86 08 21 FF FF 27 00 00 10 00"), sent(client));
    EXPECT_FALSE(is_open(client));
    EXPECT_STREQ("", client->client_id);
    EXPECT_EQ(nullptr, zeb::client_find_by_cid("e"));
    EXPECT_EQ(texts({"auth e eve guess"}), app().heard);
    EXPECT_EQ(10000u, slept_us());
    EXPECT_EQ(std::string::npos, log.text().find("guess"));
}

TEST_F(packet_connect, a_refused_level_4_client_is_told_success_and_closed) {
    app().refused_user = "eve";
    connect_options o;
    o.user = "eve";
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("e", o));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_TRUE(log.has("WARN", "CONNACK encode: 3.1.1 force code=0"));
    EXPECT_FALSE(is_open(client));
}

TEST_F(packet_connect, a_second_connect_that_is_refused_ends_the_accepted_client) {
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    app().refused_user = "eve";
    connect_options o;
    o.user = "eve";
    give(client, connect_packet("y", o));
    EXPECT_FALSE(is_open(client));
    EXPECT_EQ(0, live_subscriptions("x"));
    EXPECT_EQ(nullptr, zeb::client_find_by_cid("x"));
}

TEST_F(packet_connect, an_identifier_in_use_moves_to_the_newer_connection_and_the_older_stays) {
    mqtt_client *older = join("same");
    mqtt_client *newer = join("same");
    EXPECT_TRUE(is_open(older));
    EXPECT_EQ(newer, zeb::client_find_by_cid("same"));
    give(older, "C0 00");
    EXPECT_EQ(just("D0 00"), sent(older));
}

TEST_F(packet_connect, a_clean_session_drops_the_live_subscriptions_of_its_identifier) {
    EXPECT_EQ(0, zeb::sub_add("x", "left/over", 1, 0));
    EXPECT_EQ(0, zeb::sub_add("y", "left/over", 1, 0));
    (void)join("x");
    EXPECT_EQ(0, live_subscriptions("x"));
    EXPECT_EQ(1, live_subscriptions("y"));
}

TEST_F(packet_connect, a_kept_session_without_past_is_logged_as_new) {
    EXPECT_EQ(0, zeb::sub_add("x", "restored/at/start", 1, 0));
    mqtt_client *client = open();
    connect_options o;
    o.clean = false;
    log_capture log;
    give(client, connect_packet("x", o));
    EXPECT_TRUE(log.has("INFO", "[会话] CleanSession=0，但无历史数据，新建会话: x"));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_EQ(0, client->session_present);
    EXPECT_EQ(1, live_subscriptions("x"));
}

TEST_F(packet_connect, the_will_is_stored_in_client_and_session_record) {
    connect_options o = with_will();
    o.will_qos = 2;
    o.will_retain = true;
    o.will_payload = "gone";
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", o));
    EXPECT_TRUE(log.has("INFO", "[WILL-CONNECT] Client=x set will:"));
    EXPECT_TRUE(log.has("INFO", "[WILL-CONNECT] Topic: will/t, QoS: 2, Retain: 1, PayloadLen: 4"));
    EXPECT_TRUE(log.has("DEBUG", "[WILL-CONNECT] Payload"));
    EXPECT_EQ(1, client->will_msg_used.load());
    EXPECT_STREQ("will/t", client->will_topic);
    EXPECT_EQ(raw("gone"), bytes(client->will_payload, client->will_payload + client->will_payload_len));
    EXPECT_EQ(2, client->will_qos);
    EXPECT_EQ(1, client->will_retain);
    EXPECT_EQ(0u, client->will_delay_sec.load());
    const zeb::persist_session &session = client->session;
    EXPECT_STREQ("x", session.client_id);
    EXPECT_EQ(1, session.will_flag);
    EXPECT_STREQ("will/t", session.will_topic);
    EXPECT_EQ(2, session.will_qos);
    EXPECT_EQ(4u, session.will_len);
    EXPECT_EQ(0, memcmp("gone", session.will_payload, 4));
}

TEST_F(packet_connect, a_level_5_will_brings_its_delay_and_expiry) {
    connect_options o = v5("27 00 00 10 00");
    o.will = true;
    o.will_properties = hex("18 00 00 00 0A 02 00 00 00 3C");
    mqtt_client *client = join("x", o);
    EXPECT_EQ(10u, client->will_delay_sec.load());
    EXPECT_EQ(60u, client->will_expiry_sec);
    EXPECT_EQ(0, client->will_payload_format);
    EXPECT_STREQ("", client->will_content_type);
    EXPECT_STREQ("", client->will_response_topic);
    EXPECT_EQ(0u, client->will_correlation_len);
    EXPECT_EQ(10u, client->session.will_delay_interval);
    EXPECT_EQ(60u, client->session.will_msg_expiry_interval);
}

TEST_F(packet_connect, a_will_of_1024_bytes_is_recorded_whole) {
    mqtt_client *client = join("x", with_will(1024));
    EXPECT_EQ(1024u, client->session.will_len);
    EXPECT_EQ('w', client->session.will_payload[0]);
    EXPECT_EQ('w', client->session.will_payload[1023]);
}

TEST_F(packet_connect, a_will_of_1025_bytes_is_kept_whole_but_recorded_without_bytes) {
    mqtt_client *client = join("x", with_will(1025));
    EXPECT_EQ(1025u, client->will_payload_len);
    EXPECT_EQ('w', client->will_payload[1024]);
    EXPECT_EQ(1025u, client->session.will_len);
    EXPECT_EQ(0, client->session.will_payload[0]);
    EXPECT_EQ(0, client->session.will_payload[1023]);
}

TEST_F(packet_connect, a_will_topic_of_256_bytes_is_recorded_cut_to_255) {
    connect_options o = with_will();
    o.will_topic.assign(256, 't');
    mqtt_client *client = join("x", o);
    EXPECT_EQ(256u, strlen(client->will_topic));
    EXPECT_EQ(255u, strlen(client->session.will_topic));
}

TEST_F(packet_connect, a_second_connect_without_will_leaves_the_clients_will_but_clears_the_record) {
    mqtt_client *client = join("x", with_will());
    give(client, connect_packet("x"));
    EXPECT_EQ(0, client->session.will_flag);
    EXPECT_EQ(1, client->will_msg_used.load());
    EXPECT_STREQ("will/t", client->will_topic);
}

TEST_F(packet_connect, a_pending_will_of_an_earlier_connection_is_cancelled) {
    connect_options o = v5("27 00 00 10 00");
    o.will = true;
    o.will_properties = hex("18 00 00 00 0A");
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "will/t", 0);
    mqtt_client *earlier = join("x", o);
    zeb::client_close(earlier);
    EXPECT_EQ(1, earlier->will_delay_pending.load());
    clock.advance_ms(5000);
    log_capture log;
    (void)join("x", o);
    EXPECT_TRUE(log.has("INFO", "[WILL-MQTT5] client=x 取消遗嘱延迟"));
    EXPECT_EQ(0, earlier->will_delay_pending.load());
    clock.advance_ms(60000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(texts(), sent(watcher));
    EXPECT_EQ(0, zeb::g_will_delay_client_count.load());
}

TEST_F(packet_connect, a_pending_will_is_published_once_when_its_client_comes_too_late) {
    connect_options o = v5("27 00 00 10 00");
    o.will = true;
    o.will_properties = hex("18 00 00 00 0A");
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "will/t", 0);
    zeb::client_close(join("x", o));
    clock.advance_ms(9999);
    zeb::client_will_delay_scan();
    EXPECT_EQ(texts(), sent(watcher));
    clock.advance_ms(1);
    zeb::client_will_delay_scan();
    // A level 5 will keeps its empty property section in front of a level 4 subscriber's payload.
    EXPECT_EQ(just("30 0D 00 06 'will/t' 00 'gone'"), sent(watcher));
    clock.advance_ms(5000);
    (void)join("x", o);
    zeb::client_will_delay_scan();
    EXPECT_EQ(texts(), sent(watcher));
}

}  // namespace
