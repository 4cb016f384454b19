#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using ack_encoder = int (*)(mqtt_codec_ctx *, const mqtt_ack_para *, uint8_t *, int *);
using ack_decoder = int (*)(mqtt_codec_ctx *, const uint8_t *, int *, mqtt_ack_para *);

template <int type>
int encode(mqtt_codec_ctx *ctx, const mqtt_ack_para *para, uint8_t *buf, int *len) {
    return mqtt_codec_encode_ack(ctx, type, para, buf, len);
}
template <int type>
int decode(mqtt_codec_ctx *ctx, const uint8_t *buf, int *len, mqtt_ack_para *para) {
    return mqtt_codec_decode_ack(ctx, type, buf, len, para);
}

template <int type>
void run(const std::vector<encode_row<mqtt_ack_para>> &rows) {
    for (const auto &r : rows) run_encode_row<mqtt_ack_para>(static_cast<ack_encoder>(encode<type>), r, type);
}
template <int type>
void run(const std::vector<decode_row<mqtt_ack_para>> &rows) {
    for (const auto &r : rows) run_decode_row<mqtt_ack_para>(static_cast<ack_decoder>(decode<type>), r, type);
}

using encode_rows = std::vector<encode_row<mqtt_ack_para>>;
using decode_rows = std::vector<decode_row<mqtt_ack_para>>;

void id_and_reason_0x10(mqtt_ack_para &p) {
    p.msg_id = 0x1234;
    p.reason_code = 0x10;
}
void suback_of(mqtt_ack_para &p, int count) {
    p.msg_id = 7;
    p.reason_code_count = count;
    for (int i = 0; i < 16; ++i) p.reason_codes[i] = static_cast<uint32_t>(i);
}

}  // namespace

class ack_packets : public quiet_codec_test {};

TEST_F(ack_packets, level_4_carries_the_identifier_alone) {
    run<MQTT_PKT_PUBACK>(encode_rows{{"PUBACK", 4, id_and_reason_0x10, 0, "40 02 12 34", {}}});
    run<MQTT_PKT_PUBREC>(encode_rows{{"PUBREC", 4, id_and_reason_0x10, 0, "50 02 12 34", {}}});
    run<MQTT_PKT_PUBREL>(encode_rows{{"PUBREL", 4, id_and_reason_0x10, 0, "62 02 12 34", {}}});
    run<MQTT_PKT_PUBCOMP>(encode_rows{{"PUBCOMP", 4, id_and_reason_0x10, 0, "70 02 12 34", {}}});
    run<MQTT_PKT_UNSUBACK>(encode_rows{{"UNSUBACK", 4, id_and_reason_0x10, 0, "B0 02 12 34", {}}});
}

TEST_F(ack_packets, level_5_carries_one_reason_code_and_no_property_length) {
    run<MQTT_PKT_PUBACK>(encode_rows{{"PUBACK", 5, id_and_reason_0x10, 0, "40 03 12 34 10", {}, 128}});
    run<MQTT_PKT_PUBREC>(encode_rows{{"PUBREC", 5, id_and_reason_0x10, 0, "50 03 12 34 10", {}}});
    run<MQTT_PKT_PUBREL>(encode_rows{
        {"PUBREL with reason 0", 5, [](mqtt_ack_para &p) { p.msg_id = 0xABCD; }, 0, "62 03 AB CD 00", {}}});
    run<MQTT_PKT_PUBCOMP>(encode_rows{{"PUBCOMP", 5, id_and_reason_0x10, 0, "70 03 12 34 10", {}}});
    run<MQTT_PKT_UNSUBACK>(encode_rows{{"UNSUBACK, one code for all filters",
                                        5,
                                        [](mqtt_ack_para &p) {
                                            id_and_reason_0x10(p);
                                            p.reason_code_count = 3;
                                        },
                                        0,
                                        "B0 03 12 34 10",
                                        {}}});
}

TEST_F(ack_packets, suback_of_level_5_has_a_zero_where_the_property_length_belongs) {
    run<MQTT_PKT_SUBACK>(encode_rows{
        {"a reason code is overridden",
         5,
         [](mqtt_ack_para &p) {
             p.msg_id = 0x0102;
             p.reason_code = 0x80;
             p.reason_codes[0] = 1;
             p.reason_codes[1] = 0x80;
             p.reason_code_count = 2;
         },
         0,
         "90 05 01 02 00 01 80",
         {"INFO", "【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x80"}},
        {"no codes",
         5,
         [](mqtt_ack_para &p) { suback_of(p, 0); },
         0,
         "90 03 00 07 00",
         {"INFO", "【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x00"}},
        {"at most 16 codes",
         5,
         [](mqtt_ack_para &p) { suback_of(p, 17); },
         0,
         "90 13 00 07 00 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F",
         {}},
    });
}

