// What the packet handler asks of stored sessions and of reliable delivery.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_sessions : public packet_fixture {
  protected:
    mqtt_client *kept(std::string_view id, int level = 4) {
        mqtt_client *client = join(id, level, false);
        (void)calls();
        return client;
    }
    static void retain(const char *topic, const char *payload) {
        EXPECT_EQ(0, zeb::retain_msg_set(topic, reinterpret_cast<const uint8_t *>(payload),
                                         static_cast<uint32_t>(strlen(payload)), 0));
    }
    static connect_options clean0() {
        connect_options o;
        o.clean = false;
        return o;
    }
    static connect_options v5(std::string_view properties) {
        connect_options o = clean0();
        o.level = 5;
        o.properties = hex("27 00 00 10 00") + hex(properties);
        return o;
    }
};

TEST_F(packet_sessions, a_stored_session_comes_back_after_its_connack_with_retained_then_missed_messages) {
    store().sessions["x"] = {{{"b", 1}, {"a/+", 2}}, {{11, "b", "one", 1}, {12, "a/1", "two", 2}}, "", ""};
    retain("a/1", "ra");
    retain("b", "rb");
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(dumped({hex("20 02 01 00"), publish_packet("b", "rb", 0, 0, 1),
                      publish_packet("a/1", "ra", 0, 0, 1)}),
              sent(client));
    EXPECT_EQ(texts({"register x 11 1 b one", "register x 12 2 a/1 two", "finish x 2"}), calls());
    EXPECT_EQ(2, live_subscriptions("x"));
    EXPECT_TRUE(in_order(log.text(), {"[INFO] [会话] 加载客户端持久化数据成功: x, 订阅数=2, 离线消息数=2\n",
                                      "[INFO] [恢复] 订阅: b QoS=1 → 内存订阅表\n",
                                      "[INFO] [恢复] 订阅: a/+ QoS=2 → 内存订阅表\n",
                                      "[INFO] [会话] 客户端 x 上下文恢复完成\n", "取消遗嘱延迟\n",
                                      "[INFO] CONNACK -> x (SessionPresent=1)\n",
                                      "[INFO] [保留消息] 下发成功: Client=x, Topic=b, Filter=b\n",
                                      "[INFO] [packet_handler] 开始补发离线消息: x 共 2 条\n",
                                      "[DEBUG] [packet_handler] 已补发: msgid=11 topic=b qos=1\n",
                                      "[DEBUG] [packet_handler] 已补发: msgid=12 topic=a/1 qos=2\n",
                                      "[INFO] [packet_handler] 离线消息补发完成: x，已清空离线消息\n"}));
    EXPECT_EQ(2u, app().heard.size());  // authentication, and the event at the very end
}

TEST_F(packet_sessions, a_clean_session_discards_what_is_stored) {
    store().sessions["x"] = {{{"b", 1}}, {{11, "b", "one", 1}}, "", ""};
    retain("b", "rb");
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x"));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_EQ(texts({"remove x"}), calls());
    EXPECT_EQ(0, client->session.sub_count);
    EXPECT_EQ(0, client->session.msg_count);
    EXPECT_EQ(0, live_subscriptions("x"));
    EXPECT_TRUE(in_order(log.text(), {"[会话] 加载客户端持久化数据成功: x, 订阅数=1, 离线消息数=1\n",
                                      "[会话] CleanSession=1 → 清除历史数据 + 内存订阅\n",
                                      "CONNACK -> x (SessionPresent=0)\n"}));
}

TEST_F(packet_sessions, a_session_that_cannot_be_loaded_counts_as_none) {
    store().sessions["x"] = {{{"b", 1}}, {}, "", ""};
    store().load_result = -5;
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(just("20 02 00 00"), sent(client));
    EXPECT_TRUE(log.has("INFO", "[会话] CleanSession=0，但无历史数据，新建会话: x"));
}

TEST_F(packet_sessions, a_stored_filter_that_is_invalid_is_not_restored_and_not_logged) {
    store().sessions["x"] = {{{"a#", 1}, {"b", 1}}, {}, "", ""};
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(1, live_subscriptions("x"));
    EXPECT_EQ(std::string::npos, log.text().find("[恢复] 订阅: a#"));
}

