#include "codec/byte_reader.h"
#include "codec/byte_writer.h"
#include "tests/codec/codec_test.h"

using namespace zeb_test;

class mqtt_codec : public quiet_codec_test {};

TEST_F(mqtt_codec, init_of_a_dirty_context_leaves_level_4_and_zeroes) {
    mqtt_codec_ctx ctx{7, 9, 11};
    log_capture log;
    EXPECT_EQ(mqtt_codec_ctx_init(&ctx), 0);
    EXPECT_EQ(ctx.protocol_version, 4u);
    EXPECT_EQ(ctx.last_packet_type, 0u);
    EXPECT_EQ(ctx.last_packet_len, 0u);
    EXPECT_TRUE(log.has("DEBUG", "mqtt_codec_ctx_init: success")) << log.text();
}

TEST_F(mqtt_codec, init_refuses_a_missing_context) {
    log_capture log;
    EXPECT_EQ(mqtt_codec_ctx_init(nullptr), -1);
    EXPECT_TRUE(log.has("ERROR", "mqtt_codec_ctx_init: ctx is NULL")) << log.text();
}

TEST_F(mqtt_codec, every_error_code_has_its_text) {
    EXPECT_STREQ(mqtt_codec_error_str(-1), "参数非法");
    EXPECT_STREQ(mqtt_codec_error_str(-2), "协议版本不支持");
    EXPECT_STREQ(mqtt_codec_error_str(-3), "缓冲区不足");
    EXPECT_STREQ(mqtt_codec_error_str(-4), "报文格式错误");
    EXPECT_STREQ(mqtt_codec_error_str(-5), "功能暂不支持");
    for (const int code : {0, 1, -6, 100}) EXPECT_STREQ(mqtt_codec_error_str(code), "未知错误") << code;
}

TEST_F(mqtt_codec, remaining_length_encodes_in_one_to_four_bytes) {
    const struct {
        uint32_t value;
        const char *wire;
    } rows[] = {
        {0, "00"},           {127, "7F"},           {128, "80 01"},           {16383, "FF 7F"},
        {16384, "80 80 01"}, {2097151, "FF FF 7F"}, {2097152, "80 80 80 01"}, {268435455, "FF FF FF 7F"},
    };
    for (const auto &row : rows) {
        const bytes wire = hex(row.wire);
        heap_block out(wire.size());
        ASSERT_EQ(codec_encode_remaining_length(out.data(), row.value), static_cast<int>(wire.size()))
            << row.value;
        EXPECT_EQ(dump(out.data(), out.size()), dump(wire)) << row.value;
    }
}

TEST_F(mqtt_codec, remaining_length_above_the_maximum_is_not_encoded) {
    uint8_t out[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    log_capture log;
    EXPECT_EQ(codec_encode_remaining_length(out, 268435456), 0);
    EXPECT_EQ(codec_encode_remaining_length(nullptr, 1), 0);
    EXPECT_EQ(dump(out, sizeof out), "EE EE EE EE");
    EXPECT_TRUE(log.has("ERROR", "codec_encode_remaining_length: len=268435456 exceeds max=268435455"))
        << log.text();
    EXPECT_TRUE(log.has("ERROR", "codec_encode_remaining_length: buf is NULL")) << log.text();
}

TEST_F(mqtt_codec, remaining_length_decodes_at_most_three_bytes) {
    const struct {
        const char *wire;
        int32_t value;
        int consumed;
    } rows[] = {
        {"00", 0, 1},           {"7F", 127, 1},           {"80 01", 128, 2},   {"FF 7F", 16383, 2},
        {"80 80 01", 16384, 3}, {"FF FF 7F", 2097151, 3}, {"80 00", 0, 2},     {"05 FF", 5, 1},
        {"FF FF FF 7F", -1, 0}, {"80 80 80 00", -1, 0},   {"FF FF FF", -1, 0}, {"80", -1, 0},
        {"FF FF", -1, 0},
    };
    for (const auto &row : rows) {
        const bytes wire = hex(row.wire);
        heap_block in(wire.data(), wire.size());
        int consumed = -7;
        EXPECT_EQ(codec_decode_remaining_length(in.data(), static_cast<int>(wire.size()), &consumed),
                  row.value)
            << row.wire;
        EXPECT_EQ(consumed, row.value < 0 ? -7 : row.consumed) << row.wire;
    }
}

TEST_F(mqtt_codec, remaining_length_of_nothing_is_refused) {
    const uint8_t one = 1;
    int consumed = -7;
    EXPECT_EQ(codec_decode_remaining_length(nullptr, 4, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&one, 0, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&one, -1, &consumed), -1);
    EXPECT_EQ(codec_decode_remaining_length(&one, 1, nullptr), -1);
    EXPECT_EQ(consumed, -7);
}

TEST_F(mqtt_codec, remaining_length_survives_the_round_trip_up_to_three_bytes) {
    for (uint32_t value = 0; value <= 2097151; value += value < 20000 ? 1 : 4093) {
        uint8_t wire[4];
        const int n = codec_encode_remaining_length(wire, value);
        int consumed = 0;
        ASSERT_EQ(codec_decode_remaining_length(wire, n, &consumed), static_cast<int32_t>(value));
        ASSERT_EQ(consumed, n);
    }
}

TEST_F(mqtt_codec, a_reader_refuses_what_is_not_there_and_stays_where_it_is) {
    const bytes wire = hex("01 02 03 80");
    heap_block in(wire.data(), wire.size());
    byte_reader r{in.data(), 0, static_cast<int>(wire.size())};
    uint32_t wide = 0xAAAAAAAA;
    uint16_t narrow = 0;
    ASSERT_TRUE(r.be16(&narrow));
    EXPECT_EQ(narrow, 0x0102);
    EXPECT_FALSE(r.be32(&wide));
    EXPECT_EQ(wide, 0xAAAAAAAAu);
    const uint8_t *out = nullptr;
    EXPECT_FALSE(r.bytes(3, &out));
    EXPECT_FALSE(r.bytes(-1, &out));
    EXPECT_EQ(r.pos, 2);
    r.skip(1);
    int32_t value = 0;
    EXPECT_FALSE(r.varint(&value));
    EXPECT_EQ(r.pos, 3);
    r.skip(1000000);
    EXPECT_EQ(r.pos, 4);
    EXPECT_EQ(r.left(), 0);
}

TEST_F(mqtt_codec, a_reader_terminates_texts_and_refuses_those_that_do_not_fit) {
    const bytes wire = hex("'abcd'");
    byte_reader r{wire.data(), 0, 4};
    char small[4] = "zzz";
    EXPECT_FALSE(r.text(4, small));
    EXPECT_STREQ(small, "zzz");
    ASSERT_TRUE(r.text(3, small));
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(r.block(9).left(), 1);
}

TEST_F(mqtt_codec, a_writer_counts_past_its_end_without_writing_there) {
    heap_block out(3, 0xEE);
    byte_writer w{out.data(), 3};
    w.u8(1);
    w.be32(0x02030405);
    EXPECT_EQ(w.len, 5);
    EXPECT_FALSE(w.fits());
    w.bytes("xyz", 3);
    EXPECT_EQ(w.len, 8);
    EXPECT_EQ(out.data()[0], 1);
}
