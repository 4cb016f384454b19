#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using decode_rows = std::vector<decode_row<mqtt_unsubscribe_para>>;

void run(const decode_rows &rows) {
    for (const auto &r : rows) run_decode_row<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, r, 10);
}

std::string filters(int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += "00 01 'f' ";
    return out;
}

}  // namespace

class unsubscribe_decode : public quiet_codec_test {};

TEST_F(unsubscribe_decode, good_packets) {
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

TEST_F(unsubscribe_decode, a_17th_filter_is_left_with_a_warning) {
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

TEST_F(unsubscribe_decode, the_remaining_length_is_limited_to_2048) {
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

TEST_F(unsubscribe_decode, a_third_length_byte_adds_nothing) {
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

TEST_F(unsubscribe_decode, bad_remaining_lengths_are_buffer_errors) {
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

TEST_F(unsubscribe_decode, bad_headers) {
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

TEST_F(unsubscribe_decode, the_type_is_noted_once_the_first_byte_is_accepted) {
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

TEST_F(unsubscribe_decode, level_5_properties) {
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

TEST_F(unsubscribe_decode, bad_filters) {
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

TEST_F(unsubscribe_decode, a_context_without_a_level_takes_it_from_the_shape) {
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

TEST_F(unsubscribe_decode, a_refused_packet_leaves_a_cleared_record) {
    expect_cleared<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, "82 07 00 0A 00 03 'a/b'");
    expect_cleared<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, "A2 08 00 0A 00 03 'a/b'");
}

TEST_F(unsubscribe_decode, refuses_bad_arguments) {
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
