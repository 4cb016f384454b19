// The close path: session, will decision, tables, network, pool.
#include "packet/packet_handler.h"
#include "tests/client/client_fixture.h"
#include "tests/client/persist_spy.h"

namespace {

using zeb::g_client_mgr;
using zeb::g_will_delay_client_count;
using zeb_test::client_test;
using zeb_test::g_persist_spy;
using zeb_test::log_capture;
using zeb_test::mqtt_client;
using zeb_test::recorder;
using zeb_test::running_netip;
using zeb_test::tcp_client;

class client_close : public client_test {
  protected:
    void SetUp() override {
        client_test::SetUp();
        g_persist_spy = {};
    }

    recorder events;
};

TEST_F(client_close, nobody_and_a_closed_record_are_only_logged) {
    mqtt_client *const client = create(1, "c");
    client->state = zeb::CLOSED;
    log_capture log;
    zeb::client_close(nullptr);
    zeb::client_close(client);
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][关闭客户端] 客户端为空，跳过"));
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][关闭客户端] ClientID=c, 状态已关闭，跳过"));
    EXPECT_EQ(log.text().find("[FREE-NORMAL]"), std::string::npos);
    EXPECT_EQ(used_records(), 1);
}

TEST_F(client_close, a_normal_close_frees_the_record_and_both_slots) {
    mqtt_client *const client = create(1, "c");
    log_capture log;
    zeb::client_close(client);
    EXPECT_TRUE(log.has("DEBUG", "[MQTT5] Client close: max_packet_size=4096, client=c"));
    EXPECT_TRUE(log.has("WARN", "[FREE-NORMAL] 客户端正常关闭: c"));
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][客户端关闭完成] ClientID=c, 状态改为CLOSED"));
    EXPECT_EQ(client->state, zeb::CLOSED);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(g_client_mgr.by_handle[1], nullptr);
    EXPECT_EQ(g_client_mgr.by_cid[zeb::client_cid_hash("c") % zeb::CLIENT_MAX], nullptr);
    zeb::client_close(client);
    EXPECT_EQ(used_records(), 0);
}

TEST_F(client_close, the_connection_ends_with_its_client) {
    const running_netip net(events);
    tcp_client peer;
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT)[0].handle;
    zeb::client_close(create(handle, "c"));
    EXPECT_TRUE(peer.at_end());
    EXPECT_FALSE(zeb_test::is_in_use(handle));
}

TEST_F(client_close, the_handle_keeps_its_client_until_the_network_has_let_go) {
    mqtt_client *in_slot = nullptr;
    bool let_go = false;
    events.set_hook([&](const zeb_test::event &e) {
        if (e.kind == zeb::NETIP_EVENT_DISCONNECT) {
            in_slot = g_client_mgr.by_handle[e.handle];
            let_go = !zeb_test::is_in_use(e.handle);
        }
        return 1;
    });
    const running_netip net(events);
    tcp_client peer;
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT)[0].handle;
    mqtt_client *const client = create(handle, "c");
    zeb::client_close(client);
    EXPECT_EQ(in_slot, client);
    EXPECT_TRUE(let_go);
    EXPECT_EQ(g_client_mgr.by_handle[handle], nullptr);
}

TEST_F(client_close, a_closing_client_is_not_taken_for_the_next_connection_of_its_handle) {
    const running_netip net(events);
    tcp_client peer;
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT)[0].handle;
    mqtt_client *const client = create(handle, "c");
    zeb::client_enter_closing(client);
    EXPECT_EQ(zeb::client_find_by_handle(handle), client) << "packets under way are still its own";
    zeb::netip_close(handle);
    EXPECT_EQ(zeb::client_find_by_handle(handle), nullptr);
}

TEST_F(client_close, the_network_finds_the_client_of_a_connection_that_it_ends_itself) {
    mqtt_client *found = nullptr;
    events.set_hook([&](const zeb_test::event &e) {
        if (e.kind == zeb::NETIP_EVENT_DISCONNECT) found = zeb::client_find_by_handle(e.handle);
        return 1;
    });
    const running_netip net(events);
    tcp_client peer;
    ASSERT_TRUE(events.wait_connects(1));
    mqtt_client *const client = create(events.events(zeb::NETIP_EVENT_CONNECT)[0].handle, "c");
    zeb::netip_deinit();
    EXPECT_EQ(found, client) << "its will depends on it";
}

TEST_F(client_close, an_older_connection_leaves_its_successors_slots_alone) {
    mqtt_client *const older = create(5, "same");
    mqtt_client *const newer = create(11005, "same");
    zeb::client_close(older);
    EXPECT_EQ(zeb::client_find_by_cid("same"), newer);
    EXPECT_EQ(zeb::client_find_by_handle(11005), newer);
}

