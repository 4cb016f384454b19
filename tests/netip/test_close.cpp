#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

const bytes k_ping = hex("C0 00");

std::vector<uint32_t> reasons(const recorder &events) {
    std::vector<uint32_t> out;
    for (const event &e : events.events(NETIP_EVENT_DISCONNECT)) out.push_back(e.reason);
    return out;
}

}  // namespace

TEST(netip_close, closing_fires_disconnect_and_clears_the_slot) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(client.send("30"));  // leaves a byte in the receive buffer
    ASSERT_TRUE(events.wait_connects(1));
    netip_close(0);
    EXPECT_EQ(std::vector<uint32_t>{2}, reasons(events));
    EXPECT_TRUE(client.at_end());
    EXPECT_FALSE(is_in_use(0));
    EXPECT_TRUE(eventually([] {
        std::lock_guard guard(g_netip_clients[0].lock);
        return g_netip_clients[0].io_busy.load() == 0;
    }));
    const netip_conn &conn = g_netip_clients[0];
    EXPECT_EQ(0u, conn.rx_len);
    EXPECT_EQ(0, conn.pkt_len_known);
    EXPECT_STREQ("", conn.ip);
    EXPECT_EQ(0, conn.port);
    EXPECT_EQ(0u, conn.peer_addr.sin_addr.s_addr);
    EXPECT_EQ(0u, conn.peer_addr_len);
}

TEST(netip_close, closing_twice_is_ignored) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    netip_close(0);
    netip_close(0);
    EXPECT_EQ(std::vector<uint32_t>{2}, reasons(events));
}

TEST(netip_close, closing_what_is_no_connection_is_ignored) {
    recorder events;
    running_netip netip(events);
    for (const netip_handle h : {0u, 10999u, 11000u, NETIP_HANDLE_NONE}) netip_close(h);
    EXPECT_EQ(0u, events.events().size());
}

TEST(netip_close, closing_again_inside_the_disconnect_is_ignored) {
    recorder events([](const event &e) {
        if (e.kind == NETIP_EVENT_DISCONNECT) {
            netip_close(e.handle);
            EXPECT_EQ(NETIP_ERR_PARAM, netip_send(e.handle, k_ping.data(), 2));
        }
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    netip_close(0);
    EXPECT_EQ(std::vector<uint32_t>{2}, reasons(events));
    EXPECT_TRUE(client.at_end());
}

TEST(netip_close, closing_without_a_callback_closes_the_socket) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    g_netip_cb.store(nullptr);
    netip_close(0);
    EXPECT_TRUE(client.at_end());
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DISCONNECT));
}

TEST(netip_close, an_answer_of_zero_leaves_the_socket_open_and_the_slot_free) {
    // Only the low byte counts, so 256 is zero.
    for (const int answer : {0, 256}) {
        recorder events([=](const event &e) { return e.kind == NETIP_EVENT_DISCONNECT ? answer : 1; });
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(events.wait_connects(1));
        const int fd = socket_of(0);
        netip_close(0);
        EXPECT_FALSE(is_in_use(0));
        EXPECT_EQ(0, next_free_handle_from(0));
        EXPECT_EQ(2, send(fd, k_ping.data(), 2, MSG_NOSIGNAL));
        EXPECT_EQ(k_ping, client.read(2));
        // The broker does not listen to it any more.
        ASSERT_TRUE(client.send(k_ping));
        uint8_t byte;
        EXPECT_TRUE(eventually([&] { return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 1; }));
        EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
        close(fd);
    }
}

TEST(netip_close, a_peer_that_leaves_is_reported_with_reason_0_and_freed) {
    recorder events;
    running_netip netip(events);
    const size_t before = open_descriptors();
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    client.close();
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_TRUE(eventually([] { return !is_in_use(0); }));
    EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
    EXPECT_EQ(std::vector<uint32_t>{0}, reasons(events));
}

TEST(netip_close, a_peer_that_resets_is_reported_with_reason_0_and_freed) {
    recorder events;
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    client.reset();
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_TRUE(eventually([] { return !is_in_use(0); }));
    EXPECT_EQ(std::vector<uint32_t>{0}, reasons(events));
}

TEST(netip_close, a_handler_that_closes_inside_the_disconnect_gets_one_more_event) {
    recorder events([](const event &e) {
        if (e.kind == NETIP_EVENT_DISCONNECT) {
            netip_close(e.handle);
            netip_close(e.handle);
        }
        return 1;
    });
    running_netip netip(events);
    const size_t before = open_descriptors();
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    client.close();
    ASSERT_TRUE(events.wait_disconnects(2));
    EXPECT_TRUE(eventually([&] { return open_descriptors() == before; }));
    EXPECT_EQ((std::vector<uint32_t>{0, 2}), reasons(events));
    EXPECT_FALSE(is_in_use(0));
}

