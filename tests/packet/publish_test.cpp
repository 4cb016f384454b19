// PUBLISH from a client and its way to the subscribers.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

using packet_publish = packet_fixture;

TEST_F(packet_publish, a_publication_reaches_its_subscriber_and_is_reported) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "a/+", 2);
    log_capture log;
    give(publisher, publish_packet("a/b", "hi"));
    EXPECT_EQ(just("30 07 00 03 'a/b' 'hi'"), sent(subscriber));
    EXPECT_EQ(texts(), sent(publisher));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：收到发布消息：ClientID=p, Topic=a/b, QoS=0, Retain=0, MsgID=0"));
    EXPECT_TRUE(log.has("INFO", "转发消息成功：To=s, Topic=a/b, QoS=0"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配1个订阅者，成功发送1个"));
    EXPECT_EQ(texts({"acl p a/b 1", "event 2 {\"clientId\":\"p\",\"topic\":\"a/b\",\"qos\":0}"}),
              app().heard);
    EXPECT_EQ(1u, zeb::g_mqtt_stats.qos0.load());
}

TEST_F(packet_publish, each_qos_is_counted_and_acknowledged_in_its_way) {
    mqtt_client *publisher = join("p");
    give(publisher, publish_packet("t", "x", 0));
    give(publisher, publish_packet("t", "x", 1, 0x1234));
    give(publisher, publish_packet("t", "x", 2, 0x5678));
    EXPECT_EQ(texts({"40 02 12 34", "50 02 56 78"}), sent(publisher));
    EXPECT_EQ(0x5678, publisher->inbound_qos2_msg_id.load());
    EXPECT_EQ(1u, zeb::g_mqtt_stats.qos0.load());
    EXPECT_EQ(1u, zeb::g_mqtt_stats.qos1.load());
    EXPECT_EQ(1u, zeb::g_mqtt_stats.qos2.load());
}

TEST_F(packet_publish, a_level_5_publication_is_acknowledged_at_level_5) {
    mqtt_client *publisher = join("p", 5);
    give(publisher, publish5_packet("t", {}, raw("x"), 1, 7));
    give(publisher, publish5_packet("t", {}, raw("x"), 2, 8));
    EXPECT_EQ(texts({"40 03 00 07 00", "50 03 00 08 00"}), sent(publisher));
}

TEST_F(packet_publish, the_acknowledgement_comes_after_the_fan_out) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 1);
    seed(11);
    log_capture log;
    give(publisher, publish_packet("t", "x", 2, 9));
    const uint16_t id = id_oracle(11).next();
    EXPECT_EQ(dumped({publish_packet("t", "x", 1, id)}), sent(subscriber));
    EXPECT_EQ(id, subscriber->last_qos1_msg_id.load());
    EXPECT_EQ(just("50 02 00 09"), sent(publisher));
    EXPECT_TRUE(in_order(log.text(), {"转发消息成功：To=s, Topic=t, QoS=1\n",
                                      "MQTT标准：消息转发完成：匹配1个订阅者，成功发送1个\n",
                                      "[INFO] 发送PUBREC成功：ClientID=p, MsgID=9\n"}));
}

TEST_F(packet_publish, a_puback_is_logged) {
    mqtt_client *publisher = join("p");
    log_capture log;
    give(publisher, publish_packet("t", "x", 1, 300));
    EXPECT_TRUE(in_order(log.text(), {"[DEBUG] 发布消息无匹配订阅者：Topic=t\n",
                                      "[INFO] 发送PUBACK成功：ClientID=p, MsgID=300\n"}));
}

TEST_F(packet_publish, a_client_never_receives_its_own_publications) {
    mqtt_client *client = join("a");
    subscribe(client, "t", 0);
    subscribe(client, "#", 0);
    log_capture log;
    give(client, publish_packet("t", "x"));
    EXPECT_EQ(texts(), sent(client));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配2个订阅者，成功发送0个"));
}

TEST_F(packet_publish, a_client_with_two_matching_filters_gets_two_copies) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 0);
    subscribe(subscriber, "#", 0);
    give(publisher, publish_packet("t", "x"));
    EXPECT_EQ(texts({"30 04 00 01 74 78", "30 04 00 01 74 78"}), sent(subscriber));
}

TEST_F(packet_publish, a_refused_publication_is_neither_forwarded_nor_acknowledged) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "#", 0);
    app().refused_topic = "secret";
    log_capture log;
    give(publisher, publish_packet("secret", "x", 1, 5, 1));
    give(publisher, publish_packet("secret", "x", 2, 6));
    EXPECT_EQ(texts(), sent(publisher));
    EXPECT_EQ(texts(), sent(subscriber));
    EXPECT_EQ(texts({"acl p secret 1", "acl p secret 1"}), app().heard);
    EXPECT_EQ(0, zeb::g_sub_mgr.retain_count.load());
    EXPECT_EQ(0, publisher->inbound_qos2_msg_id.load());
    EXPECT_TRUE(log.has("WARN", "[ACL] 发布被拒绝: secret"));
}

