// The fan-out of raw publication bytes.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_broadcast : public packet_fixture {
  protected:
    // From a heap block of exactly the size, so that a byte too far is seen.
    static void broadcast(const bytes &data, uint8_t is_will = 1) {
        std::vector<uint8_t> exact;
        exact.reserve(data.size());
        exact.assign(data.begin(), data.end());
        zeb::packet_handler_broadcast_msg(exact.data(), static_cast<int>(exact.size()), is_will);
    }
};

TEST_F(packet_broadcast, each_subscriber_gets_a_copy_that_keeps_retain) {
    mqtt_client *zero = join("zero");
    mqtt_client *one = join("one");
    mqtt_client *two = join("two");
    subscribe(zero, "t", 0);
    subscribe(one, "t", 1);
    subscribe(two, "t", 2);
    seed(70);
    id_oracle ids(70);
    log_capture log;
    broadcast(hex("35 07 00 01 't' 12 34 'hi'"));
    EXPECT_EQ(just("31 05 00 01 't' 'hi'"), sent(zero));
    const uint16_t first = ids.next();
    EXPECT_EQ(dumped({publish_packet("t", "hi", 1, first, 1)}), sent(one));
    EXPECT_EQ(dumped({publish_packet("t", "hi", 2, ids.next(), 1)}), sent(two));
    EXPECT_EQ(first, one->last_qos1_msg_id.load());
    EXPECT_EQ(0, two->last_qos1_msg_id.load());
    EXPECT_TRUE(in_order(
        log.text(),
        {"[INFO] [遗嘱调试][广播开始] Topic=t, 原始QoS=2, 消息长度=9, 开始匹配订阅者（上限=11000）\n",
         "[INFO] [遗嘱调试][订阅匹配] Topic=t 匹配到 3 个订阅者（上限=11000）\n",
         "[DEBUG] [遗嘱调试][订阅者列表] 匹配到的3个订阅者：\n",
         "[DEBUG] [遗嘱调试][订阅者1] ClientID=zero, TopicFilter=t, 订阅QoS=0\n",
         "[DEBUG] [遗嘱调试][订阅者3] ClientID=two, TopicFilter=t, 订阅QoS=2\n",
         "[DEBUG] [遗嘱调试][QoS降级] 订阅者1：原始QoS=2 → 订阅QoS=0 → 最终投递QoS=0\n",
         "[INFO] [遗嘱调试][广播成功] 订阅者1：To=zero, Topic=t,最终投递QoS=0（已降级）\n",
         "[INFO] [遗嘱调试][广播完成] Topic=t, 总计匹配3个订阅者，成功发送3个，失败0个\n"}));
}

TEST_F(packet_broadcast, nobody_subscribed_is_a_debug_line) {
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"));
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][广播完成] 无匹配订阅者，Topic=t"));
}

TEST_F(packet_broadcast, a_level_5_subscriber_skips_the_property_section_and_a_level_4_one_gets_it) {
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    subscribe(four, "t", 0);
    subscribe(five, "t", 0);
    broadcast(hex("30 0B 00 01 't' 05 02 00 00 00 3C 'hi'"));
    EXPECT_EQ(just("30 0B 00 01 't' 05 02 00 00 00 3C 'hi'"), sent(four));
    EXPECT_EQ(just("30 06 00 01 't' 00 'hi'"), sent(five));
}

TEST_F(packet_broadcast, a_property_length_that_points_past_the_end_fails_that_subscriber_alone) {
    mqtt_client *five = join("five", 5);
    mqtt_client *four = join("four");
    subscribe(five, "t", 0);
    subscribe(four, "t", 0);
    log_capture log;
    broadcast(hex("30 05 00 01 't' FF 'i'"));
    EXPECT_EQ(texts(), sent(five));
    EXPECT_EQ(just("30 05 00 01 't' FF 'i'"), sent(four));
    EXPECT_TRUE(
        log.has("ERROR", "[遗嘱调试][广播失败] 订阅者1：Payload解析失败（start=261, len=-254, msg_len=7）"));
    EXPECT_TRUE(log.has("INFO", "[遗嘱调试][广播完成] Topic=t, 总计匹配2个订阅者，成功发送1个，失败1个"));
}

struct malformed {
    const char *wire;
    const char *line;
};