TEST(netip_close, an_answer_of_zero_to_a_lost_peer_keeps_the_slot_until_the_end) {
    recorder events([](const event &e) { return e.kind == NETIP_EVENT_DISCONNECT ? 0 : 1; });
    const size_t before = open_descriptors();
    {
        tcp_client other(tcp_client::unconnected{});
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(events.wait_connects(1));
        client.close();
        ASSERT_TRUE(events.wait_disconnects(1));
        // Another connection's packet shows that the I/O thread has been round again without a second event.
        other.connect();
        ASSERT_TRUE(other.send(k_ping));
        ASSERT_TRUE(events.wait_data(1));
        ASSERT_TRUE(other.send(k_ping));
        ASSERT_TRUE(events.wait_data(2));
        EXPECT_EQ(std::vector<uint32_t>{0}, reasons(events));
        EXPECT_TRUE(is_in_use(0));
    }
    EXPECT_EQ((std::vector<uint32_t>{0, 2, 2}), reasons(events));
    EXPECT_EQ(before, open_descriptors());
}

TEST(netip_close, closing_inside_a_packet_drops_the_rest_of_the_read) {
    recorder events([](const event &e) {
        if (e.kind == NETIP_EVENT_DATA) netip_close(e.handle);
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(client.send(k_ping + k_ping + k_ping));
    EXPECT_TRUE(client.at_end());
    tcp_client next;  // once its packet is here, the first one's read is long over
    ASSERT_TRUE(next.send(k_ping));
    ASSERT_TRUE(events.wait_data(2));
    const std::vector<event> data = events.events(NETIP_EVENT_DATA);
    EXPECT_EQ(0u, data[0].handle);
    EXPECT_EQ(1u, data[1].handle);
    EXPECT_EQ(2u, data.size());
}

TEST(netip_close, an_event_left_over_for_a_closed_connection_spares_its_successor) {
    // The first packet's handler holds the I/O thread until the next batch holds two events: a packet of
    // connection 0, whose handler closes connection 1, and after it the reset of connection 1.
    std::atomic<bool> batch_is_ready{false};
    std::atomic<bool> slot_is_free{false};
    std::atomic<bool> successor_is_here{false};
    recorder events([&](const event &e) {
        if (e.data == k_ping) {
            EXPECT_TRUE(eventually([&] { return batch_is_ready.load(); }));
        }
        if (e.data == hex("D0 00")) {
            netip_close(1);
            EXPECT_EQ(1, next_free_handle_from(1));
            {
                std::lock_guard guard(g_netip_lock);
                g_last_handle = 1;  // the next client gets slot 1
            }
            slot_is_free = true;
            EXPECT_TRUE(eventually([&] { return successor_is_here.load(); }));
        }
        return 1;
    });
    running_netip netip(events);
    tcp_client first;
    ASSERT_TRUE(events.wait_connects(1));
    tcp_client victim;
    ASSERT_TRUE(events.wait_connects(2));
    ASSERT_TRUE(first.send(k_ping));
    ASSERT_TRUE(events.wait_data(1));
    ASSERT_TRUE(first.send("D0 00"));
    victim.reset();
    batch_is_ready = true;
    ASSERT_TRUE(events.wait_disconnects(1));
    ASSERT_TRUE(eventually([&] { return slot_is_free.load(); }));
    tcp_client successor;
    ASSERT_TRUE(events.wait_connects(3));
    EXPECT_EQ(1u, events.events(NETIP_EVENT_CONNECT)[2].handle);
    successor_is_here = true;
    ASSERT_TRUE(successor.send("F0 00"));
    ASSERT_TRUE(events.wait_data(3));
    EXPECT_EQ(1u, events.events(NETIP_EVENT_DATA)[2].handle);
    EXPECT_EQ(std::vector<uint32_t>{2}, reasons(events));
}

TEST(netip_close, input_that_nobody_read_does_not_reset_the_peer) {
    const bytes answer = hex("20 02 00 05");
    std::atomic<bool> all_is_sent{false};
    recorder events([&](const event &e) {
        if (e.kind != NETIP_EVENT_DATA) return 1;
        EXPECT_TRUE(eventually([&] { return all_is_sent.load(); }));
        EXPECT_EQ(NETIP_OK, netip_send(e.handle, answer.data(), static_cast<int>(answer.size())));
        netip_close(e.handle);
        return 1;
    });
    running_netip netip(events);
    tcp_client client;
    ASSERT_TRUE(client.send(k_ping + bytes(20000, 0)));
    all_is_sent = true;
    EXPECT_EQ(answer, client.read(4));
    EXPECT_TRUE(client.at_end());
    ASSERT_TRUE(eventually([] { return !is_in_use(0) && g_netip_clients[0].closing.load() == 0; }));
    // A reset would have ended the client's side as well.
    tcp_info info{};
    socklen_t len = sizeof info;
    ASSERT_EQ(0, getsockopt(client.fd(), IPPROTO_TCP, TCP_INFO, &info, &len));
    EXPECT_EQ(TCP_CLOSE_WAIT, info.tcpi_state);
}