TEST_F(packet_publish, a_repeated_qos_2_publication_is_routed_again) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 0);
    give(publisher, publish_packet("t", "x", 2, 6));
    give(publisher, publish_packet("t", "x", 2, 6, 8));
    EXPECT_EQ(2u, sent(subscriber).size());
    EXPECT_EQ(texts({"50 02 00 06", "50 02 00 06"}), sent(publisher));
}

TEST_F(packet_publish, forwarded_copies_never_carry_retain_and_keep_dup) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 1);
    seed(3);
    give(publisher, publish_packet("t", "x", 1, 6, 8 | 1));
    EXPECT_EQ(dumped({publish_packet("t", "x", 1, id_oracle(3).next(), 8)}), sent(subscriber));
    zeb::retain_msg kept{};
    ASSERT_EQ(0, zeb::retain_msg_get("t", &kept));
    EXPECT_EQ(1u, kept.payload_len);
    EXPECT_EQ(1u, kept.qos);
}

TEST_F(packet_publish, a_retained_publication_keeps_its_expiry) {
    mqtt_client *publisher = join("p", 5);
    bytes p = publish5_packet("t", hex("02 00 00 00 3C"), raw("x"));
    p[0] |= 1;
    give(publisher, p);
    zeb::retain_msg kept{};
    ASSERT_EQ(0, zeb::retain_msg_get("t", &kept));
    EXPECT_EQ(60u, kept.expiry_interval);
}

TEST_F(packet_publish, a_subscriber_that_is_gone_gets_nothing_and_the_publisher_its_puback) {
    mqtt_client *publisher = join("p");
    EXPECT_EQ(0, zeb::sub_add("absent", "t", 1, 0));
    log_capture log;
    give(publisher, publish_packet("t", "x", 1, 4));
    EXPECT_EQ(just("40 02 00 04"), sent(publisher));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配1个订阅者，成功发送0个"));
    EXPECT_EQ(0u, zeb::g_mqtt_stats.offline_msg.load());
}

TEST_F(packet_publish, a_subscriber_that_has_only_connected_counts_as_online) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 0);
    subscriber->state.store(zeb::CONNECTED);
    give(publisher, publish_packet("t", "x"));
    EXPECT_EQ(1u, sent(subscriber).size());
}

TEST_F(packet_publish, a_full_ring_loses_the_copy_without_a_line) {
    mqtt_client *publisher = join("p");
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 1);
    for (int i = 0; i < zeb::CLIENT_SEND_RING_SIZE - 1; ++i) give(publisher, publish_packet("t", "x"));
    subscriber->last_qos1_msg_id.store(0);
    log_capture log;
    give(publisher, publish_packet("t", "y", 1, 4));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.drop_queue_full.load());
    EXPECT_EQ(std::string::npos, log.text().find("转发消息成功"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配1个订阅者，成功发送0个"));
    EXPECT_EQ(0, subscriber->last_qos1_msg_id.load());
    EXPECT_EQ(static_cast<size_t>(zeb::CLIENT_SEND_RING_SIZE - 1), sent(subscriber).size());
    EXPECT_EQ(just("40 02 00 04"), sent(publisher));
}

TEST_F(packet_publish, a_copy_above_the_subscribers_own_limit_is_lost_silently) {
    mqtt_client *publisher = join("p");
    connect_options o;
    o.level = 5;
    mqtt_client *narrow = join("narrow", o);
    subscribe(narrow, "t", 0);
    give(publisher, packet(0x30, text16("t") + bytes(252, 0xFF)));  // 1 + 2 + 3 + 1 + 252 at level 5
    EXPECT_EQ(texts(), sent(narrow));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.drop_too_big.load());
    give(publisher, packet(0x30, text16("t") + bytes(249, 0xFF)));
    EXPECT_EQ(1u, sent(narrow).size());
}

TEST_F(packet_publish, a_copy_of_2048_bytes_is_forwarded_and_a_longer_one_is_not) {
    mqtt_client *publisher = join("p");
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    subscribe(four, "t", 0);
    subscribe(five, "t", 0);
    const auto publish = [&](size_t payload) {
        give(publisher, packet(0x32, text16("t") + be16(3) + bytes(payload, 0xFF)));
        EXPECT_EQ(just("40 02 00 03"), sent(publisher));
    };
    publish(2048 - 6);  // level 4: first byte, two length bytes, three topic bytes
    const texts whole = sent(four);
    ASSERT_EQ(1u, whole.size());
    EXPECT_EQ(2048u * 3 - 1, whole[0].size());
    EXPECT_EQ(texts(), sent(five));  // one property length byte too many
    publish(2048 - 7);
    EXPECT_EQ(1u, sent(four).size());
    EXPECT_EQ(1u, sent(five).size());
    log_capture log;
    publish(2048 - 5);
    EXPECT_EQ(texts(), sent(four));
    EXPECT_EQ(texts(), sent(five));
    EXPECT_EQ(std::string::npos, log.text().find("转发消息成功"));
    EXPECT_TRUE(log.has("INFO", "MQTT标准：消息转发完成：匹配2个订阅者，成功发送0个"));
}

