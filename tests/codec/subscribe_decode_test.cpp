#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using decode_rows = std::vector<decode_row<mqtt_subscribe_para>>;

void run(const decode_rows &rows) {
    for (const auto &r : rows) run_decode_row<mqtt_subscribe_para>(mqtt_codec_decode_subscribe, r, 8);
}

// n filters "f" with QoS 1, four bytes each.
std::string filters(int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += "00 01 'f' 01 ";
    return out;
}

}  // namespace

class subscribe_decode : public quiet_codec_test {};

TEST_F(subscribe_decode, good_packets) {
    run(decode_rows{
        {"one filter",
         4,
         "82 08 00 0A 00 03 'a/b' 01",
         0,
         {},
         10,
         4,
         [](const mqtt_subscribe_para &p) {
             EXPECT_EQ(p.msg_id, 10);
             ASSERT_EQ(p.filter_count, 1);
             EXPECT_STREQ(p.topic_filters[0], "a/b");
             EXPECT_EQ(p.requested_qos[0], 1u);
         }},
        {"two filters; QoS 3 and other options pass through the low two bits",
         4,
         "82 0D 12 34 00 03 'a/#' 03 00 02 '$x' FE",
         0,
         {},
         15,
         4,
         [](const mqtt_subscribe_para &p) {
             EXPECT_EQ(p.msg_id, 0x1234);
             ASSERT_EQ(p.filter_count, 2);
             EXPECT_STREQ(p.topic_filters[0], "a/#");
             EXPECT_EQ(p.requested_qos[0], 3u);
             EXPECT_STREQ(p.topic_filters[1], "$x");
             EXPECT_EQ(p.requested_qos[1], 2u);
         }},
        {"level 5 without properties",
         5,
         "82 09 00 0A 00 00 03 'a/b' 00",
         0,
         {},
         11,
         5,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.filter_count, 1); }},
        {"256 bytes of filter",
         4,
         pkt("82", "00 0A 01 00 " + rep(256, 'f') + " 02"),
         0,
         {},
         264,
         4,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(strlen(p.topic_filters[0]), 256u); }},
        {"16 filters",
         4,
         pkt("82", "00 0A " + filters(16)),
         0,
         {},
         2 + 2 + 64,
         4,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.filter_count, 16); }},
        {"bytes behind the packet are left", 4, "82 08 00 0A 00 03 'a/b' 01 C0 00", 0, {}, 10, 4},
        {"the level is not inferred", 3, "82 08 00 0A 00 03 'a/b' 01", 0, {}, 10, 3},
    });
}

TEST_F(subscribe_decode, a_17th_filter_is_ignored) {
    run(decode_rows{
        {"17 filters",
         4,
         pkt("82", "00 0A " + filters(17)),
         0,
         {},
         2 + 2 + 16 * 4,
         4,
         [](const mqtt_subscribe_para &p) {
             EXPECT_EQ(p.filter_count, 16);
             EXPECT_STREQ(p.topic_filters[15], "f");
         }},
    });
}

TEST_F(subscribe_decode, level_5_properties) {
    const std::string filter = " 00 01 'f' 01";
    run(decode_rows{
        {"all three",
         5,
         pkt("82", "00 0A 06 26 07 27 02 0B FF" + filter),
         0,
         {},
         15,
         5,
         [](const mqtt_subscribe_para &p) {
             EXPECT_EQ(p.max_qos, 3);
             EXPECT_EQ(p.retain_handling, 2);
             EXPECT_EQ(p.subscription_identifier, 255u);
             EXPECT_EQ(p.filter_count, 1);
         }},
        {"an unknown one is skipped by its length",
         5,
         pkt("82", "00 0A 06 99 02 AA BB 27 02" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: unknown property type 0x99, attr_len=2"},
         15,
         5,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.retain_handling, 2); }},
        {"a skip past the block ends it",
         5,
         pkt("82", "00 0A 04 99 7F 27 02" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: unknown property type 0x99, attr_len=127"},
         13,
         5,
         [](const mqtt_subscribe_para &p) {
             EXPECT_EQ(p.retain_handling, 0);
             EXPECT_EQ(p.filter_count, 1);
         }},
        {"an attribute length of 0 ends the properties",
         5,
         pkt("82", "00 0A 04 99 00 27 02" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: unknown property type 0x99, attr_len=0"},
         13,
         5,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.retain_handling, 0); }},
        {"an attribute length that is missing",
         5,
         pkt("82", "00 0A 01 99" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: unknown property type 0x99, attr_len=-1"},
         10,
         5},
        {"maximum QoS without a value",
         5,
         pkt("82", "00 0A 01 26" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: incomplete max QoS"},
         10,
         5},
        {"retain handling without a value",
         5,
         pkt("82", "00 0A 03 27 01 27" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: incomplete retain handling"},
         12,
         5,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.retain_handling, 1); }},
        {"subscription identifier without a value",
         5,
         pkt("82", "00 0A 01 0B" + filter),
         0,
         {"WARN", "SUBSCRIBE decode: incomplete subscription identifier"},
         10,
         5},
        {"a block past the packet leaves no filter",
         5,
         pkt("82", "00 0A 7F 26 01" + filter),
         -4,
         {"ERROR", "SUBSCRIBE decode: no valid topic filters (filter_count=0)"}},
        {"a length that does not decode is read as the first filter's",
         5,
         pkt("82", "00 0A 80 80 80 01" + filter),
         -4,
         {"WARN",
          "SUBSCRIBE decode: invalid topic filter length 32896 (max=256, pos+len=32902, "
          "payload_end=12)"}},
        {"level 4 has no properties",
         4,
         pkt("82", "00 0A 00 01 'f' 02"),
         0,
         {},
         8,
         4,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.requested_qos[0], 2u); }},
    });
}

