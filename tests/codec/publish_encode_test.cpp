#include "tests/codec/codec_test.h"

using namespace zeb_test;

namespace {

using row = encode_row<mqtt_publish_para>;

void run(const std::vector<row> &rows) {
    for (const row &r : rows) run_encode_row<mqtt_publish_para>(mqtt_codec_encode_publish, r, 3);
}

void message(mqtt_publish_para &p, const char *topic, const char *payload) {
    strcpy(p.topic, topic);
    p.payload_len = static_cast<uint32_t>(strlen(payload));
    memcpy(p.payload, payload, p.payload_len);
}
void hi(mqtt_publish_para &p) {
    message(p, "a/b", "hi");
}
void sized(mqtt_publish_para &p, size_t topic_len, uint32_t payload_len) {
    memset(p.topic, 't', topic_len);
    memset(p.payload, 'p', sizeof p.payload);
    p.payload_len = payload_len;
}

}  // namespace

class publish_encode : public quiet_codec_test {};

TEST_F(publish_encode, good_records) {
    run({
        {"QoS 0 at level 4", 4, hi, 0, "30 07 00 03 61 2F 62 68 69", {}},
        {"QoS 0 at level 5", 5, hi, 0, "30 08 00 03 61 2F 62 00 68 69", {}},
        {"QoS 1, retained",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 1;
             p.retain = 1;
             p.packet_id = 0x1234;
         },
         0,
         "33 09 00 03 'a/b' 12 34 'hi'",
         {}},
        {"QoS 2, repeated",
         5,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 2;
             p.dup = 1;
             p.packet_id = 1;
         },
         0,
         "3C 0A 00 03 'a/b' 00 01 00 'hi'",
         {}},
        {"an identifier at QoS 0 is not written",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.packet_id = 7;
         },
         0,
         "30 07 00 03 'a/b' 'hi'",
         {}},
        {"QoS 3 passes without an identifier",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 3;
         },
         0,
         "36 07 00 03 'a/b' 'hi'",
         {}},
        {"a QoS beyond two bits is cut and gets no identifier",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 6;
         },
         0,
         "34 07 00 03 'a/b' 'hi'",
         {}},
        {"no payload", 4, [](mqtt_publish_para &p) { message(p, "t", ""); }, 0, "30 03 00 01 't'", {}},
        {"expiry and alias with the byte between",
         5,
         [](mqtt_publish_para &p) {
             hi(p);
             p.msg_expiry_interval = 60;
             p.topic_alias = 5;
         },
         0,
         "30 11 00 03 'a/b' 09 02 00 00 00 3C 23 02 00 05 'hi'",
         {}},
        {"alias alone",
         5,
         [](mqtt_publish_para &p) {
             hi(p);
             p.topic_alias = 0x1234;
         },
         0,
         "30 0C 00 03 'a/b' 04 23 02 12 34 'hi'",
         {}},
        {"expiry alone",
         5,
         [](mqtt_publish_para &p) {
             hi(p);
             p.msg_expiry_interval = 0x01020304;
         },
         0,
         "30 0D 00 03 'a/b' 05 02 01 02 03 04 'hi'",
         {}},
        {"no properties at level 4",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.msg_expiry_interval = 60;
             p.topic_alias = 5;
         },
         0,
         "30 07 00 03 'a/b' 'hi'",
         {}},
        {"256 bytes of topic",
         4,
         [](mqtt_publish_para &p) { sized(p, 256, 0); },
         0,
         pkt("30", "01 00 " + rep(256, 't')),
         {}},
    });
}

