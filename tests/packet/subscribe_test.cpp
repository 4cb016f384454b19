// SUBSCRIBE, UNSUBSCRIBE and the retained messages that a new subscription brings.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_subscribe : public packet_fixture {
  protected:
    static void retain(const char *topic, const char *payload, uint32_t qos) {
        EXPECT_EQ(0, zeb::retain_msg_set(topic, reinterpret_cast<const uint8_t *>(payload),
                                         static_cast<uint32_t>(strlen(payload)), qos));
    }
    static std::string recorded(const mqtt_client *client) {
        std::string out;
        for (int i = 0; i < client->session.sub_count; ++i)
            out += std::string(client->session.subs[i].topic) + ":" +
                   std::to_string(client->session.subs[i].qos) + " ";
        return out;
    }
};

TEST_F(packet_subscribe, a_subscription_is_granted_reported_and_recorded) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, subscribe_packet(10, {{"a/b", 2}}));
    EXPECT_EQ(just("90 03 00 0A 02"), sent(client));
    EXPECT_EQ(texts({"acl x a/b 0", "event 3 {\"clientId\":\"x\",\"topic\":\"a/b\",\"qos\":2}"}),
              app().heard);
    EXPECT_EQ("a/b:2 ", recorded(client));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源1】客户端订阅请求：ClientID=x, MsgID=10, 订阅数=1"));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源1】filter[0]：Topic=a/b, 请求QoS=2 (0x02)"));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源2】filter[0]：Topic=a/b, 请求QoS=2 → 授予QoS=2 (0x02)"));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=2 → ReasonCode=0x02"));
    EXPECT_TRUE(log.has("INFO", "发送SUBACK成功：ClientID=x, MsgID=10, 授权QoS=2, ReasonCode=0x02"));
    EXPECT_EQ(std::string::npos, log.text().find("[持久化]"));  // a clean session is not saved
}

TEST_F(packet_subscribe, a_refused_filter_and_a_granted_one_get_0x80_and_1) {
    app().refused_topic = "secret";
    mqtt_client *client = join("x");
    app().refused_topic = "secret";
    log_capture log;
    give(client, subscribe_packet(3, {{"secret", 0}, {"open", 1}}));
    EXPECT_EQ(just("90 04 00 03 80 01"), sent(client));
    EXPECT_TRUE(log.has("WARN", "[ACL] 订阅被拒绝: secret"));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源3】MQTT 3.1.1 Reason Code赋值：授权QoS=128 → ReasonCode=0x80"));
    EXPECT_TRUE(log.has("INFO", "发送SUBACK成功：ClientID=x, MsgID=3, 授权QoS=128, ReasonCode=0x80"));
    EXPECT_EQ("open:1 ", recorded(client));
    EXPECT_EQ(1, live_subscriptions("x"));
    EXPECT_EQ(texts({"acl x secret 0", "acl x open 0",
                     "event 3 {\"clientId\":\"x\",\"topic\":\"open\",\"qos\":1}"}),
              app().heard);
}

TEST_F(packet_subscribe, at_level_5_the_first_filters_code_is_the_summary) {
    mqtt_client *client = join("x", 5);
    log_capture log;
    give(client, subscribe_packet(3, {{"t", 2}, {"u", 0}}, 5));
    EXPECT_EQ(just("90 05 00 03 00 02 00"), sent(client));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=2 → ReasonCode=0x02"));
    EXPECT_TRUE(log.has(
        "INFO", "【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x02"));
}

TEST_F(packet_subscribe, at_level_5_a_failed_first_filter_gives_summary_0x80) {
    mqtt_client *client = join("x", 5);
    log_capture log;
    give(client, subscribe_packet(3, {{"a/#/b", 1}, {"u", 1}}, 5));
    EXPECT_EQ(just("90 05 00 03 00 80 01"), sent(client));
    EXPECT_TRUE(log.has("INFO", "【QoS溯源3】MQTT 5.0 Reason Code赋值：授权QoS=128 → ReasonCode=0x80"));
    EXPECT_TRUE(log.has("INFO", "发送SUBACK成功：ClientID=x, MsgID=3, 授权QoS=128, ReasonCode=0x80"));
}

TEST_F(packet_subscribe, an_invalid_filter_or_qos_3_fails_alone) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, subscribe_packet(3, {{"a+", 0}, {"t", 3}, {"ok", 0}}));
    EXPECT_EQ(just("90 05 00 03 80 80 00"), sent(client));
    EXPECT_TRUE(log.has("WARN", "【QoS溯源2】filter[0]：Topic=a+, 添加订阅失败，授予QoS=失败(0x80)"));
    EXPECT_TRUE(log.has("WARN", "【QoS溯源2】filter[1]：Topic=t, 添加订阅失败，授予QoS=失败(0x80)"));
}

TEST_F(packet_subscribe, a_filter_that_begins_with_a_zero_byte_counts_as_empty) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, "82 07 00 05 00 02 00 61 01");
    EXPECT_EQ(just("90 03 00 05 80"), sent(client));
    EXPECT_TRUE(log.has("WARN", "【QoS溯源2】filter[0]：Topic为空，授予QoS=失败(0x80)"));
    EXPECT_EQ(texts(), app().heard);
}

