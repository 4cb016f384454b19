// The common entry of every packet.
#include "tests/packet/packet_fixture.h"

namespace {

using namespace zeb_test;
using zeb::mqtt_client;
using zeb::packet_dispatch;

using packet_dispatching = packet_fixture;

TEST_F(packet_dispatching, a_packet_without_bytes_or_client_is_counted_logged_and_dropped) {
    mqtt_client *client = open();
    const uint8_t ping[] = {0xC0, 0x00};
    log_capture log;
    packet_dispatch(client, nullptr, 2);
    packet_dispatch(client, ping, 0);
    packet_dispatch(client, ping, -1);
    packet_dispatch(nullptr, ping, 2);
    EXPECT_TRUE(log.has("ERROR", "无效报文参数"));
    size_t lines = 0;
    for (size_t at = 0; (at = log.text().find("无效报文参数", at)) != std::string::npos; ++at) ++lines;
    EXPECT_EQ(4u, lines);
    EXPECT_EQ(4u, zeb::g_mqtt_stats.pkt_rx.load());
    EXPECT_EQ(texts(), sent(client));
}

TEST_F(packet_dispatching, a_packet_is_counted_logged_and_marks_its_client_active) {
    mqtt_client *client = join("x");
    client->timed_out.store(1);
    clock.advance_ms(500);
    const uint64_t before = zeb::g_mqtt_stats.pkt_rx.load();
    log_capture log;
    give(client, "B0 02 00 01");
    EXPECT_TRUE(log.has("DEBUG", "收到MQTT报文：ClientID=x, 类型=11, 长度=4"));
    EXPECT_EQ(before + 1, zeb::g_mqtt_stats.pkt_rx.load());
    EXPECT_EQ(clock.mono_ms(), client->last_active.load());
    EXPECT_EQ(0, client->timed_out.load());
}

TEST_F(packet_dispatching, types_that_only_a_broker_sends_are_dropped_and_the_connection_stays) {
    mqtt_client *client = join("x");
    for (const int type : {0, 2, 9, 11, 13, 15}) {
        log_capture log;
        give(client, bytes{static_cast<uint8_t>(type << 4), 0});
        EXPECT_TRUE(log.has("WARN", "未处理的MQTT报文类型：" + std::to_string(type) + ", ClientID=x"));
    }
    EXPECT_EQ(texts(), sent(client));
    EXPECT_TRUE(is_open(client));
    EXPECT_EQ(0u, zeb::g_mqtt_stats.parse_error.load());
}

struct broken_packet {
    const char *wire;
    const char *line;
};

TEST_F(packet_dispatching, a_packet_that_does_not_decode_is_logged_counted_and_never_answered) {
    const broken_packet k_broken[] = {
        {"10 00", "CONNECT decode failed"},
        {"10 0C 00 04 'MQTT' 06 02 00 3C 00 00", "CONNECT decode failed"},
        {"36 05 00 01 't' 00 01", "解码PUBLISH失败：ClientID=x, 错误码=-4"},
        {"30 02 00 00", "解码PUBLISH失败：ClientID=x, 错误码=-4"},
        {"32 05 00 01 't' 00 00", "解码PUBLISH失败：ClientID=x, 错误码=-4"},
        {"30", "解码PUBLISH失败：ClientID=x, 错误码=-1"},
        {"40 02", "解码PUBACK失败：ClientID=x, 错误码=-1"},
        {"40 01 00", "解码PUBACK失败：ClientID=x, 错误码=-4"},
        {"50 02 00", "解码PUBREC失败：ClientID=x, 错误码=-4"},
        {"62 05 00 01", "解码PUBREL失败：ClientID=x, 错误码=-4"},
        {"70 7F 00 01", "解码PUBCOMP失败：ClientID=x, 错误码=-4"},
        {"80 06 00 01 00 01 't' 00", "解码SUBSCRIBE失败：ClientID=x, 错误码=-4"},
        {"82 06 00 00 00 01 't' 00", "解码SUBSCRIBE失败：ClientID=x, 错误码=-4"},
        {"82 04 00 01", "解码SUBSCRIBE失败：ClientID=x, 错误码=-1"},
        {"A0 05 00 01 00 01 't'", "解码UNSUBSCRIBE失败：ClientID=x, 错误码=-4"},
        {"A2 05 00 00 00 01 't'", "解码UNSUBSCRIBE失败：ClientID=x, 错误码=-1"},
        {"A2 82 10 00 01", "解码UNSUBSCRIBE失败：ClientID=x, 错误码=-3"},
        {"E0 01 00", "解码DISCONNECT失败：ClientID=x, 错误码=-4"},
    };
    mqtt_client *client = join("x");
    uint32_t errors = 0;
    for (const broken_packet &row : k_broken) {
        client->codec.protocol_version.store(4);
        log_capture log(zeb::AGENT_LOG_ERROR);
        give(client, row.wire);
        EXPECT_TRUE(log.has("ERROR", row.line)) << row.wire << "\n" << log.text();
        EXPECT_EQ(++errors, zeb::g_mqtt_stats.parse_error.load()) << row.wire;
        EXPECT_EQ(texts(), sent(client)) << row.wire;
        EXPECT_TRUE(is_open(client)) << row.wire;
    }
    EXPECT_EQ(texts(), app().heard);
}

TEST_F(packet_dispatching, a_packet_of_exactly_the_limit_passes) {
    mqtt_client *client = join("x");
    give(client, packet(0x30, text16("t") + bytes(4096 - 6, 0xFF)));
    EXPECT_TRUE(is_open(client));
    EXPECT_EQ(1u, zeb::g_mqtt_stats.qos0.load());
}

TEST_F(packet_dispatching, a_level_4_client_above_4096_bytes_gets_a_plain_disconnect_and_is_closed) {
    mqtt_client *client = join("x");
    log_capture log;
    give(client, packet(0x30, text16("t") + bytes(4097 - 6, 0xFF)));
    EXPECT_TRUE(log.has("ERROR", "[MQTT过载保护] 报文超长关闭连接：Client=x, 接收=4097, 协商最大=4096"));
    EXPECT_EQ(just("E0 00"), sent(client));
    EXPECT_FALSE(is_open(client));
    EXPECT_EQ(nullptr, zeb::client_find_by_cid("x"));
    EXPECT_EQ(0u, zeb::g_mqtt_stats.qos0.load());
}

TEST_F(packet_dispatching, the_default_limit_holds_before_connect) {
    zeb::g_default_max_packet_size.store(300);
    mqtt_client *client = open();
    zeb::g_default_max_packet_size.store(4096);
    give(client, packet(0x10, bytes(298, 0)));
    EXPECT_EQ(just("E0 00"), sent(client));
    EXPECT_FALSE(is_open(client));
}

TEST_F(packet_dispatching, no_limit_is_applied_when_there_is_none) {
    mqtt_client *client = join("x");
    client->max_packet_size.store(0);
    give(client, bytes(5000, 0));
    EXPECT_TRUE(is_open(client));
}

TEST_F(packet_dispatching, an_oversize_client_takes_its_clean_sessions_subscriptions_along) {
    mqtt_client *client = join("x");
    subscribe(client, "a", 0);
    give(client, bytes(4097, 0));
    EXPECT_EQ(0, live_subscriptions("x"));
}

TEST_F(packet_dispatching, a_ping_before_any_connect_is_answered) {
    mqtt_client *client = open();
    give(client, "C0 00");
    EXPECT_EQ(just("D0 00"), sent(client));
}

TEST_F(packet_dispatching, nothing_is_subscribed_for_a_client_without_a_name) {
    mqtt_client *client = open();
    give(client, subscribe_packet(5, {{"a", 1}}));
    EXPECT_EQ(just("90 03 00 05 80"), sent(client));
    EXPECT_EQ(0, zeb::g_sub_mgr.sub_count.load());
}

// A kick in the middle of a packet: here from the event that SUBSCRIBE raises.
TEST_F(packet_dispatching, what_a_packet_subscribes_after_its_client_was_closed_does_not_stay) {
    static mqtt_client *victim;
    victim = join("x");
    broker.event_cb = [](mqtt_broker_instance *, uint32_t, const char *) {
        zeb::client_close(victim);
        return 0;
    };
    give(victim, subscribe_packet(1, {{"a", 0}, {"b", 0}, {"c", 0}}));
    EXPECT_FALSE(is_open(victim));
    EXPECT_EQ(0, live_subscriptions("x"));
}

// Whatever the bytes are: nobody crashes, and another client's session is not touched.
TEST_F(packet_dispatching, random_and_mutated_packets_harm_nobody) {
    mqtt_client *bystander = join("bystander");
    subscribe(bystander, "quiet/#", 1);
    connect_options rich;
    rich.level = 5;
    rich.properties = hex("27 00 00 10 00");
    rich.will = true;
    rich.will_properties = hex("18 00 00 00 0A");
    connect_options kept;
    kept.clean = false;
    kept.user = "u";
    kept.password = "p";
    kept.will = true;
    const bytes k_seeds[] = {
        connect_packet("mutant", rich),
        connect_packet("mutant", kept),
        publish_packet("t/1", "payload", 1, 7),
        publish5_packet("t/1", hex("02 00 00 00 3C 23 00 05"), raw("payload"), 2, 8),
        subscribe_packet(3, {{"t/#", 1}, {"$share/g/t/+", 2}}),
        unsubscribe_packet(4, {"t/#", "x"}),
        hex("40 03 00 07 00"),
        hex("62 02 00 08"),
        hex("E0 07 00 05 10 00 00 00 3C"),
    };
    unsigned state = 20240601;
    const auto random = [&state](unsigned n) { return static_cast<unsigned>(rand_r(&state)) % n; };
    mqtt_client *client = join("mutant");
    for (int i = 0; i < 30000; ++i) {
        if (!is_open(client)) {
            forget_closed();
            client = join("mutant");
        }
        bytes p = k_seeds[random(std::size(k_seeds))];
        for (unsigned n = random(4); n > 0; --n)
            p[random(static_cast<unsigned>(p.size()))] ^= static_cast<uint8_t>(1u << random(8));
        if (random(4) == 0) p.resize(random(static_cast<unsigned>(p.size())) + 1);
        give(client, p);
        if (i % 16 == 0) (void)sent(client);
    }
    EXPECT_TRUE(is_open(bystander));
    EXPECT_EQ(1, live_subscriptions("bystander"));
    EXPECT_GT(zeb::g_mqtt_stats.parse_error.load(), 1000u);
}

}  // namespace
