#include <cstring>

#include "codec/codec_connect.h"
#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr int k_min_capacity = 128;
constexpr int k_scratch_bytes = 2112;

// Other identifiers than the decoder's 0x11 and 0x27; kept.
constexpr uint8_t k_prop_session_expiry = 0x10;
constexpr uint8_t k_prop_maximum_packet_size = 0x11;

constexpr int k_properties_max_bytes = 20;
constexpr int k_will_properties_max_bytes = 10;

int check_client_id(int len, uint32_t level) noexcept {
    if (len == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: client id is empty (protocol violation)");
        return MQTT_CODEC_ERR_PARAM;
    }
    if (level == 4 && len > k_client_id_max_v4) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: 3.1.1 client id too long (len=%d, max=23)", len);
        return MQTT_CODEC_ERR_PARAM;
    }
    if (level == 5 && len > k_client_id_max) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: 5.0 client id too long (len=%d, max=%d)", len,
                k_client_id_max);
        return MQTT_CODEC_ERR_PARAM;
    }
    return MQTT_CODEC_OK;
}

int put_variable_header(const mqtt_connect_para &para, uint32_t level, byte_writer *body) noexcept {
    uint8_t flags = para.clean_start ? k_connect_clean_start : 0;
    if (para.will_flag) {
        flags |= k_connect_will;
        flags |= static_cast<uint8_t>((para.will_qos & k_connect_will_qos_mask) << k_connect_will_qos_shift);
        if (para.will_retain) flags |= k_connect_will_retain;
    }
    if (para.password_flag) {
        if (!para.username_flag) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: password flag set but username flag not set");
            return MQTT_CODEC_ERR_PARAM;
        }
        flags |= k_connect_password;
    }
    if (para.username_flag) flags |= k_connect_username;

    body->field(k_connect_protocol_name, k_connect_protocol_name_len);
    body->u8(static_cast<uint8_t>(level));
    body->u8(flags);
    body->be16(para.keep_alive);
    return MQTT_CODEC_OK;
}

void put_properties(const mqtt_connect_para &para, byte_writer *body) noexcept {
    uint8_t block[k_properties_max_bytes];
    byte_writer w{block, sizeof block};
    w.u8(k_prop_session_expiry);
    w.be32(para.session_expiry_interval);
    w.u8(k_connect_prop_receive_maximum);
    w.be16(para.receive_maximum);
    if (para.topic_alias_maximum != 0) {
        w.u8(k_connect_prop_topic_alias_maximum);
        w.be16(para.topic_alias_maximum);
    }
    if (para.maximum_packet_size != 0) {
        w.u8(k_prop_maximum_packet_size);
        w.be32(para.maximum_packet_size);
    }
    if (para.request_response_info != 0) {
        w.u8(k_connect_prop_request_response);
        w.u8(para.request_response_info);
    }
    if (para.request_problem_info != 0) {
        w.u8(k_connect_prop_request_problem);
        w.u8(para.request_problem_info);
    }
    body->u8(static_cast<uint8_t>(w.len));
    body->bytes(block, w.len);
}

void put_will_properties(const mqtt_connect_para &para, byte_writer *body) noexcept {
    uint8_t block[k_will_properties_max_bytes];
    byte_writer w{block, sizeof block};
    if (para.will_delay_interval != 0) {
        w.u8(k_will_prop_delay);
        w.be32(para.will_delay_interval);
    }
    if (para.will_msg_expiry_interval != 0) {
        w.u8(k_will_prop_message_expiry);
        w.be32(para.will_msg_expiry_interval);
    }
    body->u8(static_cast<uint8_t>(w.len));  // below 128, so one byte is the whole integer
    body->bytes(block, w.len);
}