TEST_F(packet_sessions, a_stored_will_is_reinstalled_without_retain_and_dropped_from_the_record) {
    store().sessions["x"] = {{}, {}, "w/t", "old", 0, 2};
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_TRUE(log.has("INFO", "[遗嘱] 客户端 x 遗嘱恢复成功"));
    EXPECT_EQ(1, client->will_msg_used.load());
    EXPECT_STREQ("w/t", client->will_topic);
    EXPECT_EQ(3u, client->will_payload_len);
    EXPECT_EQ(2, client->will_qos);
    EXPECT_EQ(0, client->will_retain);
    EXPECT_EQ(0, client->session.will_flag);
}

TEST_F(packet_sessions, a_stored_will_without_its_bytes_is_reinstalled_within_the_record) {
    store().sessions["x"] = {{}, {}, "w/t", "", 2048, 0};
    mqtt_client *client = open();
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(1024u, client->will_payload_len);
}

TEST_F(packet_sessions, a_stored_will_without_its_topic_is_none) {
    store().sessions["x"] = {{}, {}, "w/t", "old", 0, 2};
    store().cut_will_topic = true;
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(0, client->will_msg_used.load());
    EXPECT_EQ(std::string::npos, log.text().find("遗嘱恢复成功"));
}

TEST_F(packet_sessions, a_will_without_room_in_the_record_has_no_bytes_of_an_earlier_one) {
    store().sessions["x"] = {{}, {}, "w/t", std::string(1024, 'o'), 0, 2};
    connect_options o = clean0();
    o.will = true;
    o.will_payload = std::string(1025, 'n');
    mqtt_client *client = join("x", o);
    EXPECT_EQ(1025u, client->session.will_len);
    for (const uint8_t byte : client->session.will_payload) EXPECT_EQ(0, byte);
}

TEST_F(packet_sessions, the_will_of_connect_replaces_the_stored_one_and_is_saved) {
    store().sessions["x"] = {{}, {}, "w/t", "old", 0, 2};
    connect_options o = clean0();
    o.will = true;
    mqtt_client *client = open();
    give(client, connect_packet("x", o));
    EXPECT_STREQ("will/t", client->will_topic);
    EXPECT_EQ("mark x 1 subs=0 msgs=0 will=1", calls()[0]);
}

TEST_F(packet_sessions, the_will_of_a_clean_session_is_not_saved) {
    connect_options o;
    o.will = true;
    (void)join("x", o);
    EXPECT_EQ(texts({"remove x"}), calls());
}

TEST_F(packet_sessions, the_subscription_file_lists_the_first_32_of_40_filters) {
    mqtt_client *client = kept("x");
    for (int i = 0; i < 40; i += 10) {
        std::vector<filter_request> filters;
        for (int k = i; k < i + 10; ++k) filters.push_back({"t/" + std::to_string(k), 1});
        give(client, subscribe_packet(3, filters));
    }
    EXPECT_EQ(40, live_subscriptions("x"));
    EXPECT_EQ(32u, store().sessions["x"].subs.size());
    EXPECT_EQ("t/31", store().sessions["x"].subs.back().filter);
    EXPECT_EQ(texts({"mark x 2 subs=10 msgs=0 will=0", "mark x 2 subs=20 msgs=0 will=0",
                     "mark x 2 subs=30 msgs=0 will=0", "mark x 2 subs=32 msgs=0 will=0"}),
              calls());
}

TEST_F(packet_sessions, the_subscriptions_of_a_clean_session_are_not_saved) {
    mqtt_client *client = join("x");
    (void)calls();
    subscribe(client, "a", 0);
    EXPECT_EQ(texts(), calls());
}

TEST_F(packet_sessions, a_subscribe_whose_filters_all_fail_is_saved_all_the_same) {
    mqtt_client *client = kept("x");
    give(client, subscribe_packet(3, {{"a#", 1}}));
    EXPECT_EQ(texts({"mark x 2 subs=0 msgs=0 will=0"}), calls());
}

TEST_F(packet_sessions, an_unsubscribed_filter_comes_back_with_the_session) {
    mqtt_client *client = kept("x");
    subscribe(client, "a", 1);
    (void)calls();
    give(client, unsubscribe_packet(4, {"a"}));
    EXPECT_EQ(texts(), calls());
    EXPECT_EQ(0, live_subscriptions("x"));
    give(client, "E0 00");
    (void)kept("x");
    EXPECT_EQ(1, live_subscriptions("x"));
}

