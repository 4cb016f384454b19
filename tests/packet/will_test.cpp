// Publishing a will, and starting and cancelling its delay.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;

class packet_will : public packet_fixture {
  protected:
    mqtt_client *watcher(int qos = 0, int level = 4) {
        mqtt_client *client = join("watcher" + std::to_string(level), level);
        subscribe(client, "will/#", qos);
        return client;
    }
    mqtt_client *owner(int level = 4, int qos = 0, bool retain = false, const char *payload = "gone",
                       bool clean = true) {
        connect_options o;
        o.level = static_cast<uint8_t>(level);
        if (level == 5) o.properties = hex("27 00 00 10 00");
        o.clean = clean;
        o.will = true;
        o.will_qos = static_cast<uint8_t>(qos);
        o.will_retain = retain;
        o.will_payload = payload;
        return join("owner", o);
    }
};

TEST_F(packet_will, a_will_is_sent_once_and_reported) {
    mqtt_client *w = watcher();
    mqtt_client *o = owner();
    log_capture log;
    EXPECT_EQ(0, zeb::packet_send_will_message(o));
    EXPECT_EQ(-1, zeb::packet_send_will_message(o));
    EXPECT_EQ(just("30 0C 00 06 'will/t' 'gone'"), sent(w));
    EXPECT_EQ(1, o->will_done.load());
    EXPECT_EQ(0, o->session.will_flag);
    EXPECT_EQ(1u, zeb::g_mqtt_stats.will_sent.load());
    EXPECT_EQ(texts({"event 5 {\"clientId\":\"owner\",\"topic\":\"will/t\",\"qos\":0}"}), app().heard);
    EXPECT_TRUE(in_order(
        log.text(),
        {"[INFO] [WILL] Send will message: client=owner\n",
         "[INFO] [WILL] Topic: will/t, QoS: 0, Retain: 0, PayloadLen: 4\n", "[DEBUG] [WILL] Payload\n",
         "[INFO] [WILL] 编码成功 | len=14 | 开始广播\n", "[INFO] [WILL] 广播完成 | will_sent=1\n"}));
}

TEST_F(packet_will, nobody_and_a_client_without_will_send_none) {
    EXPECT_EQ(-1, zeb::packet_send_will_message(nullptr));
    EXPECT_EQ(-1, zeb::packet_send_will_message(join("x")));
    EXPECT_EQ(0u, zeb::g_mqtt_stats.will_sent.load());
}

TEST_F(packet_will, a_will_with_retain_is_forwarded_with_retain_and_not_stored) {
    mqtt_client *w = watcher(1);
    mqtt_client *o = owner(4, 2, true);
    seed(15);
    id_oracle ids(15);
    (void)ids.draw();  // the will's own identifier takes one draw
    EXPECT_EQ(0, zeb::packet_send_will_message(o));
    const uint16_t id = ids.next();
    EXPECT_EQ(dumped({publish_packet("will/t", "gone", 1, id, 1)}), sent(w));
    EXPECT_EQ(id, w->last_qos1_msg_id.load());
    EXPECT_EQ(0, zeb::g_sub_mgr.retain_count.load());
}

TEST_F(packet_will, a_level_5_will_shows_its_property_section_to_level_4_subscribers) {
    mqtt_client *four = watcher(0, 4);
    mqtt_client *five = watcher(0, 5);
    EXPECT_EQ(0, zeb::packet_send_will_message(owner(5)));
    EXPECT_EQ(just("30 0D 00 06 'will/t' 00 'gone'"), sent(four));
    EXPECT_EQ(just("30 0D 00 06 'will/t' 00 'gone'"), sent(five));
}

TEST_F(packet_will, a_level_5_subscriber_reads_the_head_of_a_level_4_will_as_properties) {
    mqtt_client *five = watcher(0, 5);
    EXPECT_EQ(0, zeb::packet_send_will_message(owner(4, 0, false,
                                                     "\x01"
                                                     "Agone")));
    EXPECT_EQ(just("30 0D 00 06 'will/t' 00 'gone'"), sent(five));
}

TEST_F(packet_will, a_will_of_two_length_bytes_reaches_nobody_and_counts_as_sent) {
    mqtt_client *w = watcher();
    mqtt_client *o = owner(4, 0, false, std::string(200, 'w').c_str());
    log_capture log;
    EXPECT_EQ(0, zeb::packet_send_will_message(o));
    EXPECT_EQ(texts(), sent(w));
    EXPECT_NE(std::string::npos, log.text().find("[遗嘱调试][广播失败] Topic越界：topic_len=256"));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.will_sent.load());
}

