#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using encode_rows = std::vector<encode_row<mqtt_disconnect_para>>;
using decode_rows = std::vector<decode_row<mqtt_disconnect_para>>;

void run(const encode_rows &rows) {
    for (const auto &r : rows) run_encode_row<mqtt_disconnect_para>(mqtt_codec_encode_disconnect, r, 14);
}
void run(const decode_rows &rows) {
    for (const auto &r : rows) run_decode_row<mqtt_disconnect_para>(mqtt_codec_decode_disconnect, r, 14);
}

void texts(mqtt_disconnect_para &p, size_t reason_len, uint16_t user_len) {
    memset(p.reason_string, 'r', reason_len);
    memset(p.user_property, 'u', user_len < sizeof p.user_property ? user_len : sizeof p.user_property);
    p.user_property_len = user_len;
}

}  // namespace

class disconnect : public quiet_codec_test {};

TEST_F(disconnect, level_4_has_no_body) {
    run(decode_rows{
        {"an empty body",
         4,
         "E0 00",
         0,
         {},
         2,
         4,
         [](const mqtt_disconnect_para &p) {
             EXPECT_EQ(p.reason_code, 0);
             EXPECT_EQ(p.session_expiry_interval, 0u);
         }},
        {"flag bits are not checked", 4, "E5 00", 0, {}, 2, 4},
        {"a body",
         4,
         "E0 01 00",
         -4,
         {"ERROR", "DISCONNECT decode: MQTT 3.1.1 remaining length must be 0 (got 1)"}},
        {"a good body of level 5",
         4,
         "E0 02 00 00",
         -4,
         {"ERROR", "DISCONNECT decode: MQTT 3.1.1 remaining length must be 0 (got 2)"}},
    });
}

TEST_F(disconnect, level_5_demands_a_property_length) {
    run(decode_rows{
        {"reason and an empty block",
         5,
         "E0 02 00 00",
         0,
         {},
         4,
         5,
         [](const mqtt_disconnect_para &p) { EXPECT_EQ(p.reason_code, 0); }},
        {"an empty body", 5, "E0 00", -4, {"ERROR", "DISCONNECT decode: invalid property length"}},
        {"a reason alone", 5, "E0 01 8E", -4, {"ERROR", "DISCONNECT decode: invalid property length"}},
        {"a length cut short", 5, "E0 02 8E 80", -4, {"ERROR", "DISCONNECT decode: invalid property length"}},
        {"a length of four bytes",
         5,
         "E0 05 8E 80 80 80 00",
         -4,
         {"ERROR", "DISCONNECT decode: invalid property length"}},
        {"a length that is not of this packet",
         5,
         "E0 01 8E 00",
         -4,
         {"ERROR", "DISCONNECT decode: invalid property length"}},
        {"a block past the packet",
         5,
         "E0 03 8E 02 00",
         -4,
         {"ERROR", "DISCONNECT decode: property length exceed remaining data"}},
        {"bytes behind the block are not consumed",
         5,
         "E0 04 8E 00 AA BB",
         0,
         {},
         4,
         5,
         [](const mqtt_disconnect_para &p) { EXPECT_EQ(p.reason_code, 0x8E); }},
    });
}

TEST_F(disconnect, level_5_properties) {
    run(decode_rows{
        {"session expiry under 0x10",
         5,
         "E0 07 00 05 10 00 00 00 3C",
         0,
         {},
         9,
         5,
         [](const mqtt_disconnect_para &p) { EXPECT_EQ(p.session_expiry_interval, 60u); }},
        {"session expiry under 0x11",
         5,
         "E0 07 00 05 11 00 00 00 3C",
         -5,
         {"ERROR", "DISCONNECT decode: parse properties failed (err=-5)"}},
        {"all of them",
         5,
         pkt("E0", "8E 11 1F 00 03 'bye' 26 00 03 'k=v' 10 00 00 00 01"),
         0,
         {},
         21,
         5,
         [](const mqtt_disconnect_para &p) {
             EXPECT_EQ(p.reason_code, 0x8E);
             EXPECT_STREQ(p.reason_string, "bye");
             EXPECT_STREQ(p.user_property, "k=v");
             EXPECT_EQ(p.user_property_len, 3);
             EXPECT_EQ(p.session_expiry_interval, 1u);
         }},
        {"empty texts",
         5,
         pkt("E0", "00 06 1F 00 00 26 00 00"),
         0,
         {},
         10,
         5,
         [](const mqtt_disconnect_para &p) {
             EXPECT_STREQ(p.reason_string, "");
             EXPECT_EQ(p.user_property_len, 0);
         }},
        {"64 bytes of reason",
         5,
         pkt("E0", "00 43 1F 00 40 " + rep(64)),
         0,
         {},
         71,
         5,
         [](const mqtt_disconnect_para &p) { EXPECT_EQ(strlen(p.reason_string), 64u); }},
        {"64 bytes of user property",
         5,
         pkt("E0", "00 43 26 00 40 " + rep(64)),
         0,
         {},
         71,
         5,
         [](const mqtt_disconnect_para &p) {
             EXPECT_EQ(p.user_property_len, 64);
             EXPECT_EQ(strlen(p.user_property), 64u);
         }},
    });
}

