// Sending without waiting for the send thread's beat, which is held up here: whatever leaves, leaves without
// it.
#include <numeric>

#include "log/platform_time.h"
#include "tests/client/client_fixture.h"

namespace {

std::atomic<int> s_rings{0};
std::atomic<int> s_sleeps{0};
std::atomic<bool> s_long_sleeps{false};

}  // namespace

// The linker hands the library these in place of its own. The send thread's fallback becomes an hour when the
// test asks for that, so that only a ring wakes it.
extern "C" {
void __real__ZN3zeb14platform_alarm4ringEv(zeb::platform_alarm *alarm);
void __real__ZN3zeb14platform_alarm8sleep_usEm(zeb::platform_alarm *alarm, uint64_t us);

void __wrap__ZN3zeb14platform_alarm4ringEv(zeb::platform_alarm *alarm) {
    ++s_rings;
    __real__ZN3zeb14platform_alarm4ringEv(alarm);
}
void __wrap__ZN3zeb14platform_alarm8sleep_usEm(zeb::platform_alarm *alarm, uint64_t us) {
    constexpr uint64_t k_hour_us = 3600000000;
    ++s_sleeps;
    __real__ZN3zeb14platform_alarm8sleep_usEm(alarm, s_long_sleeps ? k_hour_us : us);
}
}

namespace {

using zeb_test::bytes;
using zeb_test::client_test;
using zeb_test::eventually;
using zeb_test::mqtt_client;
using zeb_test::packet_of;
using zeb_test::recorder;
using zeb_test::running_netip;
using zeb_test::tcp_client;

class client_low_latency : public client_test {
  protected:
    void SetUp() override {
        client_test::SetUp();
        zeb::mqtt_stop_send_thread();
        zeb::g_client_options.low_latency = 1;
        zeb::netip_set_hooks(&k_hooks);
        s_rings = 0;
    }
    void TearDown() override {
        zeb::netip_set_hooks(nullptr);
        zeb::g_client_options.low_latency = 0;
        client_test::TearDown();
    }

    static int send(mqtt_client *client, const bytes &data) {
        return zeb::client_send(client, data.data(), static_cast<int>(data.size()));
    }
    mqtt_client *connect(tcp_client *peer) {
        const size_t before = events.count(zeb::NETIP_EVENT_CONNECT);
        peer->connect();
        EXPECT_TRUE(events.wait_connects(before + 1));
        return create(events.events(zeb::NETIP_EVENT_CONNECT).back().handle);
    }

    static constexpr zeb::netip_hooks k_hooks = {zeb::client_socket_writable, zeb::client_flush_queued};
    recorder events;
};

TEST_F(client_low_latency, what_an_io_thread_queues_leaves_at_the_end_of_its_batch) {
    const running_netip up(events);
    tcp_client sender(tcp_client::unconnected{});
    tcp_client receiver(tcp_client::unconnected{});
    connect(&sender);
    mqtt_client *const client = connect(&receiver);
    events.set_hook([&](const zeb_test::event &e) {
        if (e.kind == zeb::NETIP_EVENT_DATA) {
            EXPECT_EQ(send(client, e.data), 0);
        }
        return 1;
    });
    ASSERT_TRUE(sender.send("C0 00 D0 00 30 03 01 02 03"));
    EXPECT_EQ(receiver.read(9), zeb_test::hex("C0 00 D0 00 30 03 01 02 03"));
    EXPECT_EQ(s_rings, 0) << "the send thread is not needed";
}

TEST_F(client_low_latency, other_threads_wake_the_send_thread) {
    mqtt_client *const client = create(1);
    ASSERT_EQ(send(client, packet_of(10)), 0);
    EXPECT_EQ(s_rings, 1);
    zeb::g_client_options.low_latency = 0;
    ASSERT_EQ(send(client, packet_of(10)), 0);
    EXPECT_EQ(s_rings, 1) << "without the option its beat will do";
}

TEST_F(client_low_latency, a_ring_ends_the_send_threads_sleep) {
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{});
    mqtt_client *const client = connect(&peer);
    zeb::platform_set_clock(nullptr);  // the real one: a replaced clock's sleep cannot be ended
    s_long_sleeps = true;
    s_sleeps = 0;
    zeb::mqtt_start_send_thread();
    for (uint8_t i = 0; i < 5; ++i) {
        ASSERT_TRUE(eventually([i] { return s_sleeps > i; })) << "it sleeps for an hour now";
        ASSERT_EQ(send(client, packet_of(20, i)), 0);
        EXPECT_EQ(peer.read(20), packet_of(20, i));
    }
    zeb::mqtt_stop_send_thread();  // does not take an hour either
    s_long_sleeps = false;
}