TEST_F(ack_packets, suback_of_level_4_sends_at_most_16_codes) {
    run<MQTT_PKT_SUBACK>(encode_rows{
        {"20 entries",
         4,
         [](mqtt_ack_para &p) { suback_of(p, 20); },
         0,
         "90 12 00 07 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F",
         {}},
        {"a negative count sends none", 4, [](mqtt_ack_para &p) { suback_of(p, -1); }, 0, "90 02 00 07", {}},
        {"only the low byte of a code is sent",
         4,
         [](mqtt_ack_para &p) {
             suback_of(p, 1);
             p.reason_codes[0] = 0x12345680;
         },
         0,
         "90 03 00 07 80",
         {}},
    });
}

TEST_F(ack_packets, encoding_refuses_other_types_before_other_levels) {
    run<MQTT_PKT_SUBSCRIBE>(encode_rows{
        {"SUBSCRIBE", 4, id_and_reason_0x10, -5, "", {"ERROR", "ACK encode: unsupported packet type 8"}},
        {"SUBSCRIBE at level 3",
         3,
         id_and_reason_0x10,
         -5,
         "",
         {"ERROR", "ACK encode: unsupported packet type 8"}}});
    run<MQTT_PKT_PUBLISH>(encode_rows{
        {"PUBLISH", 4, id_and_reason_0x10, -5, "", {"ERROR", "ACK encode: unsupported packet type 3"}}});
    run<MQTT_PKT_UNSUBSCRIBE>(encode_rows{
        {"UNSUBSCRIBE", 4, id_and_reason_0x10, -5, "", {"ERROR", "ACK encode: unsupported packet type 10"}}});
    run<MQTT_PKT_PINGREQ>(encode_rows{
        {"PINGREQ", 4, id_and_reason_0x10, -5, "", {"ERROR", "ACK encode: unsupported packet type 12"}}});
    run<MQTT_PKT_PUBACK>(encode_rows{
        {"level 3", 3, id_and_reason_0x10, -2, "", {"ERROR", "ACK encode: unsupported version 3"}}});
}

TEST_F(ack_packets, encoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    const mqtt_ack_para para{};
    heap_block out(128);
    const void *const c = &ctx;
    const void *const p = &para;
    const void *const b = out.data();
    const void *const none = nullptr;
    int len = 128;
    int short_len = 127;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_encode_ack(nullptr, 4, &para, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, nullptr, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, out.data(), nullptr), -1);
    EXPECT_EQ(mqtt_codec_encode_ack(&ctx, 4, &para, out.data(), &short_len), -1);
    constexpr char text[] = "ACK encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, p, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, none, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, none, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, s, 127))) << log.text();
}

TEST_F(ack_packets, the_body_length_decides_the_level) {
    run<MQTT_PKT_PUBACK>(decode_rows{
        {"two bytes",
         5,
         "40 02 12 34",
         0,
         {},
         4,
         4,
         [](const mqtt_ack_para &p) {
             EXPECT_EQ(p.msg_id, 0x1234);
             EXPECT_EQ(p.reason_code, 0);
             EXPECT_EQ(p.reason_code_count, 0);
         }},
        {"three bytes",
         4,
         "40 03 12 34 10",
         0,
         {},
         5,
         5,
         [](const mqtt_ack_para &p) { EXPECT_EQ(p.reason_code, 0x10); }},
        {"four bytes: a zero property length is not stepped over",
         4,
         "40 04 12 34 10 00",
         0,
         {},
         5,
         5,
         [](const mqtt_ack_para &p) { EXPECT_EQ(p.reason_code, 0x10); }},
        {"a property block is stepped over", 4, "40 07 12 34 10 03 AA BB CC", 0, {}, 9, 5},
        {"a property block that leaves the packet ends with it",
         4,
         "40 05 12 34 10 7F AA 00 00",
         0,
         {},
         7,
         5},
        {"a property length that does not decode is not stepped over",
         4,
         "40 05 12 34 10 80 80",
         0,
         {},
         5,
         5},
        {"identifier 0 is accepted", 4, "40 02 00 00", 0, {}, 4, 4},
        {"bytes behind the packet are left", 4, "40 02 12 34 40 02 56 78", 0, {}, 4, 4},
    });
    run<MQTT_PKT_PUBREL>(decode_rows{
        {"PUBREL", 4, "62 02 12 34", 0, {}, 4, 4},
        {"PUBREL without its flag bits", 4, "60 02 12 34", 0, {}, 4, 4},
    });
    run<MQTT_PKT_PUBREC>(decode_rows{{"PUBREC", 4, "50 02 12 34", 0, {}, 4, 4}});
    run<MQTT_PKT_PUBCOMP>(decode_rows{{"PUBCOMP", 4, "70 03 12 34 92", 0, {}, 5, 5}});
    run<MQTT_PKT_UNSUBACK>(
        decode_rows{{"UNSUBACK", 4, "B0 03 12 34 11", 0, {}, 5, 5, [](const mqtt_ack_para &p) {
                         EXPECT_EQ(p.reason_code, 0x11);
                         EXPECT_EQ(p.reason_code_count, 0);
                     }}});
}

