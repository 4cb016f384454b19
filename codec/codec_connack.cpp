#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr uint8_t k_first_byte = 0x20;
constexpr int k_min_capacity_v4 = 4;
constexpr int k_min_capacity_v5 = 128;
constexpr int k_body_bytes_v5 = 11;
constexpr int k_base_body_bytes = 2;  // session present and the code
constexpr uint8_t k_property_bytes = 8;

constexpr uint8_t k_prop_session_expiry = 0x10;
constexpr uint8_t k_prop_receive_maximum = 0x21;
constexpr uint8_t k_prop_topic_alias_maximum = 0x22;
constexpr uint8_t k_prop_maximum_packet_size = 0x27;

void put_body(const mqtt_connack_para &para, uint32_t level, byte_writer *body) noexcept {
    body->u8(para.session_present);
    if (level == 4) {
        // Kept: a 3.1.1 client is never told a refusal.
        if (para.reason_code != 0) ZEB_LOG(AGENT_LOG_WARN, "CONNACK encode: 3.1.1 force code=0");
        body->u8(0);
        return;
    }
    body->u8(para.reason_code);
    body->u8(k_property_bytes);
    body->u8(k_prop_receive_maximum);
    body->be16(para.receive_maximum);
    body->u8(k_prop_maximum_packet_size);
    body->be32(para.maximum_packet_size);
    ZEB_LOG(
        AGENT_LOG_DEBUG,
        "CONNACK encode: session expiry, topic alias maximum, maximum QoS and retain available are disabled "
        "for compatibility with a common desktop client");
}

// One property; false when nothing more can be read from the block.
bool read_property(byte_reader *block, mqtt_connack_para *para) noexcept {
    uint8_t id = 0;
    if (!block->u8(&id)) return false;
    switch (id) {
        case k_prop_receive_maximum:
            return block->be16(&para->receive_maximum);
        case k_prop_topic_alias_maximum:
            return block->be16(&para->topic_alias_maximum);
        case k_prop_session_expiry:
            return block->be32(&para->session_expiry_interval);
        default:
            break;
    }
    ZEB_LOG(AGENT_LOG_WARN, "CONNACK decode: unknown property type 0x%02X", id);
    int32_t skipped = 0;
    if (!block->varint(&skipped)) return false;
    block->skip(skipped);
    return true;
}

}  // namespace

int mqtt_codec_encode_connack(mqtt_codec_ctx *ctx, const mqtt_connack_para *para, uint8_t *buf,
                              int *buf_len) {
    const uint32_t level = ctx != nullptr ? codec_level(ctx) : 0;
    const int min_capacity = level == 5 ? k_min_capacity_v5 : k_min_capacity_v4;
    if (ctx == nullptr || para == nullptr || buf == nullptr || length_or_zero(buf_len) < min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK encode: invalid param");
        return MQTT_CODEC_ERR_PARAM;
    }
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK encode: unsupported version %d", static_cast<int>(level));
        return MQTT_CODEC_ERR_VERSION;
    }
    uint8_t scratch[k_body_bytes_v5];
    byte_writer body{scratch, sizeof scratch};
    put_body(*para, level, &body);

    const length_field length = encode_length_field(body.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK encode: encode remaining length failed");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    // GCOV_EXCL_START: the capacity was checked against the longest packet
    if (length.total > *buf_len) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK encode: buffer full (need %d, have %d)", length.total, *buf_len);
        return MQTT_CODEC_ERR_BUFFER;
    }
    // GCOV_EXCL_STOP
    write_packet(k_first_byte, length, body, buf, buf_len);
    trace_packet("CONNACK encode: packet", buf, length.total);
    codec_set_type(ctx, MQTT_PKT_CONNACK);
    return MQTT_CODEC_OK;
}

int mqtt_codec_decode_connack(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                              mqtt_connack_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < 4) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "CONNACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)", addr(ctx),
                addr(buf), addr(buf_len), len, addr(para));
        return MQTT_CODEC_ERR_PARAM;
    }
    memset(para, 0, sizeof *para);
    trace_packet("CONNACK decode: input", buf, len);
    byte_reader r{buf, 0, len};
    const fixed_header h = read_fixed_header(&r);
    if (h.type() != MQTT_PKT_CONNACK) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK decode: not a CONNACK packet (type=%d)", h.type());
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!h.whole_in(len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK decode: invalid remaining length (len=%d, consumed=%d)",
                h.remaining, h.used);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    uint8_t acknowledge_flags = 0;
    if (h.remaining < k_base_body_bytes || !r.u8(&acknowledge_flags) || !r.u8(&para->reason_code)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNACK decode: buffer too short for variable header");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    para->session_present = acknowledge_flags & 1;

    const bool has_properties = h.remaining > k_base_body_bytes;
    if (has_properties) {
        int32_t property_len = 0;
        if (!r.varint(&property_len)) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNACK decode: invalid property length");
            return MQTT_CODEC_ERR_MALFORMED;
        }
        byte_reader block = r.block(property_len);
        while (block.left() > 0 && read_property(&block, para)) {
        }
    }
    codec_set_level(ctx, has_properties ? 5 : 4);
    return finish_decode(ctx, MQTT_PKT_CONNACK, h.total(), buf_len);
}

}  // namespace zeb
