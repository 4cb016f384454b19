#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr uint8_t k_first_byte = 0xE0;
constexpr int k_property_scratch_bytes = 128;
constexpr int k_body_max_bytes = 1 + 4 + k_property_scratch_bytes;
constexpr int k_text_max_bytes = 64;

// 0x10 carries the session expiry interval in both directions; 0x11 is refused like any other identifier.
constexpr uint8_t k_prop_session_expiry = 0x10;
constexpr uint8_t k_prop_reason_string = 0x1F;
constexpr uint8_t k_prop_user_property = 0x26;

int check_header(const fixed_header &h, int len) noexcept {
    if (h.type() != MQTT_PKT_DISCONNECT) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: not a DISCONNECT packet (type=%d)", h.type());
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.remaining < 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: invalid remaining length");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.total() > len) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: buffer too short (need=%d, have=%d)", h.total(), len);
        return MQTT_CODEC_ERR_BUFFER;
    }
    return MQTT_CODEC_OK;
}

bool read_text(byte_reader *block, char (&out)[k_text_max_bytes + 1], uint16_t *len) noexcept {
    return block->be16(len) && block->text(*len, out);
}

int read_properties(byte_reader *block, mqtt_disconnect_para *para) noexcept {
    uint8_t id = 0;
    while (block->u8(&id)) {
        bool complete = false;
        uint16_t reason_len = 0;
        switch (id) {
            case k_prop_reason_string:
                complete = read_text(block, para->reason_string, &reason_len);
                break;
            case k_prop_user_property:
                complete = read_text(block, para->user_property, &para->user_property_len);
                break;
            case k_prop_session_expiry:
                complete = block->be32(&para->session_expiry_interval);
                break;
            default:
                return MQTT_CODEC_ERR_UNSUPPORTED;
        }
        if (!complete) return MQTT_CODEC_ERR_BUFFER;
    }
    return MQTT_CODEC_OK;
}

// Kept strict: the property length has to be there, also behind a lone reason code or an empty body.
int read_v5_body(byte_reader *r, mqtt_disconnect_para *para) noexcept {
    (void)r->u8(&para->reason_code);  // absent from an empty body, which the next read refuses
    int32_t property_len = 0;
    if (!r->varint(&property_len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: invalid property length");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (property_len > r->left()) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: property length exceed remaining data");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    byte_reader block = r->block(property_len);
    r->skip(property_len);
    const int rc = read_properties(&block, para);
    if (rc != MQTT_CODEC_OK) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: parse properties failed (err=%d)", rc);
    }
    return rc;
}

int put_properties(const mqtt_disconnect_para &para, byte_writer *w) noexcept {
    if (para.session_expiry_interval != 0) {
        w->u8(k_prop_session_expiry);
        w->be32(para.session_expiry_interval);
    }
    const int reason_len = static_cast<int>(strnlen(para.reason_string, sizeof para.reason_string));
    if (reason_len > k_text_max_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: reason string too long (max=%d)", k_text_max_bytes);
        return MQTT_CODEC_ERR_BUFFER;
    }
    if (reason_len > 0) {
        w->u8(k_prop_reason_string);
        w->field(para.reason_string, reason_len);
    }
    if (para.user_property_len > 0 && para.user_property[0] != '\0') {
        if (para.user_property_len > k_text_max_bytes) {
            ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: user property too long (len=%d, max=%d)",
                    para.user_property_len, k_text_max_bytes);
            return MQTT_CODEC_ERR_BUFFER;
        }
        w->u8(k_prop_user_property);
        w->field(para.user_property, para.user_property_len);
    }
    if (!w->fits()) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: properties too long (need=%d, have=%d)", w->len, w->cap);
        return MQTT_CODEC_ERR_BUFFER;
    }
    return MQTT_CODEC_OK;
}

int put_v5_body(const mqtt_disconnect_para &para, byte_writer *body) noexcept {
    uint8_t scratch[k_property_scratch_bytes];
    byte_writer properties{scratch, sizeof scratch};
    const int rc = put_properties(para, &properties);
    if (rc != MQTT_CODEC_OK) return rc;
    const length_field length = encode_length_field(properties.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: encode property length failed (len=%d)", properties.len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    body->u8(para.reason_code);
    body->bytes(length.bytes, length.used);
    body->bytes(scratch, properties.len);
    return MQTT_CODEC_OK;
}

}  // namespace

int mqtt_codec_decode_disconnect(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                 mqtt_disconnect_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < 1) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: invalid param");
        return MQTT_CODEC_ERR_PARAM;
    }
    codec_set_type(ctx, MQTT_PKT_DISCONNECT);
    trace_packet("DISCONNECT decode: input", buf, len);
    byte_reader whole{buf, 0, len};
    const fixed_header h = read_fixed_header(&whole);
    int rc = check_header(h, len);
    if (rc != MQTT_CODEC_OK) return rc;
    memset(para, 0, sizeof *para);

    byte_reader r = whole.block(h.remaining);
    const uint32_t level = codec_level(ctx);
    if (level == 4 && h.remaining != 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: MQTT 3.1.1 remaining length must be 0 (got %d)",
                h.remaining);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT decode: unsupported MQTT version");
        return MQTT_CODEC_ERR_VERSION;
    }
    if (level == 5) rc = read_v5_body(&r, para);
    if (rc != MQTT_CODEC_OK) return rc;
    return finish_decode(ctx, MQTT_PKT_DISCONNECT, r.pos, buf_len);
}

int mqtt_codec_encode_disconnect(mqtt_codec_ctx *ctx, const mqtt_disconnect_para *para, uint8_t *buf,
                                 int *buf_len) {
    const int capacity = length_or_zero(buf_len);
    if (ctx == nullptr || para == nullptr || buf == nullptr || capacity < 1) return MQTT_CODEC_ERR_PARAM;
    const uint32_t level = codec_level(ctx);
    if (!is_known_level(level)) return MQTT_CODEC_ERR_VERSION;

    uint8_t scratch[k_body_max_bytes];
    byte_writer body{scratch, sizeof scratch};
    if (level == 5) {
        const int rc = put_v5_body(*para, &body);
        if (rc != MQTT_CODEC_OK) return rc;
    }
    const length_field length = encode_length_field(body.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: encode remaining length failed (len=%d)", body.len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    if (length.total > capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "DISCONNECT encode: buffer too small (need=%d, have=%d)", length.total,
                capacity);
        return MQTT_CODEC_ERR_BUFFER;
    }
    write_packet(k_first_byte, length, body, buf, buf_len);
    trace_packet("DISCONNECT encode: packet", buf, length.total);
    codec_set_type(ctx, MQTT_PKT_DISCONNECT);
    return MQTT_CODEC_OK;
}

}  // namespace zeb
