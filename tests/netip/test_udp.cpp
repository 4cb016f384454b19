#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

// Datagrams are read after a batch of TCP events, one each, so the tests keep a TCP client that knocks.
class netip_udp : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(events.wait_connects(1));
        ASSERT_GE(g_netip_udp, 0);
    }
    // The events of datagrams, once there are n of them.
    std::vector<event> wait_events(size_t n) {
        std::vector<event> out;
        EXPECT_TRUE(eventually([&] {
            EXPECT_TRUE(knocker.send("C0 00"));
            out.clear();
            for (const event &e : events.events())
                if (e.handle != 0) out.push_back(e);
            return out.size() >= n;
        }));
        return out;
    }

    recorder events;
    running_netip netip{events};
    tcp_client knocker;
};

}  // namespace

TEST_F(netip_udp, a_first_datagram_connects_its_peer_and_is_delivered) {
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    const std::vector<event> got = wait_events(2);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_CONNECT), got[0].kind);
    EXPECT_EQ(3u, got[0].reason);
    EXPECT_EQ(1u, got[0].handle);
    EXPECT_TRUE(got[0].data.empty());
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_DATA), got[1].kind);
    EXPECT_EQ(3u, got[1].reason);
    EXPECT_EQ(1u, got[1].handle);
    EXPECT_EQ(hex("C0 00"), got[1].data);
    char ip[64];
    EXPECT_EQ(1, netip_get_client_ip(1, ip, sizeof ip));
    EXPECT_STREQ("127.0.0.1", ip);
    EXPECT_EQ(peer.port(), netip_get_client_port(1));
    EXPECT_EQ(static_cast<uint32_t>(NETIP_TYPE_UDP), g_netip_clients[1].type);
    EXPECT_EQ(g_netip_udp, socket_of(1));
    EXPECT_EQ(0, netip_set_tcp_keepalive(1, 1, 1, 1));
}

TEST_F(netip_udp, a_second_datagram_reuses_the_handle_without_a_connect) {
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    (void)wait_events(2);
    ASSERT_TRUE(peer.send("D0 00"));
    const std::vector<event> got = wait_events(3);
    ASSERT_EQ(3u, got.size());
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_DATA), got[2].kind);
    EXPECT_EQ(1u, got[2].handle);
    EXPECT_EQ(hex("D0 00"), got[2].data);
}

TEST_F(netip_udp, another_port_is_another_peer) {
    udp_client first;
    udp_client second;
    ASSERT_TRUE(first.send("C0 00"));
    (void)wait_events(2);
    ASSERT_TRUE(second.send("C0 00"));
    const std::vector<event> got = wait_events(4);
    ASSERT_EQ(4u, got.size());
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_CONNECT), got[2].kind);
    EXPECT_EQ(2u, got[2].handle);
}

TEST_F(netip_udp, a_datagram_is_delivered_as_it_is) {
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00 C0 00 30"));  // neither cut into packets nor waited for
    const std::vector<event> got = wait_events(2);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(hex("C0 00 C0 00 30"), got[1].data);
}

TEST_F(netip_udp, a_datagram_is_cut_at_4096_bytes_and_an_empty_one_is_ignored) {
    udp_client peer;
    ASSERT_TRUE(peer.send(bytes()));
    ASSERT_TRUE(peer.send(bytes(5000, 0x11)));
    const std::vector<event> got = wait_events(2);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(bytes(4096, 0x11), got[1].data);
}

TEST_F(netip_udp, sending_answers_with_one_datagram) {
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    (void)wait_events(2);
    const bytes answer = packet_of(1200, 7);
    EXPECT_EQ(0, netip_send(1, answer.data(), static_cast<int>(answer.size())));
    EXPECT_EQ(answer, peer.receive());
}

TEST_F(netip_udp, gathered_packets_are_one_datagram_each) {
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    (void)wait_events(2);
    bytes first = hex("D0 00");
    bytes second = packet_of(1200, 7);
    const iovec packets[] = {{first.data(), first.size()}, {second.data(), second.size()}};
    EXPECT_EQ(2, netip_send_packets(1, packets, 2));
    EXPECT_EQ(first, peer.receive());
    EXPECT_EQ(second, peer.receive());
}