TEST_F(packet_subscribe, a_seventeenth_filter_is_ignored) {
    mqtt_client *client = join("x");
    std::vector<filter_request> filters;
    for (int i = 0; i < 17; ++i) filters.push_back({"t/" + std::to_string(i), 0});
    give(client, subscribe_packet(3, filters));
    EXPECT_EQ(dumped({packet(0x90, be16(3) + bytes(16, 0))}), sent(client));
    EXPECT_EQ(16, live_subscriptions("x"));
}

TEST_F(packet_subscribe, a_full_table_fails_the_filter) {
    mqtt_client *client = join("x");
    for (int i = 0; i < zeb::SUB_MAX; ++i)
        ASSERT_EQ(0, zeb::sub_add("filler", std::to_string(i).c_str(), 0, 0));
    give(client, subscribe_packet(3, {{"one/more", 0}}));
    EXPECT_EQ(just("90 03 00 03 80"), sent(client));
    EXPECT_EQ("", recorded(client));
}

TEST_F(packet_subscribe, forty_filters_are_live_and_thirty_two_recorded) {
    mqtt_client *client = join("x", 4, false);
    for (int i = 0; i < 40; i += 8) {
        std::vector<filter_request> filters;
        for (int k = i; k < i + 8; ++k) filters.push_back({"t/" + std::to_string(k), 1});
        give(client, subscribe_packet(3, filters));
    }
    EXPECT_EQ(40, live_subscriptions("x"));
    EXPECT_EQ(32, client->session.sub_count);
    EXPECT_STREQ("t/31", client->session.subs[31].topic);
}

TEST_F(packet_subscribe, a_full_record_takes_no_new_qos_for_a_known_filter_either) {
    mqtt_client *client = join("x");
    for (int i = 0; i < 32; ++i) subscribe(client, "t/" + std::to_string(i), 0);
    subscribe(client, "t/0", 2);
    EXPECT_EQ(32, client->session.sub_count);
    EXPECT_EQ(0, client->session.subs[0].qos);
}

TEST_F(packet_subscribe, a_known_filter_gets_its_new_qos_in_place) {
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    subscribe(client, "b", 0);
    subscribe(client, "a", 2);
    EXPECT_EQ("a:2 b:0 ", recorded(client));
    EXPECT_EQ(2, live_subscriptions("x"));
}

TEST_F(packet_subscribe, a_filter_of_70_characters_is_recorded_cut_to_63) {
    mqtt_client *client = join("x", 4, false);
    const std::string filter = "long/" + std::string(65, 'f');
    subscribe(client, filter, 1);
    EXPECT_EQ(filter.substr(0, 63) + ":1 ", recorded(client));
    subscribe(client, filter, 2);  // the cut entry is not recognised
    EXPECT_EQ(filter.substr(0, 63) + ":1 " + filter.substr(0, 63) + ":2 ", recorded(client));
    EXPECT_EQ(1, live_subscriptions("x"));
}

TEST_F(packet_subscribe, a_kept_session_is_saved_and_says_so) {
    mqtt_client *client = join("x", 4, false);
    log_capture log;
    give(client, subscribe_packet(3, {{"a", 0}, {"b", 0}}));
    EXPECT_TRUE(log.has("INFO", "[持久化] 订阅已保存到文件: x, 订阅数=2"));
    EXPECT_TRUE(in_order(log.text(), {"[持久化] 订阅已保存到文件", "【QoS溯源3】", "发送SUBACK成功"}));
}

TEST_F(packet_subscribe, the_retained_message_reaches_the_client_before_its_suback) {
    retain("a/b", "old", 0);
    mqtt_client *client = join("x");
    log_capture log;
    give(client, subscribe_packet(3, {{"a/+", 0}, {"z", 0}}));
    EXPECT_EQ(dumped({publish_packet("a/b", "old", 0, 0, 1), hex("90 04 00 03 00 00")}), sent(client));
    EXPECT_TRUE(log.has("INFO", "[保留消息] 下发成功: Client=x, Topic=a/b, Filter=a/+"));
}

TEST_F(packet_subscribe, the_event_of_a_filter_comes_after_its_retained_messages) {
    retain("t", "old", 0);
    static mqtt_client *client;
    static texts at_event;
    client = join("x");
    broker.event_cb = [](mqtt_broker_instance *, uint32_t, const char *) {
        at_event = sent(client);
        return 0;
    };
    give(client, subscribe_packet(3, {{"t", 0}}));
    EXPECT_EQ(dumped({publish_packet("t", "old", 0, 0, 1)}), at_event);
    EXPECT_EQ(just("90 03 00 03 00"), sent(client));
}

