#include "tests/codec/codec_test.h"

using namespace zeb_test;

class connack : public quiet_codec_test {
  protected:
    static void run(const std::vector<encode_row<mqtt_connack_para>> &rows) {
        for (const auto &r : rows) run_encode_row<mqtt_connack_para>(mqtt_codec_encode_connack, r, 2);
    }
    static void run(const std::vector<decode_row<mqtt_connack_para>> &rows) {
        for (const auto &r : rows) run_decode_row<mqtt_connack_para>(mqtt_codec_decode_connack, r, 2);
    }
};

using encode_rows = std::vector<encode_row<mqtt_connack_para>>;
using decode_rows = std::vector<decode_row<mqtt_connack_para>>;

TEST_F(connack, level_4_never_carries_a_refusal) {
    run(encode_rows{
        {"reason 5",
         4,
         [](mqtt_connack_para &p) { p.reason_code = 5; },
         0,
         "20 02 00 00",
         {"WARN", "CONNACK encode: 3.1.1 force code=0"}},
        {"reason 5 with a session",
         4,
         [](mqtt_connack_para &p) {
             p.reason_code = 5;
             p.session_present = 1;
         },
         0,
         "20 02 01 00",
         {"WARN", "CONNACK encode: 3.1.1 force code=0"}},
        {"reason 0 needs no forcing", 4, [](mqtt_connack_para &) {}, 0, "20 02 00 00", {}, 4},
    });
}

TEST_F(connack, level_5_is_always_13_bytes) {
    run(encode_rows{
        {"an empty record", 5, [](mqtt_connack_para &) {}, 0, "20 0B 00 00 08 21 00 00 27 00 00 00 00", {}},
        {"everything set",
         5,
         [](mqtt_connack_para &p) {
             p.session_present = 1;
             p.reason_code = 0x86;
             p.session_expiry_interval = 77;
             p.receive_maximum = 0x1234;
             p.topic_alias_maximum = 88;
             p.maximum_packet_size = 0xA1B2C3D4;
         },
         0,
         "20 0B 01 86 08 21 12 34 27 A1 B2 C3 D4",
         {},
         128},
    });
}

TEST_F(connack, refused_records) {
    run(encode_rows{
        {"level 0",
         0,
         [](mqtt_connack_para &) {},
         -2,
         "",
         {"ERROR", "CONNACK encode: unsupported version 0"}},
        {"level 6",
         6,
         [](mqtt_connack_para &) {},
         -2,
         "",
         {"ERROR", "CONNACK encode: unsupported version 6"}},
        {"level 6, told when there is room for level 4",
         6,
         [](mqtt_connack_para &) {},
         -2,
         "",
         {"ERROR", "CONNACK encode: unsupported version 6"},
         4},
        {"three bytes at level 4",
         4,
         [](mqtt_connack_para &) {},
         -1,
         "",
         {"ERROR", "CONNACK encode: invalid param"},
         3},
        {"127 bytes at level 5",
         5,
         [](mqtt_connack_para &) {},
         -1,
         "",
         {"ERROR", "CONNACK encode: invalid param"},
         127},
    });
}

TEST_F(connack, encoding_refuses_missing_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    const mqtt_connack_para para{};
    uint8_t out[128];
    int len = sizeof out;
    for (int missing = 0; missing < 4; ++missing) {
        log_capture log;
        EXPECT_EQ(mqtt_codec_encode_connack(missing == 0 ? nullptr : &ctx, missing == 1 ? nullptr : &para,
                                            missing == 2 ? nullptr : out, missing == 3 ? nullptr : &len),
                  -1);
        EXPECT_TRUE(log.has("ERROR", "CONNACK encode: invalid param")) << missing << log.text();
    }
}

