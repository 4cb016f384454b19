#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr uint8_t k_first_byte = 0x30;
constexpr int k_min_capacity = 128;
constexpr int k_scratch_bytes = 2112;  // limit of the body, payload included
constexpr int k_properties_max_bytes = 9;

constexpr uint8_t k_prop_message_expiry = 0x02;
constexpr uint8_t k_prop_topic_alias = 0x23;
constexpr uint8_t k_topic_alias_filler = 0x02;  // stands between identifier and value; kept

bool has_packet_id(uint32_t qos) noexcept {
    return qos == 1 || qos == 2;
}

int check_arguments(const mqtt_codec_ctx *ctx, const mqtt_publish_para *para, const uint8_t *buf,
                    const int *buf_len, uint32_t *level) noexcept {
    if (ctx == nullptr || para == nullptr || buf == nullptr || buf_len == nullptr) {
        ZEB_LOG(
            AGENT_LOG_ERROR,
            "[PUBLISH ENCODE] Step 1 ERROR: Null pointer detected (ctx=%p, para=%p, buf=%p, buf_len=%p)\n",
            addr(ctx), addr(para), addr(buf), addr(buf_len));
        return MQTT_CODEC_ERR_PARAM;
    }
    if (*buf_len < k_min_capacity) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 1 ERROR: Buffer too small (required=%d, actual=%d) "
                "[MQTT 5.0 §3.3.1.4]\n",
                k_min_capacity, *buf_len);
        return MQTT_CODEC_ERR_PARAM;
    }
    *level = codec_level(ctx);  // read once: another thread may set it meanwhile
    if (!is_known_level(*level)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 1 ERROR: Unsupported version %d (only 3.1.1/5.0) [MQTT 5.0 §1.2]\n",
                static_cast<int>(*level));
        return MQTT_CODEC_ERR_VERSION;
    }
    return MQTT_CODEC_OK;
}

int check_record(const mqtt_publish_para &para, int topic_len) noexcept {
    if (topic_len == 0 || topic_len > MQTT_MAX_TOPIC) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 1 ERROR: Invalid topic (len=%d, max=%d) [MQTT 5.0 §3.3.2.1]\n",
                topic_len, MQTT_MAX_TOPIC);
        return MQTT_CODEC_ERR_PARAM;
    }
    if (has_packet_id(para.qos) && para.packet_id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 1 ERROR: QoS1/2 requires non-zero Packet ID [MQTT 5.0 §3.3.2.2]\n");
        return MQTT_CODEC_ERR_PARAM;
    }
    if (para.payload_len > sizeof para.payload) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 1 ERROR: Invalid payload len (len=%d, max=%d) [MQTT 5.0 §3.3.3]\n",
                static_cast<int>(para.payload_len), MQTT_MAX_PAYLOAD);
        return MQTT_CODEC_ERR_PARAM;
    }
    return MQTT_CODEC_OK;
}

