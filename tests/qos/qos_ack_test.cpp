#include "tests/qos/qos_fixture.h"

namespace {

using zeb::g_pending_queue;
using zeb::qos_reliable_handle_ack;
using zeb_test::log_capture;
using zeb_test::packets;
using zeb_test::take_sent;

constexpr int k_puback = 4;
constexpr int k_pubrec = 5;
constexpr int k_pubrel = 6;
constexpr int k_pubcomp = 7;

class qos_ack : public zeb_test::qos_test {
  protected:
    // One message to alice under 0x0102, and what an acknowledgement of it does.
    void expect_row(int qos, int state, int type, int result, int state_after, const char *sent,
                    const std::string &line) {
        SCOPED_TRACE(testing::Message() << "qos " << qos << " state " << state << " type " << type);
        zeb::qos_reliable_drop_client(a_);
        ASSERT_EQ(add(a_, 0x0102, qos), 0);
        g_pending_queue->qos2_state = static_cast<uint8_t>(state);
        log_capture &log = listen(zeb::AGENT_LOG_INFO);
        EXPECT_EQ(qos_reliable_handle_ack(a_, 0x0102, type), result);
        EXPECT_EQ(g_pending_queue == nullptr ? k_removed : g_pending_queue->qos2_state, state_after);
        EXPECT_EQ(take_sent(a_), sent == nullptr ? packets({}) : packets({sent}));
        if (line.empty())
            EXPECT_EQ(log.text(), "");
        else
            EXPECT_NE(log.text().find(line + ": msg_id=258\n"), std::string::npos) << log.text();
    }
    static constexpr int k_removed = -1;
};

TEST_F(qos_ack, every_row_of_the_table) {
    const std::string pubrel_line = "[INFO] [QoS] ✅ 收到PUBREC -> 发送PUBREL";
    const std::string pubcomp_line = "[INFO] [QoS] ✅ 收到PUBREL -> 发送PUBCOMP";
    const std::string downgrade = "[WARN] [QoS] QoS2 报文收到PUBACK(客户端降级)，强制完成";
    const std::string unsupported = "[ERROR] [QoS] 不支持的ACK类型";
    expect_row(1, 0, k_puback, 0, k_removed, nullptr, "[INFO] [QoS] QoS1 PUBACK 完成");
    expect_row(2, 1, k_puback, 0, k_removed, nullptr, downgrade);
    expect_row(2, 2, k_puback, 0, k_removed, nullptr, downgrade);
    expect_row(2, 3, k_puback, 0, k_removed, nullptr, downgrade);
    expect_row(2, 1, k_pubrec, 0, 2, "62 02 01 02", pubrel_line);
    expect_row(2, 2, k_pubrec, 0, 2, nullptr, "");
    expect_row(2, 3, k_pubrec, 0, 3, nullptr, "");
    expect_row(1, 0, k_pubrec, 0, 0, nullptr, "");
    expect_row(2, 2, k_pubrel, 0, 3, "70 02 01 02", pubcomp_line);
    expect_row(2, 1, k_pubrel, 0, 1, nullptr, "");
    expect_row(2, 3, k_pubrel, 0, 3, nullptr, "");
    expect_row(1, 0, k_pubrel, 0, 0, nullptr, "");
    expect_row(2, 3, k_pubcomp, 0, k_removed, nullptr, "[INFO] [QoS] ✅ QoS2 完成");
    expect_row(2, 1, k_pubcomp, 0, k_removed, nullptr, "");
    expect_row(2, 2, k_pubcomp, 0, k_removed, nullptr, "");
    expect_row(1, 0, k_pubcomp, 0, 0, nullptr, "");
    for (const int type : {-1, 0, 3, 8, 255}) {
        expect_row(1, 0, type, -1, 0, nullptr, unsupported);
        expect_row(2, 1, type, -1, 1, nullptr, unsupported);
    }
}

TEST_F(qos_ack, a_whole_qos_2_exchange_with_a_level_5_client) {
    zeb::mqtt_client *carol = make_client("carol", 5);
    ASSERT_EQ(add(carol, 0x0A0B, 2), 0);
    EXPECT_EQ(qos_reliable_handle_ack(carol, 0x0A0B, k_pubrec), 0);
    EXPECT_EQ(qos_reliable_handle_ack(carol, 0x0A0B, k_pubrel), 0);
    EXPECT_EQ(qos_reliable_handle_ack(carol, 0x0A0B, k_pubcomp), 0);
    EXPECT_EQ(take_sent(carol), packets({"62 03 0A 0B 00", "70 03 0A 0B 00"}));
    EXPECT_EQ(g_pending_queue, nullptr);
    EXPECT_EQ(qos_reliable_handle_ack(carol, 0x0A0B, k_pubcomp), -1);
}

TEST_F(qos_ack, a_second_pubrec_is_not_answered_again) {
    ASSERT_EQ(add(a_, 1, 2), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_pubrec), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_pubrec), 0);
    EXPECT_EQ(take_sent(a_), packets({"62 02 00 01"}));
}

TEST_F(qos_ack, a_puback_after_the_pubrec_completes_a_qos_2_message) {
    ASSERT_EQ(add(a_, 1, 2), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_pubrec), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_puback), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_pubrec), -1);
    EXPECT_EQ(take_sent(a_), packets({"62 02 00 01"}));
}

