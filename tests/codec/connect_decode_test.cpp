#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using row = decode_row<mqtt_connect_para>;

const char *const k_v4 = "00 04 'MQTT' 04 ";
const char *const k_v5 = "00 04 'MQTT' 05 ";

std::string v4(const std::string &rest) {
    return pkt("10", k_v4 + rest);
}
std::string v5(const std::string &rest) {
    return pkt("10", k_v5 + rest);
}
// A level 5 CONNECT with client identifier "c" and the given property block.
std::string v5_props(const std::string &block) {
    return v5("02 00 3C " + dump(bytes{static_cast<uint8_t>(hex(block).size())}) + " " + block +
              " 00 01 'c'");
}

void run(const std::vector<row> &rows) {
    for (const row &r : rows) run_decode_row<mqtt_connect_para>(mqtt_codec_decode_connect, r, 1);
}

}  // namespace

class connect_decode : public quiet_codec_test {};

TEST_F(connect_decode, good_packets) {
    run({
        {"level 4, identifier only",
         5,
         "10 0E 00 04 'MQTT' 04 02 00 3C 00 02 'c1'",
         0,
         {},
         16,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_STREQ(p.client_id, "c1");
             EXPECT_EQ(p.clean_start, 1);
             EXPECT_EQ(p.keep_alive, 60);
             EXPECT_EQ(p.will_flag, 0);
             EXPECT_EQ(p.username_flag, 0);
             EXPECT_EQ(p.password_flag, 0);
             EXPECT_EQ(p.username_len, 0u);
             EXPECT_EQ(p.password_len, 0u);
             EXPECT_STREQ(p.will_topic, "");
             EXPECT_EQ(p.will_payload_len, 0u);
             EXPECT_EQ(p.session_expiry_interval, 0u);
         }},
        {"level 4, everything",
         4,
         v4("EE 12 34 00 02 'c1' 00 03 'w/t' 00 03 01 00 02 00 04 'user' 00 02 'pw'"),
         0,
         {},
         36,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.keep_alive, 0x1234);
             EXPECT_EQ(p.clean_start, 1);
             EXPECT_EQ(p.will_flag, 1);
             EXPECT_EQ(p.will_qos, 1u);
             EXPECT_EQ(p.will_retain, 1);
             EXPECT_STREQ(p.will_topic, "w/t");
             EXPECT_EQ(dump(p.will_payload, p.will_payload_len), "01 00 02");
             EXPECT_EQ(p.username_flag, 1);
             EXPECT_STREQ(p.username, "user");
             EXPECT_EQ(p.username_len, 4u);
             EXPECT_EQ(p.password_flag, 1);
             EXPECT_STREQ(p.password, "pw");
             EXPECT_EQ(p.password_len, 2u);
         }},
        {"level 5, all properties",
         4,
         v5_props("11 00 01 02 03 21 00 14 22 00 0A 19 01 1A 01 27 00 00 10 00"),
         0,
         {},
         36,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.session_expiry_interval, 0x00010203u);
             EXPECT_EQ(p.receive_maximum, 20);
             EXPECT_EQ(p.topic_alias_maximum, 10);
             EXPECT_EQ(p.request_response_info, 1);
             EXPECT_EQ(p.request_problem_info, 1);
             EXPECT_EQ(p.maximum_packet_size, 4096u);
             EXPECT_STREQ(p.client_id, "c");
         }},
        {"level 5, an identifier in two bytes that names a known property",
         4,
         v5_props("80 21 00 14"),
         0,
         {},
         20,
         5,
         [](const mqtt_connect_para &p) { EXPECT_EQ(p.receive_maximum, 20); }},
        {"reserved flag bit 0 is not checked",
         4,
         v4("03 00 00 00 01 'c'"),
         0,
         {},
         15,
         4,
         [](const mqtt_connect_para &p) { EXPECT_EQ(p.clean_start, 1); }},
        {"bytes behind the last field are ignored", 4, v4("02 00 00 00 01 'c' AA BB CC"), 0, {}, 15, 4},
        {"bytes behind the packet are ignored", 4, v4("02 00 00 00 01 'c'") + " C0 00", 0, {}, 15, 4},
        {"password without a user name",
         4,
         v4("42 00 00 00 01 'c' 00 02 'pw'"),
         0,
         {},
         19,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.username_flag, 0);
             EXPECT_EQ(p.username_len, 0u);
             EXPECT_EQ(p.password_flag, 1);
             EXPECT_STREQ(p.password, "pw");
         }},
        {"an empty will payload",
         4,
         v4("06 00 00 00 01 'c' 00 01 'w' 00 00"),
         0,
         {},
         20,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_STREQ(p.will_topic, "w");
             EXPECT_EQ(p.will_payload_len, 0u);
         }},
        {"23 bytes of identifier at level 4",
         4,
         v4("02 00 00 00 17 " + rep(23)),
         0,
         {},
         37,
         4,
         [](const mqtt_connect_para &p) { EXPECT_EQ(strlen(p.client_id), 23u); }},
        {"64 bytes of identifier at level 5",
         4,
         v5("02 00 00 00 00 40 " + rep(64)),
         0,
         {},
         79,
         5,
         [](const mqtt_connect_para &p) { EXPECT_EQ(strlen(p.client_id), 64u); }},
        {"will, user name and password at their limits",
         4,
         v4("C6 00 00 00 01 'c' 01 00 " + rep(256, 't') + " 08 00 " + rep(2048, 'p') + " 00 40 " +
            rep(64, 'u') + " 00 40 " + rep(64, 'x')),
         0,
         {},
         13 + 3 + 258 + 2050 + 66 + 66,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(strlen(p.will_topic), 256u);
             EXPECT_EQ(p.will_payload_len, 2048u);
             EXPECT_EQ(p.will_payload[2047], 'p');
             EXPECT_EQ(p.username_len, 64u);
             EXPECT_EQ(p.username[63], 'u');
             EXPECT_EQ(p.password_len, 64u);
         }},
    });
}