TEST_F(packet_subscribe, a_retained_message_keeps_its_own_qos_and_its_retain_flag) {
    retain("t", "old", 2);
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    seed(50);
    id_oracle ids(50);
    give(four, subscribe_packet(3, {{"t", 0}}));
    give(five, subscribe_packet(3, {{"t", 0}}, 5));
    EXPECT_EQ(dumped({publish_packet("t", "old", 2, ids.next(), 1), hex("90 03 00 03 00")}), sent(four));
    bytes copy = publish5_packet("t", {}, raw("old"), 2, ids.next());
    copy[0] |= 1;
    EXPECT_EQ(dumped({copy, hex("90 04 00 03 00 00")}), sent(five));
    EXPECT_EQ(0, four->last_qos1_msg_id.load());
}

TEST_F(packet_subscribe, retained_messages_come_in_store_order_and_draw_an_identifier_each) {
    retain("s/1", "a", 1);
    retain("s/2", "b", 0);
    retain("other", "c", 0);
    retain("s/3", "d", 1);
    mqtt_client *client = join("x");
    seed(60);
    id_oracle ids(60);
    zeb::send_retained_msg_to_client(client, "s/#");
    const uint16_t first = ids.next();
    ids.next();  // also drawn for QoS 0
    const uint16_t third = ids.next();
    EXPECT_EQ(dumped({publish_packet("s/1", "a", 1, first, 1), publish_packet("s/2", "b", 0, 0, 1),
                      publish_packet("s/3", "d", 1, third, 1)}),
              sent(client));
    EXPECT_EQ(0, client->last_qos1_msg_id.load());
}

TEST_F(packet_subscribe, an_empty_or_too_long_retained_message_is_left_out) {
    retain("empty", "x", 0);
    zeb::g_sub_mgr.retains[0].payload_len = 0;
    const bytes big(2046, 'x');
    EXPECT_EQ(0, zeb::retain_msg_set("big", big.data(), 2046, 0));
    retain("small", "y", 0);
    mqtt_client *client = join("x");
    zeb::send_retained_msg_to_client(client, "#");
    EXPECT_EQ(dumped({publish_packet("small", "y", 0, 0, 1)}), sent(client));
}

TEST_F(packet_subscribe, nothing_retained_goes_to_nobody_or_for_no_filter) {
    retain("t", "x", 0);
    mqtt_client *client = join("x");
    zeb::send_retained_msg_to_client(nullptr, "t");
    zeb::send_retained_msg_to_client(client, nullptr);
    zeb::sub_deinit();
    zeb::send_retained_msg_to_client(client, "t");
    EXPECT_EQ(texts(), sent(client));
}

TEST_F(packet_subscribe, unsubscribing_ends_the_delivery_and_is_reported) {
    mqtt_client *publisher = join("p");
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    subscribe(client, "b", 0);
    log_capture log;
    give(client, unsubscribe_packet(7, {"a", "never"}));
    EXPECT_EQ(just("B0 02 00 07"), sent(client));
    EXPECT_EQ(texts({"event 4 {\"clientId\":\"x\",\"topic\":\"a\",\"qos\":0}"}), app().heard);
    EXPECT_TRUE(log.has("INFO", "MQTT标准：客户端取消订阅：ClientID=x, MsgID=7, 取消数=2"));
    EXPECT_TRUE(log.has("INFO", "取消订阅成功：ClientID=x, Topic=a"));
    EXPECT_TRUE(log.has("DEBUG", "取消订阅失败：ClientID=x, Topic=never"));
    EXPECT_TRUE(log.has("INFO", "发送UNSUBACK成功：ClientID=x, MsgID=7"));
    EXPECT_EQ("a:0 b:0 ", recorded(client));  // the record keeps what was subscribed
    give(publisher, publish_packet("a", "1"));
    give(publisher, publish_packet("b", "2"));
    EXPECT_EQ(dumped({publish_packet("b", "2")}), sent(client));
}

TEST_F(packet_subscribe, an_unsubscribe_at_level_5_is_answered_with_one_code) {
    mqtt_client *client = join("x", 5);
    give(client, unsubscribe_packet(7, {"a", "b"}, 5));
    EXPECT_EQ(just("B0 03 00 07 00"), sent(client));
}

TEST_F(packet_subscribe, an_unsubscribe_without_filters_is_answered) {
    mqtt_client *client = join("x");
    give(client, "A2 02 00 07");
    EXPECT_EQ(just("B0 02 00 07"), sent(client));
}

TEST_F(packet_subscribe, an_unsubscribe_of_a_filter_that_begins_with_a_zero_byte_removes_nothing) {
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    give(client, "A2 05 00 07 00 01 00");
    EXPECT_EQ(just("B0 02 00 07"), sent(client));
    EXPECT_EQ(1, live_subscriptions("x"));
}

TEST_F(packet_subscribe, nobody_unsubscribes_for_another) {
    mqtt_client *client = join("x");
    (void)join("y");
    EXPECT_EQ(0, zeb::sub_add("y", "a", 0, 1));
    give(client, unsubscribe_packet(7, {"a"}));
    EXPECT_EQ(1, live_subscriptions("y"));
}

}  // namespace
