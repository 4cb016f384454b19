// The rings, and the thread that empties them.
#include <numeric>

#include "tests/client/client_fixture.h"

namespace {

using zeb::g_mqtt_stats;
using zeb_test::bytes;
using zeb_test::client_test;
using zeb_test::eventually;
using zeb_test::mqtt_client;
using zeb_test::packet_of;
using zeb_test::recorder;
using zeb_test::running_netip;
using zeb_test::running_threads;
using zeb_test::tcp_client;

constexpr uint8_t k_ping[] = {0xD0, 0};

class client_send : public client_test {
  protected:
    static int send(mqtt_client *client, const bytes &data) {
        return zeb::client_send(client, data.data(), static_cast<int>(data.size()));
    }

    // A record for a real connection, whose peer is `peer`.
    mqtt_client *connect(tcp_client *peer) {
        const size_t before = events.count(zeb::NETIP_EVENT_CONNECT);
        peer->connect();
        EXPECT_TRUE(events.wait_connects(before + 1));
        return create(events.events(zeb::NETIP_EVENT_CONNECT).back().handle);
    }

    recorder events;
};

TEST_F(client_send, a_packet_is_copied_into_the_ring) {
    mqtt_client *const client = create(1);
    EXPECT_EQ(client->send_ring, nullptr) << "a client that gets nothing costs no ring";
    bytes data = packet_of(300);
    EXPECT_EQ(send(client, data), 0);
    const bytes sent = data;
    data.assign(data.size(), 0);
    EXPECT_EQ(queued(client), 1);
    EXPECT_EQ(packet(client, 0), sent);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 1u);
}

TEST_F(client_send, packets_keep_their_order_around_the_end_of_the_ring) {
    mqtt_client *const client = create(1);
    ASSERT_EQ(send(client, packet_of(10, 0)), 0);
    {
        std::lock_guard lock(client->send_lock);  // as if 95 had been sent by now, and one waits
        client->send_ring.load()[95] = client->send_ring.load()[0];
        client->send_head = 95;
        client->send_tail = 96;
    }
    for (uint8_t i = 1; i < 20; ++i) ASSERT_EQ(send(client, packet_of(10, i)), 0);
    ASSERT_EQ(queued(client), 20);
    EXPECT_EQ(client->send_tail, 15);
    for (uint8_t i = 0; i < 20; ++i) EXPECT_EQ(packet(client, i), packet_of(10, i));
}

TEST_F(client_send, the_hundredth_waiting_packet_is_dropped) {
    mqtt_client *const client = create(1);
    for (int i = 0; i < 99; ++i) ASSERT_EQ(zeb::client_send(client, k_ping, sizeof k_ping), 0) << i;
    EXPECT_EQ(zeb::client_send(client, k_ping, sizeof k_ping), -1);
    EXPECT_EQ(g_mqtt_stats.drop_queue_full, 1u);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 99u);
    EXPECT_EQ(queued(client), 99);
}

TEST_F(client_send, packets_of_4096_bytes_are_the_longest) {
    mqtt_client *const client = create(1);
    EXPECT_EQ(send(client, packet_of(4096)), 0);
    EXPECT_EQ(packet(client, 0), packet_of(4096));
    EXPECT_EQ(send(client, packet_of(4097)), -1);
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 1u);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 0u);
}

TEST_F(client_send, packets_above_the_clients_own_limit_are_too_big) {
    mqtt_client *const client = create(1);
    client->max_packet_size = 256;
    EXPECT_EQ(send(client, packet_of(256)), 0);
    EXPECT_EQ(send(client, packet_of(300)), -1);
    EXPECT_EQ(g_mqtt_stats.drop_too_big, 1u);
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 0u);
}

TEST_F(client_send, bad_arguments_are_counted_and_dropped) {
    mqtt_client *const client = create(1);
    EXPECT_EQ(zeb::client_send(nullptr, k_ping, 2), -1);
    EXPECT_EQ(zeb::client_send(client, nullptr, 2), -1);
    EXPECT_EQ(zeb::client_send(client, k_ping, 0), -1);
    EXPECT_EQ(zeb::client_send(client, k_ping, -1), -1);
    EXPECT_EQ(g_mqtt_stats.drop_invalid_param, 4u);
    EXPECT_EQ(client->send_ring, nullptr);
}

TEST_F(client_send, clients_that_are_not_online_get_nothing) {
    mqtt_client *const client = create(1);
    client->state = zeb::CLOSING;
    EXPECT_EQ(zeb::client_send(client, k_ping, 2), -1);
    client->state = zeb::CLOSED;
    EXPECT_EQ(zeb::client_send(client, k_ping, 2), -1);
    EXPECT_EQ(g_mqtt_stats.drop_offline, 2u);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 0u);
    client->max_packet_size = 256;
    EXPECT_EQ(send(client, packet_of(300)), -1);
    EXPECT_EQ(g_mqtt_stats.drop_offline, 3u) << "looked at before the size";
}

