#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using row = decode_row<mqtt_connect_para>;

const char *const k_v4 = "00 04 'MQTT' 04 ";
const char *const k_v5 = "00 04 'MQTT' 05 ";

std::string v4(const std::string &rest) {
    return pkt("10", k_v4 + rest);
}
std::string v5(const std::string &rest) {
    return pkt("10", k_v5 + rest);
}

void run(const std::vector<row> &rows) {
    for (const row &r : rows) run_decode_row<mqtt_connect_para>(mqtt_codec_decode_connect, r, 1);
}

}  // namespace

class connect_payload_decode : public quiet_codec_test {};

TEST_F(connect_payload_decode, an_empty_client_identifier_needs_clean_start) {
    run({
        {"clean start 1",
         4,
         v4("02 00 3C 00 00"),
         0,
         {"WARN", "CONNECT decode: empty ClientID (clean_start=1, MQTT standard allowed)"},
         14,
         4,
         [](const mqtt_connect_para &p) { EXPECT_STREQ(p.client_id, ""); }},
        {"clean start 0",
         4,
         v4("00 00 3C 00 00"),
         -4,
         {"ERROR", "CONNECT decode: client_id_len=0 (empty ClientID)"}},
        {"clean start 0, reason",
         5,
         v5("00 00 3C 00 00 00"),
         -4,
         {"ERROR", "CONNECT decode: clean_start=0 - empty ClientID is NOT allowed (MQTT standard)"}},
    });
}

TEST_F(connect_payload_decode, a_24_byte_identifier_is_refused_at_level_4_only) {
    run({
        {"level 4",
         4,
         v4("02 00 3C 00 18 " + rep(24)),
         -4,
         {"ERROR", "CONNECT decode: MQTT 3.1.1 ClientID too long (len=24, max=23)"}},
        {"level 5",
         4,
         v5("02 00 3C 00 00 18 " + rep(24)),
         0,
         {},
         39,
         5,
         [](const mqtt_connect_para &p) { EXPECT_STREQ(p.client_id, std::string(24, 'a').c_str()); }},
    });
}

TEST_F(connect_payload_decode, a_70_byte_identifier_is_cut_and_its_tail_read_as_the_next_field) {
    // The six bytes behind the cut spell a user name of four bytes.
    run({
        {"tail as user name",
         4,
         v5("82 00 3C 00 00 46 " + rep(64) + " 00 04 'tail' 00 04 'user'"),
         0,
         {"WARN", "CONNECT decode: ClientID exceed buffer (len=70, max=64), truncate"},
         13 + 2 + 64 + 6,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_STREQ(p.client_id, std::string(64, 'a').c_str());
             EXPECT_STREQ(p.username, "tail");
         }},
    });
}

TEST_F(connect_payload_decode, bad_client_identifiers) {
    run({
        {"no length",
         4,
         v4("02 00 3C 00"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for ClientID length (pos=12)"}},
        {"past the end",
         4,
         v4("02 00 3C 00 05 'abcd'"),
         -4,
         {"ERROR", "CONNECT decode: ClientID data out of bounds (pos=12, len=5, total=18)"}},
        {"out of bounds is told before too long",
         4,
         v4("02 00 3C FF FF 'abcd'"),
         -4,
         {"ERROR", "CONNECT decode: ClientID data out of bounds (pos=12, len=65535, total=18)"}},
    });
}

TEST_F(connect_payload_decode, will_properties) {
    const std::string tail = " 00 01 'w' 00 01 'p'";
    run({
        {"both known",
         4,
         v5("06 00 3C 00 00 01 'c' 0A 18 00 00 00 1E 02 00 00 00 3C" + tail),
         0,
         {},
         33,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.will_delay_interval, 30u);
             EXPECT_EQ(p.will_msg_expiry_interval, 60u);
             EXPECT_STREQ(p.will_topic, "w");
         }},
        {"none", 4, v5("06 00 3C 00 00 01 'c' 00" + tail), 0, {}, 23, 5},
        {"unknown skips the rest",
         4,
         v5("06 00 3C 00 00 01 'c' 07 01 01 18 00 00 00 1E" + tail),
         0,
         {"WARN", "CONNECT decode: unknown will prop type=0x01"},
         30,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.will_delay_interval, 0u);
             EXPECT_STREQ(p.will_topic, "w");
         }},
        {"a value cut short by the block is not stored",
         4,
         v5("06 00 3C 00 00 01 'c' 03 18 00 00" + tail),
         0,
         {},
         26,
         5,
         [](const mqtt_connect_para &p) {
             EXPECT_EQ(p.will_delay_interval, 0u);
             EXPECT_STREQ(p.will_topic, "w");
         }},
        {"a length that does not decode is read as the topic's",
         5,
         v5("06 00 3C 00 00 01 'c' 80 80 80 01 00 01 'p'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Topic length 32896"}},
        {"a block past the packet leaves no topic",
         5,
         v5("06 00 3C 00 00 01 'c' 7F 18 00 00 00 1E"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for Will Topic length (pos=22)"}},
    });
}