int put_properties(const mqtt_publish_para &para, byte_writer *body) noexcept {
    uint8_t block[k_properties_max_bytes];
    byte_writer w{block, sizeof block};
    if (para.msg_expiry_interval != 0) {
        w.u8(k_prop_message_expiry);
        w.be32(para.msg_expiry_interval);
    }
    if (para.topic_alias != 0) {
        w.u8(k_prop_topic_alias);
        w.u8(k_topic_alias_filler);
        w.be16(para.topic_alias);
    }
    uint8_t length[4];
    const int used = codec_encode_remaining_length(length, static_cast<uint32_t>(w.len));
    // GCOV_EXCL_START: a property block has at most twelve bytes
    if (used < 1 || used > 4) {
        ZEB_LOG(AGENT_LOG_ERROR, "[PUBLISH ENCODE] Step 4.3 ERROR: Encode Property Length failed (len=%d)\n",
                w.len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    body->bytes(length, used);
    body->bytes(block, w.len);
    // GCOV_EXCL_START: topic, identifier and twelve bytes of properties fit
    if (!body->fits()) {
        ZEB_LOG(AGENT_LOG_ERROR, "[PUBLISH ENCODE] Step 4.3 ERROR: Prop buffer overflow (need=%d, have=%d)\n",
                body->len, body->cap);
        return MQTT_CODEC_ERR_BUFFER;
    }
    // GCOV_EXCL_STOP
    return MQTT_CODEC_OK;
}

// Topic, packet identifier and properties: everything between the fixed header and the payload.
int put_head(const mqtt_publish_para &para, int topic_len, uint32_t level, byte_writer *body) noexcept {
    body->field(para.topic, topic_len);
    if (has_packet_id(para.qos)) body->be16(para.packet_id);
    return level == 5 ? put_properties(para, body) : MQTT_CODEC_OK;
}

uint8_t first_byte(const mqtt_publish_para &para) noexcept {
    return static_cast<uint8_t>(k_first_byte | ((para.qos << 1) & 0x6) | para.retain | (para.dup << 3));
}

// Whether a body of this size fits, and the length field that announces it.
int check_size(int body_len, int capacity, length_field *length) noexcept {
    if (body_len > k_scratch_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 4.4 ERROR: Payload buffer overflow (need=%d, have=%d)\n", body_len,
                k_scratch_bytes);
        return MQTT_CODEC_ERR_BUFFER;
    }
    *length = encode_length_field(body_len);
    // GCOV_EXCL_START: no body comes near the longest length
    if (!length->valid()) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "[PUBLISH ENCODE] Step 5 ERROR: Encode Remaining Length failed (len=%d) "
                "[MQTT 5.0 §2.1.4]\n",
                body_len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    if (length->total > capacity) {
        ZEB_LOG(AGENT_LOG_ERROR, "[PUBLISH ENCODE] Step 6 ERROR: Final buffer overflow (need=%d, have=%d)\n",
                length->total, capacity);
        return MQTT_CODEC_ERR_BUFFER;
    }
    return MQTT_CODEC_OK;
}

}  // namespace

int mqtt_codec_encode_publish(mqtt_codec_ctx *ctx, const mqtt_publish_para *para, uint8_t *buf,
                              int *buf_len) {
    uint32_t level = 0;
    int rc = check_arguments(ctx, para, buf, buf_len, &level);
    if (rc != MQTT_CODEC_OK) return rc;
    const int topic_len = static_cast<int>(strnlen(para->topic, sizeof para->topic));
    rc = check_record(*para, topic_len);
    if (rc != MQTT_CODEC_OK) return rc;

    // The scratch area bounds the whole body, but the payload is copied only once, into the caller's buffer.
    uint8_t scratch[k_scratch_bytes];
    byte_writer head{scratch, sizeof scratch};
    rc = put_head(*para, topic_len, level, &head);
    if (rc != MQTT_CODEC_OK) return rc;
    const int payload_len = static_cast<int>(para->payload_len);
    length_field length;
    rc = check_size(head.len + payload_len, *buf_len, &length);
    if (rc != MQTT_CODEC_OK) return rc;

    byte_writer out{buf, *buf_len};
    out.u8(first_byte(*para));
    out.bytes(length.bytes, length.used);
    out.bytes(scratch, head.len);
    out.bytes(para->payload, payload_len);
    *buf_len = out.len;
    codec_set_type(ctx, MQTT_PKT_PUBLISH);
    trace_packet("[PUBLISH ENCODE] packet", buf, out.len);
    return MQTT_CODEC_OK;
}

int mqtt_codec_publish_id_offset(const uint8_t *packet, int len) {
    if (packet == nullptr) return -1;
    byte_reader r{packet, 0, len};
    const fixed_header h = read_fixed_header(&r);
    const uint32_t qos = (h.first >> 1) & 3u;
    if (h.type() != MQTT_PKT_PUBLISH || !has_packet_id(qos) || !h.whole_in(len)) return -1;
    byte_reader body = r.block(h.remaining);
    uint16_t topic_len = 0;
    const uint8_t *topic = nullptr;
    const bool found = body.be16(&topic_len) && body.bytes(topic_len, &topic) && body.left() >= 2;
    return found ? body.pos : -1;
}

}  // namespace zeb
