// Keep-alive and session expiry.
#include "tests/client/client_fixture.h"

namespace {

using zeb_test::client_test;
using zeb_test::log_capture;
using zeb_test::mqtt_client;
using zeb_test::numbered;
using zeb_test::recorder;
using zeb_test::running_netip;

constexpr uint32_t k_default_ms = 300000;

class client_timeout : public client_test {
  protected:
    void SetUp() override {
        client_test::SetUp();
        start(1000);  // ten blocks: each is visited once in a pass
    }
    static int scan() { return zeb::client_clean_timeout(k_default_ms); }
    static uint32_t counted() { return zeb::g_mqtt_stats.timeout.load(); }
};

TEST_F(client_timeout, a_client_is_closed_after_one_and_a_half_times_its_keepalive) {
    mqtt_client *const client = create(1, "c");
    zeb::client_set_keepalive(client, 60);
    clock.advance_ms(89999);
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(client->timed_out, 0);
    clock.advance_ms(1);
    log_capture log;
    EXPECT_EQ(scan(), 1);
    EXPECT_EQ(counted(), 1u);
    EXPECT_EQ(used_records(), 0);
    EXPECT_TRUE(log.has("WARN", "[超时待关闭] 加入关闭列表 → cid=c | 不活跃90000 ms"));
    EXPECT_TRUE(log.has("DEBUG", "[超时计算] cid=c | 不活跃=90000 ms | 阈值=90000 ms | 已超时? 是"));
    EXPECT_TRUE(log.has("DEBUG", "[超时清理] 本次扫描完成，待关闭客户端数量 = 1"));
    EXPECT_TRUE(log.has("WARN", "[超时执行关闭] 真实关闭 → cid=c, state=2, handle=0x1"));
    EXPECT_TRUE(log.has("WARN", "[超时完成] 客户端已关闭 → cid=c"));
    EXPECT_TRUE(log.has("INFO", "[超时清理] 本次成功清理 1 个超时客户端"));
}

TEST_F(client_timeout, asking_for_no_keepalive_means_sixty_seconds) {
    mqtt_client *const client = create(0x1F, "c");
    {
        log_capture log;
        zeb::client_set_keepalive(client, 0);
        EXPECT_TRUE(log.has("DEBUG",
                            "client_set_keepalive: handle=0x0000001F, cid=c, "
                            "keepalive=60秒（超时阈值=90秒）"));
    }
    EXPECT_EQ(client->keepalive, 60000u);
    clock.advance_ms(89999);
    EXPECT_EQ(scan(), 0);
    clock.advance_ms(1);
    EXPECT_EQ(scan(), 1);
}

TEST_F(client_timeout, setting_the_keepalive_counts_as_activity) {
    mqtt_client *const client = create(1, "c");
    clock.advance_ms(5000);
    zeb::client_set_keepalive(client, 65535);
    EXPECT_EQ(client->keepalive, 65535000u);
    EXPECT_EQ(client->last_active, clock.mono_ms());
}

TEST_F(client_timeout, the_keepalive_of_no_client_is_refused) {
    mqtt_client *const client = create(0xAB);
    client->state = zeb::CLOSED;
    mqtt_client *const freed = create(0xAC);
    freed->handle = zeb::NETIP_HANDLE_NONE;
    log_capture log;
    zeb::client_set_keepalive(nullptr, 10);
    zeb::client_set_keepalive(client, 10);
    zeb::client_set_keepalive(freed, 10);
    EXPECT_TRUE(log.has("ERROR", "client_set_keepalive: 无效客户端实例（handle=0xFFFFFFFF, state=0）"));
    EXPECT_TRUE(log.has("ERROR", "client_set_keepalive: 无效客户端实例（handle=0x000000AB, state=4）"));
    EXPECT_TRUE(log.has("ERROR", "client_set_keepalive: 无效客户端实例（handle=0xFFFFFFFF, state=1）"));
    EXPECT_EQ(client->keepalive, 0u);
    EXPECT_EQ(freed->keepalive, 0u);
}

TEST_F(client_timeout, before_connect_the_brokers_own_limit_holds) {
    create(1);
    clock.advance_ms(k_default_ms - 1);
    EXPECT_EQ(scan(), 0);
    clock.advance_ms(1);
    log_capture log;
    EXPECT_EQ(scan(), 1);
    EXPECT_TRUE(log.has("DEBUG", "[超时计算] cid=空ID | 不活跃=300000 ms | 阈值=300000 ms | 已超时? 是"));
}

TEST_F(client_timeout, the_threshold_is_computed_in_32_bits) {
    create(1, "c")->keepalive = 0x60000000;  // times three: 0x20000000 is left
    clock.advance_ms(0x10000000 - 1);
    EXPECT_EQ(scan(), 0);
    clock.advance_ms(1);
    EXPECT_EQ(scan(), 1);
}

TEST_F(client_timeout, who_was_active_after_the_pass_began_is_not_silent) {
    mqtt_client *const client = create(1, "c");
    client->last_active = clock.mono_ms() + 1;
    EXPECT_EQ(scan(), 0);
    EXPECT_EQ(client->state, zeb::LOGINED);
}

TEST_F(client_timeout, clients_that_are_not_online_are_skipped) {
    mqtt_client *const client = create(0x7, "c");
    zeb::client_set_keepalive(client, 1);
    client->state = zeb::CLOSING;
    clock.advance_ms(100000);
    log_capture log;
    EXPECT_EQ(scan(), 0);
    EXPECT_TRUE(log.has("DEBUG", "[超时跳过] cid=c | 状态不是在线状态(state=3)"));
    EXPECT_TRUE(log.has("DEBUG",
                        "[超时扫描-详细] block=0, idx=0 | used=1 | state=3 | cid=c | handle=0x7 | "
                        "last_active=1000000 | keepalive=1000"));
    EXPECT_TRUE(log.has("DEBUG", "[超时扫描] block=1 无客户端，跳过"));
    EXPECT_TRUE(log.has("DEBUG", "[超时清理] 本次扫描完成，待关闭客户端数量 = 0"));
    EXPECT_TRUE(log.has("DEBUG", "[超时清理] 本次无客户端需要清理"));
}

TEST_F(client_timeout, with_one_block_a_silent_client_counts_ten_times) {
    start(100);
    create(1, "c");
    clock.advance_ms(k_default_ms);
    log_capture log;
    EXPECT_EQ(scan(), 10);
    EXPECT_EQ(counted(), 10u);
    EXPECT_EQ(used_records(), 0);
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][关闭客户端] ClientID=, 状态已关闭，跳过"));
    EXPECT_TRUE(log.has("WARN", "[超时执行关闭] 真实关闭 → cid=, state=4, handle=0xffffffff"));
    EXPECT_TRUE(log.has("INFO", "[超时清理] 本次成功清理 10 个超时客户端"));
}