TEST_F(packet_will, a_will_that_cannot_be_encoded_is_not_sent_and_may_be_tried_again) {
    mqtt_client *o = owner();
    const bytes big(2048, 'x');
    zeb::client_set_will_msg(o, std::string(100, 't').c_str(), big.data(), 2048, 0, 0);
    log_capture log;
    EXPECT_EQ(-1, zeb::packet_send_will_message(o));
    EXPECT_TRUE(log.has("ERROR", "[WILL] 编码失败 | code=-3 | len=4096"));
    EXPECT_EQ(0, o->will_done.load());
    EXPECT_EQ(0u, zeb::g_mqtt_stats.will_sent.load());
}

TEST_F(packet_will, a_will_also_reaches_its_own_client_when_it_is_still_there) {
    mqtt_client *o = owner();
    subscribe(o, "will/t", 0);
    EXPECT_EQ(0, zeb::packet_send_will_message(o));
    EXPECT_EQ(1u, sent(o).size());
}

TEST_F(packet_will, starting_without_delay_sends_at_once) {
    mqtt_client *w = watcher();
    mqtt_client *o = owner();
    log_capture log;
    zeb::packet_start_will_delay(o);
    EXPECT_EQ(1u, sent(w).size());
    EXPECT_TRUE(
        in_order(log.text(), {"[INFO] [WILL] 准备启动遗嘱 | client=owner | will_msg_used=1 | will_sent=0\n",
                              "[WILL] 延迟=0 → 立即发送\n", "[INFO] [WILL] Send will message"}));
}

TEST_F(packet_will, starting_with_a_delay_sets_the_deadline) {
    mqtt_client *o = owner();
    o->will_delay_sec.store(10);
    log_capture log;
    zeb::packet_start_will_delay(o);
    EXPECT_EQ(1, o->will_delay_pending.load());
    EXPECT_EQ(clock.mono_ms() + 10000, o->will_delay_deadline.load());
    EXPECT_TRUE(log.has("INFO", "[WILL] 启动延迟成功 | delay=10s"));
    zeb::packet_cancel_will(o);
    EXPECT_EQ(0, o->will_delay_pending.load());
    EXPECT_EQ(1, o->will_msg_used.load());
}

TEST_F(packet_will, the_longest_delay_does_not_overflow) {
    mqtt_client *o = owner();
    o->will_delay_sec.store(UINT32_MAX);
    zeb::packet_start_will_delay(o);
    EXPECT_EQ(clock.mono_ms() + 4294967295000u, o->will_delay_deadline.load());
    zeb::packet_cancel_will(o);
}

TEST_F(packet_will, starting_nothing_is_logged) {
    mqtt_client *o = owner();
    EXPECT_EQ(0, zeb::packet_send_will_message(o));
    log_capture log;
    zeb::packet_start_will_delay(nullptr);
    zeb::packet_start_will_delay(o);
    zeb::packet_start_will_delay(join("x"));
    zeb::packet_cancel_will(nullptr);
    EXPECT_TRUE(log.has("ERROR", "[WILL] 启动失败：client == NULL"));
    EXPECT_TRUE(
        in_order(log.text(), {"[INFO] [WILL] 准备启动遗嘱 | client=owner | will_msg_used=1 | will_sent=1\n",
                              "[WARN] [WILL] 不启动：条件不满足\n",
                              "[INFO] [WILL] 准备启动遗嘱 | client=x | will_msg_used=0 | will_sent=0\n",
                              "[WARN] [WILL] 不启动：条件不满足\n"}));
}

// A level 5 owner whose will waits 10 s, lost a moment ago.
class packet_delayed_will : public packet_will {
  protected:
    static connect_options delayed() {
        connect_options o;
        o.level = 5;
        o.properties = hex("27 00 00 10 00");
        o.will = true;
        o.will_properties = hex("18 00 00 00 0A");
        return o;
    }
    void lose_owner() { zeb::client_close(join("owner", delayed())); }
    texts heard_after(mqtt_client *client, uint64_t ms) {
        clock.advance_ms(ms);
        zeb::client_will_delay_scan();
        return sent(client);
    }
};

TEST_F(packet_delayed_will, an_owner_back_after_5_of_10_s_gets_no_will_published) {
    mqtt_client *watching = watcher();
    lose_owner();
    EXPECT_EQ(texts(), heard_after(watching, 5000));
    (void)join("owner", 5);
    EXPECT_EQ(texts(), heard_after(watching, 5000));
    EXPECT_EQ(texts(), heard_after(watching, 60000));
    EXPECT_EQ(0, zeb::g_will_delay_client_count.load());
}

TEST_F(packet_delayed_will, an_owner_back_after_15_s_had_its_will_published_once_at_10_s) {
    mqtt_client *watching = watcher();
    lose_owner();
    EXPECT_EQ(texts(), heard_after(watching, 9999));
    EXPECT_EQ(1u, heard_after(watching, 1).size());
    EXPECT_EQ(texts(), heard_after(watching, 5000));
    (void)join("owner", 5);
    EXPECT_EQ(texts(), heard_after(watching, 60000));
    EXPECT_EQ(0, zeb::g_will_delay_client_count.load());
}

}  // namespace