TEST_F(qos_ack, a_full_ring_loses_the_answer_and_keeps_the_exchange_going) {
    const uint8_t filler[] = {0xD0, 0};
    while (zeb::client_send(a_, filler, sizeof filler) == 0) {
    }
    ASSERT_EQ(add(a_, 1, 2), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 1, k_pubrec), 0);
    EXPECT_EQ(g_pending_queue->qos2_state, 2);
    EXPECT_EQ(take_sent(a_).size(), 99u);
}

TEST_F(qos_ack, an_answer_that_cannot_be_encoded_fails_and_the_state_stays_reached) {
    ASSERT_EQ(add(a_, 9, 2), 0);
    a_->codec.protocol_version = 3;
    log_capture &log = listen();
    EXPECT_EQ(qos_reliable_handle_ack(a_, 9, k_pubrec), -1);
    EXPECT_EQ(g_pending_queue->qos2_state, 2);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 9, k_pubrel), -1);
    EXPECT_EQ(g_pending_queue->qos2_state, 3);
    EXPECT_TRUE(log.has("ERROR", "[QoS] PUBREL编码失败: msg_id=9"));
    EXPECT_TRUE(log.has("ERROR", "[QoS] PUBCOMP编码失败: msg_id=9"));
    EXPECT_TRUE(take_sent(a_).empty());
}

TEST_F(qos_ack, without_a_client_or_identifier_is_refused) {
    ASSERT_EQ(add(a_, 0), 0);
    for (zeb::mqtt_client *client : {static_cast<zeb::mqtt_client *>(nullptr), a_}) {
        log_capture &log = listen();
        EXPECT_EQ(qos_reliable_handle_ack(client, client == nullptr ? 1 : 0, k_puback), -1);
        EXPECT_TRUE(log.has("ERROR", "[QoS] 处理ACK参数错误：客户端为空"));
    }
    EXPECT_EQ(queue_length(), 1);
}

TEST_F(qos_ack, of_an_unknown_message_is_a_debug_line) {
    ASSERT_EQ(add(a_, 1), 0);
    log_capture &log = listen();
    EXPECT_EQ(qos_reliable_handle_ack(a_, 2, k_puback), -1);
    EXPECT_EQ(qos_reliable_handle_ack(b_, 1, k_pubrec), -1);
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 收到无效ACK报文(msg_id=2, client=alice, 类型=4)：未找到对应报文"));
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 收到无效ACK报文(msg_id=1, client=bob, 类型=5)：未找到对应报文"));
    EXPECT_EQ(queue(), "alice:1 ");
}

TEST_F(qos_ack, is_traced_with_its_name_and_the_state_it_met) {
    ASSERT_EQ(add(a_, 1), 0);
    ASSERT_EQ(add(a_, 2, 2), 0);
    log_capture &log = listen();
    qos_reliable_handle_ack(a_, 2, 9);
    qos_reliable_handle_ack(a_, 2, k_pubrec);
    qos_reliable_handle_ack(a_, 2, k_pubrel);
    qos_reliable_handle_ack(a_, 2, k_pubcomp);
    qos_reliable_handle_ack(a_, 1, k_puback);
    for (const char *line : {"未知 | msg_id=2 | QoS=2 | state=1", "PUBREC | msg_id=2 | QoS=2 | state=1",
                             "PUBREL | msg_id=2 | QoS=2 | state=2", "PUBCOMP | msg_id=2 | QoS=2 | state=3",
                             "PUBACK | msg_id=1 | QoS=1 | state=0"})
        EXPECT_TRUE(log.has("DEBUG", std::string("[QoS追踪] ACK: ") + line)) << log.text();
    EXPECT_TRUE(log.has("DEBUG", "[QoS_REMOVE] msg_id=2, client=alice"));
    EXPECT_TRUE(log.has("DEBUG", "[QoS] 移除已确认报文(msg_id=2, client=alice)，完全删除"));
}

TEST_F(qos_ack, of_two_messages_with_one_identifier_reaches_the_newer_first) {
    for (const bool newer_is_qos_2 : {true, false}) {
        ASSERT_EQ(add(a_, 7, newer_is_qos_2 ? 1 : 2), 0);
        ASSERT_EQ(add(a_, 7, newer_is_qos_2 ? 2 : 1), 0);
        const zeb::qos_packet *older = g_pending_queue->next;
        EXPECT_EQ(qos_reliable_handle_ack(a_, 7, k_puback), 0);
        EXPECT_EQ(g_pending_queue, older);
        EXPECT_EQ(qos_reliable_handle_ack(a_, 7, k_puback), 0);
        EXPECT_EQ(g_pending_queue, nullptr);
        EXPECT_EQ(qos_reliable_handle_ack(a_, 7, k_puback), -1);
    }
}

TEST_F(qos_ack, one_identifier_of_two_clients_are_two_messages) {
    ASSERT_EQ(add(a_, 7), 0);
    ASSERT_EQ(add(b_, 7), 0);
    EXPECT_EQ(qos_reliable_handle_ack(a_, 7, k_puback), 0);
    EXPECT_EQ(queue(), "bob:7 ");
}

}  // namespace
