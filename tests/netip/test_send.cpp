#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

class netip_sending : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(events.wait_connects(1)); }

    int send(const bytes &data) { return netip_send(0, data.data(), static_cast<int>(data.size())); }
    // Sends packets until the socket takes no more; what was accepted, in order.
    bytes fill() {
        // Small, so that the test does not have to fill megabytes.
        const int size = 4096;
        EXPECT_EQ(0, setsockopt(socket_of(0), SOL_SOCKET, SO_SNDBUF, &size, sizeof size));
        bytes accepted;
        for (uint8_t seed = 0;; ++seed) {
            const bytes packet = packet_of(3001, seed);
            const int code = send(packet);
            if (code != NETIP_OK) {
                EXPECT_EQ(NETIP_ERR_WOULDBLOCK, code);
                return accepted;
            }
            accepted = accepted + packet;
        }
    }
    static bool output_watched() {
        std::lock_guard guard(g_netip_clients[0].lock);
        return g_netip_clients[0].output_watched != 0;
    }

    recorder events;
    running_netip netip{events};
    tcp_client client{true};
};

}  // namespace

TEST_F(netip_sending, lengths_outside_1_to_4096_are_refused) {
    const bytes data(4097, 0x55);
    EXPECT_EQ(6, netip_send(0, data.data(), 4097));
    EXPECT_EQ(6, netip_send(0, data.data(), 0));
    EXPECT_EQ(6, netip_send(0, data.data(), -1));
    EXPECT_EQ(6, netip_send(0, nullptr, 2));
    EXPECT_FALSE(client.readable(std::chrono::milliseconds(0)));
    EXPECT_EQ(0, netip_send(0, data.data(), 1));
    EXPECT_EQ(bytes(1, 0x55), client.read(1));
}

TEST_F(netip_sending, handles_without_a_connection_are_refused) {
    const bytes data = hex("D0 00");
    for (const netip_handle h : {1u, 10999u, 11000u, NETIP_HANDLE_NONE})
        EXPECT_EQ(6, netip_send(h, data.data(), 2));
    netip_close(0);
    EXPECT_EQ(6, netip_send(0, data.data(), 2));
}

TEST_F(netip_sending, a_packet_of_4096_bytes_arrives) {
    const bytes packet = packet_of(4096, 3);
    EXPECT_EQ(0, send(packet));
    EXPECT_EQ(packet, client.read(4096));
}

TEST_F(netip_sending, a_full_socket_blocks_until_the_peer_reads) {
    EXPECT_FALSE(netip_send_blocked(0));
    const bytes accepted = fill();
    EXPECT_TRUE(netip_send_blocked(0));
    EXPECT_TRUE(output_watched());
    EXPECT_EQ(5, send(hex("D0 00")));

    EXPECT_EQ(dump(accepted), dump(client.read(accepted.size())));
    EXPECT_TRUE(eventually([] { return !netip_send_blocked(0); }));
    EXPECT_TRUE(eventually([] { return !output_watched(); }));
    EXPECT_EQ(0, send(hex("D0 00")));
    EXPECT_EQ(hex("D0 00"), client.read(2));
}

TEST_F(netip_sending, a_stalled_peer_is_still_listened_to) {
    (void)fill();
    ASSERT_TRUE(client.send("C0 00"));
    EXPECT_TRUE(events.wait_data(1));
}

TEST_F(netip_sending, a_slow_reader_gets_whole_packets_in_order) {
    const int size = 4096;
    ASSERT_EQ(0, setsockopt(socket_of(0), SOL_SOCKET, SO_SNDBUF, &size, sizeof size));
    constexpr int k_packets = 1500;
    bytes expected;
    for (int i = 0; i < k_packets; ++i)
        expected =
            std::move(expected) + packet_of(static_cast<size_t>(2 + i * 37 % 4095), static_cast<uint8_t>(i));
    std::thread sender([&] {
        for (int i = 0; i < k_packets; ++i) {
            const bytes packet = packet_of(static_cast<size_t>(2 + i * 37 % 4095), static_cast<uint8_t>(i));
            EXPECT_TRUE(eventually([&] { return send(packet) == NETIP_OK; }));
        }
    });
    bytes got;
    while (got.size() < expected.size()) {
        const bytes piece = client.read(std::min<size_t>(701, expected.size() - got.size()));
        if (piece.empty()) break;
        got = std::move(got) + piece;
    }
    sender.join();
    EXPECT_TRUE(expected == got) << expected.size() << " bytes sent, " << got.size() << " received";
}

TEST_F(netip_sending, bytes_left_over_from_a_closed_connection_reach_nobody_else) {
    (void)fill();
    netip_close(0);
    EXPECT_FALSE(netip_send_blocked(0));
    {
        std::lock_guard guard(g_netip_lock);
        g_last_handle = 0;
    }
    tcp_client next;
    ASSERT_TRUE(events.wait_connects(2));
    ASSERT_EQ(0u, events.events(NETIP_EVENT_CONNECT)[1].handle);
    EXPECT_EQ(0, send(hex("D0 00")));
    EXPECT_EQ(hex("D0 00"), next.read(2));
}