TEST_F(client_send, sending_counts_as_activity_of_the_client) {
    mqtt_client *const client = create(1);
    client->timed_out = 1;
    clock.advance_ms(77);
    ASSERT_EQ(zeb::client_send(client, k_ping, 2), 0);
    EXPECT_EQ(client->last_active, clock.mono_ms());
    EXPECT_EQ(client->timed_out, 0);
    client->timed_out = 1;
    clock.advance_ms(1);
    EXPECT_EQ(zeb::client_send(client, nullptr, 2), -1);
    EXPECT_EQ(client->timed_out, 1) << "a dropped packet is none";
}

TEST_F(client_send, what_the_network_refuses_stays_first_in_line) {
    mqtt_client *const client = create(1);  // no such connection: every try fails
    for (uint8_t i = 0; i < 3; ++i) ASSERT_EQ(send(client, packet_of(10, i)), 0);
    const uint64_t beats = clock.send_beats();
    ASSERT_TRUE(eventually([&] { return clock.send_beats() >= beats + 3; }));
    ASSERT_EQ(queued(client), 3);
    for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(packet(client, i), packet_of(10, i));
    EXPECT_EQ(g_mqtt_stats.drop_send_failed, 0u);
}

TEST_F(client_send, the_send_thread_delivers_in_order_and_empties_the_ring) {
    const running_netip net(events);
    tcp_client peer{tcp_client::unconnected()};
    mqtt_client *const client = connect(&peer);
    bytes all;
    for (uint8_t i = 0; i < 250; ++i) {
        const bytes one = packet_of(40 + i, i);
        ASSERT_TRUE(eventually([&] { return send(client, one) == 0; }));
        all.insert(all.end(), one.begin(), one.end());
    }
    EXPECT_EQ(peer.read(all.size()), all);
    EXPECT_TRUE(eventually([&] { return queued(client) == 0; }));
}

TEST_F(client_send, a_client_that_keeps_up_uses_the_same_memory_again) {
    const running_netip net(events);
    tcp_client peer{tcp_client::unconnected()};
    mqtt_client *const client = connect(&peer);
    for (uint8_t i = 0; i < 3; ++i) {
        ASSERT_EQ(zeb::client_send(client, k_ping, 2), 0);
        {
            std::lock_guard lock(client->send_lock);
            const zeb::client_send_slot *ring = client->send_ring.load();
            EXPECT_EQ(ring[i].data, reinterpret_cast<const uint8_t *>(ring + 100))
                << "right behind the slots";
        }
        EXPECT_EQ(peer.read(2), (bytes{0xD0, 0}));
        ASSERT_TRUE(eventually([&] { return queued(client) == 0; }));
    }
}

// As netip_send_packets does, from the front; the packets lie in the ring as place_for has put them.
std::vector<bytes> take(mqtt_client *client, int count) {
    std::vector<bytes> out;
    std::lock_guard lock(client->send_lock);
    for (; count > 0; --count) {
        const uint8_t head = client->send_head;
        const zeb::client_send_slot &slot = client->send_ring.load()[head];
        out.emplace_back(slot.data, slot.data + slot.len);
        client->send_head = static_cast<uint8_t>((head + 1) % 100);
    }
    return out;
}

TEST_F(client_send, each_packet_of_a_series_counts_as_activity_when_it_is_sent) {
    mqtt_client *const early = create(1);
    mqtt_client *const late = create(2);
    {
        zeb::client_send_series series;
        ASSERT_EQ(series.send(early, k_ping, 2), 0);
        clock.advance_ms(5000);  // storing for absent clients, say, in between
        zeb::client_update_active(late);
        ASSERT_EQ(series.send(late, k_ping, 2), 0);
    }
    EXPECT_EQ(late->last_active, clock.mono_ms());
    EXPECT_EQ(early->last_active, clock.mono_ms() - 5000);
    EXPECT_EQ(g_mqtt_stats.pkt_tx, 2u);
    EXPECT_EQ(g_mqtt_stats.period_pkt_tx, 2u);
}

TEST_F(client_send, packets_of_all_sizes_share_the_ring_and_none_touches_another) {
    zeb::mqtt_stop_send_thread();
    mqtt_client *const client = create(1);
    const uint8_t *begin = nullptr;
    std::vector<bytes> model;
    uint32_t seed = 1;
    const auto draw = [&seed](uint32_t below) {
        return (seed = seed * 1664525u + 1013904223u) / 65536u % below;
    };
    for (int step = 0; step < 20000; ++step) {
        const bool full = model.size() == 99;
        // First sizes of all kinds at all fills; then a ring kept nearly full of the longest packets and, now
        // and then, a short one, which leaves the least room that there can be.
        const bool tight = step >= 10000;
        const uint32_t size = tight ? (draw(50) == 0 ? 2 + draw(60) : 4096)
                                    : (draw(3) == 0   ? 4096
                                       : draw(3) == 0 ? 2 + draw(60)
                                                      : 2 + draw(4095));
        const bytes data = packet_of(size, static_cast<uint8_t>(step));
        ASSERT_EQ(send(client, data), full ? -1 : 0) << step;
        if (!full) model.push_back(data);
        if (begin == nullptr) begin = reinterpret_cast<const uint8_t *>(client->send_ring.load() + 100);
        const zeb::client_send_slot &last = client->send_ring.load()[(client->send_tail + 99) % 100];
        ASSERT_GE(last.data, begin);
        ASSERT_LE(last.data + last.len, begin + 4096 * 100);
        if (tight ? model.size() < 97 : !full && draw(2) == 0) continue;
        const int count = static_cast<int>(tight ? 1 + draw(3) : draw(full ? 100 : 3));
        const int taken = std::min(count, static_cast<int>(model.size()));
        const std::vector<bytes> got = take(client, taken);
        ASSERT_TRUE(std::equal(got.begin(), got.end(), model.begin())) << step;
        model.erase(model.begin(), model.begin() + taken);
    }
}

