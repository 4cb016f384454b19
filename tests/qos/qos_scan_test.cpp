#include "tests/qos/qos_fixture.h"

namespace {

using zeb::g_pending_queue;
using zeb::qos_reliable_scan_queue;
using zeb::qos_reliable_set_packet_expiry;
using zeb_test::log_capture;
using zeb_test::packets;
using zeb_test::take_sent;

constexpr const char *k_first = "32 0C 00 03 't/1' 12 34 'hello'";
constexpr const char *k_again = "3A 0C 00 03 't/1' 12 34 'hello'";

class qos_scan : public zeb_test::qos_test {
  protected:
    // Passes every 100 ms for 70 s: "1100 3200 ..." with "DUP" behind those that carry it, and when the
    // message was dropped.
    std::string schedule(const char *first, const char *again) {
        std::string out;
        for (int ms = 100; ms <= 70000; ms += 100) {
            const bool there = g_pending_queue != nullptr;
            pass_after(100);
            for (const std::string &packet : take_sent(a_)) {
                const bool dup = packet == packets({again})[0];
                EXPECT_TRUE(dup || packet == packets({first})[0]) << packet;
                out += std::to_string(ms) + (dup ? "DUP " : " ");
            }
            if (there && g_pending_queue == nullptr) out += "dropped " + std::to_string(ms);
        }
        return out;
    }
};

TEST_F(qos_scan, a_message_never_acknowledged_is_repeated_five_times_and_dropped) {
    ASSERT_EQ(add(a_, 0x1234), 0);
    log_capture &log = listen(zeb::AGENT_LOG_INFO);
    EXPECT_EQ(schedule(k_first, k_again), "1100 3200DUP 7300DUP 15400DUP 31500DUP dropped 61600");
    const char *tail = "msg_id=4660)，重试次数=";
    for (const char *numbers : {"1，下次间隔=2000ms", "2，下次间隔=4000ms", "3，下次间隔=8000ms",
                                "4，下次间隔=16000ms", "5，下次间隔=30000ms"})
        EXPECT_TRUE(log.has("INFO", std::string("[QoS] 重发QoS1报文成功(") + tail + numbers + "，载荷长度=5"))
            << log.text();
    EXPECT_TRUE(log.has("ERROR", "[QoS] 报文重试次数超限(msg_id=4660)，丢弃"));
}

TEST_F(qos_scan, a_qos_2_message_keeps_the_same_schedule) {
    ASSERT_EQ(add(a_, 0x1234, 2), 0);
    EXPECT_EQ(schedule("34 0C 00 03 't/1' 12 34 'hello'", "3C 0C 00 03 't/1' 12 34 'hello'"),
              "1100 3200DUP 7300DUP 15400DUP 31500DUP dropped 61600");
}

TEST_F(qos_scan, a_level_5_client_gets_an_empty_property_section) {
    zeb::mqtt_client *carol = make_client("carol", 5);
    ASSERT_EQ(add(carol, 0x1234), 0);
    pass_after(1001);
    EXPECT_EQ(take_sent(carol), packets({"32 0D 00 03 't/1' 12 34 00 'hello'"}));
}

TEST_F(qos_scan, an_interval_must_have_passed_and_not_only_be_reached) {
    ASSERT_EQ(add(a_, 0x1234), 0);
    pass_after(1000);
    EXPECT_TRUE(take_sent(a_).empty());
    pass_after(1);
    EXPECT_EQ(take_sent(a_), packets({k_first}));
    EXPECT_EQ(g_pending_queue->last_send_ms, clock_.mono_ms());
    EXPECT_EQ(g_pending_queue->dup, 1);
    pass_after(2000);
    EXPECT_TRUE(take_sent(a_).empty());
    pass_after(1);
    EXPECT_EQ(take_sent(a_), packets({k_again}));
}

TEST_F(qos_scan, what_has_become_due_is_sent_newest_first) {
    for (uint16_t id = 1; id <= 3; ++id) ASSERT_EQ(add(a_, id, 1, "t", "x"), 0);
    log_capture &log = listen();
    pass_after(1001);
    EXPECT_EQ(take_sent(a_), packets({"32 06 00 01 't' 00 03 'x'", "32 06 00 01 't' 00 02 'x'",
                                      "32 06 00 01 't' 00 01 'x'"}));
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 队列扫描完成：重发3条，丢弃0条"));
}

TEST_F(qos_scan, changes_made_to_a_node_are_honoured) {
    ASSERT_EQ(add(a_, 0x1234), 0);
    ASSERT_EQ(add(b_, 2), 0);
    zeb::qos_packet *node = g_pending_queue->next;
    node->last_send_ms -= 1001;
    qos_reliable_scan_queue();
    EXPECT_EQ(take_sent(a_), packets({k_first}));
    EXPECT_TRUE(take_sent(b_).empty());
    node->retry_interval_ms = 10;
    pass_after(11);
    EXPECT_EQ(take_sent(a_), packets({k_again}));
    node->last_send_ms = 0;
    node->retry_count = 5;
    qos_reliable_scan_queue();
    EXPECT_EQ(queue(), "bob:2 ");
    g_pending_queue->created_ms -= 5000;
    g_pending_queue->expiry_sec = 5;
    qos_reliable_scan_queue();
    EXPECT_EQ(queue(), "");
}

TEST_F(qos_scan, after_pubrec_nothing_is_repeated_even_if_pubcomp_never_comes) {
    ASSERT_EQ(add(a_, 1, 2), 0);
    ASSERT_EQ(zeb::qos_reliable_handle_ack(a_, 1, 5), 0);
    EXPECT_EQ(take_sent(a_), packets({"62 02 00 01"}));
    EXPECT_EQ(schedule("", ""), "");
    EXPECT_EQ(queue(), "alice:1 ");
    ASSERT_EQ(zeb::qos_reliable_handle_ack(a_, 1, 6), 0);
    take_sent(a_);
    EXPECT_EQ(schedule("", ""), "");
    EXPECT_EQ(queue(), "alice:1 ");
}

TEST_F(qos_scan, an_expiry_of_2_s_drops_the_message_at_exactly_2000_ms) {
    ASSERT_EQ(add(a_, 0x1234), 0);
    log_capture &log = listen();
    qos_reliable_set_packet_expiry(a_, 0x1234, 2);
    pass_after(1999);
    EXPECT_EQ(take_sent(a_), packets({k_first}));
    EXPECT_EQ(queue(), "alice:4660 ");
    pass_after(1);
    EXPECT_EQ(queue(), "");
    EXPECT_TRUE(take_sent(a_).empty());
    EXPECT_TRUE(log.has("INFO", "[QoS/Expiry] 设置消息过期: msg_id=4660, 过期时间=2 秒"));
    EXPECT_TRUE(log.has("WARN", "[QoS/Expiry] 消息已过期，自动丢弃: msg_id=4660, topic=t/1"));
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 队列扫描完成：重发0条，丢弃1条"));
}

TEST_F(qos_scan, an_expired_message_goes_in_every_state_of_the_exchange) {
    for (uint16_t id = 1; id <= 3; ++id) {
        ASSERT_EQ(add(a_, id, 2), 0);
        g_pending_queue->qos2_state = static_cast<uint8_t>(id);
        qos_reliable_set_packet_expiry(a_, id, 1);
    }
    pass_after(1000);
    EXPECT_EQ(queue(), "");
}

TEST_F(qos_scan, the_longest_expiry_does_not_wrap) {
    ASSERT_EQ(add(a_, 1), 0);
    qos_reliable_set_packet_expiry(a_, 1, 0xFFFFFFFF);
    pass_after(1000);
    EXPECT_EQ(queue(), "alice:1 ");
}

TEST_F(qos_scan, expiry_reaches_the_newer_of_two_messages_with_one_identifier) {
    ASSERT_EQ(add(a_, 7), 0);
    ASSERT_EQ(add(a_, 7), 0);
    qos_reliable_set_packet_expiry(a_, 7, 60);
    EXPECT_EQ(g_pending_queue->expiry_sec, 60u);
    EXPECT_EQ(g_pending_queue->next->expiry_sec, 0u);
}

TEST_F(qos_scan, expiry_of_nothing_known_changes_and_says_nothing) {
    ASSERT_EQ(add(a_, 0), 0);
    ASSERT_EQ(add(a_, 1), 0);
    log_capture &log = listen();
    qos_reliable_set_packet_expiry(nullptr, 1, 5);
    qos_reliable_set_packet_expiry(a_, 0, 5);
    qos_reliable_set_packet_expiry(a_, 2, 5);
    qos_reliable_set_packet_expiry(b_, 1, 5);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(g_pending_queue->expiry_sec, 0u);
    EXPECT_EQ(g_pending_queue->next->expiry_sec, 0u);
}

TEST_F(qos_scan, a_failed_repetition_changes_nothing_and_is_tried_again) {
    ASSERT_EQ(add(a_, 0x1234), 0);
    const uint8_t filler[] = {0xD0, 0};
    while (zeb::client_send(a_, filler, sizeof filler) == 0) {
    }
    log_capture &log = listen();
    pass_after(1001);
    EXPECT_EQ(g_pending_queue->dup, 0);
    EXPECT_EQ(g_pending_queue->retry_count, 0u);
    EXPECT_EQ(g_pending_queue->retry_interval_ms, 1000u);
    EXPECT_EQ(g_pending_queue->last_send_ms, 1000000u);
    EXPECT_EQ(take_sent(a_).size(), 99u);
    pass_after(100);
    EXPECT_EQ(take_sent(a_), packets({k_first}));
    EXPECT_EQ(g_pending_queue->last_send_ms, 1001101u);
    EXPECT_TRUE(log.has("ERROR", "[QoS] 重发报文失败(msg_id=4660)：发送错误（返回码：-1）"));
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 队列扫描完成：重发1条，丢弃0条"));
}

TEST_F(qos_scan, a_pass_without_anything_to_do_is_silent) {
    log_capture &log = listen();
    qos_reliable_scan_queue();
    EXPECT_EQ(log.text(), "");
    ASSERT_EQ(add(a_, 1), 0);
    log_capture &again = listen();
    pass_after(1000);
    EXPECT_EQ(again.text(), "");
}

}  // namespace