TEST_F(client_close, a_session_with_an_interval_gets_a_deadline_and_is_saved) {
    mqtt_client *const client = create(1, "c");
    client->clean_session = 0;
    client->session_expiry_interval = 300;
    give_will(client, "w", 10);  // keeps the record, so that the deadline can be seen
    log_capture log;
    zeb::client_close(client);
    const uint64_t deadline = clock.wall_sec() + 300;
    EXPECT_EQ(client->session_expiry_deadline, deadline);
    EXPECT_EQ(g_persist_spy.marked, std::vector<int>{zeb::PERSIST_SESSION});
    EXPECT_TRUE(g_persist_spy.removed.empty());
    EXPECT_TRUE(log.has("INFO", "[MQTT5] 会话已设置过期: c, 剩余=300秒, 截止=" + std::to_string(deadline)));
}

TEST_F(client_close, a_session_without_an_interval_is_removed) {
    mqtt_client *const client = create(1, "c");
    client->clean_session = 0;
    log_capture log;
    zeb::client_close(client);
    EXPECT_EQ(g_persist_spy.removed, std::vector<std::string>{"c"});
    EXPECT_TRUE(g_persist_spy.marked.empty());
    EXPECT_TRUE(log.has("INFO", "[MQTT5] 会话立即删除(expiry=0): c"));
}

TEST_F(client_close, clean_sessions_and_those_settled_by_disconnect_are_left_alone) {
    mqtt_client *const clean = create(1, "clean");
    mqtt_client *const gone = create(2, "gone");
    gone->clean_session = 0;
    gone->disconnect_received = 1;
    zeb::client_close(clean);
    zeb::client_close(gone);
    EXPECT_TRUE(g_persist_spy.removed.empty());
    EXPECT_TRUE(g_persist_spy.marked.empty());
}

TEST_F(client_close, the_files_of_a_successor_are_left_alone) {
    mqtt_client *const without = create(1, "same");
    mqtt_client *const lasting = create(2, "same");
    mqtt_client *const newest = create(3, "same");
    for (mqtt_client *client : {without, lasting, newest}) client->clean_session = 0;
    lasting->session_expiry_interval = 300;
    log_capture log;
    zeb::client_close(without);
    zeb::client_close(lasting);
    EXPECT_TRUE(g_persist_spy.removed.empty());
    EXPECT_TRUE(g_persist_spy.marked.empty());
    zeb::client_close(newest);
    EXPECT_EQ(g_persist_spy.removed, std::vector<std::string>{"same"});
    const uint64_t deadline = clock.wall_sec() + 300;
    EXPECT_TRUE(
        log.has("INFO", "[MQTT5] 会话已设置过期: same, 剩余=300秒, 截止=" + std::to_string(deadline)));
}

TEST_F(client_close, after_disconnect_the_will_goes_with_its_client) {
    mqtt_client *const client = create(1, "c");
    give_will(client);
    client->disconnect_received = 1;
    zeb::client_close(client);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(g_will_delay_client_count, 0);
    EXPECT_EQ(zeb::g_mqtt_stats.will_sent, 0u);
}

TEST_F(client_close, a_lost_connection_publishes_its_will) {
    mqtt_client *const listener = create(1, "listener");
    ASSERT_EQ(zeb::sub_add("listener", "will/t", 0, 1), 0);
    mqtt_client *const client = create(2, "c");
    give_will(client);
    log_capture log;
    zeb::client_close(client);
    EXPECT_TRUE(log.has("INFO", "[遗嘱调试][异常断开] ClientID=c, 未发送DISCONNECT报文，强制触发遗嘱发送"));
    EXPECT_TRUE(log.has("WARN", "[WILL-ENTER] 客户端进入遗嘱延迟: c, will_delay_sec=0"));
    EXPECT_TRUE(log.has("DEBUG", "[遗嘱调试][延迟释放客户端] ClientID=c，等待遗嘱发送完成后再释放"));
    ASSERT_EQ(queued(listener), 1);
    EXPECT_EQ(zeb_test::dump(packet(listener, 0)),
              zeb_test::dump(zeb_test::hex("30 0C 00 06 'will/t' FF 'bye'")));
    EXPECT_EQ(zeb::g_mqtt_stats.will_sent, 1u);
    EXPECT_EQ(client->state, zeb::CLOSING);
    EXPECT_EQ(zeb::client_find_by_cid("c"), nullptr);
    EXPECT_EQ(zeb::client_find_by_handle(2), nullptr);
    EXPECT_EQ(g_will_delay_client_count, 1);
}

TEST_F(client_close, a_timed_out_client_has_its_will_published_whatever_it_sent) {
    mqtt_client *const silent = create(1, "silent");
    mqtt_client *const polite = create(2, "polite");
    for (mqtt_client *client : {silent, polite}) {
        give_will(client, "w", 5);
        client->timed_out = 1;
    }
    polite->disconnect_received = 1;
    log_capture log;
    zeb::client_close(silent);
    EXPECT_EQ(g_will_delay_client_count, 1);
    zeb::client_close(polite);
    EXPECT_EQ(g_will_delay_client_count, 2);
    EXPECT_EQ(silent->state, zeb::CLOSING);
    EXPECT_EQ(silent->will_delay_pending, 1);
    EXPECT_EQ(polite->will_delay_pending, 1);
    EXPECT_EQ(log.text().find("[异常断开]"), std::string::npos);
}

