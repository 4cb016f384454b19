#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using row = encode_row<mqtt_connect_para>;

void run(const std::vector<row> &rows) {
    for (const row &r : rows) run_encode_row<mqtt_connect_para>(mqtt_codec_encode_connect, r, 1);
}

template <size_t size>
void fill_text(char (&out)[size], char c, size_t n) {
    memset(out, c, n);
}

void small_client(mqtt_connect_para &p) {
    strcpy(p.client_id, "c");
    p.keep_alive = 60;
}
void will(mqtt_connect_para &p, size_t topic_len, uint32_t payload_len) {
    small_client(p);
    p.will_flag = 1;
    fill_text(p.will_topic, 't', topic_len);
    memset(p.will_payload, 'p', sizeof p.will_payload);
    p.will_payload_len = payload_len;
}
void credentials(mqtt_connect_para &p, uint32_t username_len, uint32_t password_len) {
    small_client(p);
    p.username_flag = 1;
    p.username_len = username_len;
    memset(p.username, 'u', sizeof p.username);
    p.password_flag = 1;
    p.password_len = password_len;
    memset(p.password, 'x', sizeof p.password);
}

}  // namespace

class connect_encode : public quiet_codec_test {};

TEST_F(connect_encode, good_records) {
    run({
        {"level 4, identifier only", 4, small_client, 0, "10 0D 00 04 'MQTT' 04 00 00 3C 00 01 'c'", {}, 128},
        {"level 4, everything",
         4,
         [](mqtt_connect_para &p) {
             will(p, 3, 2);
             p.clean_start = 1;
             p.will_qos = 2;
             p.will_retain = 1;
             p.username_flag = 1;
             strcpy(p.username, "user");
             p.username_len = 4;
             p.password_flag = 1;
             strcpy(p.password, "pw");
             p.password_len = 2;
             p.will_delay_interval = 30;  // nothing of level 5 at level 4
             p.session_expiry_interval = 9;
         },
         0,
         pkt("10", "00 04 'MQTT' 04 F6 00 3C 00 01 'c' 00 03 'ttt' 00 02 'pp' 00 04 'user' 00 02 'pw'"),
         {}},
        {"will QoS and retain count only with the will flag",
         4,
         [](mqtt_connect_para &p) {
             small_client(p);
             p.will_qos = 3;
             p.will_retain = 1;
         },
         0,
         "10 0D 00 04 'MQTT' 04 00 00 3C 00 01 'c'",
         {}},
        {"a will QoS beyond two bits is cut",
         4,
         [](mqtt_connect_para &p) {
             will(p, 1, 1);
             p.will_qos = 5;
         },
         0,
         pkt("10", "00 04 'MQTT' 04 0C 00 3C 00 01 'c' 00 01 't' 00 01 'p'"),
         {}},
        {"level 5, the two properties that are always there",
         5,
         small_client,
         0,
         pkt("10", "00 04 'MQTT' 05 00 00 3C 08 10 00 00 00 00 21 00 00 00 01 'c'"),
         {}},
        {"level 5, all properties in order",
         5,
         [](mqtt_connect_para &p) {
             small_client(p);
             p.session_expiry_interval = 0x01020304;
             p.receive_maximum = 20;
             p.topic_alias_maximum = 10;
             p.maximum_packet_size = 4096;
             p.request_response_info = 1;
             p.request_problem_info = 1;
         },
         0,
         pkt("10",
             "00 04 'MQTT' 05 00 00 3C 14 10 01 02 03 04 21 00 14 22 00 0A 11 00 00 10 00 19 01 1A 01 "
             "00 01 'c'"),
         {}},
        {"level 5, will properties",
         5,
         [](mqtt_connect_para &p) {
             will(p, 1, 1);
             p.will_delay_interval = 30;
             p.will_msg_expiry_interval = 60;
         },
         0,
         pkt("10",
             "00 04 'MQTT' 05 04 00 3C 08 10 00 00 00 00 21 00 00 00 01 'c' 0A 18 00 00 00 1E 02 00 00 00 "
             "3C 00 01 't' 00 01 'p'"),
         {}},
        {"level 5, a will without properties",
         5,
         [](mqtt_connect_para &p) { will(p, 1, 1); },
         0,
         pkt("10", "00 04 'MQTT' 05 04 00 3C 08 10 00 00 00 00 21 00 00 00 01 'c' 00 00 01 't' 00 01 'p'"),
         {}},
        {"23 bytes of identifier at level 4",
         4,
         [](mqtt_connect_para &p) { fill_text(p.client_id, 'a', 23); },
         0,
         pkt("10", "00 04 'MQTT' 04 00 00 00 00 17 " + rep(23)),
         {}},
        {"64 bytes of identifier at level 5",
         5,
         [](mqtt_connect_para &p) { fill_text(p.client_id, 'a', 64); },
         0,
         pkt("10", "00 04 'MQTT' 05 00 00 00 08 10 00 00 00 00 21 00 00 00 40 " + rep(64)),
         {}},
        {"credentials at their limits",
         4,
         [](mqtt_connect_para &p) { credentials(p, 64, 64); },
         0,
         pkt("10", "00 04 'MQTT' 04 C0 00 3C 00 01 'c' 00 40 " + rep(64, 'u') + " 00 40 " + rep(64, 'x')),
         {}},
    });
}

