#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using encode_rows = std::vector<encode_row<mqtt_unsubscribe_para>>;

void run(const encode_rows &rows) {
    for (const auto &r : rows) run_encode_row<mqtt_unsubscribe_para>(mqtt_codec_encode_unsubscribe, r, 10);
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

class unsubscribe_encode : public quiet_codec_test {};

TEST_F(unsubscribe_encode, good_records) {
    run(encode_rows{
        {"level 4", 4, one_filter, 0, "A2 07 00 0A 00 03 'a/b'", {}, 128},
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

TEST_F(unsubscribe_encode, refused_records) {
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

TEST_F(unsubscribe_encode, refuses_bad_arguments) {
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

TEST_F(unsubscribe_encode, packets_survive_the_round_trip) {
    expect_round_trip<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, mqtt_codec_encode_unsubscribe, 4,
                                             pkt("A2", "00 0A " + filters(16)));
    expect_round_trip<mqtt_unsubscribe_para>(mqtt_codec_decode_unsubscribe, mqtt_codec_encode_unsubscribe, 5,
                                             pkt("A2", "FF FF 00 " + filters(2)));
}