TEST_F(client_close, a_will_that_is_done_is_not_published_again) {
    mqtt_client *const client = create(1, "c");
    give_will(client);
    client->will_done = 1;
    zeb::client_close(client);
    EXPECT_EQ(used_records(), 0);
    EXPECT_EQ(zeb::g_mqtt_stats.will_sent, 0u);
}

TEST_F(client_close, closing_a_record_that_waits_for_its_will_counts_it_once) {
    mqtt_client *const client = create(1, "c");
    give_will(client, "w", 5);
    zeb::client_close(client);
    log_capture log;
    zeb::client_close(client);
    EXPECT_TRUE(log.has("WARN", "[WILL-ENTER] 客户端进入遗嘱延迟: c, will_delay_sec=5"))
        << "a closing record is not skipped";
    EXPECT_EQ(g_will_delay_client_count, 1);
    EXPECT_EQ(client->state, zeb::CLOSING);
    EXPECT_EQ(used_records(), 1);
}

TEST_F(client_close, closing_again_does_not_end_the_connection_that_has_the_handle_now) {
    const running_netip net(events);
    tcp_client first;
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT)[0].handle;
    mqtt_client *const client = create(handle, "c");
    give_will(client, "w", 5);
    zeb::client_close(client);
    ASSERT_TRUE(first.at_end());

    ASSERT_EQ(zeb_test::next_free_handle_from(handle), static_cast<int>(handle));
    {
        std::lock_guard guard(zeb::g_netip_lock);
        zeb::g_last_handle = handle;
    }
    tcp_client second;
    ASSERT_TRUE(events.wait_connects(2));
    ASSERT_EQ(events.events(zeb::NETIP_EVENT_CONNECT)[1].handle, handle);
    zeb::client_close(client);
    EXPECT_TRUE(zeb_test::is_in_use(handle));
    EXPECT_EQ(events.count(zeb::NETIP_EVENT_DISCONNECT), 1u);
}

TEST_F(client_close, a_close_that_was_overtaken_does_not_end_the_next_connection) {
    const running_netip net(events);
    tcp_client first;
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT)[0].handle;
    mqtt_client *const client = create(handle, "c");
    zeb::netip_close(handle);  // the peer went first, while somebody was about to close the client
    {
        std::lock_guard guard(zeb::g_netip_lock);
        zeb::g_last_handle = handle;
    }
    tcp_client second;
    ASSERT_TRUE(events.wait_connects(2));
    ASSERT_EQ(events.events(zeb::NETIP_EVENT_CONNECT)[1].handle, handle);
    zeb::client_close(client);
    EXPECT_TRUE(zeb_test::is_in_use(handle));
}

TEST_F(client_close, whoever_comes_second_only_stops_the_sending) {
    mqtt_client *const client = create(1, "c");
    client->closing = 1;  // another thread is on its way through
    zeb::client_close(client);
    EXPECT_EQ(client->state, zeb::CLOSING);
    EXPECT_EQ(used_records(), 1) << "the first one releases it";
    EXPECT_EQ(zeb::client_find_by_cid("c"), client);
}

TEST_F(client_close, subscriptions_of_a_clean_session_go_with_their_client) {
    mqtt_client *const client = create(1, "c");
    ASSERT_EQ(zeb::sub_add("c", "a/b", 1, 1), 0);
    ASSERT_EQ(zeb::sub_add("other", "a/b", 1, 1), 0);
    zeb::client_close(client);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 0);
    EXPECT_EQ(zeb::sub_get_client_sub_count("other"), 1);
}

TEST_F(client_close, subscriptions_go_also_when_a_will_keeps_the_record) {
    mqtt_client *const client = create(1, "c");
    give_will(client, "w", 5);
    ASSERT_EQ(zeb::sub_add("c", "a/b", 1, 1), 0);
    zeb::client_close(client);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 0);
}

TEST_F(client_close, subscriptions_of_a_persistent_session_stay) {
    mqtt_client *const client = create(1, "c");
    client->clean_session = 0;
    ASSERT_EQ(zeb::sub_add("c", "a/b", 1, 0), 0);
    zeb::client_close(client);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 1);
}

TEST_F(client_close, subscriptions_stay_with_a_newer_connection_of_the_identifier) {
    mqtt_client *const older = create(1, "c");
    create(2, "c");
    ASSERT_EQ(zeb::sub_add("c", "a/b", 1, 1), 0);
    zeb::client_close(older);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 1);
}

TEST_F(client_close, subscriptions_that_the_packet_handler_has_settled_are_not_touched) {
    mqtt_client *const client = create(1, "c");
    client->subs_settled = 1;
    ASSERT_EQ(zeb::sub_add("c", "a/b", 1, 1), 0);
    zeb::client_close(client);
    EXPECT_EQ(zeb::sub_get_client_sub_count("c"), 1);
}

}  // namespace