TEST_F(client_low_latency, a_full_ring_is_flushed_before_a_packet_is_given_up) {
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{});
    mqtt_client *const client = connect(&peer);
    bytes expected;
    for (int i = 0; i < 500; ++i) {
        const bytes data = packet_of(20, static_cast<uint8_t>(i));
        ASSERT_EQ(send(client, data), 0) << i;
        expected.insert(expected.end(), data.begin(), data.end());
    }
    zeb::client_flush_queued();
    EXPECT_EQ(peer.read(expected.size()), expected);
    EXPECT_EQ(zeb::g_mqtt_stats.drop_queue_full, 0u);
}

// Fills the socket and the ring, until the kernel has found no more room for a while; how many packets of
// 4096 bytes were taken.
int fill(mqtt_client *client) {
    int taken = 0;
    for (int quiet = 0; quiet < 20; ++quiet) {
        client->full_ms = 0;  // the clock stands still here, and a full socket is asked once in a tick
        while (zeb::client_send(client, packet_of(4096, static_cast<uint8_t>(taken)).data(), 4096) == 0) {
            ++taken;
            quiet = 0;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return taken;
}

TEST_F(client_low_latency, a_packet_is_dropped_when_the_socket_is_full_too) {
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{}, true);
    mqtt_client *const client = connect(&peer);
    const int taken = fill(client);
    EXPECT_GT(taken, 99 + 8) << "the ring, and at least the socket's smallest buffers";
    EXPECT_EQ(queued(client), 99);
    EXPECT_GE(zeb::g_mqtt_stats.drop_queue_full, 1u);
    EXPECT_TRUE(zeb::netip_send_blocked(client->handle));
}

TEST_F(client_low_latency, a_socket_that_takes_bytes_again_gets_what_waits) {
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{}, true);
    mqtt_client *const client = connect(&peer);
    const int taken = fill(client);
    for (int i = 0; i < taken; ++i)
        ASSERT_EQ(peer.read(4096), packet_of(4096, static_cast<uint8_t>(i))) << i << " of " << taken;
    EXPECT_TRUE(eventually([&] { return queued(client) == 0; }));
}

TEST_F(client_low_latency, a_pass_does_not_return_to_a_full_socket_by_itself) {
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{}, true);
    mqtt_client *const client = connect(&peer);
    fill(client);
    zeb::client_flush_queued();
    const auto is_marked = [client] {
        uint64_t bits = 0;
        for (const auto &word : zeb::g_client_mgr.blocks[client->pool_index / 100].queued)
            bits |= word.load();
        return bits != 0;
    };
    EXPECT_FALSE(is_marked()) << "a thousand such peers would cost every batch a thousand looks";
    zeb::client_socket_writable(client->handle);
    EXPECT_TRUE(is_marked());
    zeb::g_client_options.low_latency = 0;
    zeb::client_flush_queued();
    EXPECT_TRUE(is_marked()) << "by the beat alone, each beat looks again";
}

TEST_F(client_low_latency, a_writable_socket_without_a_client_is_ignored) {
    zeb::client_socket_writable(12345);
    zeb::client_flush_queued();
    EXPECT_EQ(s_rings, 1);
}

TEST_F(client_low_latency, clients_of_the_last_block_are_reached) {
    zeb::g_client_options.low_latency = 0;  // the fixture waits for a beat, and a quiet sender has none
    start(11000);
    zeb::mqtt_stop_send_thread();
    zeb::g_client_options.low_latency = 1;
    const running_netip up(events);
    tcp_client peer(tcp_client::unconnected{});
    peer.connect();
    ASSERT_TRUE(events.wait_connects(1));
    const uint32_t handle = events.events(zeb::NETIP_EVENT_CONNECT).back().handle;
    for (uint32_t h = 0; h < 10999; ++h) create(20000 + h);
    mqtt_client *const last = create(handle);
    ASSERT_EQ(last->pool_index, 10999);
    ASSERT_EQ(send(last, packet_of(30)), 0);
    zeb::client_flush_queued();
    EXPECT_EQ(peer.read(30), packet_of(30));
}

}  // namespace
