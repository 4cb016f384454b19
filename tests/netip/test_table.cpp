#include "log/platform_time.h"
#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

TEST(netip_table, a_closed_handle_is_not_reused_while_later_ones_are_free) {
    recorder events;
    running_netip netip(events);
    std::vector<tcp_client> clients;
    for (size_t i = 0; i < 10; ++i) {
        clients.emplace_back();
        ASSERT_TRUE(events.wait_connects(i + 1));
    }
    clients[3].close();
    ASSERT_TRUE(events.wait_disconnects(1));
    ASSERT_TRUE(eventually([] { return !is_in_use(3); }));
    tcp_client late;
    ASSERT_TRUE(events.wait_connects(11));

    const std::vector<event> connects = events.events(NETIP_EVENT_CONNECT);
    for (uint32_t i = 0; i < 11; ++i) EXPECT_EQ(i, connects[i].handle);
    EXPECT_EQ(3u, events.events(NETIP_EVENT_DISCONNECT)[0].handle);
}

TEST(netip_table, the_search_wraps_to_the_lowest_free_slot_after_the_last) {
    recorder events;
    running_netip netip(events);
    occupied_slots taken(0, 1);
    EXPECT_EQ(10999, next_free_handle_from(10999));
    EXPECT_EQ(11000u, g_last_handle);
    std::lock_guard guard(g_netip_lock);
    EXPECT_EQ(2, netip_get_free_handle());
    EXPECT_EQ(3u, g_last_handle);
    EXPECT_EQ(3, netip_get_free_handle());
}

TEST(netip_table, a_full_table_gives_no_handle_wherever_the_search_starts) {
    recorder events;
    running_netip netip(events);
    occupied_slots taken(0, NETIP_MAX_CONN - 1);
    for (const uint32_t start : {0u, 1u, 5000u, 10999u, 11000u}) {
        EXPECT_EQ(-1, next_free_handle_from(start));
        EXPECT_EQ(start, g_last_handle);
    }
    g_netip_clients[4999].in_use.store(0);
    EXPECT_EQ(4999, next_free_handle_from(5000));
    g_netip_clients[4999].in_use.store(1);
}

