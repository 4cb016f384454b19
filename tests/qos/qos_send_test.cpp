// One repetition, and what keeps it from being sent.
#include "tests/qos/qos_fixture.h"

namespace {

using zeb::g_pending_queue;
using zeb_test::log_capture;
using zeb_test::packets;
using zeb_test::take_sent;

class qos_send : public zeb_test::qos_test {
  protected:
    void SetUp() override {
        qos_test::SetUp();
        ASSERT_EQ(add(a_, 5), 0);
    }
    // Sends the queue's first message and expects failure, this ERROR line and an unchanged message.
    void expect_failure(const char *line) {
        log_capture &log = listen();
        EXPECT_EQ(send(), -1);
        EXPECT_TRUE(log.has("ERROR", line)) << log.text();
        EXPECT_EQ(g_pending_queue->retry_count, 0u);
        EXPECT_EQ(g_pending_queue->dup, 0);
        EXPECT_EQ(g_pending_queue->last_send_ms, 1000000u);
        EXPECT_TRUE(take_sent(a_).empty());
    }
    static int send() {
        std::lock_guard lock(zeb::g_queue_mutex);
        return zeb::send_packet(g_pending_queue);
    }
};

TEST_F(qos_send, a_repetition_counts_and_doubles_its_interval) {
    clock_.advance_ms(250);
    log_capture &log = listen();
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(g_pending_queue->dup, 1);
    EXPECT_EQ(g_pending_queue->last_send_ms, 1000250u);
    EXPECT_EQ(g_pending_queue->retry_count, 1u);
    EXPECT_EQ(g_pending_queue->retry_interval_ms, 2000u);
    EXPECT_TRUE(log.has("DEBUG", "[QoS_SEND] msg_id=5, client=alice"));
    EXPECT_TRUE(log.has("INFO", "[QoS] 重发QoS1报文成功(msg_id=5)，重试次数=1，下次间隔=2000ms，载荷长度=5"));
}

TEST_F(qos_send, the_interval_never_exceeds_30_s) {
    for (const uint32_t interval : {15000u, 15001u, 30000u}) {
        g_pending_queue->retry_interval_ms = interval;
        EXPECT_EQ(send(), 0);
        EXPECT_EQ(g_pending_queue->retry_interval_ms, 30000u);
    }
}

TEST_F(qos_send, the_largest_message_fits) {
    zeb::mqtt_client *carol = make_client("carol", 5);
    ASSERT_EQ(add(carol, 6, 1, std::string(40, 't').c_str(), std::string(2048, 'p')), 0);
    EXPECT_EQ(send(), 0);
    const std::vector<std::string> sent = take_sent(carol);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ((sent[0].size() + 1) / 3, 3u + 2 + 40 + 2 + 1 + 2048);
}

TEST_F(qos_send, without_a_client) {
    zeb::qos_packet orphan{};
    orphan.msg_id = 8;
    log_capture &log = listen();
    EXPECT_EQ(zeb::send_packet(&orphan), -1);
    EXPECT_TRUE(log.has("DEBUG", "[QoS_SEND] msg_id=8, client=null"));
    EXPECT_TRUE(log.has("ERROR", "[QoS] 重发报文参数错误：pkt/客户端为空"));
    log_capture &again = listen();
    EXPECT_EQ(zeb::send_packet(nullptr), -1);
    EXPECT_TRUE(again.has("ERROR", "[QoS] 重发报文参数错误：pkt/客户端为空"));
}

TEST_F(qos_send, with_a_payload_length_out_of_range) {
    g_pending_queue->payload_len = 0;
    expect_failure("[QoS] 重发报文参数错误：payload为空/长度超限（最大支持2048字节，当前0字节）");
    g_pending_queue->payload_len = 2049;
    expect_failure("[QoS] 重发报文参数错误：payload为空/长度超限（最大支持2048字节，当前2049字节）");
    g_pending_queue->payload_len = 5;
}

TEST_F(qos_send, to_a_client_without_a_protocol_level) {
    a_->codec.protocol_version = 0;
    expect_failure("[QoS] 重发报文失败：客户端编解码上下文未初始化(client=alice)");
}

TEST_F(qos_send, names_the_codec_error) {
    a_->codec.protocol_version = 3;
    expect_failure("[QoS] 重发报文失败(msg_id=5)：编码错误（错误码：-2，描述：协议版本不支持）");
    a_->codec.protocol_version = 4;
    g_pending_queue->topic[0] = '\0';
    expect_failure("[QoS] 重发报文失败(msg_id=5)：编码错误（错误码：-1，描述：参数非法）");
}

TEST_F(qos_send, a_body_beyond_the_encoders_limit) {
    zeb::qos_reliable_drop_client(a_);
    ASSERT_EQ(add(a_, 6, 1, std::string(255, 't').c_str(), std::string(2048, 'p')), 0);
    expect_failure("[QoS] 重发报文失败(msg_id=6)：编码错误（错误码：-3，描述：缓冲区不足）");
}

TEST_F(qos_send, a_packet_larger_than_the_client_admits) {
    a_->max_packet_size = 10;
    expect_failure("[QoS] 重发报文失败(msg_id=5)：发送错误（返回码：-1）");
}

}  // namespace
