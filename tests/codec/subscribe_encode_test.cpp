#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using encode_rows = std::vector<encode_row<mqtt_subscribe_para>>;

void run(const encode_rows &rows) {
    for (const auto &r : rows) run_encode_row<mqtt_subscribe_para>(mqtt_codec_encode_subscribe, r, 8);
}

// n filters "f" with QoS 1, four bytes each.
std::string filters(int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += "00 01 'f' 01 ";
    return out;
}

void one_filter(mqtt_subscribe_para &p) {
    p.msg_id = 10;
    p.filter_count = 1;
    strcpy(p.topic_filters[0], "a/b");
    p.requested_qos[0] = 1;
}
void sized_filters(mqtt_subscribe_para &p, int count, size_t len) {
    p.msg_id = 10;
    p.filter_count = count;
    for (int i = 0; i < count; ++i) memset(p.topic_filters[i], 'f', len);
}

}  // namespace

class subscribe_encode : public quiet_codec_test {};

TEST_F(subscribe_encode, good_records) {
    run(encode_rows{
        {"level 4", 4, one_filter, 0, "82 08 00 0A 00 03 'a/b' 01", {}, 128},
        {"level 5", 5, one_filter, 0, "82 09 00 0A 00 00 03 'a/b' 01", {}},
        {"level 5 with an identifier",
         5,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.subscription_identifier = 0x1FF;
         },
         0,
         "82 0C 00 0A 03 0B 01 FF 00 03 'a/b' 01",
         {}},
        {"a QoS beyond two bits is cut",
         4,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.requested_qos[0] = 6;
         },
         0,
         "82 08 00 0A 00 03 'a/b' 02",
         {}},
        {"an empty filter is left out",
         4,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.filter_count = 2;
             strcpy(p.topic_filters[1], "a/b");
             p.topic_filters[0][0] = '\0';
         },
         0,
         "82 08 00 0A 00 03 'a/b' 00",
         {"WARN", "SUBSCRIBE encode: invalid filter len 0 for index 0"}},
        {"a filter that is not terminated is left out",
         4,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.filter_count = 2;
             memset(p.topic_filters[1], 'f', sizeof p.topic_filters[1]);
             p.topic_filters[2][0] = 'x';
         },
         0,
         "82 08 00 0A 00 03 'a/b' 01",
         {"WARN", "SUBSCRIBE encode: invalid filter len 257 for index 1"}},
        {"the scratch area filled to the last byte",
         4,
         [](mqtt_subscribe_para &p) { sized_filters(p, 7, 143); },
         0,
         pkt(
             "82", "00 0A " +
                       [] {
                           std::string all;
                           for (int i = 0; i < 7; ++i) all += "00 8F " + rep(143, 'f') + " 00 ";
                           return all;
                       }()),
         {}},
    });
}

TEST_F(subscribe_encode, refused_records) {
    run(encode_rows{
        {"127 bytes of buffer", 4, one_filter, -1, "", {"ERROR", "SUBSCRIBE encode: invalid param"}, 127},
        {"no filters",
         4,
         [](mqtt_subscribe_para &p) { sized_filters(p, 0, 1); },
         -1,
         "",
         {"ERROR", "SUBSCRIBE encode: invalid filter count 0"}},
        {"a negative count",
         4,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.filter_count = -1;
         },
         -1,
         "",
         {"ERROR", "SUBSCRIBE encode: invalid filter count -1"}},
        {"17 filters, told before the level",
         3,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.filter_count = 17;
         },
         -1,
         "",
         {"ERROR", "SUBSCRIBE encode: invalid filter count 17"}},
        {"level 3, told before the identifier",
         3,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.msg_id = 0;
         },
         -2,
         "",
         {"ERROR", "SUBSCRIBE encode: unsupported version 3"}},
        {"identifier 0",
         4,
         [](mqtt_subscribe_para &p) {
             one_filter(p);
             p.msg_id = 0;
         },
         -1,
         "",
         {"ERROR", "SUBSCRIBE encode: msg_id cannot be zero"}},
        {"only impossible filters",
         4,
         [](mqtt_subscribe_para &p) { sized_filters(p, 2, 0); },
         -1,
         "",
         {"ERROR", "SUBSCRIBE encode: no valid topic filters"}},
        {"a buffer one byte too small",
         4,
         [](mqtt_subscribe_para &p) { sized_filters(p, 1, 256); },
         -3,
         "",
         {"ERROR", "SUBSCRIBE encode: buffer full (need 264, have 263)"},
         263},
        {"the scratch area one byte too small",
         5,
         [](mqtt_subscribe_para &p) { sized_filters(p, 7, 143); },
         -3,
         "",
         {"ERROR", "SUBSCRIBE encode: buffer full (need 1025, have 1024)"},
         8192},
        {"16 filters of 256 bytes",
         4,
         [](mqtt_subscribe_para &p) { sized_filters(p, 16, 256); },
         -3,
         "",
         {"ERROR", "SUBSCRIBE encode: buffer full (need 4146, have 1024)"},
         8192},
    });
}

TEST_F(subscribe_encode, refuses_missing_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    auto para = std::make_unique<mqtt_subscribe_para>();
    one_filter(*para);
    uint8_t out[128];
    int len = sizeof out;
    for (int missing = 0; missing < 4; ++missing) {
        log_capture log;
        EXPECT_EQ(
            mqtt_codec_encode_subscribe(missing == 0 ? nullptr : &ctx, missing == 1 ? nullptr : para.get(),
                                        missing == 2 ? nullptr : out, missing == 3 ? nullptr : &len),
            -1);
        EXPECT_TRUE(log.has("ERROR", "SUBSCRIBE encode: invalid param")) << missing << log.text();
    }
}

TEST_F(subscribe_encode, packets_survive_the_round_trip) {
    expect_round_trip<mqtt_subscribe_para>(mqtt_codec_decode_subscribe, mqtt_codec_encode_subscribe, 4,
                                           pkt("82", "00 0A " + filters(16)));
    expect_round_trip<mqtt_subscribe_para>(mqtt_codec_decode_subscribe, mqtt_codec_encode_subscribe, 5,
                                           pkt("82", "FF FF 00 " + filters(2)));
}
