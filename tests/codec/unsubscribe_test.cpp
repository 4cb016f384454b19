#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using encode_rows = std::vector<encode_row<mqtt_unsubscribe_para>>;
using decode_rows = std::vector<decode_row<mqtt_unsubscribe_para>>;

void run(const encode_rows &rows) {
    for (const auto &r : rows) run_encode_row<mqtt_unsubscribe_para>(mqtt_codec_encode_unsubscribe, r, 10);
}
void run(const decode_rows &rows) {
    for (const auto &r : rows) run_decode_row<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, r, 10);
}

std::string filters(int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += "00 01 'f' ";
    return out;
}

void one_filter(mqtt_unsubscribe_para &p) {
    p.msg_id = 10;
    p.filter_count = 1;
    strcpy(p.topic_filters[0], "a/b");
}
void sized_filters(mqtt_unsubscribe_para &p, int count, size_t len) {
    p.msg_id = 10;
    p.filter_count = count;
    for (int i = 0; i < count; ++i) memset(p.topic_filters[i], 'f', len);
}

}  // namespace

class unsubscribe : public quiet_codec_test {};

TEST_F(unsubscribe, good_packets) {
    run(decode_rows{
        {"one filter",
         4,
         "A2 07 00 0A 00 03 'a/b'",
         0,
         {},
         9,
         4,
         [](const mqtt_unsubscribe_para &p) {
             EXPECT_EQ(p.msg_id, 10);
             ASSERT_EQ(p.filter_count, 1);
             EXPECT_STREQ(p.topic_filters[0], "a/b");
             EXPECT_EQ(p.subscription_identifier, 0);
         }},
        {"16 filters",
         4,
         pkt("A2", "12 34 " + filters(16)),
         0,
         {},
         2 + 2 + 48,
         4,
         [](const mqtt_unsubscribe_para &p) {
             EXPECT_EQ(p.filter_count, 16);
             EXPECT_STREQ(p.topic_filters[15], "f");
         }},
        {"256 bytes of filter",
         4,
         pkt("A2", "00 0A 01 00 " + rep(256, 'f')),
         0,
         {},
         263,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(strlen(p.topic_filters[0]), 256u); }},
        {"no filters at all",
         4,
         "A2 02 00 0A",
         0,
         {},
         4,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 0); }},
        {"no filters at all at level 5",
         5,
         "A2 03 00 0A 00",
         0,
         {},
         5,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 0); }},
        {"level 5",
         5,
         "A2 08 00 0A 00 00 03 'a/b'",
         0,
         {},
         10,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_STREQ(p.topic_filters[0], "a/b"); }},
        {"bytes behind the packet are left", 4, "A2 02 00 0A 00 01 'f'", 0, {}, 4, 4},
    });
}

TEST_F(unsubscribe, a_17th_filter_is_left_with_a_warning) {
    run(decode_rows{
        {"17 filters",
         4,
         pkt("A2", "00 0A " + filters(17)),
         0,
         {"WARN", "UNSUBSCRIBE Topic数超过上限：当前=16 最大=16"},
         2 + 2 + 48,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 16); }},
    });
}

TEST_F(unsubscribe, the_remaining_length_is_limited_to_2048) {
    // 2048 bytes: the identifier, seven filters of 256 bytes and one of 238.
    std::string body = "00 0A ";
    for (int i = 0; i < 7; ++i) body += "01 00 " + rep(256, 'f') + " ";
    body += "00 EE " + rep(238, 'f');
    ASSERT_EQ(hex(body).size(), 2048u);
    run(decode_rows{
        {"2048",
         4,
         pkt("A2", body),
         0,
         {},
         3 + 2048,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 8); }},
        {"2049",
         4,
         pkt("A2", body + " 00"),
         -3,
         {"ERROR", "UNSUBSCRIBE剩余长度超限：rem_len=2049 最大允许=2048"}},
    });
}

TEST_F(unsubscribe, a_third_length_byte_adds_nothing) {
    run(decode_rows{
        {"its bits are lost",
         4,
         "A2 87 80 7F 00 0A 00 03 'a/b'",
         0,
         {},
         11,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 1); }},
        {"as are those of a sixth", 4, "A2 87 80 80 80 80 01 00 0A 00 03 'a/b'", 0, {}, 14, 4},
    });
}