TEST_F(packet_publish, before_connect_a_publication_is_routed_as_well) {
    mqtt_client *nameless = open();
    mqtt_client *subscriber = join("s");
    subscribe(subscriber, "t", 0);
    give(nameless, publish_packet("t", "x", 1, 2));
    EXPECT_EQ(1u, sent(subscriber).size());
    EXPECT_EQ(just("40 02 00 02"), sent(nameless));
}

// Many subscribers of both levels and all QoS: each gets the very bytes that encoding for it alone gives.
TEST_F(packet_publish, copies_that_share_an_encoding_equal_those_made_one_by_one) {
    mqtt_client *publisher = join("p", 5);
    std::vector<mqtt_client *> subscribers;
    for (int i = 0; i < 36; ++i) {
        mqtt_client *s = join("s" + std::to_string(i), i % 2 == 0 ? 4 : 5);
        subscribe(s, "t/x", i / 2 % 3);
        s->codec.last_packet_type.store(0);
        subscribers.push_back(s);
    }
    const bytes k_property_blocks[] = {{}, hex("02 00 00 00 3C"), hex("02 00 00 00 3C 23 00 05")};
    uint32_t start = 100;
    for (uint32_t qos = 0; qos <= 2; ++qos) {
        for (const bytes &properties : k_property_blocks) {
            for (const size_t payload_len : {0u, 1u, 200u, 1900u}) {
                seed(++start);
                id_oracle ids(start);
                const bytes payload(payload_len, 'p');
                give(publisher, publish5_packet("t/x", properties, payload, static_cast<int>(qos), 77));
                zeb::mqtt_publish_para record{};
                strcpy(record.topic, "t/x");
                memset(record.payload, 'p', payload_len);
                record.payload_len = static_cast<uint32_t>(payload_len);
                if (properties.size() >= 5) record.msg_expiry_interval = 60;
                if (properties.size() > 5) record.topic_alias = 5;
                for (size_t i = 0; i < subscribers.size(); ++i) {
                    record.qos = std::min(qos, static_cast<uint32_t>(i / 2 % 3));
                    record.packet_id = record.qos == 0 ? 0 : ids.next();
                    zeb::mqtt_codec_ctx ctx{};
                    ctx.protocol_version.store(i % 2 == 0 ? 4 : 5);
                    uint8_t buf[2048];
                    int len = sizeof buf;
                    ASSERT_EQ(0, zeb::mqtt_codec_encode_publish(&ctx, &record, buf, &len));
                    ASSERT_EQ(texts({dump(buf, static_cast<size_t>(len))}), sent(subscribers[i]))
                        << "qos " << qos << ", subscriber " << i << ", payload " << payload_len;
                    EXPECT_EQ(zeb::MQTT_PKT_PUBLISH,
                              static_cast<int>(subscribers[i]->codec.last_packet_type.load()));
                }
                (void)sent(publisher);
            }
        }
    }
}

TEST_F(packet_publish, with_debug_lines_every_copy_is_encoded_and_traced_and_the_bytes_are_the_same) {
    mqtt_client *publisher = join("p");
    mqtt_client *a = join("a");
    mqtt_client *b = join("b");
    subscribe(a, "t", 1);
    subscribe(b, "t", 1);
    seed(8);
    id_oracle ids(8);
    log_capture log;
    give(publisher, publish_packet("t", "x", 1, 4));
    EXPECT_EQ(dumped({publish_packet("t", "x", 1, ids.next())}), sent(a));
    EXPECT_EQ(dumped({publish_packet("t", "x", 1, ids.next())}), sent(b));
    size_t traces = 0;
    for (size_t at = 0; (at = log.text().find("[PUBLISH ENCODE] packet", at)) != std::string::npos; ++at)
        ++traces;
    EXPECT_EQ(2u, traces);
}

TEST_F(packet_publish, a_topic_longer_than_the_limit_is_dropped) {
    mqtt_client *publisher = join("p");
    give(publisher, publish_packet(std::string(257, 't'), "x", 1, 4));
    EXPECT_EQ(texts(), sent(publisher));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.parse_error.load());
}

}  // namespace