TEST_F(packet_sessions, a_goodbye_of_level_4_saves_a_kept_session_and_drops_what_is_in_flight) {
    mqtt_client *client = kept("x");
    subscribe(client, "a", 1);
    (void)calls();
    give(client, "E0 00");
    EXPECT_EQ(texts({"mark x 2 subs=1 msgs=0 will=0", "flush", "clean x"}), calls());
}

TEST_F(packet_sessions, a_goodbye_of_level_4_removes_a_clean_session) {
    mqtt_client *client = join("x");
    (void)calls();
    give(client, "E0 00");
    EXPECT_EQ(texts({"remove x", "clean x"}), calls());
}

TEST_F(packet_sessions, a_level_5_goodbye_with_interval_0_removes_the_session_of_a_longer_connect) {
    mqtt_client *client = join("x", v5("11 00 00 0E 10"));
    (void)calls();
    give(client, "E0 07 00 05 10 00 00 00 00");
    EXPECT_EQ(texts({"remove x", "clean x"}), calls());
}

TEST_F(packet_sessions, a_level_5_goodbye_without_interval_removes_the_session_of_a_longer_connect) {
    mqtt_client *client = join("x", v5("11 00 00 0E 10"));
    (void)calls();
    give(client, "E0 02 00 00");
    EXPECT_EQ(texts({"remove x", "clean x"}), calls());
}

TEST_F(packet_sessions, a_level_5_goodbye_with_an_interval_saves_the_session) {
    mqtt_client *client = join("x", v5(""));
    (void)calls();
    give(client, "E0 07 00 05 10 00 00 00 3C");
    EXPECT_EQ(texts({"mark x 2 subs=0 msgs=0 will=0", "flush", "clean x"}), calls());
}

TEST_F(packet_sessions, a_client_that_has_lost_its_identifier_drops_nothing_of_its_successor) {
    mqtt_client *older = kept("same");
    mqtt_client *newer = kept("same");
    give(older, "E0 00");
    EXPECT_EQ(texts(), calls());
    EXPECT_EQ(newer, zeb::client_find_by_cid("same"));
}

TEST_F(packet_sessions, a_goodbye_leaves_the_files_of_a_successor_alone) {
    mqtt_client *clean = join("same");
    mqtt_client *five = join("same", 5, false);
    mqtt_client *lasting = join("same", v5("11 00 00 0E 10"));
    mqtt_client *newest = kept("same");
    (void)calls();
    give(clean, "E0 00");
    give(five, "E0 02 00 00");
    give(lasting, "E0 07 00 05 10 00 00 00 3C");
    EXPECT_EQ(texts(), calls());
    EXPECT_FALSE(is_open(clean));
    EXPECT_FALSE(is_open(five));
    EXPECT_FALSE(is_open(lasting));
    give(newest, "E0 00");
    EXPECT_EQ(texts({"mark same 2 subs=0 msgs=0 will=0", "flush", "clean same"}), calls());
}

