// Acknowledgements, PINGREQ and DISCONNECT in both directions.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_control : public packet_fixture {
  protected:
    static connect_options v5(const bytes &properties, bool clean = true) {
        connect_options o;
        o.level = 5;
        o.clean = clean;
        o.properties = hex("27 00 00 10 00") + properties;
        return o;
    }
};

TEST_F(packet_control, a_puback_clears_the_identifier_it_names) {
    mqtt_client *client = join("x");
    client->last_qos1_msg_id.store(0x1234);
    log_capture log;
    give(client, "40 02 12 34");
    EXPECT_EQ(0, client->last_qos1_msg_id.load());
    EXPECT_EQ(texts(), sent(client));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：收到PUBACK确认：ClientID=x, MsgID=4660"));
    EXPECT_TRUE(log.has("DEBUG", "MQTT标准：QoS1消息确认完成：ClientID=x, MsgID=4660"));
}

TEST_F(packet_control, a_puback_for_another_identifier_is_a_warning) {
    mqtt_client *client = join("x");
    client->last_qos1_msg_id.store(0x1234);
    log_capture log;
    give(client, "40 02 12 35");
    EXPECT_EQ(0x1234, client->last_qos1_msg_id.load());
    EXPECT_TRUE(log.has("WARN", "MQTT标准：收到无效PUBACK：ClientID=x, MsgID=4661（无对应待确认消息）"));
}

TEST_F(packet_control, a_pubrec_is_answered_with_pubrel_for_any_identifier) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, "50 02 03 E8");
    EXPECT_EQ(just("62 02 03 E8"), sent(client));
    EXPECT_TRUE(log.has("INFO", "收到PUBREC：ClientID=x, MsgID=1000"));
    EXPECT_TRUE(log.has("INFO", "发送PUBREL成功：ClientID=x, MsgID=1000"));
}

TEST_F(packet_control, a_pubrel_for_an_unknown_identifier_is_still_answered) {
    mqtt_client *client = join("x");
    client->inbound_qos2_msg_id.store(7);
    log_capture log;
    give(client, "62 02 03 E8");
    EXPECT_EQ(just("70 02 03 E8"), sent(client));
    EXPECT_EQ(0, client->inbound_qos2_msg_id.load());  // whatever it held
    EXPECT_TRUE(log.has("INFO", "收到PUBREL：ClientID=x, MsgID=1000"));
    EXPECT_TRUE(log.has("INFO", "发送PUBCOMP成功：ClientID=x, MsgID=1000"));
}

TEST_F(packet_control, a_pubcomp_that_could_not_be_queued_keeps_the_identifier) {
    mqtt_client *client = join("x");
    for (int i = 0; i < zeb::CLIENT_SEND_RING_SIZE - 1; ++i) give(client, "C0 00");
    client->inbound_qos2_msg_id.store(7);
    give(client, "62 02 00 07");
    EXPECT_EQ(7, client->inbound_qos2_msg_id.load());
    EXPECT_EQ(static_cast<size_t>(zeb::CLIENT_SEND_RING_SIZE - 1), sent(client).size());
}

TEST_F(packet_control, a_pubcomp_clears_only_the_identifier_it_names) {
    mqtt_client *client = join("x");
    client->inbound_qos2_msg_id.store(7);
    give(client, "70 02 00 08");
    EXPECT_EQ(7, client->inbound_qos2_msg_id.load());
    log_capture log;
    give(client, "70 02 00 07");
    EXPECT_EQ(0, client->inbound_qos2_msg_id.load());
    EXPECT_EQ(texts(), sent(client));
    EXPECT_TRUE(log.has("INFO", "收到PUBCOMP：ClientID=x, MsgID=7，QoS2流程完成"));
}

TEST_F(packet_control, the_shape_of_an_acknowledgement_switches_the_level_of_the_answers) {
    mqtt_client *client = join("x", 5);
    give(client, "50 02 00 01");
    give(client, "62 04 00 02 00 00");
    EXPECT_EQ(texts({"62 02 00 01", "70 03 00 02 00"}), sent(client));
}

