// A message belongs to one connection and must never reach another one.
#include "tests/qos/qos_fixture.h"

namespace {

using zeb::g_pending_queue;
using zeb::qos_reliable_handle_ack;
using zeb_test::log_capture;
using zeb_test::take_sent;

class qos_lifetime : public zeb_test::qos_test {};

TEST_F(qos_lifetime, a_clean_takes_the_clients_messages_and_no_others) {
    for (uint16_t id = 1; id <= 3; ++id) {
        ASSERT_EQ(add(a_, id, 2), 0);
        ASSERT_EQ(add(b_, id), 0);
    }
    log_capture &log = listen();
    zeb::qos_reliable_clean_client_packets(a_);
    EXPECT_EQ(queue(), "bob:3 bob:2 bob:1 ");
    EXPECT_EQ(a_->inflight, 0);
    EXPECT_EQ(b_->inflight, 3);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, 4), -1);
    EXPECT_TRUE(log.has("WARN", "[QoS_CLEAN] 清理客户端: alice"));
    EXPECT_TRUE(log.has("INFO", "[QoS] 清理客户端报文完成(client=alice)：共清理3条"));
}

TEST_F(qos_lifetime, cleaning_twice_finds_nothing_the_second_time) {
    ASSERT_EQ(add(a_, 1), 0);
    zeb::qos_reliable_clean_client_packets(a_);
    log_capture &log = listen();
    zeb::qos_reliable_clean_client_packets(a_);
    EXPECT_TRUE(log.has("INFO", "[QoS] 清理客户端报文完成(client=alice)：共清理0条"));
}

TEST_F(qos_lifetime, cleaning_nobody_is_reported) {
    log_capture &log = listen();
    zeb::qos_reliable_clean_client_packets(nullptr);
    EXPECT_TRUE(log.has("WARN", "[QoS_CLEAN] 清理客户端: null"));
    EXPECT_TRUE(log.has("ERROR", "[QoS] 清理客户端报文失败：客户端为空"));
}

TEST_F(qos_lifetime, a_drop_is_a_silent_clean) {
    ASSERT_EQ(add(a_, 1), 0);
    ASSERT_EQ(add(b_, 1), 0);
    log_capture &log = listen();
    zeb::qos_reliable_drop_client(a_);
    zeb::qos_reliable_drop_client(nullptr);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(queue(), "bob:1 ");
}

TEST_F(qos_lifetime, a_closed_connection_leaves_nothing_to_the_records_next_owner) {
    ASSERT_EQ(add(a_, 1), 0);
    zeb::client_close(a_);
    EXPECT_EQ(queue(), "");
    zeb::mqtt_client *carol = make_client("carol");
    ASSERT_EQ(carol, a_) << "the pool hands out its lowest free record";
    pass_after(1001);
    EXPECT_TRUE(take_sent(carol).empty());
    ASSERT_EQ(add(carol, 1, 1, "t/1", "for carol"), 0);
    pass_after(1001);
    EXPECT_EQ(take_sent(carol), zeb_test::packets({"32 10 00 03 't/1' 00 01 'for carol'"}));
}

TEST_F(qos_lifetime, a_message_of_an_earlier_connection_is_not_sent_to_this_one) {
    ASSERT_EQ(add(a_, 1), 0);
    a_->generation.fetch_add(1000);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, 4), -1);
    EXPECT_EQ(queue(), "alice:1 ");
    log_capture &log = listen();
    pass_after(1001);
    EXPECT_TRUE(take_sent(a_).empty());
    EXPECT_EQ(queue(), "");
    EXPECT_EQ(a_->inflight, 0);
    EXPECT_EQ(log.text(), "");
}

TEST_F(qos_lifetime, an_acknowledgement_never_touches_an_earlier_connections_message) {
    ASSERT_EQ(add(a_, 1, 2), 0);
    a_->generation.fetch_add(1000);
    ASSERT_EQ(add(a_, 1), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, 4), 0);
    ASSERT_EQ(queue_length(), 1);
    EXPECT_EQ(g_pending_queue->qos, 2);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, 4), -1);
}

TEST_F(qos_lifetime, a_due_message_of_a_client_that_left_goes_without_a_word) {
    for (const uint32_t state : {zeb::CLOSING, zeb::CLOSED}) {
        ASSERT_EQ(add(a_, 1), 0);
        ASSERT_EQ(add(a_, 2), 0);
        g_pending_queue->retry_count = 5;
        a_->state = state;
        log_capture &log = listen();
        pass_after(1001);
        EXPECT_EQ(queue(), "");
        EXPECT_EQ(log.text(), "");
        a_->state = zeb::LOGINED;
        EXPECT_TRUE(take_sent(a_).empty());
    }
}

TEST_F(qos_lifetime, destroy_frees_everything_and_leaves_the_clients_usable) {
    for (uint16_t id = 1; id <= 1000; ++id) ASSERT_EQ(add(a_, id), 0);
    ASSERT_EQ(add(b_, 1), 0);
    log_capture &log = listen();
    zeb::qos_reliable_destroy();
    EXPECT_EQ(g_pending_queue, nullptr);
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 开始销毁可靠投递模块"));
    EXPECT_TRUE(log.has("INFO", "[QoS] 可靠投递模块已销毁，共清理1001条未完成报文"));
    EXPECT_EQ(add(a_, 1), 0);
    pass_after(1001);
    EXPECT_EQ(take_sent(a_).size(), 1u);
}

}  // namespace