TEST_F(unsubscribe, bad_remaining_lengths_are_buffer_errors) {
    run(decode_rows{
        {"no end of it",
         4,
         "A2 80 80 80 80",
         -3,
         {"ERROR", "UNSUBSCRIBE剩余长度解码越界：offset=5 total_len=5"}},
        {"longer than the buffer",
         4,
         "A2 08 00 0A 00 03 'a/b'",
         -3,
         {"ERROR", "UNSUBSCRIBE剩余长度不合法：offset=2 rem_len=8 total_len=9"}},
        {"no room for the identifier",
         4,
         "A2 01 00 0A",
         -3,
         {"ERROR", "UNSUBSCRIBE剩余长度不合法：offset=2 rem_len=1 total_len=4"}},
    });
}

TEST_F(unsubscribe, bad_headers) {
    run(decode_rows{
        {"another type",
         4,
         "82 07 00 0A 00 03 'a/b'",
         -4,
         {"ERROR", "UNSUBSCRIBE固定报头非法：类型=8 保留位=0x02（预期0x02）"}},
        {"flags 0",
         4,
         "A0 07 00 0A 00 03 'a/b'",
         -4,
         {"ERROR", "UNSUBSCRIBE固定报头非法：类型=10 保留位=0x00（预期0x02）"}},
        {"identifier 0 is a bad parameter",
         4,
         "A2 07 00 00 00 03 'a/b'",
         -1,
         {"ERROR", "UNSUBSCRIBE消息ID非法：msg_id=0"}},
        {"identifier 0 is told before bad properties",
         5,
         "A2 04 00 00 80 80",
         -1,
         {"ERROR", "UNSUBSCRIBE消息ID非法：msg_id=0"}},
    });
}

TEST_F(unsubscribe, the_type_is_noted_once_the_first_byte_is_accepted) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_unsubscribe_para>();
    const auto type_after = [&](const char *wire_hex) {
        mqtt_codec_ctx_init(&ctx);
        const bytes wire = hex(wire_hex);
        int len = static_cast<int>(wire.size());
        EXPECT_LT(mqtt_codec_decode_unsubscribe(&ctx, wire.data(), &len, para.get()), 0);
        return ctx.last_packet_type.load();
    };
    EXPECT_EQ(type_after("A2 01 00 0A"), 10u);
    EXPECT_EQ(type_after("A0 02 00 0A"), 0u);
}

TEST_F(unsubscribe, level_5_properties) {
    run(decode_rows{
        {"subscription identifier",
         5,
         pkt("A2", "00 0A 02 0B 07 00 01 'f'"),
         0,
         {},
         10,
         5,
         [](const mqtt_unsubscribe_para &p) {
             EXPECT_EQ(p.subscription_identifier, 7);
             EXPECT_EQ(p.filter_count, 1);
         }},
        {"an unknown pair is skipped",
         5,
         pkt("A2", "00 0A 04 26 0B 0B 07 00 01 'f'"),
         0,
         {"WARN", "MQTT 5.0不支持的UNSUBSCRIBE属性：0x26"},
         12,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.subscription_identifier, 7); }},
        {"an unknown one without a value ends at the block's end",
         5,
         pkt("A2", "00 0A 01 26 00 01 'f'"),
         0,
         {"WARN", "MQTT 5.0不支持的UNSUBSCRIBE属性：0x26"},
         9,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_STREQ(p.topic_filters[0], "f"); }},
        {"subscription identifier without a value",
         5,
         pkt("A2", "00 0A 01 0B 00 01 'f'"),
         -4,
         {"ERROR", "UNSUBSCRIBE 5.0订阅标识符长度不足"}},
        {"a length above what is left of the packet",
         5,
         pkt("A2", "00 0A 07 0B 07 00 01 'f'"),
         -3,
         {"ERROR", "UNSUBSCRIBE 5.0属性长度超限：prop_len=7 最大允许=6"}},
        {"a length of all that is left, its own byte included",
         5,
         pkt("A2", "00 0A 06 0B 07 00 01 'f'"),
         -4,
         {"ERROR", "UNSUBSCRIBE 5.0属性长度越界：prop_end=11 rem_len_end=10"}},
        {"a length without an end",
         5,
         pkt("A2", "00 0A 80 80"),
         -4,
         {"ERROR", "UNSUBSCRIBE 5.0属性长度解码越界：offset=6 rem_len_end=6"}},
        {"no length",
         5,
         "A2 02 00 0A",
         -4,
         {"ERROR", "UNSUBSCRIBE 5.0属性长度解码越界：offset=4 rem_len_end=4"}},
    });
}

