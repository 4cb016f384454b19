#include <random>

#include "tests/netip/netip_fixture.h"
#include "tests/support/log_capture.h"

using namespace zeb;
using namespace zeb_test;

namespace {

class netip_reassembly : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(events.wait_connects(1)); }
    void expect_only(const std::vector<bytes> &packets) {
        EXPECT_TRUE(events.wait_data(packets.size()));
        const std::vector<event> data = events.events(NETIP_EVENT_DATA);
        ASSERT_EQ(packets.size(), data.size());
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(dump(packets[i]), dump(data[i].data));
            EXPECT_EQ(0u, data[i].handle);
            EXPECT_EQ(3u, data[i].reason);
            EXPECT_EQ(0u, data[i].error);
        }
    }
    bool buffered(uint32_t n) {  // waits until the broker has read n bytes that form no packet yet
        return eventually([n] {
            std::lock_guard guard(g_netip_clients[0].lock);
            return g_netip_clients[0].io_busy.load() == 0 && g_netip_clients[0].rx_len == n;
        });
    }

    recorder events;
    running_netip netip{events};
    tcp_client client;
};

const bytes k_ping = hex("C0 00");

}  // namespace

TEST_F(netip_reassembly, a_pingreq_is_delivered_as_two_bytes) {
    ASSERT_TRUE(client.send(k_ping));
    expect_only({k_ping});
}

TEST_F(netip_reassembly, two_publishes_in_one_read_are_two_events_in_order) {
    const bytes first = hex("30 05 00 01 'a' 01 02");
    const bytes second = hex("30 07 00 03 'b/c' 'xy'");
    ASSERT_TRUE(client.send(first + second));
    expect_only({first, second});
}

TEST_F(netip_reassembly, a_packet_split_after_its_first_byte_is_delivered_whole) {
    ASSERT_TRUE(client.send("C0"));
    ASSERT_TRUE(buffered(1));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
    ASSERT_TRUE(client.send("00"));
    expect_only({k_ping});
}

TEST_F(netip_reassembly, a_packet_split_inside_its_length_is_delivered_whole) {
    const bytes packet = packet_of(300, 5);
    ASSERT_EQ(0xA9, packet[1]);
    ASSERT_TRUE(client.send(bytes(packet.begin(), packet.begin() + 2)));
    ASSERT_TRUE(buffered(2));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
    ASSERT_TRUE(client.send(bytes(packet.begin() + 2, packet.end())));
    expect_only({packet});
}

TEST_F(netip_reassembly, the_start_of_a_next_packet_is_kept_for_the_next_read) {
    const bytes second = packet_of(200, 9);
    ASSERT_TRUE(client.send(k_ping + bytes(second.begin(), second.begin() + 1)));
    ASSERT_TRUE(buffered(1));
    expect_only({k_ping});
    ASSERT_TRUE(client.send(bytes(second.begin() + 1, second.end()) + k_ping));
    expect_only({k_ping, second, k_ping});
}

TEST_F(netip_reassembly, a_padded_length_is_taken_at_its_value) {
    const bytes packet = hex("C0 80 80 80 00");
    ASSERT_TRUE(client.send(packet + k_ping));
    expect_only({packet, k_ping});
}

TEST_F(netip_reassembly, a_packet_of_4096_bytes_is_delivered) {
    const bytes packet = packet_of(4096, 1);
    ASSERT_EQ(4096u, packet.size());
    ASSERT_TRUE(client.send(packet + k_ping));
    expect_only({packet, k_ping});
}

TEST_F(netip_reassembly, a_5000_byte_packet_closes_the_connection_at_4096_bytes) {
    const bytes packet = packet_of(5000);
    ASSERT_TRUE(client.send(bytes(packet.begin(), packet.begin() + 4095)));
    ASSERT_TRUE(buffered(4095));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DISCONNECT));
    ASSERT_TRUE(client.send(bytes(packet.begin() + 4095, packet.begin() + 4096)));
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_TRUE(client.at_end());
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
    const event gone = events.events(NETIP_EVENT_DISCONNECT)[0];
    EXPECT_EQ(0u, gone.handle);
    EXPECT_EQ(0u, gone.reason);
    EXPECT_EQ(0u, gone.error);
    EXPECT_TRUE(eventually([] { return !is_in_use(0); }));
}

TEST_F(netip_reassembly, a_packet_of_4097_bytes_closes_the_connection) {
    (void)client.send(packet_of(4097));  // may be cut short by the close
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
}

TEST_F(netip_reassembly, five_length_bytes_never_make_a_packet_and_fill_the_buffer) {
    ASSERT_TRUE(client.send("30 80 80 80 80 00"));
    ASSERT_TRUE(buffered(6));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DISCONNECT));
    ASSERT_TRUE(client.send(bytes(4090, 0)));
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_TRUE(client.at_end());
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
}

