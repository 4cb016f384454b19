#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr int k_min_capacity = 128;
constexpr int k_min_packet_bytes = 3;
constexpr int k_body_max_bytes = 2 + 1 + 16;
constexpr int k_max_reason_codes = 16;
constexpr uint8_t k_pubrel_flags = 0x02;

bool is_ack_type(int type) noexcept {
    return (type >= MQTT_PKT_PUBACK && type <= MQTT_PKT_PUBCOMP) || type == MQTT_PKT_SUBACK ||
           type == MQTT_PKT_UNSUBACK;
}

void put_suback_codes(const mqtt_ack_para &para, byte_writer *body) noexcept {
    for (int i = 0; i < para.reason_code_count && i < k_max_reason_codes; ++i)
        body->u8(static_cast<uint8_t>(para.reason_codes[i]));
}

void put_body(int packet_type, const mqtt_ack_para &para, uint32_t level, byte_writer *body) noexcept {
    body->be16(para.msg_id);
    if (packet_type == MQTT_PKT_SUBACK) {
        if (level == 5) {
            // The byte stands where the property length belongs: any other value would make the client skip
            // its granted codes.
            ZEB_LOG(
                AGENT_LOG_INFO,
                "【QoS溯源3】MQTT 5.0 SUBACK全局Reason Code修正：强制设为0x00（Success），原参数值=0x%02X",
                para.reason_code);
            body->u8(0x00);
        }
        put_suback_codes(para, body);
    } else if (level == 5) {
        body->u8(para.reason_code);  // never a property length behind it, and one code for all of UNSUBACK
    }
}

// The reason code, the skipped properties and, for SUBACK, the codes behind them.
void read_reason(int type, byte_reader *r, mqtt_ack_para *para) noexcept {
    if (!r->u8(&para->reason_code)) return;
    byte_reader peek = *r;
    int32_t property_len = 0;
    // A zero property length is left unread; kept.
    if (peek.varint(&property_len) && property_len > 0) {
        peek.skip(property_len);
        r->pos = peek.pos;
    }
    if (type != MQTT_PKT_SUBACK) return;
    uint8_t code = 0;
    while (para->reason_code_count < k_max_reason_codes && r->u8(&code))
        para->reason_codes[para->reason_code_count++] = code;
}

}  // namespace

int mqtt_codec_encode_ack(mqtt_codec_ctx *ctx, int packet_type, const mqtt_ack_para *para, uint8_t *buf,
                          int *buf_len) {
    const int capacity = length_or_zero(buf_len);
    if (ctx == nullptr || para == nullptr || buf == nullptr || capacity < k_min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)",
                addr(ctx), addr(para), addr(buf), addr(buf_len), capacity);
        return MQTT_CODEC_ERR_PARAM;
    }
    if (!is_ack_type(packet_type)) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK encode: unsupported packet type %d", packet_type);
        return MQTT_CODEC_ERR_UNSUPPORTED;
    }
    const uint32_t level = codec_level(ctx);
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK encode: unsupported version %d", static_cast<int>(level));
        return MQTT_CODEC_ERR_VERSION;
    }
    uint8_t scratch[k_body_max_bytes];
    byte_writer body{scratch, sizeof scratch};
    put_body(packet_type, *para, level, &body);

    const length_field length = encode_length_field(body.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK encode: encode remaining length failed (bytes=%d)", length.used);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    // GCOV_EXCL_START: the capacity was checked against the longest packet
    if (length.total > capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK encode: buffer full (need %d bytes, have %d bytes)", length.total,
                capacity);
        return MQTT_CODEC_ERR_BUFFER;
    }
    // GCOV_EXCL_STOP
    const int flags = packet_type == MQTT_PKT_PUBREL ? k_pubrel_flags : 0;
    write_packet(static_cast<uint8_t>(packet_type << 4 | flags), length, body, buf, buf_len);
    trace_packet("ACK encode: packet", buf, length.total);
    codec_set_type(ctx, packet_type);
    return MQTT_CODEC_OK;
}

int mqtt_codec_decode_ack(mqtt_codec_ctx *ctx, int expected_type, const uint8_t *buf, int *buf_len,
                          mqtt_ack_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < k_min_packet_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)",
                addr(ctx), addr(buf), addr(buf_len), len, addr(para));
        return MQTT_CODEC_ERR_PARAM;
    }
    trace_packet("ACK decode: input", buf, len);
    byte_reader r{buf, 0, len};
    const fixed_header h = read_fixed_header(&r);
    if (h.type() != expected_type) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK decode: packet type mismatch (expected=%d, actual=%d)", expected_type,
                h.type());
        return MQTT_CODEC_ERR_MALFORMED;
    }
    memset(para, 0, sizeof *para);
    if (h.remaining < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK decode: invalid remaining length (len=%d, consumed=%d)", h.remaining,
                h.used);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.total() > len) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK decode: packet incomplete (need=%d, actual=%d)", h.total(), len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    byte_reader body = r.block(h.remaining);
    if (!body.be16(&para->msg_id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "ACK decode: buffer too short for msg id");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.remaining > 2) read_reason(expected_type, &body, para);
    codec_suggest_level(ctx, h.remaining < 3 ? 4 : 5);
    ZEB_LOG(AGENT_LOG_DEBUG, "ACK decode: success (type=%d, id=%d, reason=0x%02X)", expected_type,
            para->msg_id, para->reason_code);
    return finish_decode(ctx, expected_type, body.pos, buf_len);
}

}  // namespace zeb