TEST_F(publish_encode, refused_records) {
    run({
        {"level 0",
         0,
         hi,
         -2,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: Unsupported version 0 (only 3.1.1/5.0) [MQTT 5.0 §1.2]\n"}},
        {"no topic",
         4,
         [](mqtt_publish_para &p) { message(p, "", "hi"); },
         -1,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=0, max=256) [MQTT 5.0 §3.3.2.1]\n"}},
        {"a topic of 257 bytes, not terminated",
         4,
         [](mqtt_publish_para &p) { sized(p, 257, 0); },
         -1,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=257, max=256) [MQTT 5.0 §3.3.2.1]\n"}},
        {"QoS 1 without identifier",
         4,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 1;
         },
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n"}},
        {"QoS 2 without identifier",
         5,
         [](mqtt_publish_para &p) {
             hi(p);
             p.qos = 2;
         },
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n"}},
        {"2049 bytes of payload",
         4,
         [](mqtt_publish_para &p) { sized(p, 1, 2049); },
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: Invalid payload len (len=2049, max=2048) [MQTT 5.0 §3.3.3]\n"}},
        {"no topic is told before no identifier",
         4,
         [](mqtt_publish_para &p) { p.qos = 1; },
         -1,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=0, max=256) [MQTT 5.0 §3.3.2.1]\n"}},
        {"no identifier is told before a long payload",
         4,
         [](mqtt_publish_para &p) {
             sized(p, 1, 2049);
             p.qos = 1;
         },
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n"}},
        {"a small buffer is told before the level",
         3,
         hi,
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: Buffer too small (required=128, actual=127) [MQTT 5.0 §3.3.1.4]\n"},
         127},
        {"127 bytes of buffer",
         4,
         hi,
         -1,
         "",
         {"ERROR",
          "[PUBLISH ENCODE] Step 1 ERROR: Buffer too small (required=128, actual=127) [MQTT 5.0 §3.3.1.4]\n"},
         127},
    });
}

TEST_F(publish_encode, topic_and_payload_share_the_scratch_area) {
    run({
        {"filled to the last byte",
         4,
         [](mqtt_publish_para &p) { sized(p, 62, 2048); },
         0,
         pkt("30", "00 3E " + rep(62, 't') + " " + rep(2048, 'p')),
         {}},
        {"one byte too many",
         4,
         [](mqtt_publish_para &p) { sized(p, 63, 2048); },
         -3,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=2113, have=2112)\n"}},
        {"one byte too many by the empty block of level 5",
         5,
         [](mqtt_publish_para &p) { sized(p, 62, 2048); },
         -3,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=2113, have=2112)\n"}},
        {"everything at its limit",
         5,
         [](mqtt_publish_para &p) {
             sized(p, 256, 2048);
             p.qos = 1;
             p.packet_id = 1;
             p.msg_expiry_interval = 1;
             p.topic_alias = 1;
         },
         -3,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=2318, have=2112)\n"}},
        {"the scratch area is looked at before the caller's buffer",
         4,
         [](mqtt_publish_para &p) { sized(p, 63, 2048); },
         -3,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=2113, have=2112)\n"},
         128},
    });
}

TEST_F(publish_encode, a_packet_larger_than_its_buffer_is_refused) {
    run({
        {"one byte missing",
         4,
         [](mqtt_publish_para &p) { sized(p, 10, 200); },
         -3,
         "",
         {"ERROR", "[PUBLISH ENCODE] Step 6 ERROR: Final buffer overflow (need=215, have=214)\n"},
         214},
        {"just enough",
         4,
         [](mqtt_publish_para &p) { sized(p, 10, 200); },
         0,
         pkt("30", "00 0A " + rep(10, 't') + " " + rep(200, 'p')),
         {},
         215},
    });
}

TEST_F(publish_encode, missing_arguments) {
    mqtt_codec_ctx ctx{};
    mqtt_codec_ctx_init(&ctx);
    auto para = std::make_unique<mqtt_publish_para>();
    hi(*para);
    heap_block out(128);
    const void *const c = &ctx;
    const void *const p = para.get();
    const void *const b = out.data();
    const void *const none = nullptr;
    int len = 128;
    const void *const l = &len;
    log_capture log;
    EXPECT_EQ(mqtt_codec_encode_publish(nullptr, para.get(), out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, nullptr, out.data(), &len), -1);
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, para.get(), nullptr, &len), -1);
    EXPECT_EQ(mqtt_codec_encode_publish(&ctx, para.get(), out.data(), nullptr), -1);
    constexpr char text[] =
        "[PUBLISH ENCODE] Step 1 ERROR: Null pointer detected (ctx=%p, para=%p, buf=%p, buf_len=%p)\n";
    EXPECT_TRUE(log.has("ERROR", format(text, none, p, b, l))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, none, b, l))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, none, l))) << log.text();
    EXPECT_TRUE(log.has("ERROR", format(text, c, p, b, none))) << log.text();
    EXPECT_EQ(len, 128);
}