TEST_F(packet_sessions, messages_for_an_absent_subscriber_are_stored_at_the_lower_qos) {
    store().sessions["away"] = {{}, {}, "", ""};
    EXPECT_EQ(0, zeb::sub_add("away", "t", 1, 0));
    mqtt_client *publisher = join("p");
    (void)calls();
    log_capture log;
    give(publisher, publish_packet("t", "zero", 0));
    give(publisher, publish_packet("t", "one", 1, 5));
    give(publisher, publish_packet("t", "two", 2, 6));
    give(publisher, publish_packet("t", "", 1, 7));
    EXPECT_EQ(texts({"offline away t zero 0", "offline away t one 1", "offline away t two 1"}), calls());
    EXPECT_EQ(3u, zeb::g_mqtt_stats.offline_msg.load());
    EXPECT_EQ(texts({"40 02 00 05", "50 02 00 06", "40 02 00 07"}), sent(publisher));
    EXPECT_TRUE(log.has("INFO", "[MQTT标准] 离线消息已存储：ClientID=away, Topic=t"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配1个订阅者，成功发送0个"));
}

TEST_F(packet_sessions, a_subscriber_on_its_way_out_has_its_messages_stored) {
    mqtt_client *subscriber = kept("x");
    subscribe(subscriber, "t", 1);
    mqtt_client *publisher = join("p");
    (void)calls();
    subscriber->state.store(zeb::CLOSING);
    give(publisher, publish_packet("t", "one", 1, 5));
    EXPECT_EQ(texts({"offline x t one 1"}), calls());
    subscriber->state.store(zeb::LOGINED);
}

TEST_F(packet_sessions, the_application_stores_no_message_of_qos_0) {
    store().sessions["away"] = {{}, {}, "", ""};
    EXPECT_EQ(0, zeb::sub_add("away", "t", 1, 0));
    EXPECT_EQ(0, zeb::sub_add("stranger", "t", 1, 0));
    const uint8_t byte = 'x';
    log_capture log;
    zeb::packet_handler_broker_publish("t", &byte, 1, 0, 0, 0);
    EXPECT_EQ(texts(), calls());
    zeb::packet_handler_broker_publish("t", &byte, 1, 2, 0, 0);
    EXPECT_EQ(texts({"offline away t x 1"}), calls());
    EXPECT_EQ(0u, zeb::g_mqtt_stats.offline_msg.load());
    EXPECT_TRUE(in_order(log.text(), {"[INFO] [MQTT标准] QoS=0 离线消息不存储：ClientID=away, Topic=t\n",
                                      "[INFO] [STANDARD] APP发布离线消息已存储: away, Topic=t\n"}));
    EXPECT_EQ(std::string::npos, log.text().find("stranger, Topic"));
}

TEST_F(packet_sessions, a_session_that_ends_meanwhile_has_no_message_stored_or_counted) {
    store().sessions["away"] = {{}, {}, "", ""};
    store().end_before_additions = true;
    EXPECT_EQ(0, zeb::sub_add("away", "t", 1, 0));
    mqtt_client *publisher = join("p");
    const uint8_t byte = 'x';
    log_capture log;
    give(publisher, publish_packet("t", "one", 1, 5));
    zeb::packet_handler_broker_publish("t", &byte, 1, 1, 0, 0);
    EXPECT_EQ(0u, zeb::g_mqtt_stats.offline_msg.load());
    EXPECT_EQ(texts({"40 02 00 05"}), sent(publisher));
    EXPECT_EQ(std::string::npos, log.text().find("离线消息已存储"));
}

TEST_F(packet_sessions, forwarded_copies_are_registered_after_they_were_queued) {
    mqtt_client *publisher = join("p");
    mqtt_client *zero = join("zero");
    mqtt_client *one = join("one");
    mqtt_client *two = join("two");
    subscribe(zero, "t", 0);
    subscribe(one, "t", 1);
    subscribe(two, "t", 2);
    (void)calls();
    seed(33);
    id_oracle ids(33);
    give(publisher, publish_packet("t", "x", 2, 5));
    const std::string first = std::to_string(ids.next());
    const std::string second = std::to_string(ids.next());
    EXPECT_EQ(texts({"register one " + first + " 1 t x", "register two " + second + " 2 t x"}), calls());
}

TEST_F(packet_sessions, a_copy_that_was_not_queued_is_not_registered_but_that_of_the_application_is) {
    mqtt_client *publisher = join("p");
    mqtt_client *full = join("full");
    subscribe(full, "t", 1);
    for (int i = 0; i < zeb::CLIENT_SEND_RING_SIZE - 1; ++i) give(full, "C0 00");
    (void)calls();
    give(publisher, publish_packet("t", "x", 1, 5));
    EXPECT_EQ(texts(), calls());
    seed(44);
    id_oracle ids(44);
    (void)ids.next();
    const uint8_t byte = 'y';
    zeb::packet_handler_broker_publish("t", &byte, 1, 1, 0, 0);
    EXPECT_EQ(texts({"register full " + std::to_string(ids.next()) + " 1 t y"}), calls());
}

TEST_F(packet_sessions, a_will_is_not_registered_and_another_raw_publication_is) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "t", 2);
    (void)calls();
    seed(55);
    id_oracle ids(55);
    const bytes data = hex("34 07 00 01 't' 00 01 'hi'");
    zeb::packet_handler_broadcast_msg(data.data(), static_cast<int>(data.size()), 1);
    EXPECT_EQ(texts(), calls());
    (void)ids.next();
    zeb::packet_handler_broadcast_msg(data.data(), static_cast<int>(data.size()), 0);
    EXPECT_EQ(texts({"register watcher " + std::to_string(ids.next()) + " 2 t hi"}), calls());
}