TEST_F(unsubscribe, bad_filters) {
    run(decode_rows{
        {"half a length",
         4,
         pkt("A2", "00 0A 00 01 'f' 00"),
         -4,
         {"ERROR", "UNSUBSCRIBE Topic长度字段越界：offset=7 rem_len_end=8"}},
        {"empty",
         4,
         pkt("A2", "00 0A 00 00"),
         -4,
         {"ERROR", "UNSUBSCRIBE Topic长度非法：len=0 最大允许=256 offset+len=6 rem_len_end=6"}},
        {"257 bytes",
         4,
         pkt("A2", "00 0A 01 01 " + rep(257, 'f')),
         -4,
         {"ERROR", "UNSUBSCRIBE Topic长度非法：len=257 最大允许=256 offset+len=264 rem_len_end=264"}},
        {"past the packet",
         4,
         pkt("A2", "00 0A 00 04 'a/b'") + " FF",
         -4,
         {"ERROR", "UNSUBSCRIBE Topic长度非法：len=4 最大允许=256 offset+len=10 rem_len_end=9"}},
    });
}

TEST_F(unsubscribe, a_context_without_a_level_takes_it_from_the_shape) {
    run(decode_rows{
        {"an empty block, then a filter",
         0,
         "A2 08 00 0A 00 00 03 'a/b'",
         0,
         {"INFO", "UNSUBSCRIBE自动识别为5.0版本"},
         10,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_STREQ(p.topic_filters[0], "a/b"); }},
        {"a block whose contents are not looked at",
         3,
         "A2 09 00 0A 02 0B 07 00 01 'f' 'g'",
         -4,
         {"INFO", "UNSUBSCRIBE自动识别为5.0版本"},
         0,
         5},
        {"the same without the stray byte",
         3,
         "A2 08 00 0A 02 0B 07 00 01 'f'",
         0,
         {"INFO", "UNSUBSCRIBE自动识别为5.0版本"},
         10,
         5,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.subscription_identifier, 0); }},
        {"a filter length that reaches the packet's end",
         6,
         "A2 06 00 0A 03 0B 07 00",
         -4,
         {"INFO", "UNSUBSCRIBE自动识别为3.1.1版本"},
         0,
         4},
        {"no filters",
         7,
         "A2 02 00 0A",
         0,
         {"INFO", "UNSUBSCRIBE自动识别为3.1.1版本"},
         4,
         4,
         [](const mqtt_unsubscribe_para &p) { EXPECT_EQ(p.filter_count, 0); }},
        {"an empty block alone", 0, "A2 03 00 0A 00", -4, {"INFO", "UNSUBSCRIBE自动识别为3.1.1版本"}, 0, 4},
        {"a block length that has no end",
         0,
         "A2 04 00 0A 80 80",
         -4,
         {"INFO", "UNSUBSCRIBE自动识别为3.1.1版本"},
         0,
         4},
    });
}

TEST_F(unsubscribe, a_refused_packet_leaves_a_cleared_record) {
    expect_cleared<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, "82 07 00 0A 00 03 'a/b'");
    expect_cleared<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, "A2 08 00 0A 00 03 'a/b'");
}

TEST_F(unsubscribe, decoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_unsubscribe_para>();
    heap_block in(4);
    const void *const c = &ctx;
    const void *const p = para.get();
    const void *const b = in.data();
    const void *const none = nullptr;
    int len = 4;
    int short_len = 3;
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(nullptr, in.data(), &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, nullptr, &len, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, in.data(), nullptr, para.get()), -1);
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, in.data(), &len, nullptr), -1);
    EXPECT_EQ(mqtt_codec_decode_unsubscribe(&ctx, in.data(), &short_len, para.get()), -1);
    constexpr char text[] = "UNSUBSCRIBE解码参数非法：ctx=%p buf=%p buf_len=%d para=%p";
    EXPECT_TRUE(log.has("ERROR", format(text, none, b, 4, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, 4, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 0, p))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 4, none))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, b, 3, p))) << log.text();
}