TEST_F(client_timeout, with_one_block_a_will_is_still_published_once) {
    start(100);
    mqtt_client *const client = create(1, "c");
    give_will(client);
    clock.advance_ms(k_default_ms);
    EXPECT_EQ(scan(), 10);
    EXPECT_EQ(zeb::g_mqtt_stats.will_sent, 1u);
    EXPECT_EQ(zeb::g_will_delay_client_count, 0) << "the second close found the will done and released it";
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_timeout, a_record_that_serves_another_by_now_is_not_closed_again) {
    start(100);
    mqtt_client *const first = create(1, "first");
    mqtt_client *next = nullptr;
    // While the second client is closed a new one takes the first one's record; nine more entries of the list
    // name that record.
    recorder events([&](const zeb_test::event &e) {
        if (e.kind == zeb::NETIP_EVENT_DISCONNECT && next == nullptr) next = create(77, "next");
        return 1;
    });
    const running_netip net(events);
    zeb_test::tcp_client peer;
    ASSERT_TRUE(events.wait_connects(1));
    create(events.events(zeb::NETIP_EVENT_CONNECT)[0].handle, "second");
    clock.advance_ms(k_default_ms);
    EXPECT_EQ(scan(), 20) << "each entry counts";
    ASSERT_EQ(next, first);
    EXPECT_EQ(next->state, zeb::LOGINED);
    EXPECT_EQ(zeb::client_find_by_cid("next"), next);
    EXPECT_EQ(used_records(), 1);
}

TEST_F(client_timeout, one_pass_closes_256_clients_at_most) {
    for (uint32_t i = 0; i < 300; ++i) create(i, numbered("c", static_cast<int>(i)).c_str());
    clock.advance_ms(k_default_ms);
    EXPECT_EQ(scan(), 256);
    EXPECT_EQ(used_records(), 44);
    EXPECT_EQ(scan(), 44);
    EXPECT_EQ(counted(), 300u);
}

TEST_F(client_timeout, a_large_table_is_covered_over_several_passes) {
    start(100);
    ASSERT_EQ(scan(), 0);  // leaves the cursor behind the only block
    start(1100);
    for (uint32_t i = 0; i < 1100; ++i) ASSERT_NE(create(i), nullptr);
    clock.advance_ms(k_default_ms);
    for (uint32_t i = 1; i < 1100; ++i) zeb::client_find_by_handle(i)->last_active = clock.mono_ms();
    EXPECT_EQ(scan(), 0) << "blocks 1 to 10";
    log_capture log;
    EXPECT_EQ(scan(), 1) << "blocks 0 to 9";
    EXPECT_TRUE(log.has("DEBUG", "[超时清理] 开始扫描 | 当前时间 ms = " + std::to_string(clock.mono_ms()) +
                                     " | 扫描块起点 = 11"));
}

TEST_F(client_timeout, without_a_manager_nothing_is_scanned) {
    zeb::client_mgr_deinit();
    EXPECT_EQ(scan(), 0);
}

TEST_F(client_timeout, sessions_past_their_deadline_are_removed_and_records_left_alone) {
    mqtt_client *const past = create(1, "past");
    mqtt_client *const now = create(2, "now");
    create(3, "none");
    const uint64_t wall = clock.wall_sec();
    past->session_expiry_deadline = wall - 1;
    now->session_expiry_deadline = wall;
    log_capture log;
    zeb::client_clean_expired_sessions();
    EXPECT_TRUE(log.has("INFO", "[MQTT5] 开始清理过期会话..."));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] 清理过期会话: past (deadline=" + std::to_string(wall - 1) + ")"));
    EXPECT_TRUE(log.has("INFO", "[MQTT5] 过期会话清理完成"));
    EXPECT_EQ(log.text().find("now"), std::string::npos);
    EXPECT_EQ(log.text().find("none"), std::string::npos);
    EXPECT_EQ(past->session_expiry_deadline, wall - 1);
    EXPECT_EQ(past->state, zeb::LOGINED);
}

}  // namespace