TEST_F(packet_control, a_whole_qos_2_exchange_of_a_publisher) {
    mqtt_client *client = join("x");
    give(client, publish_packet("t", "x", 2, 21));
    EXPECT_EQ(21, client->inbound_qos2_msg_id.load());
    give(client, "62 02 00 15");
    EXPECT_EQ(0, client->inbound_qos2_msg_id.load());
    EXPECT_EQ(texts({"50 02 00 15", "70 02 00 15"}), sent(client));
}

TEST_F(packet_control, a_ping_is_answered_and_logged) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, "C0 00");
    EXPECT_EQ(just("D0 00"), sent(client));
    EXPECT_TRUE(log.has("DEBUG", "收到客户端心跳请求：ClientID=x"));
    EXPECT_TRUE(log.has("DEBUG", "发送心跳响应成功：ClientID=x"));
}

TEST_F(packet_control, a_goodbye_of_level_4_removes_a_clean_session) {
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    log_capture log;
    give(client, "E0 00");
    EXPECT_FALSE(is_open(client));
    EXPECT_EQ(1, client->disconnect_received.load());
    EXPECT_EQ(0, live_subscriptions("x"));
    EXPECT_EQ(nullptr, zeb::client_find_by_cid("x"));
    EXPECT_EQ(texts(), sent(client));
    EXPECT_EQ(texts({"event 1 {\"clientId\":\"x\",\"topic\":\"\",\"qos\":0}"}), app().heard);
    EXPECT_TRUE(in_order(
        log.text(),
        {"[INFO] MQTT标准：客户端主动断开连接：ClientID=x\n", "[INFO] [WILL-MQTT5] client=x 取消遗嘱延迟\n",
         "[INFO] 持久化：客户端数据已清除 ClientID=x\n",
         "[INFO] MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=x, 数量=1\n", "[FREE-NORMAL]"}));
}

TEST_F(packet_control, a_goodbye_of_level_4_keeps_a_kept_session) {
    mqtt_client *client = join("x", 4, false);
    subscribe(client, "a", 0);
    log_capture log;
    give(client, "E0 00");
    EXPECT_EQ(1, live_subscriptions("x"));
    EXPECT_TRUE(in_order(log.text(), {"[INFO] 持久化：客户端会话已保存 ClientID=x, 订阅数=1\n",
                                      "[INFO] MQTT标准：CleanSession=false，保留客户端订阅：ClientID=x\n"}));
}

TEST_F(packet_control, a_goodbye_takes_the_will_along) {
    connect_options o;
    o.will = true;
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "#", 0);
    mqtt_client *client = join("x", o);
    give(client, "E0 00");
    EXPECT_EQ(0, client->will_msg_used.load());
    EXPECT_EQ(0, client->session.will_flag);
    EXPECT_EQ(texts(), sent(watcher));
    EXPECT_EQ(0u, zeb::g_mqtt_stats.will_sent.load());
}

TEST_F(packet_control, a_lost_connection_publishes_the_will) {
    connect_options o;
    o.will = true;
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "#", 0);
    zeb::client_close(join("x", o));
    EXPECT_EQ(just("30 0C 00 06 'will/t' 'gone'"), sent(watcher));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.will_sent.load());
}

TEST_F(packet_control, a_level_5_goodbye_without_interval_ends_the_session) {
    mqtt_client *client = join("x", v5(hex("11 00 00 0E 10"), false));
    ASSERT_EQ(3600u, client->session_expiry_interval.load());
    log_capture log;
    give(client, "E0 02 00 00");
    EXPECT_FALSE(is_open(client));
    EXPECT_TRUE(
        in_order(log.text(), {"[INFO] [MQTT5] DISCONNECT 覆盖会话超时: 0\n",
                              "[INFO] [MQTT5] DISCONNECT: session_expiry_interval=0, clean_session=0\n",
                              "[INFO] [MQTT5] Session Expiry=0 → 立即清除会话\n",
                              "[INFO] MQTT标准：CleanSession=false，保留客户端订阅：ClientID=x\n"}));
}