TEST_F(packet_broadcast, malformed_packets_are_refused_within_their_bytes) {
    const malformed k_rows[] = {
        {"30", ", len=1（需≥4）\n"},
        {"30 00", ", len=2（需≥4）\n"},
        {"30 01 00", ", len=3（需≥4）\n"},
        {"30 02 00 01", "Topic越界：topic_len=1, msg_len=4, 2+2+topic_len=5 > msg_len\n"},
        {"30 7F FF FF 't'", "Topic越界：topic_len=65535, msg_len=5, 2+2+topic_len=65539 > msg_len\n"},
        {"30 05 00 04 't/x'", "Topic越界：topic_len=4, msg_len=7, 2+2+topic_len=8 > msg_len\n"},
        {"30 05 00 03 't/x'", "订阅者1：Payload解析失败（start=7, len=0, msg_len=7）\n"},
        {"32 05 00 03 't/x'", "订阅者2：Payload解析失败（start=9, len=-2, msg_len=7）\n"},
        {"32 06 00 03 't/x' 01", "订阅者1：Payload解析失败（start=9, len=-1, msg_len=8）\n"},
        {"34 07 00 03 't/x' 01 02", "订阅者2：Payload解析失败（start=9, len=0, msg_len=9）\n"},
        {"36 07 00 03 't/x' 01 02", "订阅者1：Payload解析失败（start=9, len=0, msg_len=9）\n"},
        {"30 03 00 00 'x'", "订阅者1：To=four, 编码失败（错误码=-1）\n"},
    };
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    subscribe(four, "#", 2);
    subscribe(five, "#", 2);
    for (const malformed &row : k_rows) {
        log_capture log(zeb::AGENT_LOG_ERROR);
        broadcast(hex(row.wire));
        EXPECT_NE(std::string::npos, log.text().find(row.line)) << row.wire << "\n" << log.text();
        EXPECT_EQ(texts(), sent(four)) << row.wire;
        EXPECT_EQ(texts(), sent(five)) << row.wire;
    }
}

TEST_F(packet_broadcast, no_packet_at_all_is_refused) {
    log_capture log;
    zeb::packet_handler_broadcast_msg(nullptr, 10, 1);
    EXPECT_TRUE(log.has("ERROR", "[遗嘱调试][广播失败] 参数无效：buf=(nil), len=10（需≥4）"));
}

TEST_F(packet_broadcast, a_property_section_that_fills_the_packet_leaves_level_5_nothing) {
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    subscribe(four, "t", 0);
    subscribe(five, "t", 0);
    log_capture log;
    broadcast(hex("30 04 00 01 't' 00"));
    EXPECT_EQ(just("30 04 00 01 't' 00"), sent(four));
    EXPECT_EQ(texts(), sent(five));
    EXPECT_TRUE(
        log.has("ERROR", "[遗嘱调试][广播失败] 订阅者2：Payload解析失败（start=6, len=0, msg_len=6）"));
}

TEST_F(packet_broadcast, a_packet_with_two_length_bytes_fails_at_its_topic) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "#", 0);
    log_capture log;
    broadcast(publish_packet("t", bytes(200, 'x')));  // 30 CB 01 00 01 ...: the topic length reads as 0x0100
    EXPECT_TRUE(log.has(
        "ERROR", "[遗嘱调试][广播失败] Topic越界：topic_len=256, msg_len=206, 2+2+topic_len=260 > msg_len"));
    EXPECT_EQ(texts(), sent(watcher));
}

TEST_F(packet_broadcast, a_payload_above_2048_bytes_is_refused_by_the_encoder) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "t", 0);
    log_capture log;
    broadcast(hex("30 00 00 01 't'") + bytes(2049, 'x'));
    EXPECT_TRUE(log.has("ERROR", "[遗嘱调试][广播失败] 订阅者1：To=watcher, 编码失败（错误码=-1）"));
    EXPECT_EQ(texts(), sent(watcher));
}

TEST_F(packet_broadcast, a_topic_above_256_bytes_is_cut) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "#", 0);
    broadcast(hex("30 00 01 2C") + bytes(300, 't') + raw("hi"));
    EXPECT_EQ(dumped({publish_packet(std::string(256, 't'), "hi")}), sent(watcher));
}