TEST_F(netip_udp, closing_a_peer_leaves_the_shared_socket_to_the_others) {
    udp_client closed;
    udp_client other;
    ASSERT_TRUE(closed.send("C0 00"));
    (void)wait_events(2);
    ASSERT_TRUE(other.send("C0 00"));
    (void)wait_events(4);
    netip_close(1);
    const std::vector<event> gone = wait_events(5);
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_DISCONNECT), gone[4].kind);
    EXPECT_EQ(2u, gone[4].reason);
    EXPECT_FALSE(is_in_use(1));

    const bytes answer = hex("D0 00");
    EXPECT_EQ(6, netip_send(1, answer.data(), 2));
    EXPECT_EQ(0, netip_send(2, answer.data(), 2));
    EXPECT_EQ(answer, other.receive());
    ASSERT_TRUE(closed.send("C0 00"));  // it is a new peer now
    const std::vector<event> got = wait_events(7);
    ASSERT_EQ(7u, got.size());
    EXPECT_EQ(static_cast<uint32_t>(NETIP_EVENT_CONNECT), got[5].kind);
    EXPECT_EQ(3u, got[5].handle);
    EXPECT_EQ(3u, got[6].handle);
}

TEST_F(netip_udp, a_peer_closed_by_its_own_connect_event_gets_no_data) {
    std::atomic<int> closed{0};
    events.set_hook([&](const event &e) {
        if (e.kind == NETIP_EVENT_CONNECT && e.handle != 0) {
            netip_close(e.handle);
            ++closed;
        }
        return 1;
    });
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    (void)wait_events(2);
    ASSERT_TRUE(peer.send("C0 00"));
    const std::vector<event> got = wait_events(4);
    EXPECT_EQ(2, closed.load());
    for (const event &e : got) EXPECT_NE(static_cast<uint32_t>(NETIP_EVENT_DATA), e.kind);
}

TEST_F(netip_udp, the_callback_may_use_everything_that_takes_a_lock) {
    std::atomic<bool> done{false};
    events.set_hook([&](const event &e) {
        if (e.kind != NETIP_EVENT_DATA || e.handle == 0) return 1;
        char ip[16];
        EXPECT_EQ(1, netip_get_client_ip(e.handle, ip, sizeof ip));
        EXPECT_NE(0u, netip_get_client_last_active(e.handle));
        EXPECT_EQ(0, netip_send(e.handle, e.data.data(), static_cast<int>(e.data.size())));
        netip_close(e.handle);
        done = true;
        return 1;
    });
    udp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    (void)wait_events(3);
    EXPECT_TRUE(done.load());
    EXPECT_EQ(hex("C0 00"), peer.receive());
}

TEST_F(netip_udp, a_full_table_drops_the_datagram_silently) {
    udp_client peer;
    {
        occupied_slots taken(1, NETIP_MAX_CONN - 1);
        ASSERT_TRUE(peer.send("E0 00"));
        const size_t before = events.count(NETIP_EVENT_DATA);
        for (size_t i = 1; i <= 3; ++i) {
            ASSERT_TRUE(knocker.send("C0 00"));
            ASSERT_TRUE(events.wait_data(before + i));
        }
        for (const event &e : events.events()) EXPECT_EQ(0u, e.handle);
    }
    ASSERT_TRUE(peer.send("D0 00"));
    const std::vector<event> got = wait_events(2);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(hex("D0 00"), got[1].data);
}

TEST_F(netip_udp, closed_peers_do_not_use_up_room_for_new_ones) {
    // Reads the datagrams itself, which is quicker than knocking that often.
    events.set_hook([](const event &e) {
        if (e.kind == NETIP_EVENT_DATA && e.handle != 0) netip_close(e.handle);
        return 1;
    });
    for (uint32_t i = 0; i < NETIP_MAX_CONN + 50; ++i) {
        udp_client peer;
        ASSERT_TRUE(peer.send("C0 00"));
        netip_udp_recv();
    }
    size_t connects = 0;
    size_t closes = 0;
    for (const event &e : events.events()) {
        if (e.handle == 0) continue;
        connects += e.kind == NETIP_EVENT_CONNECT;
        closes += e.kind == NETIP_EVENT_DISCONNECT;
    }
    EXPECT_EQ(NETIP_MAX_CONN + 50, connects);
    EXPECT_EQ(NETIP_MAX_CONN + 50, closes);
}

// What comes while a packet is being handled is there when its round ends.
TEST_F(netip_udp, a_datagram_that_comes_during_a_round_is_read_after_it) {
    udp_client peer;
    events.set_hook([&peer](const event &e) {
        if (e.kind == NETIP_EVENT_DATA && e.data == hex("D0 00")) {
            EXPECT_TRUE(peer.send("C0 00"));
        }
        return 1;
    });
    ASSERT_TRUE(knocker.send("D0 00"));
    EXPECT_TRUE(events.wait_data(2)) << "nothing else knocks";
    events.set_hook(nullptr);
}
