#include <random>

#include "tests/netip/netip_fixture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

bytes numbered(uint32_t n) {
    return {0x30,
            4,
            static_cast<uint8_t>(n >> 24),
            static_cast<uint8_t>(n >> 16),
            static_cast<uint8_t>(n >> 8),
            static_cast<uint8_t>(n)};
}

}  // namespace

TEST(netip_threads, several_io_threads_keep_the_packets_of_a_connection_in_order) {
    constexpr uint32_t k_clients = 12;
    constexpr uint32_t k_packets = 500;
    recorder events;
    running_netip netip(events, 4);
    std::vector<tcp_client> clients;
    for (uint32_t i = 0; i < k_clients; ++i) {
        clients.emplace_back();
        ASSERT_TRUE(events.wait_connects(i + 1));
    }
    std::vector<std::thread> senders;
    for (uint32_t t = 0; t < 3; ++t)
        senders.emplace_back([&, t] {
            for (uint32_t n = 0; n < k_packets; ++n)
                for (uint32_t c = t; c < k_clients; c += 3) EXPECT_TRUE(clients[c].send(numbered(n)));
        });
    for (std::thread &sender : senders) sender.join();
    ASSERT_TRUE(events.wait_data(k_clients * k_packets));
    std::vector<uint32_t> next(k_clients, 0);
    for (const event &e : events.events(NETIP_EVENT_DATA)) EXPECT_EQ(numbered(next[e.handle]++), e.data);
}

TEST(netip_threads, sends_of_several_threads_never_mix_their_packets) {
    recorder events;
    running_netip netip(events);
    tcp_client client(true);
    ASSERT_TRUE(events.wait_connects(1));
    constexpr size_t k_senders = 4;
    constexpr size_t k_packets = 200;
    constexpr size_t k_size = 1000;
    std::vector<std::thread> senders;
    for (size_t t = 0; t < k_senders; ++t)
        senders.emplace_back([t] {
            const bytes packet = packet_of(k_size, static_cast<uint8_t>(t));
            for (size_t i = 0; i < k_packets; ++i)
                EXPECT_TRUE(eventually([&] { return netip_send(0, packet.data(), k_size) == NETIP_OK; }));
        });
    std::vector<size_t> seen(k_senders, 0);
    for (size_t i = 0; i < k_senders * k_packets; ++i) {
        const bytes packet = client.read(k_size);
        ASSERT_EQ(k_size, packet.size());
        size_t t = 0;
        while (t < k_senders && packet != packet_of(k_size, static_cast<uint8_t>(t))) ++t;
        ASSERT_LT(t, k_senders);
        ++seen[t];
    }
    for (std::thread &sender : senders) sender.join();
    EXPECT_EQ(std::vector<size_t>(k_senders, k_packets), seen);
}

TEST(netip_threads, connections_that_come_and_go_under_fire_are_reported_once_each) {
    // Everything at once: clients come, talk and leave while threads send to, ask about and close any handle.
    constexpr uint32_t k_handles = 16;
    constexpr size_t k_lives = 300;
    recorder events([](const event &e) {
        if (e.kind == NETIP_EVENT_DATA) (void)netip_send(e.handle, e.data.data(), 2);
        if (e.kind == NETIP_EVENT_DISCONNECT) netip_close(e.handle);
        if (e.kind == NETIP_EVENT_CONNECT && e.handle + 1 >= k_handles) {
            std::lock_guard guard(g_netip_lock);
            g_last_handle = 0;  // keeps the handles few, so that they are reused under the others' hands
        }
        return 1;
    });
    const size_t descriptors = open_descriptors();
    {
        running_netip netip(events, 2);
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (unsigned t = 0; t < 3; ++t)
            threads.emplace_back([&, t] {
                std::mt19937 random(t);
                const bytes packet = packet_of(3000);
                while (!stop) {
                    const netip_handle h = random() % k_handles;
                    char ip[64];
                    (void)netip_get_client_ip(h, ip, sizeof ip);
                    (void)netip_get_client_port(h);
                    (void)netip_get_client_last_active(h);
                    (void)netip_set_tcp_keepalive(h, 10, 10, 3);
                    (void)netip_send(h, packet.data(), static_cast<int>(2 + random() % 2990));
                    (void)netip_send_blocked(h);
                    if (random() % 8 == 0) netip_close(h);
                }
            });
        for (int t = 0; t < 2; ++t)
            threads.emplace_back([&] {
                const bytes pings = hex("C0 00 C0 00 C0");
                for (size_t i = 0; i < k_lives; ++i) {
                    tcp_client client(true);
                    (void)client.send(pings);
                    if (i % 3 == 0) client.reset();
                }
            });
        for (size_t i = 3; i < threads.size(); ++i) threads[i].join();
        stop = true;
        for (size_t i = 0; i < 3; ++i) threads[i].join();
    }
    EXPECT_EQ(descriptors, open_descriptors());
    size_t closed = 0;
    for (const event &e : events.events(NETIP_EVENT_DISCONNECT)) closed += e.reason == 2;
    EXPECT_GE(events.count(NETIP_EVENT_CONNECT), 1u);
    EXPECT_GE(closed, events.count(NETIP_EVENT_CONNECT));
    for (uint32_t h = 0; h < k_handles; ++h) EXPECT_FALSE(is_in_use(h));
}