TEST_F(connect_payload_decode, bad_wills) {
    const std::string head = "06 00 3C 00 01 'c' ";
    run({
        {"no topic length",
         4,
         v4(head + "00"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for Will Topic length (pos=15)"}},
        {"empty topic",
         4,
         v4(head + "00 00 00 01 'p'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Topic length 0"}},
        {"257 bytes of topic",
         4,
         v4(head + "01 01 " + rep(257) + " 00 01 'p'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Topic length 257"}},
        {"topic past the end",
         4,
         v4(head + "00 05 'w/t'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Topic length 5"}},
        {"no payload length",
         4,
         v4(head + "00 01 'w' 00"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for Will Payload length (pos=18)"}},
        {"2049 bytes of payload",
         4,
         v4(head + "00 01 'w' 08 01 " + rep(2049)),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Payload length 2049"}},
        {"payload past the end",
         4,
         v4(head + "00 01 'w' 00 05 'p'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Will Payload length 5"}},
    });
}

TEST_F(connect_payload_decode, bad_credentials) {
    run({
        {"no user name length",
         4,
         v4("82 00 3C 00 01 'c' 00"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for Username length (pos=15)"}},
        {"empty user name",
         4,
         v4("82 00 3C 00 01 'c' 00 00"),
         -4,
         {"ERROR", "CONNECT decode: invalid Username length 0"}},
        {"65 bytes of user name",
         4,
         v4("82 00 3C 00 01 'c' 00 41 " + rep(65)),
         -4,
         {"ERROR", "CONNECT decode: invalid Username length 65"}},
        {"user name past the end",
         4,
         v4("82 00 3C 00 01 'c' 00 05 'user'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Username length 5"}},
        {"no password length",
         4,
         v4("42 00 3C 00 01 'c'"),
         -4,
         {"ERROR", "CONNECT decode: no enough data for Password length (pos=15)"}},
        {"empty password",
         4,
         v4("42 00 3C 00 01 'c' 00 00"),
         -4,
         {"ERROR", "CONNECT decode: invalid Password length 0"}},
        {"65 bytes of password",
         4,
         v4("42 00 3C 00 01 'c' 00 41 " + rep(65)),
         -4,
         {"ERROR", "CONNECT decode: invalid Password length 65"}},
        {"password past the end",
         4,
         v4("C2 00 3C 00 01 'c' 00 01 'u' 00 03 'pw'"),
         -4,
         {"ERROR", "CONNECT decode: invalid Password length 3"}},
    });
}

TEST_F(connect_payload_decode, passwords_stay_out_of_the_log) {
    mqtt_codec_ctx ctx{};
    auto para = dirty_record<mqtt_connect_para>();
    const bytes wire = hex(v4("C2 00 3C 00 01 'c' 00 01 'u' 00 06 'secret'"));
    int len = static_cast<int>(wire.size());
    log_capture log;
    EXPECT_EQ(mqtt_codec_decode_connect(&ctx, wire.data(), &len, para.get()), 0);
    uint8_t out[256];
    int out_len = sizeof out;
    EXPECT_EQ(mqtt_codec_encode_connect(&ctx, para.get(), out, &out_len), 0);
    EXPECT_EQ(log.text().find("secret"), std::string::npos) << log.text();
    EXPECT_EQ(log.text().find("73 65 63 72"), std::string::npos) << log.text();
}
