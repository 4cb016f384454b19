#include "tests/qos/qos_fixture.h"

namespace {

using zeb::g_pending_queue;
using zeb::qos_reliable_add_packet;
using zeb_test::log_capture;
using zeb_test::take_sent;

class qos_registration : public zeb_test::qos_test {
  protected:
    zeb::mqtt_publish_para pub_{};
    uint8_t payload_[2049] = {};
};

TEST_F(qos_registration, a_qos_1_message_is_kept_as_it_was_sent) {
    log_capture &log = listen();
    ASSERT_EQ(add(a_, 0x1234, 1, "t/1", std::string("x\0y", 3)), 0);
    const zeb::qos_packet *p = g_pending_queue;
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->msg_id, 0x1234);
    EXPECT_EQ(p->qos, 1);
    EXPECT_STREQ(p->topic, "t/1");
    EXPECT_EQ(zeb_test::dump(p->payload, p->payload_len), "78 00 79");
    EXPECT_EQ(p->dup, 0);
    EXPECT_EQ(p->last_send_ms, 1000000u);
    EXPECT_EQ(p->retry_count, 0u);
    EXPECT_EQ(p->retry_interval_ms, 1000u);
    EXPECT_EQ(p->qos2_state, 0);
    EXPECT_EQ(p->client, a_);
    EXPECT_EQ(p->created_ms, 1000000u);
    EXPECT_EQ(p->expiry_sec, 0u);
    EXPECT_EQ(p->next, nullptr);
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 添加QoS1报文到队列成功(msg_id=4660, client=alice, 载荷长度=3)"));
}

TEST_F(qos_registration, a_qos_2_message_waits_for_its_pubrec) {
    ASSERT_EQ(add(a_, 1, 2), 0);
    EXPECT_EQ(g_pending_queue->qos, 2);
    EXPECT_EQ(g_pending_queue->qos2_state, 1);
}

TEST_F(qos_registration, sends_nothing) {
    ASSERT_EQ(add(a_, 1), 0);
    EXPECT_TRUE(take_sent(a_).empty());
}

TEST_F(qos_registration, the_newest_message_stands_first) {
    ASSERT_EQ(add(a_, 1), 0);
    ASSERT_EQ(add(b_, 2), 0);
    ASSERT_EQ(add(a_, 3), 0);
    EXPECT_EQ(queue(), "alice:3 bob:2 alice:1 ");
}

TEST_F(qos_registration, keeps_its_own_copy_of_topic_and_payload) {
    strcpy(pub_.topic, "mine");
    payload_[0] = 7;
    ASSERT_EQ(qos_reliable_add_packet(a_, 1, 1, &pub_, payload_, 1), 0);
    strcpy(pub_.topic, "gone");
    payload_[0] = 8;
    EXPECT_STREQ(g_pending_queue->topic, "mine");
    EXPECT_EQ(g_pending_queue->payload[0], 7);
}

TEST_F(qos_registration, a_topic_of_256_characters_loses_its_last) {
    memset(pub_.topic, 't', 256);
    pub_.topic[256] = '\0';
    ASSERT_EQ(qos_reliable_add_packet(a_, 1, 1, &pub_, payload_, 1), 0);
    EXPECT_EQ(std::string(g_pending_queue->topic), std::string(255, 't'));
}

TEST_F(qos_registration, a_topic_without_its_terminator_is_not_read_past_its_array) {
    memset(pub_.topic, 't', sizeof pub_.topic);
    ASSERT_EQ(qos_reliable_add_packet(a_, 1, 1, &pub_, payload_, 1), 0);
    EXPECT_EQ(strlen(g_pending_queue->topic), 255u);
}

TEST_F(qos_registration, refuses_bad_arguments_in_a_fixed_order) {
    strcpy(pub_.topic, "t");
    zeb::mqtt_publish_para no_topic{};
    const struct {
        zeb::mqtt_client *client;
        const zeb::mqtt_publish_para *pub;
        const uint8_t *payload;
        uint32_t len;
        uint8_t qos;
        const char *line;
    } rows[] = {
        {nullptr, nullptr, nullptr, 0, 0, "[QoS] 添加报文参数错误：客户端为空"},
        {a_, nullptr, nullptr, 0, 0, "[QoS] 添加报文参数错误：主题为空"},
        {a_, &no_topic, nullptr, 0, 0, "[QoS] 添加报文参数错误：主题为空"},
        {a_, &pub_, nullptr, 1, 0, "[QoS] 添加报文参数错误：payload为空"},
        {a_, &pub_, payload_, 0, 0, "[QoS] 添加报文参数错误：payload为空"},
        {a_, &pub_, payload_, 2049, 0,
         "[QoS] 添加报文参数错误：payload长度超限（最大2048字节，当前2049字节）"},
        {a_, &pub_, payload_, 2048, 0, "[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前0）"},
        {a_, &pub_, payload_, 2048, 3, "[QoS] 添加报文参数错误：QoS非法（仅支持1/2，当前3）"},
    };
    for (const auto &row : rows) {
        log_capture &log = listen();
        EXPECT_EQ(qos_reliable_add_packet(row.client, 1, row.qos, row.pub, row.payload, row.len), -1);
        EXPECT_TRUE(log.has("ERROR", row.line)) << log.text();
        EXPECT_EQ(g_pending_queue, nullptr);
    }
}

TEST_F(qos_registration, a_payload_of_2048_bytes_is_accepted) {
    strcpy(pub_.topic, "t");
    EXPECT_EQ(qos_reliable_add_packet(a_, 1, 1, &pub_, payload_, 2048), 0);
    EXPECT_EQ(g_pending_queue->payload_len, 2048u);
}

TEST_F(qos_registration, the_1001st_message_of_a_client_is_refused_and_others_are_not_affected) {
    for (int i = 1; i <= 1000; ++i) ASSERT_EQ(add(a_, static_cast<uint16_t>(i)), 0);
    log_capture &log = listen();
    EXPECT_EQ(add(a_, 1001), -1);
    EXPECT_EQ(add(b_, 1001), 0);
    EXPECT_TRUE(log.has("ERROR", "[QoS] 客户端未完成队列已满(client=alice)，最大支持1000条，当前1000条"));
    EXPECT_EQ(queue_length(), 1001);
    ASSERT_EQ(zeb::qos_reliable_handle_ack(a_, 500, 4), 0);
    EXPECT_EQ(add(a_, 1001), 0);
    EXPECT_EQ(add(a_, 1002), -1);
}

TEST_F(qos_registration, a_client_that_is_not_online_gets_no_message) {
    for (const uint32_t state : {zeb::CLOSING, zeb::CLOSED}) {
        a_->state = state;
        EXPECT_EQ(add(a_, 1), -1);
        EXPECT_EQ(g_pending_queue, nullptr);
    }
    a_->state = zeb::CONNECTED;
    EXPECT_EQ(add(a_, 1), 0);
}

}  // namespace
