// Every decoder of the codec on arbitrary bytes, at each level it may find a connection in, and every
// encoder: what a decoder gives, or the input describes, is encoded and decoded again.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "codec/mqtt_codec.h"
#include "fuzz/codec_round_trip.h"
#include "fuzz/fuzz_check.h"
#include "fuzz/fuzz_input.h"
#include "log/agent_log.h"

using namespace zeb;
using namespace zeb_fuzz;

namespace {

// The first byte of an input.
struct mode {
    uint32_t level;     // 0: a connection without one, as no CONNECT has come yet
    uint8_t fixed;      // mqtt_codec_ctx::level_fixed
    uint8_t direction;  // 0 bytes, 1 a record, 2 a record of any bytes
};

mode mode_of(uint8_t byte) {
    constexpr uint32_t levels[] = {4, 5, 0, 5};
    return {levels[byte & 3], static_cast<uint8_t>(byte >> 2 & 1), static_cast<uint8_t>((byte >> 3 & 3) % 3)};
}

bool is_text(const char *text, std::size_t size) {
    return std::memchr(text, '\0', size) != nullptr;
}

void check_sound(const mqtt_connect_para &p) {
    FUZZ_CHECK(is_text(p.client_id, sizeof p.client_id));
    FUZZ_CHECK(is_text(p.will_topic, sizeof p.will_topic));
    FUZZ_CHECK(is_text(p.username, sizeof p.username) && is_text(p.password, sizeof p.password));
    FUZZ_CHECK(p.will_payload_len <= sizeof p.will_payload);
    FUZZ_CHECK(p.username_len <= 64 && p.password_len <= 64);
    FUZZ_CHECK(p.will_flag == 0 || p.will_qos <= 2);
}
void check_sound(const mqtt_connack_para &p) {
    FUZZ_CHECK(p.session_present <= 1);
}
void check_sound(const mqtt_publish_para &p) {
    FUZZ_CHECK(is_text(p.topic, sizeof p.topic));
    FUZZ_CHECK(p.payload_len <= sizeof p.payload);
    FUZZ_CHECK(p.qos <= 2 && (p.packet_id != 0) == (p.qos != 0));
}
void check_sound(const mqtt_ack_para &p) {
    FUZZ_CHECK(p.reason_code_count >= 0 && p.reason_code_count <= 16);
}
void check_sound(const mqtt_subscribe_para &p) {
    FUZZ_CHECK(p.msg_id != 0 && p.filter_count >= 1 && p.filter_count <= MQTT_MAX_FILTERS);
    for (const auto &filter : p.topic_filters) FUZZ_CHECK(is_text(filter, sizeof filter));
}
void check_sound(const mqtt_unsubscribe_para &p) {
    FUZZ_CHECK(p.msg_id != 0 && p.filter_count >= 0 && p.filter_count <= MQTT_MAX_FILTERS);
    for (const auto &filter : p.topic_filters) FUZZ_CHECK(is_text(filter, sizeof filter));
}
void check_sound(const mqtt_disconnect_para &p) {
    FUZZ_CHECK(is_text(p.reason_string, sizeof p.reason_string));
    FUZZ_CHECK(is_text(p.user_property, sizeof p.user_property) && p.user_property_len <= 64);
}

void start(mqtt_codec_ctx *ctx, const mode &m) {
    mqtt_codec_ctx_init(ctx);
    ctx->protocol_version.store(m.level);
    ctx->level_fixed.store(m.fixed);
}

// What must hold after a decoder's run: 0 with the end inside the packet, or an error and the length as it
// was. Only some packets may set a level that was fixed.
void check_outcome(const mqtt_codec_ctx &ctx, const mode &m, int type, int size, int len, int rc) {
    FUZZ_CHECK(rc <= MQTT_CODEC_OK && rc >= MQTT_CODEC_ERR_UNSUPPORTED);
    const uint32_t level = ctx.protocol_version.load();
    FUZZ_CHECK(level == m.level || level == 4 || level == 5);
    const bool sets_level = type == MQTT_PKT_CONNECT || type == MQTT_PKT_CONNACK ||
                            (type == MQTT_PKT_UNSUBSCRIBE && m.level == 0);
    if (m.fixed != 0 && !sets_level) FUZZ_CHECK(level == m.level);
    if (rc != MQTT_CODEC_OK) {
        FUZZ_CHECK(len == size && ctx.last_packet_len.load() == 0);
        return;
    }
    FUZZ_CHECK(len >= 2 && len <= size);
    FUZZ_CHECK(ctx.last_packet_len.load() == static_cast<uint32_t>(len));
    FUZZ_CHECK(ctx.last_packet_type.load() == static_cast<uint32_t>(type));
}

uint32_t encodable_level(const mqtt_codec_ctx &ctx) {
    return ctx.protocol_version.load() == 5 ? 5 : 4;
}

// decode(ctx, data, &len, record) on the whole packet.
template <typename Para, typename Decode>
void run(const mode &m, int type, const exact_block &packet, Decode decode) {
    mqtt_codec_ctx ctx{};
    start(&ctx, m);
    const auto record = std::make_unique<Para>();
    std::memset(static_cast<void *>(record.get()), 0xA5, sizeof *record);
    int len = packet.size();
    const int rc = decode(&ctx, packet.data(), &len, record.get());
    check_outcome(ctx, m, type, packet.size(), len, rc);
    if (rc != MQTT_CODEC_OK) return;
    check_sound(*record);
    if constexpr (std::is_same_v<Para, mqtt_ack_para>)
        check_round_trip(encodable_level(ctx), type, *record);
    else
        check_round_trip(encodable_level(ctx), *record);
}

void run_simple(const mode &m, int type, const exact_block &packet) {
    mqtt_codec_ctx ctx{};
    start(&ctx, m);
    int len = packet.size();
    const int rc = mqtt_codec_decode_simple(&ctx, type, packet.data(), &len);
    check_outcome(ctx, m, type, packet.size(), len, rc);
}

void decode_everything(const mode &m, const exact_block &packet) {
    run<mqtt_connect_para>(m, MQTT_PKT_CONNECT, packet, mqtt_codec_decode_connect);
    run<mqtt_connack_para>(m, MQTT_PKT_CONNACK, packet, mqtt_codec_decode_connack);
    run<mqtt_publish_para>(m, MQTT_PKT_PUBLISH, packet, mqtt_codec_decode_publish);
    run<mqtt_subscribe_para>(m, MQTT_PKT_SUBSCRIBE, packet, mqtt_codec_decode_subscribe);
    run<mqtt_unsubscribe_para>(m, MQTT_PKT_UNSUBSCRIBE, packet, mqtt_codec_decode_unsubscribe);
    run<mqtt_disconnect_para>(m, MQTT_PKT_DISCONNECT, packet, mqtt_codec_decode_disconnect);
    for (const int type : {MQTT_PKT_PUBACK, MQTT_PKT_PUBREC, MQTT_PKT_PUBREL, MQTT_PKT_PUBCOMP,
                           MQTT_PKT_SUBACK, MQTT_PKT_UNSUBACK})
        run<mqtt_ack_para>(m, type, packet,
                           [type](mqtt_codec_ctx *ctx, const uint8_t *data, int *len, mqtt_ack_para *para) {
                               return mqtt_codec_decode_ack(ctx, type, data, len, para);
                           });
    for (const int type : {MQTT_PKT_PINGREQ, MQTT_PKT_PINGRESP, MQTT_PKT_DISCONNECT})
        run_simple(m, type, packet);
}

// The number reads back as itself, whatever stands behind it, and is the value of the bytes that it takes.
void check_remaining_length(const exact_block &bytes) {
    int used = 0;
    const int32_t value = codec_decode_remaining_length(bytes.data(), bytes.size(), &used);
    if (value < 0) return;
    FUZZ_CHECK(used >= 1 && used <= 3 && used <= bytes.size());
    uint8_t buf[4];
    const int written = codec_encode_remaining_length(buf, static_cast<uint32_t>(value));
    int again = 0;
    FUZZ_CHECK(written >= 1 && written <= used);
    FUZZ_CHECK(codec_decode_remaining_length(buf, written, &again) == value && again == written);
}

// The identifier of a PUBLISH is where the offset says, if it says anything.
void check_id_offset(const exact_block &packet) {
    const int offset = mqtt_codec_publish_id_offset(packet.data(), packet.size());
    if (offset == -1) return;
    FUZZ_CHECK(offset >= 4 && offset <= packet.size() - 2);
    FUZZ_CHECK(packet.data()[0] >> 4 == MQTT_PKT_PUBLISH && (packet.data()[0] & 6) != 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const agent_log_config quiet{AGENT_LOG_FATAL, 0, 0, 0, nullptr};
    agent_log_init(&quiet);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t header = in.u8();
    // Lines of all levels are put together, and go nowhere.
    agent_log_set_level((header & 0x80) != 0 ? AGENT_LOG_DEBUG : AGENT_LOG_FATAL);
    const mode m = mode_of(header);
    if (m.direction == 1) {
        round_trip_of_input(m.level == 5 ? 5 : 4, &in);
        return 0;
    }
    if (m.direction == 2) {
        encode_anything(m.level, &in);
        return 0;
    }
    const exact_block packet(in.rest());
    decode_everything(m, packet);
    check_remaining_length(packet);
    check_id_offset(packet);
    return 0;
}
