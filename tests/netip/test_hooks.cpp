// The hooks of a sender that waits for no beat.
#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

std::atomic<int> s_batches{0};
std::atomic<int> s_packets{0};
std::atomic<int> s_longest_batch{0};
std::atomic<int> s_writable{0};
std::atomic<bool> s_on_io_thread{false};

void on_batch_end() {
    ++s_batches;
    s_on_io_thread = netip_on_io_thread();
    s_longest_batch = std::max(s_longest_batch.load(), s_packets.exchange(0));
}

void on_writable(netip_handle) {
    ++s_writable;
}

constexpr netip_hooks k_hooks = {on_writable, on_batch_end};

class netip_hooks_test : public testing::Test {
  protected:
    netip_hooks_test() {
        s_batches = s_packets = s_longest_batch = s_writable = 0;
        netip_set_hooks(&k_hooks);
    }
    ~netip_hooks_test() override { netip_set_hooks(nullptr); }

    recorder events{[](const event &e) {
        s_packets += e.kind == NETIP_EVENT_DATA ? 1 : 0;
        return 1;
    }};
};

}  // namespace

TEST_F(netip_hooks_test, a_batch_ends_on_the_io_thread) {
    const running_netip up(events);
    tcp_client peer;
    ASSERT_TRUE(peer.send("C0 00"));
    ASSERT_TRUE(events.wait_data(1));
    EXPECT_TRUE(eventually([] { return s_batches >= 1; }));
    EXPECT_TRUE(s_on_io_thread);
    EXPECT_FALSE(netip_on_io_thread());
}

// What one read has brought is handled in one piece; 2048 packets fill the receive buffer once.
TEST_F(netip_hooks_test, many_packets_are_several_batches) {
    const running_netip up(events);
    tcp_client peer;
    bytes pings;
    for (int i = 0; i < 20000; ++i) pings.insert(pings.end(), {0xC0, 0x00});
    ASSERT_TRUE(peer.send(pings));
    ASSERT_TRUE(events.wait_data(20000));
    EXPECT_TRUE(eventually([] { return s_packets == 0; }));
    EXPECT_LE(s_longest_batch, 64 + 512 + 2048);
    EXPECT_GE(s_batches, 20000 / (64 + 512 + 2048));
}

TEST_F(netip_hooks_test, a_datagram_needs_no_stream_to_be_read) {
    const running_netip up(events);
    udp_client peer;
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(peer.send("C0 00"));
    EXPECT_TRUE(events.wait_data(50));
    EXPECT_EQ(events.count(NETIP_EVENT_CONNECT), 1u);
}

TEST_F(netip_hooks_test, a_socket_that_was_full_says_when_it_takes_bytes_again) {
    const running_netip up(events);
    tcp_client peer(true);
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(NETIP_EVENT_CONNECT).back().handle;
    size_t taken = 0;
    const bytes packet = packet_of(4096);
    while (netip_send(handle, packet.data(), 4096) == NETIP_OK) ++taken;
    ASSERT_TRUE(netip_send_blocked(handle));
    EXPECT_EQ(s_writable, 0);
    EXPECT_EQ(peer.read(taken * 4096).size(), taken * 4096);
    EXPECT_TRUE(eventually([] { return s_writable == 1; }));
    EXPECT_FALSE(netip_send_blocked(handle));
}

TEST_F(netip_hooks_test, they_take_effect_with_the_next_start) {
    netip_set_hooks(nullptr);
    const running_netip up(events);
    netip_set_hooks(&k_hooks);
    tcp_client peer;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(peer.send("C0 00"));
        ASSERT_TRUE(events.wait_data(static_cast<size_t>(i) + 1));
    }
    EXPECT_EQ(s_batches, 0);
}