TEST_F(ack_packets, decoding_suback) {
    run<MQTT_PKT_SUBACK>(decode_rows{
        {"codes behind the reason code and a zero",
         4,
         "90 06 00 07 00 00 01 80",
         0,
         {},
         8,
         5,
         [](const mqtt_ack_para &p) {
             ASSERT_EQ(p.reason_code_count, 3);
             EXPECT_EQ(p.reason_codes[0], 0u);
             EXPECT_EQ(p.reason_codes[1], 1u);
             EXPECT_EQ(p.reason_codes[2], 0x80u);
         }},
        {"a first code that reads as a length is stepped over",
         4,
         "90 05 00 07 00 01 80",
         0,
         {},
         7,
         5,
         [](const mqtt_ack_para &p) { EXPECT_EQ(p.reason_code_count, 0); }},
        {"one code of level 4 is the reason code",
         4,
         "90 03 00 07 02",
         0,
         {},
         5,
         5,
         [](const mqtt_ack_para &p) {
             EXPECT_EQ(p.reason_code, 2);
             EXPECT_EQ(p.reason_code_count, 0);
         }},
        {"at most 16 codes",
         4,
         pkt("90", "00 07 00 00 " + rep(20, '\x02')),
         0,
         {},
         2 + 3 + 16,
         5,
         [](const mqtt_ack_para &p) {
             ASSERT_EQ(p.reason_code_count, 16);
             EXPECT_EQ(p.reason_codes[15], 2u);
         }},
    });
}

TEST_F(ack_packets, decoding_bad_packets) {
    run<MQTT_PKT_PUBACK>(decode_rows{
        {"another type",
         4,
         "50 02 12 34",
         -4,
         {"ERROR", "ACK decode: packet type mismatch (expected=4, actual=5)"}},
        {"the type is told before a bad length",
         4,
         "50 7F 12 34",
         -4,
         {"ERROR", "ACK decode: packet type mismatch (expected=4, actual=5)"}},
        {"a length of four bytes",
         4,
         "40 82 80 80 00 12 34",
         -4,
         {"ERROR", "ACK decode: invalid remaining length (len=-1, consumed=0)"}},
        {"longer than the buffer",
         4,
         "40 03 12 34",
         -4,
         {"ERROR", "ACK decode: packet incomplete (need=5, actual=4)"}},
        {"one byte of identifier", 4, "40 01 12", -4, {"ERROR", "ACK decode: buffer too short for msg id"}},
        {"the identifier of another packet",
         4,
         "40 00 12 34",
         -4,
         {"ERROR", "ACK decode: buffer too short for msg id"}},
    });
}

TEST_F(ack_packets, a_bad_length_leaves_a_cleared_record) {
    expect_cleared<mqtt_ack_para>(decode<MQTT_PKT_PUBACK>, "40 82 80 80 00 12 34");
    expect_cleared<mqtt_ack_para>(decode<MQTT_PKT_PUBACK>, "40 03 12 34");
}

TEST_F(ack_packets, decoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_ack_para para;
    heap_block in(3);
    const void *const c = &ctx;
    const void *const p = &para;
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 3;
    int short_len = 2;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_ack(nullptr, 4, in.data(), &len, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, nullptr, &len, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, in.data(), nullptr, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_ack(&ctx, 4, in.data(), &short_len, &para), -1);
    constexpr char text[] = "ACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 3, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 3, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, l, 3, none))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 2, p))) << log.text();
}

TEST_F(ack_packets, answers_survive_the_round_trip) {
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_PUBACK>, encode<MQTT_PKT_PUBACK>, 4, "40 02 12 34");
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_PUBACK>, encode<MQTT_PKT_PUBACK>, 5, "40 03 12 34 10");
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_PUBREC>, encode<MQTT_PKT_PUBREC>, 5, "50 03 12 34 10");
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_PUBREL>, encode<MQTT_PKT_PUBREL>, 4, "62 02 12 34");
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_PUBCOMP>, encode<MQTT_PKT_PUBCOMP>, 5, "70 03 12 34 92");
    expect_round_trip<mqtt_ack_para>(decode<MQTT_PKT_UNSUBACK>, encode<MQTT_PKT_UNSUBACK>, 5,
                                     "B0 03 12 34 00");
}