TEST_F(packet_broadcast, a_full_ring_is_reported_with_the_result_of_sending) {
    mqtt_client *watcher = join("watcher");
    subscribe(watcher, "t", 0);
    for (int i = 0; i < zeb::CLIENT_SEND_RING_SIZE - 1; ++i) give(watcher, "C0 00");
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"));
    EXPECT_TRUE(log.has("ERROR", "[遗嘱调试][广播失败] 订阅者1：To=watcher, 发送返回值=-1"));
    EXPECT_TRUE(log.has("INFO", "[遗嘱调试][广播完成] Topic=t, 总计匹配1个订阅者，成功发送0个，失败1个"));
}

TEST_F(packet_broadcast, an_unknown_subscriber_counts_as_a_failure) {
    EXPECT_EQ(0, zeb::sub_add("absent", "t", 0, 0));
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"));
    EXPECT_TRUE(log.has("WARN", "[遗嘱调试][广播失败] 订阅者1：ClientID=absent 不存在"));
    EXPECT_TRUE(log.has("INFO", "[遗嘱调试][广播完成] Topic=t, 总计匹配1个订阅者，成功发送0个，失败1个"));
}

TEST_F(packet_broadcast, a_subscriber_on_its_way_out_gets_no_will) {
    mqtt_client *leaving = join("leaving");
    subscribe(leaving, "t", 0);
    leaving->state.store(zeb::CLOSING);
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"), 1);
    broadcast(hex("30 05 00 01 't' 'hi'"), 0);
    EXPECT_TRUE(log.has("WARN", "[遗嘱调试][跳过] 客户端已离线，不发送遗嘱：leaving"));
    EXPECT_TRUE(log.has(
        "WARN", "[遗嘱调试][广播失败] 订阅者1：ClientID=leaving 状态无效（3），需为LOGINED/CONNECTED"));
    leaving->state.store(zeb::LOGINED);
    EXPECT_EQ(texts(), sent(leaving));
}

TEST_F(packet_broadcast, an_entry_without_a_client_identifier_is_skipped) {
    EXPECT_EQ(0, zeb::sub_add_with_id("", "t", 0, 1, 5));
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"));
    EXPECT_TRUE(log.has("WARN", "[遗嘱调试][广播跳过] 订阅者1：ClientID为空"));
}

TEST_F(packet_broadcast, a_shared_group_is_served_once) {
    mqtt_client *a = join("a");
    mqtt_client *b = join("b");
    subscribe(a, "$share/g/t", 0);
    subscribe(b, "$share/g/t", 0);
    log_capture log;
    broadcast(hex("30 05 00 01 't' 'hi'"));
    EXPECT_EQ(1u, sent(a).size());
    EXPECT_EQ(texts(), sent(b));
    EXPECT_TRUE(log.has("DEBUG", "[共享订阅] 订阅者2 同组已负载均衡，跳过发送"));
}

TEST_F(packet_broadcast, an_identifier_of_0_fails_that_subscriber_alone) {
    mqtt_client *a = join("a");
    subscribe(a, "t", 1);
    uint32_t start = 1;
    while (id_oracle(start).next() != 0) ++start;
    seed(start);
    broadcast(hex("32 07 00 01 't' 00 01 'hi'"));
    EXPECT_EQ(texts(), sent(a));
    EXPECT_EQ(0, a->last_qos1_msg_id.load());
}

TEST_F(packet_broadcast, every_prefix_and_random_bytes_stay_within_their_block) {
    mqtt_client *four = join("four");
    mqtt_client *five = join("five", 5);
    subscribe(four, "#", 1);
    subscribe(five, "#", 2);
    const bytes whole = hex("34 10 00 03 't/x' 00 07 05 02 00 00 00 3C 'hi'");
    for (size_t len = 1; len <= whole.size(); ++len)
        broadcast(bytes(whole.begin(), whole.begin() + static_cast<long>(len)));
    EXPECT_GT(sent(four).size(), 0u);
    EXPECT_EQ(2u, sent(five).size());
    unsigned state = 9;
    const auto random = [&state](unsigned n) { return static_cast<unsigned>(rand_r(&state)) % n; };
    for (int i = 0; i < 20000; ++i) {
        bytes data(random(40) + 1);
        for (uint8_t &b : data) b = static_cast<uint8_t>(random(256));
        if (data.size() > 3 && random(3) != 0) data[2] = 0;
        if (data.size() > 3 && random(3) != 0) data[3] = static_cast<uint8_t>(random(40));
        broadcast(data, static_cast<uint8_t>(random(2)));
        (void)sent(four);
        (void)sent(five);
    }
}

}  // namespace