TEST_F(disconnect, level_5_properties_that_are_cut_short_or_too_long) {
    const log_line failed = {"ERROR", "DISCONNECT decode: parse properties failed (err=-3)"};
    run(decode_rows{
        {"65 bytes of reason", 5, pkt("E0", "00 44 1F 00 41 " + rep(65)), -3, failed},
        {"65 bytes of user property", 5, pkt("E0", "00 44 26 00 41 " + rep(65)), -3, failed},
        {"session expiry of three bytes", 5, "E0 06 00 04 10 00 00 00", -3, failed},
        {"half a reason length", 5, "E0 04 00 02 1F 00", -3, failed},
        {"no user property length", 5, "E0 03 00 01 26", -3, failed},
        {"a reason that leaves the block", 5, pkt("E0", "00 05 1F 00 03 'by' 'e'"), -3, failed},
        {"an unknown one behind a good one",
         5,
         "E0 08 00 06 10 00 00 00 3C 99",
         -5,
         {"ERROR", "DISCONNECT decode: parse properties failed (err=-5)"}},
    });
}

TEST_F(disconnect, bad_fixed_headers) {
    run(decode_rows{
        {"another type", 4, "D0 00", -4, {"ERROR", "DISCONNECT decode: not a DISCONNECT packet (type=13)"}},
        {"no length", 4, "E0", -4, {"ERROR", "DISCONNECT decode: invalid remaining length"}},
        {"a length of four bytes",
         4,
         "E0 80 80 80 00",
         -4,
         {"ERROR", "DISCONNECT decode: invalid remaining length"}},
        {"longer than the buffer is a buffer error",
         5,
         "E0 02 8E",
         -3,
         {"ERROR", "DISCONNECT decode: buffer too short (need=4, have=3)"}},
        {"a level that is neither", 3, "E0 00", -2, {"ERROR", "DISCONNECT decode: unsupported MQTT version"}},
        {"a level that is neither, with a body",
         3,
         "E0 01 00",
         -2,
         {"ERROR", "DISCONNECT decode: unsupported MQTT version"}},
        {"a length of two bytes", 4, "E0 80 00", 0, {}, 3, 4},
    });
}

TEST_F(disconnect, decoding_notes_the_type_on_entry) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    mqtt_disconnect_para para;
    const uint8_t wire[] = {0xD0, 0x00};
    int len = sizeof wire;
    EXPECT_EQ(mqtt_codec_decode_disconnect(&ctx, wire, &len, &para), -4);
    EXPECT_EQ(ctx.last_packet_type, 14u);
}

TEST_F(disconnect, a_body_at_level_4_leaves_a_cleared_record) {
    expect_cleared<mqtt_disconnect_para>(mqtt_codec_decode_disconnect, "E0 02 8E 00");
}

TEST_F(disconnect, decoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    mqtt_disconnect_para para;
    heap_block in(2);
    for (int missing = 0; missing < 5; ++missing) {
        log_capture log;
        int len = missing == 4 ? 0 : 2;
        EXPECT_EQ(
            mqtt_codec_decode_disconnect(missing == 0 ? nullptr : &ctx, missing == 1 ? nullptr : in.data(),
                                         missing == 2 ? nullptr : &len, missing == 3 ? nullptr : &para),
            -1);
        EXPECT_TRUE(log.has("ERROR", "DISCONNECT decode: invalid param")) << missing << log.text();
    }
    EXPECT_EQ(ctx.last_packet_type, 0u);
}