TEST_F(subscribe_decode, bad_headers) {
    run(decode_rows{
        {"another type",
         4,
         "A2 08 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: not a SUBSCRIBE packet (type=10, expect=8)"}},
        {"flags 0",
         4,
         "80 08 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid flags (0x00, expect=0x02)"}},
        {"flags 0xF",
         4,
         "8F 08 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid flags (0x0F, expect=0x02)"}},
        {"flags are told before a bad length",
         4,
         "80 7F 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid flags (0x00, expect=0x02)"}},
        {"a length of four bytes",
         4,
         "82 88 80 80 00 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid remaining length (len=-1, consumed=0, total=0, buf_len=13)"}},
        {"longer than the buffer",
         4,
         "82 09 00 0A 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid remaining length (len=9, consumed=1, total=11, buf_len=10)"}},
        {"no identifier",
         4,
         "82 01 00 0A 00 03",
         -4,
         {"ERROR", "SUBSCRIBE decode: buffer too short for msg id (pos=2, payload_end=3)"}},
        {"identifier 0",
         4,
         "82 08 00 00 00 03 'a/b' 01",
         -4,
         {"ERROR", "SUBSCRIBE decode: invalid msg id (0, must be >0)"}},
        {"nothing behind the identifier",
         4,
         "82 02 00 0A 00 00",
         -4,
         {"ERROR", "SUBSCRIBE decode: no valid topic filters (filter_count=0)"}},
        {"nothing behind the properties",
         5,
         "82 03 00 0A 00 00",
         -4,
         {"ERROR", "SUBSCRIBE decode: no valid topic filters (filter_count=0)"}},
    });
}

TEST_F(subscribe_decode, a_packet_cut_short_keeps_its_good_filters) {
    const std::string good = "00 0A 00 01 'f' 01 ";
    run(decode_rows{
        {"last filter without options",
         4,
         pkt("82", good + "00 03 'a/b'"),
         0,
         {"ERROR", "SUBSCRIBE decode: buffer too short for req qos (pos=13, payload_end=13)"},
         13,
         4,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.filter_count, 1); }},
        {"half a filter length",
         4,
         pkt("82", good + "00"),
         0,
         {"ERROR", "SUBSCRIBE decode: buffer too short for topic filter length (pos=8, payload_end=9)"},
         8,
         4},
        {"a filter past the packet",
         4,
         pkt("82", good + "00 05 'a/b'"),
         0,
         {"WARN", "SUBSCRIBE decode: invalid topic filter length 5 (max=256, pos+len=15, payload_end=13)"},
         10,
         4},
        {"an empty filter",
         4,
         pkt("82", good + "00 00 01"),
         0,
         {"WARN", "SUBSCRIBE decode: invalid topic filter length 0 (max=256, pos+len=10, payload_end=11)"},
         10,
         4},
        {"only a filter without options",
         4,
         pkt("82", "00 0A 00 03 'a/b'"),
         -4,
         {"ERROR", "SUBSCRIBE decode: no valid topic filters (filter_count=0)"}},
    });
}

TEST_F(subscribe_decode, a_257_byte_filter_stops_the_parse) {
    const std::string long_filter = "01 01 " + rep(257, 'f') + " 01";
    run(decode_rows{
        {"as the second",
         4,
         pkt("82", "00 0A 00 01 'f' 01 " + long_filter),
         0,
         {"WARN",
          "SUBSCRIBE decode: invalid topic filter length 257 (max=256, pos+len=268, payload_end=269)"},
         11,
         4,
         [](const mqtt_subscribe_para &p) { EXPECT_EQ(p.filter_count, 1); }},
        {"as the first",
         4,
         pkt("82", "00 0A " + long_filter),
         -4,
         {"WARN",
          "SUBSCRIBE decode: invalid topic filter length 257 (max=256, pos+len=264, payload_end=265)"}},
    });
}

TEST_F(subscribe_decode, a_refused_packet_leaves_a_cleared_record) {
    expect_cleared<mqtt_subscribe_para>(mqtt_codec_decode_subscribe, "A2 08 00 0A 00 03 'a/b' 01");
    expect_cleared<mqtt_subscribe_para>(mqtt_codec_decode_subscribe, "82 09 00 0A 00 03 'a/b' 01");
}

TEST_F(subscribe_decode, refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_subscribe_para>();
    heap_block in(6);
    const void *const c = &ctx;
    const void *const p = para.get();
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 6;
    int short_len = 5;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_subscribe(nullptr, in.data(), &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, nullptr, &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, in.data(), nullptr, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_subscribe(&ctx, in.data(), &short_len, para.get()), -1);
    constexpr char text[] = "SUBSCRIBE decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, l, 6, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, l, 6, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, none, 0, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, l, 6, none))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, s, 5, p))) << log.text();
}