TEST_F(netip_sending, a_socket_that_left_epoll_is_never_called_blocked) {
    events.set_hook([](const event &e) { return e.kind == NETIP_EVENT_DISCONNECT ? 0 : 1; });
    (void)fill();
    EXPECT_TRUE(netip_send_blocked(0));
    ASSERT_EQ(0,
              shutdown(client.fd(), SHUT_WR));  // the broker hears the end, and its handler keeps the socket
    ASSERT_TRUE(events.wait_disconnects(1));
    ASSERT_TRUE(eventually([] { return g_netip_clients[0].io_busy.load() == 0; }));
    EXPECT_FALSE(netip_send_blocked(0));
    EXPECT_TRUE(is_in_use(0));
    (void)fill();
    EXPECT_FALSE(netip_send_blocked(0));
}

TEST_F(netip_sending, sending_to_a_peer_that_reset_fails_without_a_signal) {
    client.reset();
    EXPECT_TRUE(eventually([&] { return send(hex("D0 00")) == NETIP_ERR_PARAM; }));
}

TEST_F(netip_sending, a_send_ready_callback_is_never_called) {
    netip_register_send_ready_cb([](netip_handle) { FAIL(); });
    const bytes accepted = fill();
    EXPECT_EQ(accepted.size(), client.read(accepted.size()).size());
    EXPECT_TRUE(eventually([] { return !netip_send_blocked(0); }));
}

namespace {

std::vector<iovec> gather(const std::vector<bytes> &packets) {
    std::vector<iovec> out;
    for (const bytes &packet : packets) out.push_back({const_cast<uint8_t *>(packet.data()), packet.size()});
    return out;
}

int send_all(netip_handle h, const std::vector<bytes> &packets) {
    return netip_send_packets(h, gather(packets).data(), static_cast<int>(packets.size()));
}

std::vector<bytes> packets_of(size_t size, int count) {
    std::vector<bytes> out;
    for (int i = 0; i < count; ++i) out.push_back(packet_of(size, static_cast<uint8_t>(i)));
    return out;
}

bytes joined(const std::vector<bytes> &packets) {
    bytes out;
    for (const bytes &packet : packets) out = out + packet;
    return out;
}

}  // namespace

TEST_F(netip_sending, gathered_packets_arrive_in_their_order) {
    const std::vector<bytes> packets = {hex("D0 00"), packet_of(4096, 1), packet_of(70, 2), hex("D0 00")};
    EXPECT_EQ(4, send_all(0, packets));
    EXPECT_EQ(dump(joined(packets)), dump(client.read(joined(packets).size())));
    const std::vector<bytes> many = packets_of(20, NETIP_MAX_GATHER);
    EXPECT_EQ(NETIP_MAX_GATHER, send_all(0, many));
    EXPECT_EQ(dump(joined(many)), dump(client.read(joined(many).size())));
}

TEST_F(netip_sending, gathering_takes_nothing_when_one_argument_is_wrong) {
    const std::vector<bytes> packets = packets_of(20, 3);
    std::vector<iovec> good = gather(packets);
    EXPECT_EQ(0, netip_send_packets(0, nullptr, 1));
    EXPECT_EQ(0, netip_send_packets(0, good.data(), 0));
    EXPECT_EQ(0, netip_send_packets(0, good.data(), -1));
    EXPECT_EQ(0, netip_send_packets(0, good.data(), NETIP_MAX_GATHER + 1));
    EXPECT_EQ(0, netip_send_packets(1, good.data(), 3)) << "nobody has that handle";
    EXPECT_EQ(0, netip_send_packets(NETIP_MAX_CONN, good.data(), 3));
    for (const iovec &bad : {iovec{nullptr, 5}, iovec{good[0].iov_base, 0}, iovec{good[0].iov_base, 4097}}) {
        std::vector<iovec> spoiled = good;
        spoiled[2] = bad;
        EXPECT_EQ(0, netip_send_packets(0, spoiled.data(), 3));
    }
    EXPECT_FALSE(client.readable(std::chrono::milliseconds(0)));
}

TEST_F(netip_sending, a_socket_that_fills_up_tears_no_gathered_packet) {
    const int size = 4096;
    ASSERT_EQ(0, setsockopt(socket_of(0), SOL_SOCKET, SO_SNDBUF, &size, sizeof size));
    bytes accepted;
    int taken = 0;
    for (;;) {
        const std::vector<bytes> packets = packets_of(3001, 10);
        taken = send_all(0, packets);
        for (int i = 0; i < taken; ++i) accepted = accepted + packets[static_cast<size_t>(i)];
        if (taken < 10) break;
    }
    EXPECT_TRUE(netip_send_blocked(0));
    EXPECT_TRUE(output_watched());
    EXPECT_EQ(0, send_all(0, packets_of(20, 2))) << "nothing passes what is kept";
    EXPECT_EQ(dump(accepted), dump(client.read(accepted.size())));
    EXPECT_TRUE(eventually([] { return !netip_send_blocked(0); }));
    const std::vector<bytes> later = packets_of(20, 2);
    EXPECT_EQ(2, send_all(0, later));
    EXPECT_EQ(dump(joined(later)), dump(client.read(40)));
}

TEST_F(netip_sending, nothing_is_gathered_for_a_closed_connection) {
    netip_close(0);
    EXPECT_EQ(0, send_all(0, packets_of(20, 2)));
}
