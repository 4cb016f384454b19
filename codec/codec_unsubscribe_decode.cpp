#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr uint8_t k_first_byte = 0xA2;
constexpr int k_min_packet_bytes = 4;
constexpr uint32_t k_max_remaining = 2048;
constexpr uint32_t k_msg_id_bytes = 2;
constexpr uint8_t k_prop_subscription_identifier = 0x0B;

enum class narrow_length { ok, too_large, cut_short };

// A variable-length integer whose multiplier is kept in 8 bits (1, 128, then 0): a third byte adds nothing.
// UNSUBSCRIBE alone is read this way; clients see the resulting limits, so it stays.
narrow_length read_narrow_length(byte_reader *r, uint32_t max, uint32_t *value) noexcept {
    *value = 0;
    uint8_t multiplier = 1;
    uint8_t byte = 0;
    do {
        if (!r->u8(&byte)) return narrow_length::cut_short;
        *value += (byte & 0x7Fu) * multiplier;
        if (*value > max) return narrow_length::too_large;
        multiplier = static_cast<uint8_t>(multiplier * 128u);
    } while ((byte & 0x80) != 0);
    return narrow_length::ok;
}

// Narrows the reader to the packet.
int read_remaining_length(byte_reader *r, uint32_t *remaining) noexcept {
    const int total_len = r->end;
    switch (read_narrow_length(r, k_max_remaining, remaining)) {
        case narrow_length::too_large:
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE剩余长度超限：rem_len=%u 最大允许=%u", *remaining,
                    k_max_remaining);
            return MQTT_CODEC_ERR_BUFFER;
        case narrow_length::cut_short:
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE剩余长度解码越界：offset=%d total_len=%d", r->pos,
                    total_len);
            return MQTT_CODEC_ERR_BUFFER;
        case narrow_length::ok:
            break;
    }
    if (static_cast<int>(*remaining) > r->left() || *remaining < k_msg_id_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE剩余长度不合法：offset=%d rem_len=%u total_len=%d", r->pos,
                *remaining, total_len);
        return MQTT_CODEC_ERR_BUFFER;
    }
    *r = r->block(static_cast<int>(*remaining));
    return MQTT_CODEC_OK;
}

int read_v5_properties(byte_reader *r, uint32_t max, mqtt_unsubscribe_para *para) noexcept {
    uint32_t property_len = 0;
    switch (read_narrow_length(r, max, &property_len)) {
        case narrow_length::too_large:
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE 5.0属性长度超限：prop_len=%u 最大允许=%u", property_len,
                    max);
            return MQTT_CODEC_ERR_BUFFER;
        case narrow_length::cut_short:
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE 5.0属性长度解码越界：offset=%d rem_len_end=%d", r->pos,
                    r->end);
            return MQTT_CODEC_ERR_MALFORMED;
        case narrow_length::ok:
            break;
    }
    const int block_len = static_cast<int>(property_len);
    if (block_len > r->left()) {
        ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE 5.0属性长度越界：prop_end=%d rem_len_end=%d",
                r->pos + block_len, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    byte_reader block = r->block(block_len);
    r->skip(block_len);
    uint8_t id = 0;
    while (block.u8(&id)) {
        if (id != k_prop_subscription_identifier) {
            ZEB_LOG(AGENT_LOG_WARN, "MQTT 5.0不支持的UNSUBSCRIBE属性：0x%02X", id);
            block.skip(1);
        } else if (!block.u8(&para->subscription_identifier)) {
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE 5.0订阅标识符长度不足");
            return MQTT_CODEC_ERR_MALFORMED;
        }
    }
    return MQTT_CODEC_OK;
}