TEST_F(disconnect, encoding_good_records) {
    run(encode_rows{
        {"level 4 drops whatever the record says",
         4,
         [](mqtt_disconnect_para &p) {
             texts(p, 65, 65);
             p.reason_code = 0x8E;
         },
         0,
         "E0 00",
         {},
         2},
        {"a reason and nothing else",
         5,
         [](mqtt_disconnect_para &p) { p.reason_code = 0x8E; },
         0,
         "E0 02 8E 00",
         {},
         4},
        {"all properties in order",
         5,
         [](mqtt_disconnect_para &p) {
             p.reason_code = 0x98;
             p.session_expiry_interval = 60;
             strcpy(p.reason_string, "bye");
             strcpy(p.user_property, "k=v");
             p.user_property_len = 3;
         },
         0,
         pkt("E0", "98 11 10 00 00 00 3C 1F 00 03 'bye' 26 00 03 'k=v'"),
         {}},
        {"a user property without a length",
         5,
         [](mqtt_disconnect_para &p) { strcpy(p.user_property, "k"); },
         0,
         "E0 02 00 00",
         {}},
        {"a user property without a text",
         5,
         [](mqtt_disconnect_para &p) { p.user_property_len = 9; },
         0,
         "E0 02 00 00",
         {}},
        {"64 bytes of reason",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 64, 0); },
         0,
         pkt("E0", "00 43 1F 00 40 " + rep(64, 'r')),
         {}},
        {"64 bytes of user property",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 0, 64); },
         0,
         pkt("E0", "00 43 26 00 40 " + rep(64, 'u')),
         {}},
        {"properties of 128 bytes fill the scratch area",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 61, 61); },
         0,
         pkt("E0", "00 80 01 1F 00 3D " + rep(61, 'r') + " 26 00 3D " + rep(61, 'u')),
         {}},
    });
}

TEST_F(disconnect, encoding_refused_records) {
    run(encode_rows{
        {"a reason that is not terminated",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 65, 1); },
         -3,
         "",
         {"ERROR", "DISCONNECT encode: reason string too long (max=64)"}},
        {"65 bytes of user property",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 0, 65); },
         -3,
         "",
         {"ERROR", "DISCONNECT encode: user property too long (len=65, max=64)"}},
        {"properties of 129 bytes",
         5,
         [](mqtt_disconnect_para &p) { texts(p, 62, 61); },
         -3,
         "",
         {"ERROR", "DISCONNECT encode: properties too long (need=129, have=128)"}},
        {"a buffer of three bytes",
         5,
         [](mqtt_disconnect_para &) {},
         -3,
         "",
         {"ERROR", "DISCONNECT encode: buffer too small (need=4, have=3)"},
         3},
        {"a buffer of one byte",
         4,
         [](mqtt_disconnect_para &) {},
         -3,
         "",
         {"ERROR", "DISCONNECT encode: buffer too small (need=2, have=1)"},
         1},
        {"another level, silently", 6, [](mqtt_disconnect_para &) {}, -2, "", {}},
        {"no capacity, silently", 4, [](mqtt_disconnect_para &) {}, -1, "", {}, 0},
    });
}

TEST_F(disconnect, encoding_refuses_missing_arguments_silently) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    const mqtt_disconnect_para para{};
    uint8_t out[16];
    int len = sizeof out;
    log_capture log;
    EXPECT_EQ(mqtt_codec_encode_disconnect(nullptr, &para, out, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, nullptr, out, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_disconnect(&ctx, &para, out, nullptr), -1);
    EXPECT_EQ(log.text(), "");
}

TEST_F(disconnect, packets_survive_the_round_trip) {
    expect_round_trip<mqtt_disconnect_para>(mqtt_codec_decode_disconnect, mqtt_codec_encode_disconnect, 4,
                                            "E0 00");
    expect_round_trip<mqtt_disconnect_para>(mqtt_codec_decode_disconnect, mqtt_codec_encode_disconnect, 5,
                                            "E0 02 8E 00");
    expect_round_trip<mqtt_disconnect_para>(mqtt_codec_decode_disconnect, mqtt_codec_encode_disconnect, 5,
                                            pkt("E0", "00 11 10 00 00 00 3C 1F 00 03 'bye' 26 00 03 'k=v'"));
}
