// Wills: what is stored, and what becomes of it once the connection is gone.
#include "packet/packet_handler.h"
#include "tests/client/client_fixture.h"

namespace {

using zeb::g_will_delay_client_count;
using zeb_test::bytes;
using zeb_test::client_test;
using zeb_test::log_capture;
using zeb_test::mqtt_client;

class client_will : public client_test {
  protected:
    static void set_will(mqtt_client *client, const char *topic, const bytes &payload, uint8_t qos = 1,
                         uint8_t retain = 0) {
        zeb::client_set_will_msg(client, topic, payload.data(), static_cast<uint32_t>(payload.size()), qos,
                                 retain);
    }
    static bytes stored(const mqtt_client *client) {
        return bytes(client->will_payload, client->will_payload + client->will_payload_len);
    }
    static uint32_t published() { return zeb::g_mqtt_stats.will_sent.load(); }

    // A client that is gone and whose will is due in five seconds.
    mqtt_client *lose(uint32_t handle, const char *id) {
        mqtt_client *const client = create(handle, id);
        give_will(client, "will/t", 5);
        zeb::client_close(client);
        EXPECT_EQ(client->will_delay_deadline, clock.mono_ms() + 5000);
        return client;
    }
};

TEST_F(client_will, a_will_is_copied_whole) {
    mqtt_client *const client = create(1, "c");
    client->will_done = 1;
    bytes payload{1, 0, 2};
    std::string topic = "a/b";
    log_capture log;
    set_will(client, topic.c_str(), payload, 2, 1);
    topic[0] = 'x';
    payload[0] = 9;
    EXPECT_STREQ(client->will_topic, "a/b");
    EXPECT_EQ(stored(client), (bytes{1, 0, 2}));
    EXPECT_EQ(client->will_qos, 2);
    EXPECT_EQ(client->will_retain, 1);
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_EQ(client->will_done, 0);
    EXPECT_TRUE(log.has("DEBUG",
                        "[遗嘱调试][设置开始] ClientID=c, 原始入参：topic=a/b, payload_len=3, "
                        "qos=2, retain=1"));
    EXPECT_TRUE(log.has("INFO",
                        "[遗嘱调试][设置成功] ClientID=c, 最终存储：topic=a/b, payload_len=3, "
                        "qos=2, retain=1, will_msg_used=1"));
}

TEST_F(client_will, payloads_of_2048_bytes_are_the_longest) {
    mqtt_client *const client = create(1, "c");
    set_will(client, "t", bytes(2048, 7));
    EXPECT_EQ(client->will_payload_len, 2048u);
    log_capture log;
    set_will(client, "other", bytes(2049, 8));
    EXPECT_STREQ(client->will_topic, "t") << "the old will stays";
    EXPECT_EQ(stored(client), bytes(2048, 7));
    char line[200];
    snprintf(line, sizeof line,
             "[遗嘱调试][设置失败] 参数无效：client=%p, topic=other, payload_len=2049（上限=2048）, qos=1",
             static_cast<void *>(client));
    EXPECT_TRUE(log.has("ERROR", line));
}

TEST_F(client_will, a_will_needs_a_client_and_a_topic) {
    mqtt_client *const client = create(1, "c");
    log_capture log;
    set_will(nullptr, "t", {1});
    set_will(client, nullptr, {1});
    EXPECT_EQ(client->will_msg_used, 0);
    EXPECT_TRUE(log.has("ERROR",
                        "[遗嘱调试][设置失败] 参数无效：client=(nil), topic=t, "
                        "payload_len=1（上限=2048）, qos=1"));
    EXPECT_NE(log.text().find("topic=NULL, payload_len=1"), std::string::npos);
}

TEST_F(client_will, an_empty_payload_is_a_will_as_well) {
    mqtt_client *const client = create(1, "c");
    zeb::client_set_will_msg(client, "t", nullptr, 0, 0, 0);
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_EQ(client->will_payload_len, 0u);
    EXPECT_NE(client->will_payload, nullptr);
}

TEST_F(client_will, qos_3_is_lowered_to_0) {
    mqtt_client *const client = create(1, "c");
    log_capture log;
    set_will(client, "t", {1}, 3);
    EXPECT_EQ(client->will_qos, 0);
    EXPECT_EQ(client->will_msg_used, 1);
    EXPECT_TRUE(log.has("WARN", "[遗嘱调试][QoS降级] ClientID=c, 原始QoS=3超出范围（0-2），自动降级为QoS0"));
}

TEST_F(client_will, a_second_will_replaces_the_first) {
    mqtt_client *const client = create(1, "c");
    set_will(client, "first", bytes(100, 1));
    set_will(client, "second", {2});
    EXPECT_STREQ(client->will_topic, "second");
    EXPECT_EQ(stored(client), bytes{2});
}

TEST_F(client_will, properties_are_cut_to_their_fields) {
    mqtt_client *const client = create(1, "c");
    log_capture log;
    zeb::client_set_will_enhance(client, 5, 6, 1, std::string(64, 'c').c_str(), std::string(257, 'r').c_str(),
                                 bytes(255, 9).data(), 255);
    EXPECT_EQ(client->will_delay_sec, 5u);
    EXPECT_EQ(client->will_expiry_sec, 6u);
    EXPECT_EQ(client->will_payload_format, 1);
    EXPECT_STREQ(client->will_content_type, std::string(63, 'c').c_str());
    EXPECT_STREQ(client->will_response_topic, std::string(256, 'r').c_str());
    EXPECT_EQ(client->will_correlation_len, 255u);
    EXPECT_EQ(client->will_correlation_data[254], 9);
    EXPECT_TRUE(log.has("INFO", "[遗嘱增强] ClientID=c 设置完成：延迟=5s, 过期=6s"));
}

TEST_F(client_will, properties_that_are_not_given_stay) {
    mqtt_client *const client = create(1, "c");
    zeb::client_set_will_enhance(client, 1, 2, 1, "text", "answer", bytes{1, 2}.data(), 2);
    zeb::client_set_will_enhance(client, 3, 4, 0, nullptr, nullptr, nullptr, 0);
    EXPECT_EQ(client->will_delay_sec, 3u);
    EXPECT_EQ(client->will_expiry_sec, 4u);
    EXPECT_EQ(client->will_payload_format, 0);
    EXPECT_STREQ(client->will_content_type, "text");
    EXPECT_STREQ(client->will_response_topic, "answer");
    EXPECT_EQ(client->will_correlation_len, 2u);
    zeb::client_set_will_enhance(nullptr, 1, 1, 1, nullptr, nullptr, nullptr, 0);
}

TEST_F(client_will, correlation_data_of_256_bytes_is_ignored) {
    mqtt_client *const client = create(1, "c");
    zeb::client_set_will_enhance(client, 0, 0, 0, "", "", bytes(255, 1).data(), 255);
    zeb::client_set_will_enhance(client, 0, 0, 0, "", "", bytes(256, 2).data(), 256);
    EXPECT_EQ(client->will_correlation_len, 255u);
    EXPECT_EQ(client->will_correlation_data[0], 1);
}

TEST_F(client_will, a_delayed_will_is_published_when_it_is_due) {
    mqtt_client *const listener = create(1, "listener");
    ASSERT_EQ(zeb::sub_add("listener", "will/t", 0, 1), 0);
    lose(2, "c");
    EXPECT_EQ(g_will_delay_client_count, 1);
    clock.advance_ms(4999);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 0u);
    clock.advance_ms(1);
    log_capture log;
    zeb::client_will_delay_scan();
    EXPECT_TRUE(log.has("WARN", "[WILL] 延迟结束，发送并清理 client=c"));
    EXPECT_EQ(published(), 1u);
    EXPECT_EQ(queued(listener), 1);
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_EQ(used_records(), 1);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 1u);
}