TEST_F(connect_encode, refused_records) {
    run({
        {"level 3",
         3,
         small_client,
         -2,
         "",
         {"ERROR", "CONNECT encode: unsupported version 3 (only 3.1.1/5.0 allowed)"}},
        {"no identifier",
         4,
         [](mqtt_connect_para &) {},
         -1,
         "",
         {"ERROR", "CONNECT encode: client id is empty (protocol violation)"}},
        {"24 bytes of identifier at level 4",
         4,
         [](mqtt_connect_para &p) { fill_text(p.client_id, 'a', 24); },
         -1,
         "",
         {"ERROR", "CONNECT encode: 3.1.1 client id too long (len=24, max=23)"}},
        {"an identifier that is not terminated",
         5,
         [](mqtt_connect_para &p) {
             fill_text(p.client_id, 'a', sizeof p.client_id);
             p.clean_start = 1;
         },
         -1,
         "",
         {"ERROR", "CONNECT encode: 5.0 client id too long (len=65, max=64)"}},
        {"a password without a user name",
         4,
         [](mqtt_connect_para &p) {
             credentials(p, 1, 1);
             p.username_flag = 0;
         },
         -1,
         "",
         {"ERROR", "CONNECT encode: password flag set but username flag not set"}},
        {"no identifier is told before a password without a user name",
         4,
         [](mqtt_connect_para &p) { p.password_flag = 1; },
         -1,
         "",
         {"ERROR", "CONNECT encode: client id is empty (protocol violation)"}},
        {"a password without a user name is told before a bad will",
         4,
         [](mqtt_connect_para &p) {
             will(p, 0, 0);
             p.password_flag = 1;
         },
         -1,
         "",
         {"ERROR", "CONNECT encode: password flag set but username flag not set"}},
        {"a bad will is told before a bad user name",
         4,
         [](mqtt_connect_para &p) {
             will(p, 0, 0);
             p.username_flag = 1;
         },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid will topic (len=0)"}},
        {"no will topic",
         4,
         [](mqtt_connect_para &p) { will(p, 0, 1); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid will topic (len=0)"}},
        {"a will topic that is not terminated",
         4,
         [](mqtt_connect_para &p) { will(p, sizeof p.will_topic, 1); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid will topic (len=257)"}},
        {"an empty will payload",
         4,
         [](mqtt_connect_para &p) { will(p, 1, 0); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid will payload (len=0)"}},
        {"2049 bytes of will payload",
         4,
         [](mqtt_connect_para &p) { will(p, 1, 2049); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid will payload (len=2049)"}},
        {"an empty user name",
         4,
         [](mqtt_connect_para &p) { credentials(p, 0, 1); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid username (len=0)"}},
        {"65 bytes of user name",
         4,
         [](mqtt_connect_para &p) { credentials(p, 65, 1); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid username (len=65)"}},
        {"an empty password",
         4,
         [](mqtt_connect_para &p) { credentials(p, 1, 0); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid password (len=0)"}},
        {"65 bytes of password",
         4,
         [](mqtt_connect_para &p) { credentials(p, 1, 65); },
         -1,
         "",
         {"ERROR", "CONNECT encode: invalid password (len=65)"}},
    });
}

TEST_F(connect_encode, a_packet_larger_than_its_buffer_is_refused) {
    run({
        {"one byte missing",
         4,
         [](mqtt_connect_para &p) { will(p, 100, 100); },
         -3,
         "",
         {"ERROR", "CONNECT encode: buffer full (need=220, available=219)"},
         219},
        {"just enough",
         4,
         [](mqtt_connect_para &p) { will(p, 100, 100); },
         0,
         pkt("10", "00 04 'MQTT' 04 04 00 3C 00 01 'c' 00 64 " + rep(100, 't') + " 00 64 " + rep(100, 'p')),
         {},
         220},
    });
}

TEST_F(connect_encode, a_record_within_its_limits_may_not_overrun_the_scratch_area) {
    run({
        {"all fields at their limits",
         5,
         [](mqtt_connect_para &p) {
             credentials(p, 64, 64);
             will(p, 256, 2048);
             fill_text(p.client_id, 'a', 64);
         },
         -3,
         "",
         {"ERROR", "CONNECT encode: buffer full (need=2526, available=2112)"},
         8192},
        {"one byte too many",
         4,
         [](mqtt_connect_para &p) { will(p, 48, 2048); },
         -3,
         "",
         {"ERROR", "CONNECT encode: buffer full (need=2113, available=2112)"},
         8192},
        {"filled to the last byte",
         4,
         [](mqtt_connect_para &p) { will(p, 47, 2048); },
         0,
         pkt("10", "00 04 'MQTT' 04 04 00 3C 00 01 'c' 00 2F " + rep(47, 't') + " 08 00 " + rep(2048, 'p')),
         {},
         8192},
    });
}

TEST_F(connect_encode, a_packet_of_level_4_survives_the_round_trip) {
    for (const char *body : {
             "00 04 'MQTT' 04 00 00 3C 00 01 'c'",
             "00 04 'MQTT' 04 C2 FF FF 00 01 'c' 00 04 'user' 00 02 'pw'",
             "00 04 'MQTT' 04 36 00 00 00 01 'c' 00 03 'w/t' 00 02 00 FF",
         }) {
        expect_round_trip<mqtt_connect_para>(mqtt_codec_decode_connect, mqtt_codec_encode_connect, 4,
                                             pkt("10", body));
    }
}

TEST_F(connect_encode, bad_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    auto para = std::make_unique<mqtt_connect_para>();
    small_client(*para);
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
    EXPECT_EQ(mqtt_codec_encode_connect(nullptr, para.get(), out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, nullptr, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, para.get(), nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, para.get(), out.data(), nullptr), -1);
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, para.get(), out.data(), &short_len), -1);
    constexpr char text[] = "CONNECT encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)";
    EXPECT_TRUE(log.has("ERROR", format(text, none, p, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, b, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, none, l, 128))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, none, 0))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, s, 127))) << log.text();
    EXPECT_EQ(len, 128);
    EXPECT_EQ(short_len, 127);
}
