#include <cstring>

#include "codec/codec_frame.h"

namespace zeb {

namespace {

constexpr int k_flags = 0x02;
constexpr int k_min_packet_bytes = 6;
constexpr uint8_t k_qos_mask = 3;

struct subscribe_property {
    uint8_t id;
    const char *incomplete;
    void (*store)(mqtt_subscribe_para *para, uint8_t value);
};

// This system's own assignments in SUBSCRIBE: each an identifier byte and exactly one value byte.
constexpr subscribe_property k_properties[] = {
    {0x0B, "SUBSCRIBE decode: incomplete subscription identifier",
     [](mqtt_subscribe_para *para, uint8_t v) { para->subscription_identifier = v; }},
    {0x26, "SUBSCRIBE decode: incomplete max QoS",
     [](mqtt_subscribe_para *para, uint8_t v) { para->max_qos = v & k_qos_mask; }},
    {0x27, "SUBSCRIBE decode: incomplete retain handling",
     [](mqtt_subscribe_para *para, uint8_t v) { para->retain_handling = v; }},
};

int check_header(const fixed_header &h, int len) noexcept {
    if (h.type() != MQTT_PKT_SUBSCRIBE) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: not a SUBSCRIBE packet (type=%d, expect=%d)", h.type(),
                MQTT_PKT_SUBSCRIBE);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (h.flags() != k_flags) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: invalid flags (0x%02X, expect=0x02)",
                static_cast<unsigned>(h.flags()));
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (!h.whole_in(len)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "SUBSCRIBE decode: invalid remaining length (len=%d, consumed=%d, total=%d, buf_len=%d)",
                h.remaining, h.used, h.total(), len);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

int read_msg_id(byte_reader *r, uint16_t *id) noexcept {
    if (!r->be16(id)) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: buffer too short for msg id (pos=%d, payload_end=%d)",
                r->pos, r->end);
        return MQTT_CODEC_ERR_MALFORMED;
    }
    if (*id == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: invalid msg id (0, must be >0)");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return MQTT_CODEC_OK;
}

const subscribe_property *find_property(uint8_t id) noexcept {
    for (const subscribe_property &row : k_properties)
        if (row.id == id) return &row;
    return nullptr;
}

// A property that this system does not know; false when the rest of the block cannot be made out.
bool skip_unknown_property(byte_reader *block, uint8_t id) noexcept {
    int32_t attr_len = -1;
    (void)block->varint(&attr_len);  // -1 says it all
    ZEB_LOG(AGENT_LOG_WARN, "SUBSCRIBE decode: unknown property type 0x%02X, attr_len=%d", id, attr_len);
    if (attr_len < 1) return false;
    block->skip(attr_len);
    return true;
}

// A block whose length does not decode is not there at all: the filters then begin at the same position.
void read_properties(byte_reader *r, mqtt_subscribe_para *para) noexcept {
    int32_t property_len = 0;
    if (!r->varint(&property_len)) return;
    byte_reader block = r->block(property_len);
    r->skip(property_len);
    uint8_t id = 0;
    while (block.u8(&id)) {
        const subscribe_property *property = find_property(id);
        if (property == nullptr) {
            if (!skip_unknown_property(&block, id)) return;
            continue;
        }
        uint8_t value = 0;
        if (!block.u8(&value)) {
            ZEB_LOG(AGENT_LOG_WARN, "%s", property->incomplete);
            return;
        }
        property->store(para, value);
    }
}

// One filter with its options; false when parsing has to stop there.
bool read_filter(byte_reader *r, mqtt_subscribe_para *para) noexcept {
    uint16_t len = 0;
    if (!r->be16(&len)) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "SUBSCRIBE decode: buffer too short for topic filter length (pos=%d, payload_end=%d)", r->pos,
                r->end);
        return false;
    }
    const int index = para->filter_count;
    if (len == 0 || !r->text(len, para->topic_filters[index])) {
        ZEB_LOG(AGENT_LOG_WARN,
                "SUBSCRIBE decode: invalid topic filter length %d (max=%d, pos+len=%d, payload_end=%d)", len,
                MQTT_MAX_TOPIC, r->pos + len, r->end);
        return false;
    }
    uint8_t options = 0;
    if (!r->u8(&options)) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: buffer too short for req qos (pos=%d, payload_end=%d)",
                r->pos, r->end);
        return false;
    }
    para->requested_qos[index] = options & k_qos_mask;
    ++para->filter_count;
    ZEB_LOG(AGENT_LOG_DEBUG, "SUBSCRIBE decode: filter[%d]=%s, options=0x%02X", index,
            para->topic_filters[index], options);
    return true;
}

}  // namespace

int mqtt_codec_decode_subscribe(mqtt_codec_ctx *ctx, const uint8_t *buf, int *buf_len,
                                mqtt_subscribe_para *para) {
    const int len = length_or_zero(buf_len);
    if (ctx == nullptr || buf == nullptr || para == nullptr || len < k_min_packet_bytes) {
        ZEB_LOG(AGENT_LOG_ERROR,
                "SUBSCRIBE decode: invalid param (ctx=%p, buf=%p, buf_len=%p, len=%d, para=%p)", addr(ctx),
                addr(buf), addr(buf_len), len, addr(para));
        return MQTT_CODEC_ERR_PARAM;
    }
    memset(para, 0, sizeof *para);
    trace_packet("SUBSCRIBE decode: input", buf, len);
    byte_reader whole{buf, 0, len};
    const fixed_header h = read_fixed_header(&whole);
    int rc = check_header(h, len);
    if (rc != MQTT_CODEC_OK) return rc;
    byte_reader r = whole.block(h.remaining);
    rc = read_msg_id(&r, &para->msg_id);
    if (rc != MQTT_CODEC_OK) return rc;
    if (codec_level(ctx) == 5 && r.left() > 0) read_properties(&r, para);
    // A packet cut short behind a good filter is accepted with the filters read so far.
    while (r.left() > 0 && para->filter_count < MQTT_MAX_FILTERS && read_filter(&r, para)) {
    }
    if (para->filter_count == 0) {
        ZEB_LOG(AGENT_LOG_ERROR, "SUBSCRIBE decode: no valid topic filters (filter_count=0)");
        return MQTT_CODEC_ERR_MALFORMED;
    }
    return finish_decode(ctx, MQTT_PKT_SUBSCRIBE, r.pos, buf_len);
}

}  // namespace zeb
