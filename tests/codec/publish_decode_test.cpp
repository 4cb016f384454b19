#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using row = decode_row<mqtt_publish_para>;

void run(const std::vector<row> &rows) {
    for (const row &r : rows) run_decode_row<mqtt_publish_para>(mqtt_codec_decode_publish, r, 3);
}

std::string payload(const mqtt_publish_para &p) {
    return std::string(reinterpret_cast<const char *>(p.payload), p.payload_len);
}

}  // namespace

class publish_decode : public quiet_codec_test {};

TEST_F(publish_decode, a_buffer_larger_than_a_dump_can_be_is_traced_in_part) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_publish_para>();
    bytes wire = hex("30 05 00 01 'a' 'hi'");
    wire.resize(UINT16_MAX + 1);
    int len = static_cast<int>(wire.size());
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, wire.data(), &len, para.get()), 0);
    EXPECT_TRUE(log.has("DEBUG", "PUBLISH decode: input"));
    EXPECT_TRUE(log.has("DEBUG", "30 05 00 01 61 68 69 00 00 00 00 00 00 00 00 00 "));
}

TEST_F(publish_decode, flags_and_packet_identifiers) {
    run({
        {"QoS 1, retained",
         4,
         "33 07 00 01 'a' 12 34 'hi'",
         0,
         {},
         9,
         4,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.qos, 1u);
             EXPECT_EQ(p.retain, 1);
             EXPECT_EQ(p.packet_id, 0x1234);
             EXPECT_EQ(payload(p), "hi");
         }},
        {"QoS 2, repeated, level 5",
         4,
         "3C 08 00 01 'a' FF FF 00 'hi'",
         0,
         {},
         10,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.qos, 2u);
             EXPECT_EQ(p.dup, 1);
             EXPECT_EQ(p.packet_id, 0xFFFF);
         }},
        {"DUP at QoS 0 is accepted",
         4,
         "38 05 00 01 'a' 'hi'",
         0,
         {},
         7,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.dup, 1); }},
        {"QoS 3",
         4,
         "36 07 00 01 'a' 12 34 'hi'",
         -4,
         {"ERROR", "PUBLISH decode: invalid QoS=3 (protocol require 0/1/2)"}},
        {"identifier 0",
         4,
         "32 07 00 01 'a' 00 00 'hi'",
         -4,
         {"ERROR", "PUBLISH decode: invalid msg id=0 (protocol require 1~65535 for QoS1/QoS2)"}},
        {"one byte of identifier",
         4,
         "32 04 00 01 'a' 12",
         -4,
         {"ERROR",
          "PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=1, pos+2=7 > buf_len=6"}},
        {"no identifier",
         4,
         "34 03 00 01 'a'",
         -4,
         {"ERROR",
          "PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=0, pos+2=7 > buf_len=5"}},
        {"QoS 3 is told before a bad length",
         4,
         "36 7F 00 01 'a' 12 34 'hi'",
         -4,
         {"ERROR", "PUBLISH decode: invalid QoS=3 (protocol require 0/1/2)"}},
        {"another type",
         4,
         "42 07 00 01 'a' 12 34 'hi'",
         -4,
         {"ERROR", "PUBLISH decode: not a PUBLISH packet (type=4, expect=3)"}},
    });
}

TEST_F(publish_decode, bad_lengths) {
    run({
        {"a length of four bytes",
         4,
         "30 87 80 80 00 00 03 'a/b' 'hi'",
         -4,
         {"ERROR",
          "PUBLISH decode: invalid remaining length (len=-1, consumed=0, total need=0, buf_len=12)"}},
        {"longer than the buffer",
         4,
         "30 08 00 03 'a/b' 'hi'",
         -4,
         {"ERROR", "PUBLISH decode: invalid remaining length (len=8, consumed=1, total need=10, buf_len=9)"}},
        {"no topic length",
         4,
         "30 00",
         -4,
         {"ERROR", "PUBLISH decode: buffer too short for topic length (need 2 bytes) - pos=2, buf_len=2"}},
        {"half a topic length",
         4,
         "30 01 00",
         -4,
         {"ERROR", "PUBLISH decode: buffer too short for topic length (need 2 bytes) - pos=2, buf_len=3"}},
        {"a topic past the buffer",
         4,
         "30 04 00 03 'a/'",
         -4,
         {"ERROR", "PUBLISH decode: buffer too short for topic content - pos+len=7 > buf_len=6"}},
    });
}