TEST_F(connect_decode, bad_fixed_headers) {
    const std::string body = "00 04 'MQTT' 04 02 00 3C 00 02 'c1'";
    run({
        {"another type",
         4,
         "20 0E " + body,
         -4,
         {"ERROR", "CONNECT decode: invalid pkt type/flags (type=2, flags=0)"}},
        {"flags set",
         4,
         "13 0E " + body,
         -4,
         {"ERROR", "CONNECT decode: invalid pkt type/flags (type=1, flags=3)"}},
        {"a remaining length of four bytes",
         4,
         "10 8E 80 80 00 " + body,
         -4,
         {"ERROR", "CONNECT decode: invalid remaining length (len=-1, consumed=0)"}},
    });
}

TEST_F(connect_decode, bad_protocol_names_and_levels) {
    run({
        {"no room for the name",
         4,
         "10 03 00 04 'MQTT' 04 02 00 3C",
         -4,
         {"ERROR", "CONNECT decode: no enough data for protocol name (pos=2, len=5)"}},
        {"the name of MQTT 3.1, six bytes long",
         4,
         pkt("10", "00 06 'MQIsdp' 03 02 00 3C 00 02 'c1'"),
         -4,
         {"ERROR", "CONNECT decode: invalid protocol name (len=6, name=MQIsdp)"}},
        {"another name of four bytes",
         4,
         pkt("10", "00 04 'MQTX' 04 02 00 3C 00 02 'c1'"),
         -4,
         {"ERROR", "CONNECT decode: invalid protocol name (len=4, name=MQTX)"}},
        {"a name longer than the packet is printed only as far as it goes",
         4,
         "10 08 FF FF 'MQTTzz' 04 02",
         -4,
         {"ERROR", "CONNECT decode: invalid protocol name (len=65535, name=MQTTzz)"}},
        {"a name cut short by the packet's end",
         4,
         "10 04 00 04 'MQTT' 04 02",
         -4,
         {"ERROR", "CONNECT decode: invalid protocol name (len=4, name=MQ)"}},
        {"no level",
         4,
         "10 06 00 04 'MQTT' 04 02",
         -4,
         {"ERROR", "CONNECT decode: no enough data for protocol version (pos=8)"}},
        {"level 3",
         4,
         pkt("10", "00 04 'MQTT' 03 02 00 3C 00 02 'c1'"),
         -2,
         {"ERROR", "CONNECT decode: unsupported version 3 (only 4/5 allowed)"}},
        {"level 6",
         4,
         pkt("10", "00 04 'MQTT' 06 02 00 3C 00 02 'c1'"),
         -2,
         {"ERROR", "CONNECT decode: unsupported version 6 (only 4/5 allowed)"}},
        {"no flags",
         4,
         "10 07 00 04 'MQTT' 04 02",
         -4,
         {"ERROR", "CONNECT decode: no enough data for connect flags (pos=9)"}},
        {"no keep alive",
         4,
         "10 09 00 04 'MQTT' 04 02 00 3C",
         -4,
         {"ERROR", "CONNECT decode: no enough data for keep alive (pos=10)"}},
    });
}

TEST_F(connect_decode, will_qos_3_is_refused_only_with_the_will_flag) {
    run({
        {"with the flag",
         4,
         v4("1E 00 3C 00 01 'c' 00 01 'w' 00 01 'p'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will QoS 3"}},
        {"it is told before a missing keep alive",
         4,
         "10 08 00 04 'MQTT' 04 1E",
         -4,
         {"ERROR", "CONNECT decode: invalid Will QoS 3"}},
        {"without the flag the bits are stored all the same",
         4,
         v4("3A 00 3C 00 01 'c'"),
         0,
         {},
         15,
         4,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.will_flag, 0);
             EXPECT_EQ(p.will_qos, 3u);
             EXPECT_EQ(p.will_retain, 1);
         }},
    });
}