TEST_F(client_send, a_peer_that_stops_reading_delays_nobody_and_gets_no_torn_packet) {
    const running_netip net(events);
    tcp_client stuck{tcp_client::unconnected(), true};
    tcp_client quick{tcp_client::unconnected()};
    mqtt_client *const to_stuck = connect(&stuck);
    mqtt_client *const to_quick = connect(&quick);
    bytes expected;
    int taken = 0;
    while (g_mqtt_stats.drop_queue_full == 0) {  // until sockets and ring are full
        const bytes one = packet_of(4096, static_cast<uint8_t>(taken));
        if (send(to_stuck, one) != 0) break;
        expected.insert(expected.end(), one.begin(), one.end());
        ++taken;
        const uint64_t beats = clock.send_beats();
        if (taken % 50 == 0) {
            ASSERT_TRUE(eventually([&] { return clock.send_beats() > beats; }));
        }
    }
    ASSERT_EQ(zeb::client_send(to_quick, k_ping, 2), 0);
    EXPECT_EQ(quick.read(2), (bytes{0xD0, 0}));
    const bytes got = stuck.read(expected.size());
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
}

TEST_F(client_send, nothing_leaves_once_the_close_has_begun) {
    const running_netip net(events);
    tcp_client peer{tcp_client::unconnected()};
    mqtt_client *const client = connect(&peer);
    zeb::mqtt_stop_send_thread();
    ASSERT_EQ(zeb::client_send(client, k_ping, 2), 0);
    zeb::client_enter_closing(client);
    zeb::client_send_flush(client);
    EXPECT_EQ(queued(client), 1);
    zeb::client_close(client);
    EXPECT_TRUE(peer.at_end());
}

TEST_F(client_send, flushing_needs_a_live_record_with_a_ring) {
    const running_netip net(events);
    tcp_client peer{tcp_client::unconnected()};
    mqtt_client *const client = connect(&peer);
    zeb::mqtt_stop_send_thread();
    zeb::client_send_flush(nullptr);
    zeb::client_send_flush(client);  // no ring yet
    ASSERT_EQ(zeb::client_send(client, k_ping, 2), 0);
    client->in_use = 0;
    zeb::client_send_flush(client);
    EXPECT_EQ(queued(client), 1);
    client->in_use = 1;
    client->state = zeb::CLOSED;
    zeb::client_send_flush(client);
    EXPECT_EQ(queued(client), 1);
    client->state = zeb::LOGINED;
    zeb::client_send_flush(client);
    EXPECT_EQ(queued(client), 0);
    EXPECT_EQ(peer.read(2), (bytes{0xD0, 0}));
}

TEST_F(client_send, flushing_stops_at_a_slot_that_is_not_ready) {
    const running_netip net(events);
    tcp_client peer{tcp_client::unconnected()};
    mqtt_client *const client = connect(&peer);
    zeb::mqtt_stop_send_thread();
    for (uint8_t i = 0; i < 3; ++i) ASSERT_EQ(send(client, packet_of(10, i)), 0);
    client->send_ring.load()[1].ready = 0;
    zeb::client_send_flush(client);
    EXPECT_EQ(queued(client), 2);
    EXPECT_EQ(peer.read(10), packet_of(10, 0));
}

TEST_F(client_send, starting_and_stopping_the_thread_twice_changes_nothing) {
    ASSERT_TRUE(zeb::g_send_running);
    const size_t threads = running_threads();
    zeb::mqtt_start_send_thread();
    EXPECT_EQ(running_threads(), threads);
    zeb::mqtt_stop_send_thread();
    EXPECT_EQ(running_threads(), threads - 1);
    EXPECT_FALSE(zeb::g_send_running);
    zeb::mqtt_stop_send_thread();
    zeb::mqtt_start_send_thread();
    EXPECT_EQ(running_threads(), threads);
}

TEST_F(client_send, the_thread_logs_its_start_and_its_end) {
    zeb_test::log_capture log;
    const uint64_t beats = clock.send_beats();
    zeb::mqtt_stop_send_thread();
    zeb::mqtt_start_send_thread();
    ASSERT_TRUE(eventually([&] { return clock.send_beats() > beats + 1; }));
    EXPECT_TRUE(log.has("INFO", "[SEND_THREAD] 发送线程退出"));
    EXPECT_TRUE(log.has("INFO", "[SEND_THREAD] 发送线程启动"));
}

}  // namespace