TEST_F(packet_sessions, retained_deliveries_are_not_registered) {
    const uint8_t byte = 'x';
    EXPECT_EQ(0, zeb::retain_msg_set("t", &byte, 1, 2));
    mqtt_client *client = join("x");
    (void)calls();
    subscribe(client, "t", 2);
    EXPECT_EQ(texts(), calls());
}

TEST_F(packet_sessions, an_expiry_is_passed_on_for_qos_1_and_2_only) {
    mqtt_client *publisher = join("p", 5);
    (void)calls();
    const bytes minute = hex("02 00 00 00 3C");
    give(publisher, publish5_packet("t", minute, raw("x"), 0));
    give(publisher, publish5_packet("t", {}, raw("x"), 1, 8));
    give(publisher, publish5_packet("t", minute, raw("x"), 1, 9));
    give(publisher, publish5_packet("t", minute, raw("x"), 2, 10));
    EXPECT_EQ(texts({"expiry p 9 60", "expiry p 10 60"}), calls());
}

TEST_F(packet_sessions, acknowledgements_reach_reliable_delivery_whose_verdict_changes_no_answer) {
    mqtt_client *client = join("x");
    (void)calls();
    give(client, "40 02 00 01");
    give(client, "50 02 00 02");
    give(client, "62 02 00 03");
    give(client, "70 02 00 04");
    EXPECT_EQ(texts({"ack x 1 4", "ack x 2 5", "ack x 3 6", "ack x 4 7"}), calls());
    EXPECT_EQ(texts({"62 02 00 02", "70 02 00 03"}), sent(client));
}

TEST_F(packet_sessions, a_stored_message_with_identifier_0_gets_one_of_a_single_draw) {
    store().sessions["x"] = {{}, {{0, "t", "one", 1}, {9, "t", "none", 0}, {0, "t", "two", 2}}, "", ""};
    mqtt_client *client = open();
    seed(66);
    id_oracle ids(66);
    log_capture log;
    give(client, connect_packet("x", clean0()));
    const std::string first = std::to_string(ids.draw());
    const std::string second = std::to_string(ids.draw());
    EXPECT_EQ(texts({"register x " + first + " 1 t one", "register x 9 0 t none",
                     "register x " + second + " 2 t two", "finish x 3"}),
              calls());
    EXPECT_TRUE(log.has("DEBUG", "[packet_handler] 修复离线消息 MsgID=0 → 新 MsgID=" + first));
}

TEST_F(packet_sessions, a_session_without_messages_has_nothing_to_replay) {
    store().sessions["x"] = {{{"a", 0}}, {}, "", ""};
    mqtt_client *client = open();
    log_capture log;
    give(client, connect_packet("x", clean0()));
    EXPECT_EQ(just("20 02 01 00"), sent(client));
    EXPECT_TRUE(log.has("DEBUG", "[packet_handler] 无离线消息需要补发: x"));
    EXPECT_EQ(texts(), calls());
}

TEST_F(packet_sessions, a_published_will_of_a_kept_session_rewrites_its_subscription_file) {
    connect_options o = clean0();
    o.will = true;
    mqtt_client *client = join("x", o);
    (void)calls();
    EXPECT_EQ(0, zeb::packet_send_will_message(client));
    EXPECT_EQ(texts({"mark x 2 subs=0 msgs=0 will=0"}), calls());
}

TEST_F(packet_sessions, a_lost_connection_drops_what_is_in_flight_before_it_is_closed) {
    mqtt_client *client = join("x");
    (void)calls();
    log_capture log;
    EXPECT_EQ(1, zeb::mqtt_netip_event_cb(client->handle.load(), zeb::NETIP_EVENT_DISCONNECT, nullptr, 0, 0,
                                          0, nullptr));
    EXPECT_EQ(texts({"clean x"}), calls());
    EXPECT_FALSE(is_open(client));
}

TEST_F(packet_sessions, a_second_connect_begins_with_an_empty_record) {
    mqtt_client *client = kept("x");
    subscribe(client, "a", 1);
    give(client, connect_packet("y", clean0()));
    EXPECT_STREQ("y", client->session.client_id);
    EXPECT_EQ(0, client->session.sub_count);
}

}  // namespace