TEST_F(connack, decoding_good_packets) {
    run(decode_rows{
        {"two body bytes make level 4",
         5,
         "20 02 01 05",
         0,
         {},
         4,
         4,
         [](const mqtt_connack_para &p) {
             EXPECT_EQ(p.session_present, 1);
             EXPECT_EQ(p.reason_code, 5);
         }},
        {"only bit 0 is the session",
         4,
         "20 02 FE 00",
         0,
         {},
         4,
         4,
         [](const mqtt_connack_para &p) { EXPECT_EQ(p.session_present, 0); }},
        {"flag bits of the first byte are not checked", 4, "2F 02 00 00", 0, {}, 4, 4},
        {"a third body byte makes level 5",
         4,
         "20 03 00 86 00",
         0,
         {},
         5,
         5,
         [](const mqtt_connack_para &p) { EXPECT_EQ(p.reason_code, 0x86); }},
        {"all properties",
         4,
         pkt("20", "01 00 0B 21 00 14 22 00 0A 10 00 00 00 3C"),
         0,
         {},
         16,
         5,
         [](const mqtt_connack_para &p) {
             EXPECT_EQ(p.receive_maximum, 20);
             EXPECT_EQ(p.topic_alias_maximum, 10);
             EXPECT_EQ(p.session_expiry_interval, 60u);
             EXPECT_EQ(p.maximum_packet_size, 0u);
         }},
        {"an unknown property is skipped by its length",
         4,
         pkt("20", "00 00 07 99 02 AA BB 21 00 14"),
         0,
         {"WARN", "CONNACK decode: unknown property type 0x99"},
         12,
         5,
         [](const mqtt_connack_para &p) { EXPECT_EQ(p.receive_maximum, 20); }},
        {"a skip past the block ends it",
         4,
         pkt("20", "00 00 05 99 7F 21 00 14"),
         0,
         {"WARN", "CONNACK decode: unknown property type 0x99"},
         10,
         5,
         [](const mqtt_connack_para &p) { EXPECT_EQ(p.receive_maximum, 0); }},
        {"a value cut short ends the block",
         4,
         pkt("20", "00 00 02 21 00"),
         0,
         {},
         7,
         5,
         [](const mqtt_connack_para &p) { EXPECT_EQ(p.receive_maximum, 0); }},
        {"what is behind the block is not read",
         4,
         pkt("20", "00 00 03 21 00 14 22 00 0A"),
         0,
         {},
         11,
         5,
         [](const mqtt_connack_para &p) {
             EXPECT_EQ(p.receive_maximum, 20);
             EXPECT_EQ(p.topic_alias_maximum, 0);
         }},
        {"bytes behind the packet are left", 4, "20 02 00 00 D0 00", 0, {}, 4, 4},
    });
}

TEST_F(connack, decoding_bad_packets) {
    run(decode_rows{
        {"another type", 4, "30 02 00 00", -4, {"ERROR", "CONNACK decode: not a CONNACK packet (type=3)"}},
        {"a length of four bytes",
         4,
         "20 80 80 80 00",
         -4,
         {"ERROR", "CONNACK decode: invalid remaining length (len=-1, consumed=0)"}},
        {"longer than the buffer",
         4,
         "20 03 00 00",
         -4,
         {"ERROR", "CONNACK decode: invalid remaining length (len=3, consumed=1)"}},
        {"one body byte",
         4,
         "20 01 00 00",
         -4,
         {"ERROR", "CONNACK decode: buffer too short for variable header"}},
        {"a property length that does not decode",
         4,
         "20 03 00 00 80",
         -4,
         {"ERROR", "CONNACK decode: invalid property length"}},
        {"a property length of four bytes",
         4,
         "20 06 00 00 80 80 80 00",
         -4,
         {"ERROR", "CONNACK decode: invalid property length"}},
    });
}

TEST_F(connack, a_refused_packet_leaves_a_cleared_record) {
    expect_cleared<mqtt_connack_para>(mqtt_codec_decode_connack, "30 02 00 00");
    expect_cleared<mqtt_connack_para>(mqtt_codec_decode_connack, "20 03 00 00");
}

TEST_F(connack, decoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_connack_para para;
    heap_block in(4);
    const void *const c = &ctx;
    const void *const p = &para;
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 4;
    int short_len = 3;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_connack(nullptr, in.data(), &len, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, nullptr, &len, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, in.data(), nullptr, &para), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_connack(&ctx, in.data(), &short_len, &para), -1);
    constexpr char text[] = "CONNACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 4, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 4, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, l, 4, none))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 3, p))) << log.text();
}
