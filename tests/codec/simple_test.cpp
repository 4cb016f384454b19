#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

constexpr uint8_t k_untouched = 0xEE;

struct simple_result {
    int rc;
    int len;
    uint32_t level;
    uint32_t type;
    std::string wire;
};

simple_result encode(uint32_t level, int type, int capacity) {
    mqtt_codec_ctx ctx{};
    set_level(&ctx, level);
    heap_block out(static_cast<size_t>(capacity), k_untouched);
    int len = capacity;
    const int rc = mqtt_codec_encode_simple(&ctx, type, out.data(), &len);
    EXPECT_EQ(out.data()[3], k_untouched);
    return {rc, len, ctx.protocol_version, ctx.last_packet_type, dump(out.data(), 3)};
}

simple_result decode(uint32_t level, int type, const char *wire_hex) {
    mqtt_codec_ctx ctx{};
    set_level(&ctx, level);
    const bytes wire = hex(wire_hex);
    heap_block in(wire.data(), wire.size());
    int len = static_cast<int>(wire.size());
    const int rc = mqtt_codec_decode_simple(&ctx, type, in.data(), &len);
    EXPECT_EQ(ctx.last_packet_len, rc == 0 ? static_cast<uint32_t>(len) : 0u);
    return {rc, len, ctx.protocol_version, ctx.last_packet_type, ""};
}

}  // namespace

class simple_packets : public quiet_codec_test {};

TEST_F(simple_packets, are_two_bytes_but_for_disconnect_at_level_5) {
    const struct {
        uint32_t level;
        int type;
        int len;
        const char *wire;
    } rows[] = {
        {4, MQTT_PKT_PINGREQ, 2, "C0 00 EE"},    {5, MQTT_PKT_PINGREQ, 2, "C0 00 EE"},
        {4, MQTT_PKT_PINGRESP, 2, "D0 00 EE"},   {5, MQTT_PKT_PINGRESP, 2, "D0 00 EE"},
        {4, MQTT_PKT_DISCONNECT, 2, "E0 00 EE"}, {5, MQTT_PKT_DISCONNECT, 3, "E0 00 00"},
    };
    for (const auto &row : rows) {
        const simple_result r = encode(row.level, row.type, 128);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.len, row.len) << row.wire;
        EXPECT_EQ(r.wire, row.wire);
        EXPECT_EQ(r.type, static_cast<uint32_t>(row.type));
        EXPECT_EQ(r.level, row.level);
    }
}

TEST_F(simple_packets, encoding_refuses_other_types_before_other_levels) {
    log_capture log;
    for (const int type : {11, 15, 0}) {
        const simple_result r = encode(3, type, 128);
        EXPECT_EQ(r.rc, -5);
        EXPECT_EQ(r.len, 128);
        EXPECT_EQ(r.wire, "EE EE EE");
        EXPECT_EQ(r.type, 0u);
    }
    EXPECT_EQ(encode(3, MQTT_PKT_PINGRESP, 128).rc, -2);
    for (const int type : {11, 15, 0})
        EXPECT_TRUE(log.has("ERROR", format("Simple encode: unsupported packet type %d", type)))
            << log.text();
    EXPECT_TRUE(log.has("ERROR", "Simple encode: unsupported version 3")) << log.text();
}

TEST_F(simple_packets, encoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    heap_block out(128);
    const void *const c = &ctx;
    const void *const b = out.data();
    const void *const none = nullptr;
    int len = 128;
    int short_len = 127;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_encode_simple(nullptr, 13, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 13, nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 13, out.data(), nullptr), -1);
    EXPECT_EQ(mqtt_codec_encode_simple(&ctx, 13, out.data(), &short_len), -1);
    constexpr char text[] = "Simple encode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 127))) << log.text();
}

TEST_F(simple_packets, decoding_takes_a_body_for_level_5_and_never_more_than_the_buffer) {
    const struct {
        uint32_t level;
        int type;
        const char *wire;
        int consumed;
        uint32_t level_after;
    } rows[] = {
        {5, MQTT_PKT_PINGREQ, "C0 00", 2, 4},
        {5, MQTT_PKT_PINGRESP, "D0 00 FF", 2, 4},
        {5, MQTT_PKT_PINGRESP, "DF 80 00", 3, 4},
        {4, MQTT_PKT_DISCONNECT, "E0 01 8E", 3, 5},
        {4, MQTT_PKT_DISCONNECT, "E0 02 8E 00 FF", 4, 5},
        {4, MQTT_PKT_DISCONNECT, "E0 7F 8E", 3, 5},
    };
    for (const auto &row : rows) {
        const simple_result r = decode(row.level, row.type, row.wire);
        EXPECT_EQ(r.rc, 0) << row.wire;
        EXPECT_EQ(r.len, row.consumed) << row.wire;
        EXPECT_EQ(r.level, row.level_after) << row.wire;
        EXPECT_EQ(r.type, static_cast<uint32_t>(row.type));
    }
}

TEST_F(simple_packets, decoding_bad_packets) {
    log_capture log;
    EXPECT_EQ(decode(4, MQTT_PKT_PINGREQ, "D0 00").rc, -4);
    EXPECT_EQ(decode(4, MQTT_PKT_PINGREQ, "C0 80").rc, -4);
    EXPECT_EQ(decode(4, MQTT_PKT_PINGREQ, "C0 80 80 80 00").rc, -4);
    EXPECT_TRUE(log.has("ERROR", "Simple decode: packet type mismatch (expected=12, actual=13)"))
        << log.text();
    EXPECT_TRUE(log.has("ERROR", "Simple decode: invalid remaining length")) << log.text();
}

TEST_F(simple_packets, decoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    heap_block in(2);
    const void *const c = &ctx;
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 2;
    int short_len = 1;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_simple(nullptr, 12, in.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, in.data(), nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, 12, in.data(), &short_len), -1);
    constexpr char text[] = "Simple decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 2))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 2))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 1))) << log.text();
}