TEST_F(connect_decode, bad_properties) {
    run({
        {"no property length",
         5,
         v5("02 00 3C"),
         -4,
         {"ERROR", "CONNECT decode: invalid MQTT 5.0 property length (len=-1, consumed=0)"}},
        {"a property length of four bytes",
         5,
         v5("02 00 3C 80 80 80 00 00 01 'c'"),
         -4,
         {"ERROR", "CONNECT decode: invalid MQTT 5.0 property length (len=-1, consumed=0)"}},
        {"second identifier byte missing",
         5,
         v5_props("81"),
         -4,
         {"ERROR", "CONNECT decode: incomplete extended property type (pos=14)"}},
        {"session expiry cut short",
         5,
         v5_props("11 00 00 00"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Session Expiry Interval (pos=14)"}},
        {"request response information cut short",
         5,
         v5_props("19"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Request Response Info (pos=14)"}},
        {"request problem information cut short",
         5,
         v5_props("1A"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Request Problem Info (pos=14)"}},
        {"receive maximum cut short",
         5,
         v5_props("21 00"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Receive Maximum (pos=14)"}},
        {"topic alias maximum cut short",
         5,
         v5_props("22 00"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Topic Alias Maximum (pos=14)"}},
        {"maximum packet size cut short",
         5,
         v5_props("27 00 00 10"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Max Packet Size (pos=14)"}},
        {"a block that runs past the packet ends with it",
         5,
         v5("02 00 3C 7F 21 00"),
         -4,
         {"ERROR", "CONNECT decode: incomplete Receive Maximum (pos=14)"}},
    });
}

TEST_F(connect_decode, an_unknown_property_skips_the_rest_of_the_block) {
    run({
        {"one byte",
         4,
         v5_props("21 00 14 17 01 22 00 0A"),
         0,
         {"WARN", "CONNECT decode: unknown property type=0x17, skip"},
         24,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.receive_maximum, 20);
             EXPECT_EQ(p.topic_alias_maximum, 0);
             EXPECT_STREQ(p.client_id, "c");
         }},
        {"two bytes",
         4,
         v5_props("81 11 00 00 00 05"),
         0,
         {"WARN", "CONNECT decode: unknown property type=0x111, skip"},
         22,
         5,
         [](const mqtt_connect_para &p) { EXPECT_EQ(p.session_expiry_interval, 0u); }},
    });
}

TEST_F(connect_decode, a_buffer_shorter_than_the_packet_is_decoded_from_what_is_there) {
    run({
        {"enough is there",
         4,
         "10 7F 00 04 'MQTT' 04 02 00 3C 00 02 'c1'",
         0,
         {"WARN", "CONNECT decode: pkt len mismatch (expected=129, actual=16), truncate"},
         16,
         4,
         [](const mqtt_connect_para &p) { EXPECT_STREQ(p.client_id, "c1"); }},
        {"too little is there",
         4,
         "10 7F 00 04 'MQTT' 04 02 00 3C 00 02 'c'",
         -4,
         {"ERROR", "CONNECT decode: ClientID data out of bounds (pos=12, len=2, total=15)"}},
    });
}

TEST_F(connect_decode, the_level_is_kept_also_when_a_later_field_is_refused) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_connect_para>();
    const auto level_after = [&](const std::string &wire_hex, uint32_t before) {
        set_level(&ctx, before);
        const bytes wire = hex(wire_hex);
        int len = static_cast<int>(wire.size());
        EXPECT_LT(mqtt_codec_decode_connect(&ctx, wire.data(), &len, para.get()), 0);
        return ctx.protocol_version.load();
    };
    EXPECT_EQ(level_after(v5("02 00 3C"), 4), 5u);
    EXPECT_EQ(level_after(v4("02 00 3C"), 5), 4u);
    EXPECT_EQ(level_after(pkt("10", "00 04 'MQTT' 06 02 00 3C 00 01 'c'"), 5), 5u);
}

TEST_F(connect_decode, a_refused_packet_leaves_a_cleared_record) {
    expect_cleared<mqtt_connect_para>(mqtt_codec_decode_connect, "20 0E 00 04 'MQTT' 04 02 00 3C 00 02 'c1'");
    expect_cleared<mqtt_connect_para>(mqtt_codec_decode_connect, "10 03 00 04 'MQTT' 04 02 00 3C");
}

TEST_F(connect_decode, bad_arguments) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_connect_para>();
    heap_block in(16);
    const void *const c = &ctx;
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 16;
    int short_len = 9;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_connect(nullptr, in.data(), &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, nullptr, &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, in.data(), nullptr, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, in.data(), &short_len, para.get()), -1);
    constexpr char text[] = "CONNECT decode: invalid input (ctx=%p, buf=%p, len=%d < 10)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, 16))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, 16))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 16))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 9))) << log.text();
}
