#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr uint8_t k_first_byte = 0x82;
constexpr int k_min_capacity = 128;
constexpr int k_scratch_bytes = 1024;
constexpr uint8_t k_qos_mask = 3;
constexpr uint8_t k_prop_subscription_identifier = 0x0B;
constexpr uint8_t k_encoded_property_bytes = 3;
constexpr uint8_t k_encoded_property_filler = 0x01;  // before the value, unlike what the decoder reads; kept

int check_record(const mqtt_subscribe_para &para, uint32_t level) noexcept {
    if (para.filter_count < 1 || para.filter_count > MQTT_MAX_FILTERS) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: invalid filter count %d", para.filter_count);
        return MQTT_CODEC_ERR_PARAM;
    }
    if (!is_known_level(level)) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: unsupported version %d", static_cast<int>(level));
        return MQTT_CODEC_ERR_VERSION;
    }
    if (para.msg_id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: msg_id cannot be zero");
        return MQTT_CODEC_ERR_PARAM;
    }
    return MQTT_CODEC_OK;
}

void put_properties(const mqtt_subscribe_para &para, byte_writer *body) noexcept {
    if (para.subscription_identifier == 0) {
        body->u8(0);
        return;
    }
    body->u8(k_encoded_property_bytes);
    body->u8(k_prop_subscription_identifier);
    body->u8(k_encoded_property_filler);
    body->u8(static_cast<uint8_t>(para.subscription_identifier));
}

// The number of filters written; one of an impossible length is left out.
int put_filters(const mqtt_subscribe_para &para, byte_writer *body) noexcept {
    int written = 0;
    for (int i = 0; i < para.filter_count; ++i) {
        const int len = static_cast<int>(strnlen(para.topic_filters[i], sizeof para.topic_filters[i]));
        if (len == 0 || len > MQTT_MAX_TOPIC) {
            ZEB_LOG(AGENT_LOG_WARN, "SUBSCRIBE encode: invalid filter len %d for index %d", len, i);
            continue;
        }
        body->field(para.topic_filters[i], len);
        body->u8(static_cast<uint8_t>(para.requested_qos[i] & k_qos_mask));
        ++written;
    }
    return written;
}

int buffer_full(int need, int have) noexcept {
    ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: buffer full (need %d, have %d)", need, have);
    return MQTT_CODEC_ERR_BUFFER;
}

}  // namespace

int mqtt_codec_encode_subscribe(mqtt_codec_ctx *ctx, const mqtt_subscribe_para *para, uint8_t *buf,
                                int *buf_len) {
    const int capacity = length_or_zero(buf_len);
    if (ctx == nullptr || para == nullptr || buf == nullptr || capacity < k_min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: invalid param");
        return MQTT_CODEC_ERR_PARAM;
    }
    const uint32_t level = codec_level(ctx);
    const int rc = check_record(*para, level);
    if (rc != MQTT_CODEC_OK) return rc;

    uint8_t scratch[k_scratch_bytes];
    byte_writer body{scratch, sizeof scratch};
    body.be16(para->msg_id);
    if (level == 5) put_properties(*para, &body);
    if (put_filters(*para, &body) == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: no valid topic filters");
        return MQTT_CODEC_ERR_PARAM;
    }
    if (!body.fits()) return buffer_full(body.len, body.cap);

    const length_field length = encode_length_field(body.len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length.valid()) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE encode: encode remaining length failed");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    if (length.total > capacity) return buffer_full(length.total, capacity);
    write_packet(k_first_byte, length, body, buf, buf_len);
    trace_packet("SUBSCRIBE encode: packet", buf, length.total);
    codec_set_type(ctx, MQTT_PKT_SUBSCRIBE);
    return MQTT_CODEC_OK;
}

}  // namespace zeb