TEST_F(publish_encode, a_packet_without_an_alias_survives_the_round_trip) {
    const struct {
        uint32_t level;
        const char *first;
        std::string body;
    } rows[] = {
        {4, "30", "00 03 'a/b' 'hi'"},    {4, "3D", "00 03 'a/b' 12 34 'hi'"},
        {4, "30", "00 03 'a/b'"},         {4, "30", "01 00 " + rep(256) + " " + rep(1000, '\xFF')},
        {5, "31", "00 03 'a/b' 00 'hi'"}, {5, "34", "00 03 'a/b' 12 34 05 02 00 00 00 3C 'hi'"},
        {5, "30", "00 03 'a/b' 00"},
    };
    for (const auto &r : rows) {
        expect_round_trip<mqtt_publish_para>(mqtt_codec_decode_publish, mqtt_codec_encode_publish, r.level,
                                             pkt(r.first, r.body));
    }
}

TEST_F(publish_encode, the_identifier_of_an_encoded_packet_is_found) {
    for (const uint32_t level : {4u, 5u}) {
        for (const size_t topic_len : {1u, 100u, 256u}) {
            mqtt_codec_ctx ctx{};
            set_level(&ctx, level);
            auto para = std::make_unique<mqtt_publish_para>();
            sized(*para, topic_len, 300);
            memset(para->payload, 0xFF, 300);  // no property length at level 4
            para->qos = 1;
            para->packet_id = 0x1234;
            heap_block out(1024);
            int len = 1024;
            ASSERT_EQ(mqtt_codec_encode_publish(&ctx, para.get(), out.data(), &len), 0);
            const int at = mqtt_codec_publish_id_offset(out.data(), len);
            ASSERT_EQ(at, static_cast<int>(1 + 2 + 2 + topic_len));
            out.data()[at] = 0xAB;
            out.data()[at + 1] = 0xCD;
            ASSERT_EQ(mqtt_codec_decode_publish(&ctx, out.data(), &len, para.get()), 0);
            EXPECT_EQ(para->packet_id, 0xABCD);
            EXPECT_EQ(strlen(para->topic), topic_len);
            EXPECT_EQ(para->payload_len, 300u);
        }
    }
}

TEST_F(publish_encode, what_has_no_identifier_has_no_offset) {
    for (const char *wire_hex : {
             "30 05 00 01 'a' 'hi'",   // QoS 0
             "36 05 00 01 'a' 00 01",  // QoS 3
             "42 05 00 01 'a' 00 01",  // another type
             "32 04 00 01 'a' 00",     // one byte of identifier
             "32 04 00 01 'a' 00 01",  // the second byte belongs to another packet
             "32 05 00 04 'a' 00 01",  // topic longer than the packet
             "32 05 00 01 'a' 00",     // packet cut short
             "32 85 80 80 00 00 01 'a' 00 01",
             "32",
             "",
         }) {
        const bytes wire = hex(wire_hex);
        heap_block in(wire.data(), wire.size());
        EXPECT_EQ(mqtt_codec_publish_id_offset(in.data(), static_cast<int>(wire.size())), -1) << wire_hex;
    }
    EXPECT_EQ(mqtt_codec_publish_id_offset(nullptr, 10), -1);
    const bytes smallest = hex("32 05 00 01 'a' 00 01");
    EXPECT_EQ(mqtt_codec_publish_id_offset(smallest.data(), 7), 5);
}
