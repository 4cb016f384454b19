#include <cstring>

#include "codec/codec_frame.h"
#include "codec/codec_publish_properties.h"

namespace zeb {

namespace {

constexpr uint8_t k_prop_message_expiry = 0x02;
constexpr uint8_t k_prop_topic_alias = 0x23;

// Bytes from a property's identifier to the next one. Kept: nothing stands between 0x23 and its value here.
constexpr int k_message_expiry_step = 5;
constexpr int k_topic_alias_step = 3;
constexpr int k_undecodable_step = 2;

int read_flags(const fixed_header &h, mqtt_publish_para *para) noexcept {
    if (h.type() != MQTT_PKT_PUBLISH) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: not a PUBLISH packet (type=%d, expect=%d)", h.type(),
                MQTT_PKT_PUBLISH);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    para->retain = h.flags() & 1;
    para->qos = static_cast<uint32_t>(h.flags() >> 1) & 3;
    para->dup = static_cast<uint8_t>(h.flags() >> 3);
    if (para->qos > 2) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid QoS=%d (protocol require 0/1/2)",
                static_cast<int>(para->qos));
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

// Bounded by the buffer, not by the packet; kept.
int read_topic(byte_reader *r, mqtt_publish_para *para) noexcept {
    uint16_t len = 0;
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "PUBLISH decode: buffer too short for topic length (need 2 bytes) - pos=%d, buf_len=%d",
                r->pos, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (len == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid topic length=0 (protocol require non-empty topic)");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (len > MQTT_MAX_TOPIC) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: topic length exceed max (%d > %d)", len, MQTT_MAX_TOPIC);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!r->text(len, para->topic)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "PUBLISH decode: buffer too short for topic content - pos+len=%d > buf_len=%d", r->pos + len,
                r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

int read_packet_id(byte_reader *r, int packet_end, mqtt_publish_para *para) noexcept {
    const int remaining = packet_end - r->pos;
    if (remaining < 2 || !r->be16(&para->packet_id)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "PUBLISH decode: buffer too short for msg id (need 2 bytes) - remaining=%d, pos+2=%d > "
                "buf_len=%d",
                remaining, r->pos + 2, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (para->packet_id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid msg id=0 (protocol require 1~65535 for QoS1/QoS2)");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

// Whether what follows has the shape of an MQTT 5.0 property block; then the reader moves behind the length.
// The connection's level is not asked: a 3.1.1 payload that reads as a fitting length is taken for a block.
bool recognise_properties(byte_reader *r, int rest, int32_t *property_len) noexcept {
    if (rest <= 0) return false;
    byte_reader peek = r->block(rest);
    int32_t len = -1;
    if (!peek.varint(&len) || len > peek.left()) {
        ZEB_LOG(AGENT_LOG_DEBUG, "PUBLISH decode: no MQTT 5.0 prop (prop_len=%d), version remain 3.1.1", len);
        return false;
    }
    r->pos = peek.pos;
    *property_len = len;
    return true;
}

// One property. Values must lie inside the block, but a step may lead out of it and into the payload; kept.
void read_property(byte_reader *r, int block_end, mqtt_publish_para *para) noexcept {
    byte_reader in = r->block(block_end - r->pos);
    uint8_t id = 0;
    (void)in.u8(&id);  // the caller has seen that a byte is left
    if (id == k_prop_message_expiry) {
        if (!in.be32(&para->msg_expiry_interval)) {
            ZEB_LOG(AGENT_LOG_WARN, "PUBLISH decode: msg_expiry_interval buffer short - pos=%d, need 4 bytes",
                    in.pos);
        }
        r->skip(k_message_expiry_step);
        return;
    }
    if (id == k_prop_topic_alias) {
        if (!in.be16(&para->topic_alias)) {
            ZEB_LOG(AGENT_LOG_WARN, "PUBLISH decode: topic_alias buffer short - pos=%d, need 2 bytes",
                    in.pos);
        }
        r->skip(k_topic_alias_step);
        return;
    }
    ZEB_LOG(AGENT_LOG_WARN, "PUBLISH decode: unknown property type 0x%02X, pos=%d", id, in.pos);
    int32_t attr_len = 0;
    if (!in.varint(&attr_len)) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: invalid attr len for type 0x%02X, skip 1 byte", id);
        r->skip(k_undecodable_step);
        return;
    }
    r->pos = in.pos;
    r->skip(attr_len);
}

// A block is taken for one when it fits; its last property may lead out of it and into the payload.
uint32_t read_properties_by_shape(byte_reader *r, int packet_end, mqtt_publish_para *para) noexcept {
    int32_t property_len = 0;
    const bool v5 = recognise_properties(r, packet_end - r->pos, &property_len);
    const int block_end = r->pos + property_len;
    while (r->pos < block_end) read_property(r, block_end, para);
    return v5 ? 5 : 4;
}

int read_payload(byte_reader *r, int packet_end, mqtt_publish_para *para) noexcept {
    int len = packet_end - r->pos;
    if (len <= 0) return MQTT_CODEC_OK;
    if (len > MQTT_MAX_PAYLOAD) {
        ZEB_LOG(AGENT_LOG_WARN, "PUBLISH decode: payload length exceed max (%d > %d), truncate to max", len,
                MQTT_MAX_PAYLOAD);
        len = MQTT_MAX_PAYLOAD;
    }
    const uint8_t *payload = nullptr;
    // GCOV_EXCL_START: the packet is whole in the buffer
    if (!r->bytes(len, &payload)) {
        ZEB_LOG(AGENT_LOG_ERROR, "PUBLISH decode: buffer too short for payload - pos+len=%d > buf_len=%d",
                r->pos + len, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    // GCOV_EXCL_STOP
    memcpy(para->payload, payload, static_cast<size_t>(len));
    para->payload_len = static_cast<uint32_t>(len);
    return MQTT_CODEC_OK;
}

// Everything behind the fixed header.
int read_body(byte_reader *r, int packet_end, mqtt_codec_ctx *ctx, mqtt_publish_para *para) noexcept {
    int rc = read_topic(r, para);
    if (rc == MQTT_CODEC_OK && para->qos > 0) rc = read_packet_id(r, packet_end, para);
    if (rc != MQTT_CODEC_OK) return rc;

    uint32_t level = codec_level(ctx);
    if (!codec_level_is_fixed(ctx))
        level = read_properties_by_shape(r, packet_end, para);
    else if (level == 5)
        rc = codec_read_publish_properties(r, packet_end, para);
    if (rc == MQTT_CODEC_OK) rc = read_payload(r, packet_end, para);
    if (rc == MQTT_CODEC_OK) codec_suggest_level(ctx, level);
    return rc;
}

}  // namespace

int mqtt_codec_decode_publish(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                              mqtt_publish_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < 2) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "PUBLISH decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)", addr(ctx),
                addr(buf), addr(buf_len), len, addr(para));
        return MQTT_CODEC_ERR_PARAM;
    }
    memset(para, 0, sizeof *para);
    trace_packet("PUBLISH decode: input", buf, len);
    byte_reader r{buf, 0, len};
    const fixed_header h = read_fixed_header(&r);
    int rc = read_flags(h, para);
    if (rc != MQTT_CODEC_OK) return rc;
    if (!h.whole_in(len)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "PUBLISH decode: invalid remaining length (len=%d, consumed=%d, total need=%d, buf_len=%d)",
                h.remaining, h.used, h.total(), len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    rc = read_body(&r, h.total(), ctx, para);
    if (rc != MQTT_CODEC_OK) return rc;
    ZEB_LOG(AGENT_LOG_DEBUG,
            "PUBLISH decode: success (topic=%s, qos=%u, retain=%d, dup=%d, id=%d, payload=%u)", para->topic,
            para->qos, para->retain, para->dup, para->packet_id, para->payload_len);
    return finish_decode(ctx, MQTT_PKT_PUBLISH, r.pos, buf_len);
}

}  // namespace zeb
