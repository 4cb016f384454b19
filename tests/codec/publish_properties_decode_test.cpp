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

class publish_properties_decode : public quiet_codec_test {};

TEST_F(publish_properties_decode, the_level_is_recognised_by_the_shape_of_the_packet) {
    run({
        {"a first payload byte that is no fitting length means level 4",
         5,
         "30 07 00 03 'a/b' 'hi'",
         0,
         {},
         9,
         4,
         [](const mqtt_publish_para &p) {
             EXPECT_STREQ(p.topic, "a/b");
             EXPECT_EQ(payload(p), "hi");
             EXPECT_EQ(p.qos, 0u);
             EXPECT_EQ(p.retain, 0);
             EXPECT_EQ(p.dup, 0);
             EXPECT_EQ(p.packet_id, 0);
             EXPECT_EQ(p.msg_expiry_interval, 0u);
             EXPECT_EQ(p.topic_alias, 0);
         }},
        {"a lone zero is an empty block of level 5",
         4,
         "30 06 00 03 'a/b' 00",
         0,
         {},
         8,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 0u); }},
        {"an empty block, then payload",
         4,
         "30 08 00 03 'a/b' 00 'hi'",
         0,
         {},
         10,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "hi"); }},
        {"nothing behind the topic means level 4",
         5,
         "30 05 00 03 'a/b'",
         0,
         {},
         7,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 0u); }},
        {"a length of all that is left",
         4,
         "30 0B 00 03 'a/b' 05 02 00 00 00 3C",
         0,
         {},
         13,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.msg_expiry_interval, 60u);
             EXPECT_EQ(p.payload_len, 0u);
         }},
        {"a length of one more than is left",
         5,
         "30 0B 00 03 'a/b' 06 02 00 00 00 3C",
         0,
         {},
         13,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 6u); }},
        {"a length of two bytes that fits",
         4,
         "30 07 00 03 'a/b' 80 00",
         0,
         {},
         9,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 0u); }},
        {"a length cut short by the packet",
         5,
         "30 06 00 03 'a/b' 80",
         0,
         {},
         8,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 1u); }},
        {"a length that would fit only with the next packet",
         5,
         "30 05 00 01 'a' 02 'h' C0 00",
         0,
         {},
         7,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "\x02h"); }},
        {"a length whose second byte is the next packet's",
         5,
         "30 04 00 01 'a' 80 00",
         0,
         {},
         6,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "\x80"); }},
        {"a length of four bytes is payload",
         5,
         "30 09 00 03 'a/b' 80 80 80 00",
         0,
         {},
         11,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 4u); }},
        {"a 3.1.1 payload that begins like a block loses it",
         4,
         "30 09 00 03 'a/b' 01 99 'hi'",
         0,
         {"WARN", "PUBLISH decode: unknown property type 0x99, pos=9"},
         11,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "i"); }},
    });
}

TEST_F(publish_properties_decode, a_long_text_of_level_4_loses_what_reads_as_a_block) {
    // 0x78 is 120 and fits; the block's first property is unknown and has 120 bytes of its own.
    run({
        {"200 letters",
         4,
         pkt("30", "00 01 'a' " + rep(200, 'x')),
         0,
         {"WARN", "PUBLISH decode: unknown property type 0x78, pos=8"},
         3 + 3 + 200,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), std::string(200 - 1 - 2 - 120, 'x')); }},
        {"100 letters are too few for that",
         5,
         pkt("30", "00 01 'a' " + rep(100, 'x')),
         0,
         {},
         2 + 3 + 100,
         4,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), std::string(100, 'x')); }},
    });
}

TEST_F(publish_properties_decode, the_trace_tells_why_a_packet_is_taken_for_level_4) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_publish_para>();
    const bytes wire = hex("30 07 00 03 'a/b' 'hi'");
    int len = static_cast<int>(wire.size());
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_publish(&ctx, wire.data(), &len, para.get()), 0);
    EXPECT_TRUE(log.has("DEBUG", "PUBLISH decode: no MQTT 5.0 prop (prop_len=104), version remain 3.1.1"))
        << log.text();
}

TEST_F(publish_properties_decode, properties) {
    const std::string t = "00 01 'a' ";
    run({
        {"expiry and alias",
         4,
         pkt("30", t + "08 02 00 00 00 3C 23 00 05 'hi'"),
         0,
         {},
         16,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.msg_expiry_interval, 60u);
             EXPECT_EQ(p.topic_alias, 5);
             EXPECT_EQ(payload(p), "hi");
         }},
        {"an unknown one is skipped by its length",
         4,
         pkt("30", t + "07 99 02 AA BB 23 00 05 'hi'"),
         0,
         {"WARN", "PUBLISH decode: unknown property type 0x99, pos=7"},
         15,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.topic_alias, 5);
             EXPECT_EQ(payload(p), "hi");
         }},
        {"an expiry cut short by the block takes its five bytes all the same",
         4,
         pkt("30", t + "03 02 00 00 'hello'"),
         0,
         {"WARN", "PUBLISH decode: msg_expiry_interval buffer short - pos=7, need 4 bytes"},
         14,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.msg_expiry_interval, 0u);
             EXPECT_EQ(payload(p), "llo");
         }},
        {"an alias cut short by the block",
         4,
         pkt("30", t + "02 23 00 'hello'"),
         0,
         {"WARN", "PUBLISH decode: topic_alias buffer short - pos=7, need 2 bytes"},
         13,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.topic_alias, 0);
             EXPECT_EQ(payload(p), "ello");
         }},
        {"a step behind the packet leaves no payload",
         4,
         pkt("30", t + "01 02 'hi'"),
         0,
         {"WARN", "PUBLISH decode: msg_expiry_interval buffer short - pos=7, need 4 bytes"},
         9,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 0u); }},
        {"an unknown one without a length",
         4,
         pkt("30", t + "01 99 'hi'"),
         0,
         {"ERROR", "PUBLISH decode: invalid attr len for type 0x99, skip 1 byte"},
         9,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(payload(p), "i"); }},
        {"a skip far behind the packet leaves no payload",
         4,
         pkt("30", t + "03 99 80 23 'hello'"),
         0,
         {"WARN", "PUBLISH decode: unknown property type 0x99, pos=7"},
         14,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.payload_len, 0u); }},
        {"an undecodable length moves two bytes on from the identifier",
         4,
         pkt("30", t + "08 99 80 80 80 00 23 00 05 'hi'"),
         0,
         {"ERROR", "PUBLISH decode: invalid attr len for type 0x99, skip 1 byte"},
         16,
         5,
         [](const mqtt_publish_para &p) {
             EXPECT_EQ(p.topic_alias, 5);  // 80 00 in between reads as one more unknown property
             EXPECT_EQ(payload(p), "hi");
         }},
        {"the packet's level does not depend on the connection's",
         9,
         pkt("30", t + "03 23 00 05"),
         0,
         {},
         9,
         5,
         [](const mqtt_publish_para &p) { EXPECT_EQ(p.topic_alias, 5); }},
    });
}