TEST(netip_threads, closing_from_two_threads_fires_one_disconnect) {
    recorder events;
    running_netip netip(events);
    constexpr size_t k_rounds = 50;
    for (size_t i = 0; i < k_rounds; ++i) {
        tcp_client client;
        ASSERT_TRUE(events.wait_connects(i + 1));
        const netip_handle h = events.events(NETIP_EVENT_CONNECT).back().handle;
        std::thread other([h] { netip_close(h); });
        netip_close(h);
        other.join();
        EXPECT_EQ(i + 1, events.count(NETIP_EVENT_DISCONNECT));
        EXPECT_TRUE(client.at_end());
    }
}

TEST(netip_threads, datagrams_and_closes_of_their_peers_may_race) {
    recorder events;
    running_netip netip(events);
    tcp_client knocker;
    ASSERT_TRUE(events.wait_connects(1));
    std::atomic<bool> stop{false};
    std::thread closer([&] {
        while (!stop)
            for (netip_handle h = 1; h < 40; ++h) netip_close(h);
    });
    udp_client peers[3];
    for (int i = 0; i < 300; ++i) {
        for (udp_client &peer : peers) EXPECT_TRUE(peer.send("C0 00"));
        EXPECT_TRUE(knocker.send("C0 00"));
    }
    EXPECT_TRUE(events.wait_connects(2));
    stop = true;
    closer.join();
}

TEST(netip_threads, deinit_waits_for_a_close_in_another_thread) {
    std::atomic<bool> inside{false};
    std::atomic<bool> go_on{false};
    std::atomic<bool> returned{false};
    recorder events([&](const event &e) {
        if (e.kind != NETIP_EVENT_DISCONNECT) return 1;
        inside = true;
        EXPECT_TRUE(eventually([&] { return go_on.load(); }));
        returned = true;
        return 1;
    });
    const size_t descriptors = open_descriptors();
    ASSERT_EQ(0, netip_init(recorder::on_event, &events, 1));
    tcp_client client;
    ASSERT_TRUE(events.wait_connects(1));
    std::thread closer([] { netip_close(0); });
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    std::thread releaser([&] {
        EXPECT_TRUE(eventually([] { return g_netip_running.load() == 0; }));
        go_on = true;
    });
    netip_deinit();
    EXPECT_TRUE(returned.load());
    EXPECT_EQ(descriptors + 1, open_descriptors());  // the client's own
    closer.join();
    releaser.join();
    EXPECT_EQ(1u, events.count(NETIP_EVENT_DISCONNECT));
}

TEST(netip_threads, ending_with_busy_clients_is_orderly) {
    for (int round = 0; round < 5; ++round) {
        recorder events([](const event &e) {
            if (e.kind == NETIP_EVENT_DATA) (void)netip_send(e.handle, e.data.data(), 2);
            if (e.kind == NETIP_EVENT_DISCONNECT) netip_close(e.handle);
            return 1;
        });
        ASSERT_EQ(0, netip_init(recorder::on_event, &events, 3));
        std::vector<std::thread> clients;
        for (int i = 0; i < 6; ++i)
            clients.emplace_back([] {
                tcp_client client;
                const bytes pings = hex("C0 00 C0 00 C0 00");
                while (client.send(pings)) {
                }
            });
        EXPECT_TRUE(events.wait_connects(6));
        EXPECT_TRUE(events.wait_data(100));
        netip_deinit();
        const size_t so_far = events.events().size();
        for (std::thread &client : clients) client.join();
        EXPECT_EQ(so_far, events.events().size());
        EXPECT_EQ(6u, events.count(NETIP_EVENT_DISCONNECT));
    }
}