TEST(netip_table, a_slot_is_not_handed_out_before_its_disconnect_has_returned) {
    std::atomic<int> offered{-2};
    recorder events([&](const event &e) {
        if (e.kind == NETIP_EVENT_DISCONNECT) offered = next_free_handle_from(e.handle);
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    netip_close(0);
    EXPECT_EQ(1, offered.load());
    EXPECT_EQ(0, next_free_handle_from(0));
}

TEST(netip_table, a_slot_is_not_handed_out_while_its_packet_is_being_handled) {
    std::atomic<int> offered{-2};
    recorder events([&](const event &e) {
        if (e.kind != NETIP_EVENT_DATA) return 1;
        netip_close(e.handle);
        offered = next_free_handle_from(e.handle);
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(client.send("C0 00"));
    ASSERT_TRUE(client.at_end());
    ASSERT_TRUE(eventually([&] { return offered.load() != -2; }));
    EXPECT_EQ(1, offered.load());
    EXPECT_TRUE(eventually([] { return next_free_handle_from(0) == 0; }));
}

TEST(netip_table, getters_describe_a_connection) {
    recorder events;
    running_netip netip(events);
    const uint64_t before = platform_wall_ms();
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    char ip[64];
    memset(ip, 'x', sizeof ip);
    EXPECT_EQ(1, netip_get_client_ip(0, ip, sizeof ip));
    EXPECT_STREQ("127.0.0.1", ip);
    EXPECT_EQ(client.port(), netip_get_client_port(0));
    EXPECT_LE(before, netip_get_client_last_active(0));
    EXPECT_GE(platform_wall_ms(), netip_get_client_last_active(0));
    EXPECT_EQ(0u, g_netip_clients[0].handle);
    EXPECT_EQ(static_cast<uint32_t>(NETIP_TYPE_TCP), g_netip_clients[0].type);
}

TEST(netip_table, getters_work_inside_the_connect_callback) {
    std::string seen;
    int port = 0;
    std::atomic<bool> asked{false};
    recorder events([&](const event &e) {
        char ip[64];
        if (e.kind != NETIP_EVENT_CONNECT) return 1;
        EXPECT_EQ(1, netip_get_client_ip(e.handle, ip, sizeof ip));
        seen = ip;
        port = netip_get_client_port(e.handle);
        EXPECT_NE(0u, netip_get_client_last_active(e.handle));
        asked = true;
        return 1;
    });
    uint16_t expected = 0;
    {
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(eventually([&] { return asked.load(); }));
        expected = client.port();
    }
    EXPECT_EQ("127.0.0.1", seen);
    EXPECT_EQ(expected, port);
}

TEST(netip_table, getters_answer_zero_for_handles_not_in_use) {
    recorder events;
    running_netip netip(events);
    for (const netip_handle h : {0u, 10999u, 11000u, NETIP_HANDLE_NONE}) {
        char ip[20];
        memset(ip, 'x', sizeof ip);
        EXPECT_EQ(0, netip_get_client_ip(h, ip, sizeof ip));
        EXPECT_EQ(std::string(sizeof ip, '\0'), std::string(ip, sizeof ip));
        EXPECT_EQ(0, netip_get_client_port(h));
        EXPECT_EQ(0u, netip_get_client_last_active(h));
        EXPECT_EQ(0, netip_set_tcp_keepalive(h, 1, 1, 1));
        EXPECT_FALSE(netip_send_blocked(h));
    }
}

TEST(netip_table, an_address_buffer_below_16_bytes_is_refused_untouched) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    char ip[17];
    memset(ip, 'x', sizeof ip);
    EXPECT_EQ(0, netip_get_client_ip(0, ip, 15));
    EXPECT_EQ(std::string(sizeof ip, 'x'), std::string(ip, sizeof ip));
    EXPECT_EQ(0, netip_get_client_ip(0, nullptr, 64));
    EXPECT_EQ(1, netip_get_client_ip(0, ip, 16));
    EXPECT_STREQ("127.0.0.1", ip);
    EXPECT_EQ('x', ip[16]);
}

TEST(netip_table, an_address_text_is_cut_to_the_buffer_and_terminated) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    memset(g_netip_clients[0].ip, 'y', sizeof g_netip_clients[0].ip);
    char ip[16];
    EXPECT_EQ(1, netip_get_client_ip(0, ip, sizeof ip));
    EXPECT_EQ(std::string(15, 'y'), ip);
}

namespace {

int option_of(int level, int option) {
    int value = -1;
    socklen_t len = sizeof value;
    EXPECT_EQ(0, getsockopt(socket_of(0), level, option, &value, &len));
    return value;
}

}  // namespace

TEST(netip_table, keepalive_needs_all_three_values) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    EXPECT_EQ(0, netip_set_tcp_keepalive(0, 0, 5, 3));
    EXPECT_EQ(0, netip_set_tcp_keepalive(0, 30, 0, 3));
    EXPECT_EQ(0, netip_set_tcp_keepalive(0, 30, 5, 0));
    EXPECT_EQ(0, netip_set_tcp_keepalive(0, -1, -1, -1));
    EXPECT_EQ(0, option_of(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(1, netip_set_tcp_keepalive(0, 30, 5, 3));
    EXPECT_EQ(1, option_of(SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(30, option_of(IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(5, option_of(IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(3, option_of(IPPROTO_TCP, TCP_KEEPCNT));
}

TEST(netip_table, received_data_renews_the_activity_stamp) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    g_netip_clients[0].last_active_ms.store(1);
    const uint64_t before = platform_wall_ms();
    ASSERT_TRUE(client.send("C0"));
    EXPECT_TRUE(eventually([&] { return netip_get_client_last_active(0) >= before; }));
}