int put_will(const mqtt_connect_para &para, uint32_t level, byte_writer *body) noexcept {
    const int topic_len = static_cast<int>(strnlen(para.will_topic, sizeof para.will_topic));
    if (topic_len == 0 || topic_len > MQTT_MAX_TOPIC) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: invalid will topic (len=%d)", topic_len);
        return MQTT_CODEC_ERR_PARAM;
    }
    // Stricter than the decoder, which accepts an empty will payload; kept.
    if (para.will_payload_len == 0 || para.will_payload_len > sizeof para.will_payload) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: invalid will payload (len=%d)",
                static_cast<int>(para.will_payload_len));
        return MQTT_CODEC_ERR_PARAM;
    }
    if (level == 5) put_will_properties(para, body);
    body->field(para.will_topic, topic_len);
    body->field(para.will_payload, static_cast<int>(para.will_payload_len));
    return MQTT_CODEC_OK;
}

int put_credentials(const mqtt_connect_para &para, byte_writer *body) noexcept {
    if (para.username_flag) {
        if (para.username_len == 0 || para.username_len > k_credential_max) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: invalid username (len=%d)",
                    static_cast<int>(para.username_len));
            return MQTT_CODEC_ERR_PARAM;
        }
        body->field(para.username, static_cast<int>(para.username_len));
    }
    if (para.password_flag) {
        if (para.password_len == 0 || para.password_len > k_credential_max) {
            ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: invalid password (len=%d)",
                    static_cast<int>(para.password_len));
            return MQTT_CODEC_ERR_PARAM;
        }
        body->field(para.password, static_cast<int>(para.password_len));
    }
    return MQTT_CODEC_OK;
}

int put_body(const mqtt_connect_para &para, uint32_t level, byte_writer *body) noexcept {
    const int id_len = static_cast<int>(strnlen(para.client_id, sizeof para.client_id));
    int rc = check_client_id(id_len, level);
    if (rc == MQTT_CODEC_OK) rc = put_variable_header(para, level, body);
    if (rc != MQTT_CODEC_OK) return rc;
    if (level == 5) put_properties(para, body);
    body->field(para.client_id, id_len);
    if (para.will_flag) rc = put_will(para, level, body);
    if (rc == MQTT_CODEC_OK) rc = put_credentials(para, body);
    return rc;
}

int buffer_full(int need, int available) noexcept {
    ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: buffer full (need=%d, available=%d)", need, available);
    return MQTT_CODEC_ERR_BUFFER;
}

}  // namespace

int mqtt_codec_encode_connect(mqtt_codec_ctx *ctx, const mqtt_connect_para *para, uint8_t *buf,
                              int *buf_len) {
    const int capacity = length_or_zero(buf_len);
    if (ctx == nullptr || para == nullptr || buf == nullptr || capacity < k_min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "CONNECT encode: invalid param (ctx=%p, para=%p, buf=%p, buf_len=%p, len=%d)", addr(ctx),
                addr(para), addr(buf), addr(buf_len), capacity);
        return MQTT_CODEC_ERR_PARAM;
    }
    const uint32_t level = codec_level(ctx);
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: unsupported version %d (only 3.1.1/5.0 allowed)",
                static_cast<int>(level));
        return MQTT_CODEC_ERR_VERSION;
    }
    uint8_t scratch[k_scratch_bytes];
    byte_writer body{scratch, sizeof scratch};
    const int rc = put_body(*para, level, &body);
    if (rc != MQTT_CODEC_OK) return rc;
    // A large will and long credentials together, each within its limit, exceed the scratch area.
    if (!body.fits()) return buffer_full(body.len, body.cap);

    const length_field length = encode_length_field(body.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "CONNECT encode: encode remaining length failed (var_len=%d)", body.len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    if (length.total > capacity) return buffer_full(length.total, capacity);
    write_packet(k_connect_first_byte, length, body, buf, buf_len);
    ZEB_LOG(AGENT_LOG_DEBUG, "CONNECT encode: success (level=%u, len=%d)", level, length.total);
    codec_set_type(ctx, MQTT_PKT_CONNECT);
    return MQTT_CODEC_OK;
}

}  // namespace zeb