// For a context without a level: what would reach the packet's end as a property block is a filter of 3.1.1.
void recognise_level(byte_reader *r, mqtt_codec_ctx *ctx) noexcept {
    byte_reader peek = *r;
    uint32_t property_len = 0;
    const bool decoded = read_narrow_length(&peek, UINT32_MAX, &property_len) == narrow_length::ok;
    if (!decoded || static_cast<int>(property_len) >= peek.left()) {
        codec_set_level(ctx, 4);
        ZEB_LOG(AGENT_LOG_INFO, "UNSUBSCRIBE自动识别为3.1.1版本");
        return;
    }
    codec_set_level(ctx, 5);
    ZEB_LOG(AGENT_LOG_INFO, "UNSUBSCRIBE自动识别为5.0版本");
    peek.skip(static_cast<int>(property_len));
    r->pos = peek.pos;
}

int read_properties(byte_reader *r, uint32_t remaining, mqtt_codec_ctx *ctx,
                    mqtt_unsubscribe_para *para) noexcept {
    const uint32_t level = codec_level(ctx);
    if (level == 5) return read_v5_properties(r, remaining - k_msg_id_bytes, para);
    if (level != 4) recognise_level(r, ctx);
    return MQTT_CODEC_OK;
}

int read_filters(byte_reader *r, mqtt_unsubscribe_para *para) noexcept {
    while (r->left() > 0) {
        if (para->filter_count == MQTT_MAX_FILTERS) {
            ZEB_LOG(AGENT_LOG_WARN, "UNSUBSCRIBE Topic数超过上限：当前=%d 最大=%d", para->filter_count,
                    MQTT_MAX_FILTERS);
            break;
        }
        uint16_t len = 0;
        if (!r->be16(&len)) {
            ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE Topic长度字段越界：offset=%d rem_len_end=%d", r->pos,
                    r->end);
            return MQTT_CODEC_ERR_MALFORMED;
        }
        if (len == 0 || !r->text(len, para->topic_filters[para->filter_count])) {
            ZEB_LOG(AGENT_LOG_ERROR,
                    "UNSUBSCRIBE Topic长度非法：len=%u 最大允许=%u offset+len=%d rem_len_end=%d", len,
                    static_cast<unsigned>(MQTT_MAX_TOPIC), r->pos + len, r->end);
            return MQTT_CODEC_ERR_MALFORMED;
        }
        ++para->filter_count;
    }
    return MQTT_CODEC_OK;
}

}  // namespace

int mqtt_codec_decode_unsubscribe(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                  mqtt_unsubscribe_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < k_min_packet_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE解码参数非法：ctx=%p buf=%p buf_len=%d para=%p", addr(ctx),
                addr(buf), len, addr(para));
        return MQTT_CODEC_ERR_PARAM;
    }
    memset(para, 0, sizeof *para);
    trace_packet("UNSUBSCRIBE decode: input", buf, len);
    byte_reader r{buf, 0, len};
    uint8_t first = 0;
    if (!r.u8(&first) || first != k_first_byte) {
        ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE固定报头非法：类型=%d 保留位=0x%02X（预期0x02）", first >> 4,
                first & 0x0Fu);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    codec_set_type(ctx, MQTT_PKT_UNSUBSCRIBE);
    uint32_t remaining = 0;
    int rc = read_remaining_length(&r, &remaining);
    if (rc != MQTT_CODEC_OK) return rc;
    if (!r.be16(&para->msg_id) || para->msg_id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "UNSUBSCRIBE消息ID非法：msg_id=0");
        return MQTT_CODEC_ERR_PARAM;
    }
    rc = read_properties(&r, remaining, ctx, para);
    if (rc == MQTT_CODEC_OK) rc = read_filters(&r, para);
    if (rc != MQTT_CODEC_OK) return rc;
    ZEB_LOG(AGENT_LOG_DEBUG, "UNSUBSCRIBE decode: success (id=%d, filters=%d)", para->msg_id,
            para->filter_count);
    return finish_decode(ctx, MQTT_PKT_UNSUBSCRIBE, r.pos, buf_len);
}

}  // namespace zeb