TEST_F(publish_decode, a_topic_has_1_to_256_bytes) {
    run({
        {"none, also with an alias at level 5",
         5,
         pkt("30", "00 00 03 23 00 05 'hi'"),
         -4,
         {"ERROR", "PUBLISH decode: invalid topic length=0 (protocol require non-empty topic)"}},
        {"256",
         4,
         pkt("30", "01 00 " + rep(256)),
         0,
         {},
         3 + 258,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(strlen(p.topic), 256u); }},
        {"257",
         4,
         pkt("30", "01 01 " + rep(257)),
         -4,
         {"ERROR", "PUBLISH decode: topic length exceed max (257 > 256)"}},
        {"65535 is too long before it is missing",
         4,
         pkt("30", "FF FF 'a'"),
         -4,
         {"ERROR", "PUBLISH decode: topic length exceed max (65535 > 256)"}},
    });
}

TEST_F(publish_decode, a_topic_is_bounded_by_the_buffer_and_leaves_no_payload) {
    run({
        {"topic behind the packet's end",
         5,
         "30 00 00 01 'a'",
         0,
         {},
         5,
         4,
         [](const mqtt_publish_para &p) {
             EXPECT_STREQ(p.topic, "a");
             EXPECT_EQ(p.payload_len, 0u);
         }},
        {"an identifier behind it is not looked for",
         4,
         "32 02 00 01 'a' 00 01",
         -4,
         {"ERROR",
          "PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=-1, pos+2=7 > buf_len=7"}},
    });
}

TEST_F(publish_decode, a_payload_above_2048_bytes_is_cut) {
    run({
        {"3000 bytes",
         5,
         pkt("30", "00 01 'a' " + rep(3000, '\xFF')),
         0,
         {"WARN", "PUBLISH decode: payload length exceed max (3000 > 2048), truncate to max"},
         3 + 3 + 2048,
         4,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.payload_len, 2048u);
             EXPECT_EQ(payload(p), std::string(2048, '\xFF'));
         }},
        {"2048 bytes",
         4,
         pkt("30", "00 01 'a' 00 " + rep(2048, 'p')),
         0,
         {},
         3 + 4 + 2048,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 2048u); }},
    });
}

TEST_F(publish_decode, bytes_behind_the_packet_are_left) {
    run({
        {"another packet",
         5,
         "30 05 00 01 'a' 'hi' C0 00",
         0,
         {},
         7,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "hi"); }},
    });
}

TEST_F(publish_decode, a_refused_packet_changes_neither_level_nor_type) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_publish_para>();
    for (const char *wire_hex : {"36 05 00 01 'a' 'hi'", "30 04 00 00 'hi'", "32 05 00 01 'a' 00 00"}) {
        mqtt_codec_ctx_init(&ctx);
        const bytes wire = hex(wire_hex);
        int len = static_cast<int>(wire.size());
        EXPECT_EQ(mqtt_codec_decode_publish(&ctx, wire.data(), &len, para.get()), -4) << wire_hex;
        EXPECT_EQ(ctx.protocol_version, 4u);
        EXPECT_EQ(ctx.last_packet_type, 0u);
        EXPECT_EQ(para->payload_len, 0u);
        EXPECT_EQ(para->msg_expiry_interval, 0u);
    }
}

TEST_F(publish_decode, a_packet_of_another_type_leaves_a_cleared_record) {
    expect_cleared<mqtt_publish_para>(mqtt_codec_decode_publish, "42 05 00 01 'a' 'hi'");
}

TEST_F(publish_decode, bad_arguments) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_publish_para>();
    heap_block in(2);
    const void *const c = &ctx;
    const void *const p = para.get();
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 2;
    int short_len = 1;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_publish(nullptr, in.data(), &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, nullptr, &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, in.data(), nullptr, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, in.data(), &short_len, para.get()), -1);
    constexpr char text[] = "PUBLISH decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 2, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 2, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, l, 2, none))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 1, p))) << log.text();
}
