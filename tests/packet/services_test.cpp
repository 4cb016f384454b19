// Publications of the application, start and end.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_services : public packet_fixture {
  protected:
    static void publish(const char *topic, const bytes &payload, uint32_t qos = 0, uint8_t retain = 0,
                        uint32_t expiry = 0) {
        zeb::packet_handler_broker_publish(topic, payload.data(), static_cast<int>(payload.size()), qos,
                                           retain, expiry);
    }
};

TEST_F(packet_services, starting_says_so) {
    log_capture log(
        zeb::AGENT_LOG_INFO);  // a debug line of the scan thread may cost this thread its own line
    EXPECT_EQ(0, zeb::packet_handler_init());
    EXPECT_TRUE(log.has("INFO", "报文处理器初始化成功（符合MQTT 3.1.1标准）"));
    zeb::packet_handler_deinit();
}

TEST_F(packet_services, a_publication_of_the_application_reaches_every_subscriber) {
    mqtt_client *zero = join("zero");
    mqtt_client *one = join("one");
    mqtt_client *five = join("five", 5);
    subscribe(zero, "t", 0);
    subscribe(one, "t", 1);
    subscribe(five, "#", 2);
    seed(21);
    id_oracle ids(21);
    (void)ids.next();  // the publication's own
    log_capture log;
    publish("t", raw("hi"), 2, 0, 60);
    (void)ids.next();  // a copy at QoS 0 draws as well
    EXPECT_EQ(dumped({publish_packet("t", "hi")}), sent(zero));
    EXPECT_EQ(dumped({publish_packet("t", "hi", 1, ids.next())}), sent(one));
    EXPECT_EQ(dumped({publish5_packet("t", hex("02 00 00 00 3C"), raw("hi"), 2, ids.next())}), sent(five));
    EXPECT_EQ(0, one->last_qos1_msg_id.load());
    EXPECT_EQ(0u, zeb::g_mqtt_stats.qos2.load());
    EXPECT_EQ(texts(), app().heard);
    EXPECT_EQ(std::string::npos, log.text().find("转发"));
}

TEST_F(packet_services, bad_arguments_publish_nothing) {
    mqtt_client *s = join("s");
    subscribe(s, "#", 0);
    const uint8_t byte = 'x';
    seed(5);
    zeb::packet_handler_broker_publish(nullptr, &byte, 1, 0, 0, 0);
    zeb::packet_handler_broker_publish("t", nullptr, 1, 0, 0, 0);
    zeb::packet_handler_broker_publish("t", &byte, 0, 0, 0, 0);
    zeb::packet_handler_broker_publish("t", &byte, -1, 0, 0, 0);
    zeb::packet_handler_broker_publish("t", &byte, 1, 3, 1, 0);
    EXPECT_EQ(texts(), sent(s));
    EXPECT_EQ(0, zeb::g_sub_mgr.retain_count.load());
    EXPECT_EQ(id_oracle(5).next(), zeb::packet_new_msg_id());  // nothing was drawn
}

TEST_F(packet_services, a_retained_publication_is_stored_and_forwarded_without_the_flag) {
    mqtt_client *s = join("s");
    subscribe(s, "t", 0);
    publish("t", raw("hi"), 1, 1, 30);
    EXPECT_EQ(just("30 05 00 01 't' 'hi'"), sent(s));
    zeb::retain_msg kept{};
    ASSERT_EQ(0, zeb::retain_msg_get("t", &kept));
    EXPECT_EQ(1u, kept.qos);
    EXPECT_EQ(30u, kept.expiry_interval);
}

TEST_F(packet_services, a_topic_is_cut_to_255_and_a_payload_to_2048_bytes) {
    publish(std::string(300, 't').c_str(), bytes(3000, 'x'), 0, 1);
    zeb::retain_msg kept{};
    ASSERT_EQ(0, zeb::retain_msg_get(std::string(255, 't').c_str(), &kept));
    EXPECT_EQ(2048u, kept.payload_len);
}

TEST_F(packet_services, shared_groups_are_served_once_and_no_line_is_written) {
    mqtt_client *a = join("a");
    mqtt_client *b = join("b");
    subscribe(a, "$share/g/t", 0);
    subscribe(b, "$share/g/t", 0);
    log_capture log(zeb::AGENT_LOG_INFO);
    publish("t", raw("x"));
    EXPECT_EQ(1u, sent(a).size());
    EXPECT_EQ(0u, sent(b).size());
    EXPECT_EQ(std::string::npos, log.text().find("共享订阅"));
}

TEST_F(packet_services, an_absent_subscriber_without_session_gets_nothing) {
    EXPECT_EQ(0, zeb::sub_add("absent", "t", 1, 0));
    log_capture log;
    publish("t", raw("x"), 1);
    EXPECT_EQ(std::string::npos, log.text().find("离线消息"));
}

TEST_F(packet_services, an_identifier_of_0_is_kept_for_qos_0_and_loses_the_copy_otherwise) {
    mqtt_client *zero = join("zero");
    subscribe(zero, "t", 0);
    // The second identifier is the one of the only copy.
    uint32_t start = 1;
    for (;; ++start) {
        id_oracle ids(start);
        ids.next();
        if (ids.next() == 0) break;
    }
    seed(start);
    publish("t", raw("x"), 1);
    EXPECT_EQ(1u, sent(zero).size());
    subscribe(zero, "t", 1);
    seed(start);
    publish("t", raw("x"), 1);
    EXPECT_EQ(texts(), sent(zero));
}

TEST_F(packet_services, a_replay_needs_a_named_kept_session_that_is_online) {
    log_capture log;
    zeb::packet_handler_restore_offline_msgs(nullptr);
    zeb::packet_handler_restore_offline_msgs(open());
    zeb::packet_handler_restore_offline_msgs(join("clean"));
    mqtt_client *gone = join("gone", 4, false);
    gone->state.store(zeb::CLOSING);
    zeb::packet_handler_restore_offline_msgs(gone);
    gone->state.store(zeb::LOGINED);
    zeb::packet_handler_restore_offline_msgs(join("empty", 4, false));
    EXPECT_TRUE(in_order(log.text(), {"[DEBUG] [packet_handler] 不补发：client 无效\n",
                                      "[DEBUG] [packet_handler] 不补发：client 无效\n",
                                      "[DEBUG] [packet_handler] CleanSession=1，不补发离线消息: clean\n",
                                      "[DEBUG] [packet_handler] 客户端不在线，不补发离线消息: gone\n",
                                      "[DEBUG] [packet_handler] 无离线消息需要补发: empty\n"}));
}

}  // namespace
