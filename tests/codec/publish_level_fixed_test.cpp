#include <memory>

#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

// A connection whose level CONNECT has fixed.
class publish_level_fixed : public quiet_codec_test {
  protected:
    int decode(uint32_t level, const bytes &wire) {
        mqtt_codec_ctx_init(&ctx);
        set_level(&ctx, level);
        ctx.level_fixed = 1;
        para = mqtt_publish_para{};
        const heap_block in(wire.data(), wire.size());
        int len = static_cast<int>(wire.size());
        const int rc = zeb::mqtt_codec_decode_publish(&ctx, in.data(), &len, &para);
        EXPECT_EQ(ctx.protocol_version, level) << "the packet changed the level";
        return rc;
    }
    int decode(uint32_t level, std::string_view wire) { return decode(level, hex(wire)); }
    std::string payload() const {
        return std::string(reinterpret_cast<const char *>(para.payload), para.payload_len);
    }

    mqtt_codec_ctx ctx{};
    mqtt_publish_para para{};
};

TEST_F(publish_level_fixed, every_json_payload_of_level_4_arrives_whole) {
    for (size_t size = 2; size <= 1900; ++size) {
        const std::string json = "{" + std::string(size - 2, 'x') + "}";
        bytes body{0, 1, 't'};
        body.insert(body.end(), json.begin(), json.end());
        bytes wire{0x30};
        for (size_t left = body.size(); left != 0; left /= 128)
            wire.push_back(static_cast<uint8_t>(left % 128 + (left >= 128 ? 128 : 0)));
        wire.insert(wire.end(), body.begin(), body.end());
        ASSERT_EQ(decode(4, wire), 0) << size;
        ASSERT_EQ(payload(), json);
    }
}

TEST_F(publish_level_fixed, level_5_has_a_block_and_the_payload_begins_behind_it) {
    const struct {
        const char *wire;
        const char *payload;
        uint32_t expiry;
        uint16_t alias;
    } rows[] = {
        {"30 06 00 01 't' 00 'hi'", "hi", 0, 0},
        {"30 0B 00 01 't' 05 02 00 00 00 3C 'hi'", "hi", 60, 0},
        {"30 09 00 01 't' 03 23 00 07 'hi'", "hi", 0, 7},
        // Payload format, content type, response topic, correlation data, subscription identifier, user
        // property: skipped whole, whatever their values look like.
        {"30 08 00 01 't' 02 01 01 'hi'", "hi", 0, 0},
        {"30 0C 00 01 't' 06 03 00 03 02 02 02 'hi'", "hi", 0, 0},
        {"30 0A 00 01 't' 04 08 00 01 'r' 'hi'", "hi", 0, 0},
        {"30 0A 00 01 't' 04 09 00 01 23 'hi'", "hi", 0, 0},
        {"30 09 00 01 't' 03 0B 80 01 'hi'", "hi", 0, 0},
        {"30 0D 00 01 't' 07 26 00 01 'k' 00 01 'v' 'hi'", "hi", 0, 0},
        {"30 12 00 01 't' 0C 26 00 01 'k' 00 01 'v' 02 00 00 00 09 'hi'", "hi", 9, 0},
        {"32 08 00 01 't' 00 07 00 'hi'", "hi", 0, 0},
        {"30 04 00 01 't' 00", "", 0, 0},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(decode(5, row.wire), 0) << row.wire;
        EXPECT_EQ(payload(), row.payload) << row.wire;
        EXPECT_EQ(para.msg_expiry_interval, row.expiry) << row.wire;
        EXPECT_EQ(para.topic_alias, row.alias) << row.wire;
    }
}

TEST_F(publish_level_fixed, a_block_that_does_not_fit_is_malformed_at_level_5) {
    const char *const rows[] = {
        "30 03 00 01 't'",                     // no block at all
        "30 05 00 01 't' 05 'x'",              // longer than the packet
        "30 07 00 01 't' FF FF FF 'x'",        // its length does not decode
        "30 06 00 01 't' 02 02 00",            // a value cut short
        "30 06 00 01 't' 02 7E 00",            // no property of a PUBLISH
        "30 07 00 01 't' 03 03 00 02",         // a text longer than the block
        "30 09 00 01 't' 05 26 00 01 'k' 00",  // a pair without its second text
        "30 05 00 01 't' 01 0B",               // a number without a byte
    };
    for (const char *wire : rows) EXPECT_EQ(decode(5, wire), MQTT_CODEC_ERR_MALFORMED) << wire;
}

TEST_F(publish_level_fixed, acknowledgements_of_any_length_leave_the_level_alone) {
    for (const char *wire : {"40 02 00 07", "40 03 00 07 00", "40 04 00 07 00 00"}) {
        for (const uint32_t level : {4u, 5u}) {
            mqtt_codec_ctx_init(&ctx);
            set_level(&ctx, level);
            ctx.level_fixed = 1;
            const bytes in = hex(wire);
            int len = static_cast<int>(in.size());
            mqtt_ack_para ack{};
            EXPECT_EQ(mqtt_codec_decode_ack(&ctx, MQTT_PKT_PUBACK, in.data(), &len, &ack), 0);
            EXPECT_EQ(ctx.protocol_version, level) << wire;
        }
    }
}

TEST_F(publish_level_fixed, a_ping_with_a_body_leaves_the_level_alone) {
    mqtt_codec_ctx_init(&ctx);
    ctx.level_fixed = 1;
    const bytes in = hex("C0 01 00");
    int len = 3;
    EXPECT_EQ(mqtt_codec_decode_simple(&ctx, MQTT_PKT_PINGREQ, in.data(), &len), 0);
    EXPECT_EQ(ctx.protocol_version, 4u);
}

TEST_F(publish_level_fixed, a_connect_of_the_other_level_is_refused) {
    for (const uint32_t level : {4u, 5u}) {
        mqtt_codec_ctx_init(&ctx);
        set_level(&ctx, level);
        ctx.level_fixed = 1;
        const bytes same = hex(level == 4 ? "10 0D 00 04 'MQTT' 04 02 00 3C 00 01 'a'"
                                          : "10 0E 00 04 'MQTT' 05 02 00 3C 00 00 01 'a'");
        const bytes other = hex(level == 5 ? "10 0D 00 04 'MQTT' 04 02 00 3C 00 01 'a'"
                                           : "10 0E 00 04 'MQTT' 05 02 00 3C 00 00 01 'a'");
        const auto record = std::make_unique<mqtt_connect_para>();
        int len = static_cast<int>(same.size());
        EXPECT_EQ(mqtt_codec_decode_connect(&ctx, same.data(), &len, record.get()), 0);
        len = static_cast<int>(other.size());
        EXPECT_EQ(mqtt_codec_decode_connect(&ctx, other.data(), &len, record.get()), MQTT_CODEC_ERR_VERSION);
        EXPECT_EQ(ctx.protocol_version, level);
    }
}

TEST_F(publish_level_fixed, a_new_context_follows_the_shape) {
    mqtt_codec_ctx_init(&ctx);
    EXPECT_EQ(ctx.level_fixed, 0);
}

}  // namespace