TEST_F(packet_control, a_level_5_goodbye_may_replace_the_interval) {
    mqtt_client *client = join("x", v5(hex("11 00 00 0E 10"), false));
    log_capture log;
    give(client, "E0 07 00 05 10 00 00 00 3C");
    EXPECT_TRUE(
        in_order(log.text(), {"[INFO] [MQTT5] DISCONNECT 覆盖会话超时: 60\n",
                              "[INFO] [MQTT5] DISCONNECT: session_expiry_interval=60, clean_session=0\n",
                              "[INFO] [MQTT5] Session Expiry=60 → 保留会话\n"}));
}

TEST_F(packet_control, only_the_largest_interval_leaves_that_of_connect_in_force) {
    mqtt_client *client = join("x", v5(hex("11 00 00 0E 10"), false));
    log_capture log;
    give(client, "E0 07 00 05 10 FF FF FF FF");
    EXPECT_EQ(std::string::npos, log.text().find("覆盖会话超时"));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] DISCONNECT: session_expiry_interval=3600, clean_session=0"));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] Session Expiry=3600 → 保留会话"));
}

TEST_F(packet_control, a_level_5_goodbye_without_body_is_dropped_and_the_connection_stays) {
    mqtt_client *client = join("x", 5);
    log_capture log;
    give(client, "E0 00");
    EXPECT_TRUE(log.has("ERROR", "解码DISCONNECT失败：ClientID=x, 错误码=-4"));
    EXPECT_TRUE(is_open(client));
    EXPECT_EQ(0, client->disconnect_received.load());
    EXPECT_EQ(texts(), app().heard);
}

TEST_F(packet_control, a_goodbye_before_connect_closes_the_nameless_client) {
    mqtt_client *client = open();
    EXPECT_EQ(0, zeb::sub_add("other", "t", 0, 1));
    give(client, "E0 00");
    EXPECT_FALSE(is_open(client));
    EXPECT_EQ(1, zeb::g_sub_mgr.sub_count.load());
}

TEST_F(packet_control, a_disconnect_of_the_broker_carries_its_reason_at_level_5_only) {
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    zeb::packet_handler_send_disconnect(four, 0x98);
    zeb::packet_handler_send_disconnect(five, 0x98);
    EXPECT_EQ(just("E0 00"), sent(four));
    EXPECT_EQ(just("E0 02 98 00"), sent(five));
    EXPECT_TRUE(is_open(four));
    EXPECT_EQ(20000u, slept_us());  // nobody took them, so that each was waited for
}

TEST_F(packet_control, nobody_and_a_released_record_get_no_disconnect) {
    zeb::packet_handler_send_disconnect(nullptr, 0x98);
    mqtt_client *client = join("x");
    client->handle.store(zeb::NETIP_HANDLE_NONE);
    zeb::packet_handler_send_disconnect(client, 0x98);
    EXPECT_EQ(texts(), sent(client));
    EXPECT_EQ(0u, slept_us());
}

TEST_F(packet_control, subscriptions_of_nobody_are_not_removed) {
    EXPECT_EQ(0, zeb::sub_add("x", "t", 0, 1));
    log_capture log;
    zeb::packet_handler_remove_client_subs(nullptr, 1);
    zeb::packet_handler_remove_client_subs("", 1);
    EXPECT_EQ("", log.text());
    EXPECT_EQ(1, zeb::g_sub_mgr.sub_count.load());
}

TEST_F(packet_control, subscriptions_are_removed_for_a_clean_session_also_without_a_client) {
    EXPECT_EQ(0, zeb::sub_add("x", "t", 0, 1));
    log_capture log;
    zeb::packet_handler_remove_client_subs("x", 0);
    zeb::packet_handler_remove_client_subs("x", 1);
    EXPECT_TRUE(in_order(log.text(),
                         {"[INFO] MQTT标准：CleanSession=false，保留客户端订阅：ClientID=x\n",
                          "[INFO] MQTT标准：CleanSession=true，移除客户端所有订阅：ClientID=x, 数量=1\n"}));
    EXPECT_EQ(0, zeb::g_sub_mgr.sub_count.load());
}

}  // namespace