TEST_F(netip_reassembly, five_length_bytes_never_make_a_packet_until_the_peer_goes) {
    ASSERT_TRUE(client.send("30 FF FF FF FF 7F C0 00"));
    ASSERT_TRUE(buffered(8));
    client.close();
    ASSERT_TRUE(events.wait_disconnects(1));
    EXPECT_EQ(0u, events.count(NETIP_EVENT_DATA));
}

TEST_F(netip_reassembly, any_way_of_cutting_the_stream_gives_the_same_packets) {
    std::mt19937 random(20240501);
    std::vector<bytes> packets;
    bytes stream;
    for (int i = 0; i < 400; ++i) {
        packets.push_back(packet_of(2 + random() % (i % 10 == 0 ? 4000 : 60), static_cast<uint8_t>(i)));
        stream = stream + packets.back();
    }
    for (size_t pos = 0; pos < stream.size();) {
        const size_t n =
            std::min<size_t>(1 + random() % (random() % 4 == 0 ? 9000 : 20), stream.size() - pos);
        ASSERT_TRUE(client.send(
            bytes(stream.begin() + static_cast<long>(pos), stream.begin() + static_cast<long>(pos + n))));
        pos += n;
    }
    expect_only(packets);
}

TEST_F(netip_reassembly, a_flood_does_not_keep_other_connections_waiting) {
    tcp_client other;
    ASSERT_TRUE(events.wait_connects(2));
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        bytes burst;
        for (int i = 0; i < 16; ++i) burst = burst + packet_of(4096);
        while (!stop && client.send(burst)) {
        }
    });
    EXPECT_TRUE(events.wait_data(100));
    EXPECT_TRUE(other.send(k_ping));
    EXPECT_TRUE(eventually([&] {
        for (const event &e : events.events(NETIP_EVENT_DATA))
            if (e.handle == 1) return true;
        return false;
    }));
    stop = true;
    flood.join();
}

TEST(netip_fairness, a_burst_of_tiny_packets_lets_others_in_between) {
    constexpr size_t k_burst = 20000;
    std::atomic<bool> go_on{false};
    recorder events([&](const event &e) {
        if (e.data == hex("D0 00")) {
            EXPECT_TRUE(eventually([&] { return go_on.load(); }));
        }
        return 1;
    });
    running_netip netip(events);
    tcp_client busy;
    ASSERT_TRUE(events.wait_connects(1));
    tcp_client other;
    ASSERT_TRUE(events.wait_connects(2));
    ASSERT_TRUE(busy.send("D0 00"));  // holds the I/O thread until both have sent everything
    ASSERT_TRUE(events.wait_data(1));
    bytes burst;
    for (size_t i = 0; i < k_burst; ++i) burst.insert(burst.end(), k_ping.begin(), k_ping.end());
    ASSERT_TRUE(busy.send(burst));
    ASSERT_TRUE(other.send(k_ping));
    go_on = true;
    ASSERT_TRUE(events.wait_data(k_burst + 2));
    const std::vector<event> data = events.events(NETIP_EVENT_DATA);
    size_t position = 0;
    while (data[position].handle != 1) ++position;
    EXPECT_LE(position, 4096u);
}

TEST(netip_log, a_packet_writes_its_length_and_at_debug_its_bytes) {
    recorder events;
    log_capture log(AGENT_LOG_DEBUG);
    {
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(client.send("C0 00 D0"));
        ASSERT_TRUE(events.wait_data(1));
    }
    EXPECT_TRUE(log.has("DEBUG", "[NETIP] 开始解析客户端数据 handle=0 缓存长度=3")) << log.text();
    EXPECT_TRUE(log.has("INFO", "[NETIP] 完整报文长度: 2")) << log.text();
    EXPECT_TRUE(log.has("DEBUG", "[NETIP] 完整报文")) << log.text();
    EXPECT_TRUE(log.has("DEBUG", "C0 00 ")) << log.text();
}

TEST(netip_log, a_packet_writes_no_bytes_at_info) {
    recorder events;
    log_capture log(AGENT_LOG_INFO);
    {
        running_netip netip(events);
        tcp_client client;
        ASSERT_TRUE(client.send("C0 00"));
        ASSERT_TRUE(events.wait_data(1));
    }
    EXPECT_TRUE(log.has("INFO", "[NETIP] 完整报文长度: 2")) << log.text();
    EXPECT_EQ(std::string::npos, log.text().find("C0 00")) << log.text();
    EXPECT_EQ(std::string::npos, log.text().find("开始解析")) << log.text();
}