TEST_F(unsubscribe, encoding_good_records) {
    run(encode_rows{
        {"level 4", 4, one_filter, 0, "A2 07 00 0A 00 03 'a/b'", {}},
        {"level 5", 5, one_filter, 0, "A2 08 00 0A 00 00 03 'a/b'", {}},
        {"level 5 with an identifier",
         5,
         [](mqtt_unsubscribe_para &p) {
             one_filter(p);
             p.subscription_identifier = 9;
         },
         0,
         "A2 0B 00 0A 03 0B 01 09 00 03 'a/b'",
         {}},
        {"an empty filter is left out",
         4,
         [](mqtt_unsubscribe_para &p) {
             one_filter(p);
             p.filter_count = 2;
         },
         0,
         "A2 07 00 0A 00 03 'a/b'",
         {"WARN", "UNSUBSCRIBE encode: invalid filter len 0 for index 1"}},
        {"a filter that is not terminated is left out",
         4,
         [](mqtt_unsubscribe_para &p) {
             one_filter(p);
             p.filter_count = 16;
             memset(p.topic_filters[15], 'f', sizeof p.topic_filters[15]);
         },
         0,
         "A2 07 00 0A 00 03 'a/b'",
         {"WARN", "UNSUBSCRIBE encode: invalid filter len 257 for index 15"}},
        {"the scratch area filled to the last byte",
         4,
         [](mqtt_unsubscribe_para &p) { sized_filters(p, 7, 144); },
         0,
         pkt(
             "A2", "00 0A " +
                       [] {
                           std::string all;
                           for (int i = 0; i < 7; ++i) all += "00 90 " + rep(144, 'f') + " ";
                           return all;
                       }()),
         {}},
    });
}

TEST_F(unsubscribe, encoding_refused_records) {
    run(encode_rows{
        {"level 3, told before the count",
         3,
         [](mqtt_unsubscribe_para &) {},
         -2,
         "",
         {"ERROR", "UNSUBSCRIBE encode: unsupported version 3"}},
        {"no filters",
         4,
         [](mqtt_unsubscribe_para &) {},
         -1,
         "",
         {"ERROR", "UNSUBSCRIBE encode: invalid filter count 0"}},
        {"17 filters",
         4,
         [](mqtt_unsubscribe_para &p) { p.filter_count = 17; },
         -1,
         "",
         {"ERROR", "UNSUBSCRIBE encode: invalid filter count 17"}},
        {"identifier 0",
         4,
         [](mqtt_unsubscribe_para &p) { p.filter_count = 1; },
         -1,
         "",
         {"ERROR", "UNSUBSCRIBE encode: msg_id cannot be zero"}},
        {"only impossible filters",
         4,
         [](mqtt_unsubscribe_para &p) { sized_filters(p, 2, 0); },
         -1,
         "",
         {"ERROR", "UNSUBSCRIBE encode: no valid topic filters"}},
        {"a buffer one byte too small",
         4,
         [](mqtt_unsubscribe_para &p) { sized_filters(p, 1, 256); },
         -3,
         "",
         {"ERROR", "UNSUBSCRIBE encode: buffer full (need 263, have 262)"},
         262},
        {"the scratch area one byte too small",
         5,
         [](mqtt_unsubscribe_para &p) { sized_filters(p, 7, 144); },
         -3,
         "",
         {"ERROR", "UNSUBSCRIBE encode: buffer full (need 1025, have 1024)"},
         8192},
        {"16 filters of 256 bytes",
         4,
         [](mqtt_unsubscribe_para &p) { sized_filters(p, 16, 256); },
         -3,
         "",
         {"ERROR", "UNSUBSCRIBE encode: buffer full (need 4130, have 1024)"},
         8192},
    });
}

TEST_F(unsubscribe, encoding_refuses_bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    auto para = std::make_unique<mqtt_unsubscribe_para>();
    one_filter(*para);
    heap_block out(128);
    const void *const c = &ctx;
    const void *const p = para.get();
    const void *const b = out.data();
    const void *const none = nullptr;
    int len = 128;
    int short_len = 127;
    const void *const l = &len;
    const void *const s = &short_len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(nullptr, para.get(), out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, nullptr, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, para.get(), nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, para.get(), out.data(), nullptr), -1);
    EXPECT_EQ(mqtt_codec_encode_unsubscribe(&ctx, para.get(), out.data(), &short_len), -1);
    constexpr char text[] = "UNSUBSCRIBE encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, p, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, none, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, none, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, s, 127))) << log.text();
}

TEST_F(unsubscribe, packets_survive_the_round_trip) {
    expect_round_trip<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, mqtt_codec_encode_unsubscribe, 4,
                                             pkt("A2", "00 0A " + filters(16)));
    expect_round_trip<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, mqtt_codec_encode_unsubscribe, 5,
                                             pkt("A2", "FF FF 00 " + filters(2)));
}