TEST_F(client_will, the_scan_looks_at_closing_records_only) {
    mqtt_client *const client = create(1, "c");
    give_will(client);
    client->will_delay_pending = 1;
    clock.advance_ms(100000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 0u);
    EXPECT_EQ(client->state, zeb::LOGINED);
}

TEST_F(client_will, a_record_whose_will_went_out_at_once_is_released_by_the_scan) {
    mqtt_client *const client = create(1, "c");
    give_will(client);
    zeb::client_close(client);
    EXPECT_EQ(used_records(), 1);
    EXPECT_EQ(g_will_delay_client_count, 1);
    zeb::client_will_delay_scan();
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_EQ(published(), 1u);
}

TEST_F(client_will, wills_without_delay_do_not_use_the_pool_up) {
    start(100);
    for (int round = 0; round < 300; ++round) {
        mqtt_client *const client = create(static_cast<uint32_t>(round), "c");
        ASSERT_NE(client, nullptr) << round;
        give_will(client);
        zeb::client_close(client);
        if (used_records() == 100) zeb::client_will_delay_scan();
    }
    EXPECT_EQ(published(), 300u);
}

TEST_F(client_will, a_pending_will_that_is_done_waits_for_the_forced_end) {
    mqtt_client *const client = lose(1, "c");
    client->will_done = 1;
    clock.advance_ms(5000 + 30000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(client->state, zeb::CLOSING) << "30 s overdue, not more";
    clock.advance_ms(1);
    log_capture log;
    zeb::client_will_delay_scan();
    EXPECT_TRUE(log.has("WARN", "[WILL] 超时30s强制清理 client=c"));
    EXPECT_EQ(published(), 0u);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
}

TEST_F(client_will, a_will_more_than_30_s_overdue_is_dropped) {
    lose(1, "c");
    clock.advance_ms(5000 + 30001);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 0u);
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_will, a_client_that_is_back_in_time_gets_no_will_published) {
    lose(1, "c");
    lose(2, "other");
    mqtt_client *const back = create(3, "c");
    zeb::packet_cancel_will(back);
    zeb::client_will_delay_scan();
    EXPECT_EQ(used_records(), 2) << "the earlier record of c is gone";
    EXPECT_EQ(g_will_delay_client_count, 1);
    clock.advance_ms(5000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 1u) << "the will of the other one";
    EXPECT_EQ(zeb::client_find_by_cid("c"), back);
}

TEST_F(client_will, finishing_a_will_leaves_a_successors_slots_alone) {
    lose(5, "c");
    mqtt_client *const by_name = create(6, "c");
    mqtt_client *const by_handle = create(11005, "x");
    clock.advance_ms(5000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 1u);
    EXPECT_EQ(zeb::client_find_by_cid("c"), by_name);
    EXPECT_EQ(zeb::client_find_by_handle(11005), by_handle);
}

TEST_F(client_will, a_record_that_somebody_holds_is_finished_and_released_later) {
    mqtt_client *const client = lose(1, "c");
    zeb::client_ref held(client);
    clock.advance_ms(5000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 1u);
    EXPECT_EQ(client->state, zeb::CLOSED);
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_EQ(used_records(), 1);
    held.reset();
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_will, the_scan_waits_for_a_close_that_is_under_way) {
    mqtt_client *const client = lose(1, "c");
    client->closing = 1;
    clock.advance_ms(5000);
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 0u);
    client->closing = 0;
    zeb::client_will_delay_scan();
    EXPECT_EQ(published(), 1u);
}

}  // namespace
